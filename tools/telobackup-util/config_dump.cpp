#include "config_dump.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "cli.h"
#include "telobackup/json_text.h"
#include "telobackup/section_config.h"

namespace telocli {

namespace {

using TELO::Backup::SectionConfig;

// The end of the scalar at `begin` if the JSON library writes it back byte for byte: true,
// false, null, an integer of at most 18 digits in canonical form, or a string without escapes
// or control bytes; else std::string::npos.
size_t verbatimScalarEnd(const char *text, size_t begin, size_t length) {
    size_t i = begin;
    if (i >= length) return std::string::npos;
    if (text[i] == '"') {
        for (++i; i < length && text[i] != '"'; ++i) {
            unsigned char c = static_cast<unsigned char>(text[i]);
            if (c < 0x20 || c == '\\') return std::string::npos;
        }
        return i < length ? i + 1 : std::string::npos;
    }
    if (text[i] == '-') ++i;
    if (i < length && text[i] >= '1' && text[i] <= '9') {
        size_t first = i;
        while (i < length && text[i] >= '0' && text[i] <= '9') ++i;
        return i - first <= 18 ? i : std::string::npos;
    }
    if (i < length && text[i] == '0' && i == begin) return i + 1;  // no "-0"
    for (const char *word : {"true", "false", "null"}) {
        size_t size = strlen(word);
        if (i == begin && length - i >= size && memcmp(text + i, word, size) == 0) return i + size;
    }
    return std::string::npos;
}

// True when `text` is such a scalar, or a compact array of them: the values of a configuration
// are mostly these, and they skip the parse and the rewrite.
bool isVerbatimJson(const char *text, size_t length) {
    if (length == 0) return false;
    if (text[0] != '[') return verbatimScalarEnd(text, 0, length) == length;
    if (length == 2 && text[1] == ']') return true;
    for (size_t i = 1;;) {
        i = verbatimScalarEnd(text, i, length);
        if (i == std::string::npos || i >= length) return false;
        if (text[i] == ']') return i + 1 == length;
        if (text[i] != ',') return false;
        ++i;
    }
}

// Appends `text` as a JSON string.
void appendQuoted(std::string &out, const std::string &text) {
    size_t start = out.size();
    out += '"';
    out += text;
    out += '"';
    if (!isVerbatimJson(out.data() + start, out.size() - start)) {
        out.resize(start);
        out += TELO::Backup::jsonToString(Json::Value(text));
    }
}

// Sections are rendered as JSON text into one buffer as the scan meets them; only the current
// section's members are held apart, to be put in key order when the next header ends it.
class Collector {
  public:
    static bool onLine(bool &, const SectionConfig::LineInfo &info, void *arg) {
        static_cast<Collector *>(arg)->take(info);
        return true;
    }

    // Writes the object of all sections in byte order of their names, the first section of a
    // name standing for all of them.
    void write() {
        render();
        std::stable_sort(sections_.begin(), sections_.end(),
                         [](const Section &a, const Section &b) { return a.name < b.name; });
        std::string out = "{";
        for (size_t i = 0; i < sections_.size(); ++i) {
            if (i > 0 && sections_[i].name == sections_[i - 1].name) continue;
            if (out.size() > 1) out += ',';
            appendQuoted(out, sections_[i].name);
            out += ':';
            out.append(text_, sections_[i].begin, sections_[i].end - sections_[i].begin);
            if (out.size() > (1 << 16)) {
                writeEscaped(out);
                out.clear();
            }
        }
        out += "}\n";
        writeEscaped(out);
    }

  private:
    struct Section {
        std::string name;
        size_t begin, end;  // of its text in text_
    };
    struct Member {
        size_t key, keyLength, value, valueLength;  // in members_
    };

    static void writeEscaped(const std::string &text) {
        std::string escaped = escapeInvalidUtf8(text);
        writeOut(escaped.data(), escaped.size());
    }

    void take(const SectionConfig::LineInfo &info) {
        if (info.type == SectionConfig::LINE_SECTION) {
            render();
            sections_.push_back(Section{info.sectionName, 0, 0});
            open_ = true;
        } else if (info.type == SectionConfig::LINE_KEY_VALUE && open_) {
            size_t keyLength = strlen(info.key), valueLength = strlen(info.value);
            Member member{memberText_.size(), keyLength, 0, 0};
            memberText_.append(info.key, keyLength);
            member.value = memberText_.size();
            if (isVerbatimJson(info.value, valueLength)) {
                memberText_.append(info.value, valueLength);
            } else {
                Json::Value parsed;
                if (!TELO::Backup::jsonFromString(parsed, info.value)) {
                    memberText_.resize(member.key);  // a value that does not parse is skipped
                    return;
                }
                memberText_ += TELO::Backup::jsonToString(parsed);
            }
            member.valueLength = memberText_.size() - member.value;
            members_.push_back(member);
        }
    }

    // Keys in byte order, the last of equal keys winning, as a JSON object holds them.
    void render() {
        if (!open_) return;
        open_ = false;
        auto key = [this](const Member &m) {
            return std::string_view(memberText_.data() + m.key, m.keyLength);
        };
        std::stable_sort(members_.begin(), members_.end(),
                         [&key](const Member &a, const Member &b) { return key(a) < key(b); });
        Section &section = sections_.back();
        section.begin = text_.size();
        text_ += '{';
        bool first = true;
        for (size_t i = 0; i < members_.size(); ++i) {
            if (i + 1 < members_.size() && key(members_[i + 1]) == key(members_[i])) continue;
            if (!first) text_ += ',';
            first = false;
            appendQuoted(text_, std::string(key(members_[i])));
            text_ += ':';
            text_.append(memberText_, members_[i].value, members_[i].valueLength);
        }
        text_ += '}';
        section.end = text_.size();
        members_.clear();
        memberText_.clear();
    }

    std::vector<Section> sections_;
    std::string text_;
    bool open_ = false;
    std::vector<Member> members_;
    std::string memberText_;
};

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};

}  // namespace

void dumpSections(const std::string &file, const std::string &name) {
    // No link another user planted is followed, as for every other config command.
    std::unique_ptr<FILE, FileCloser> in(SectionConfig::openFile(file));
    if (!in) throw fileError(kExitInvalidFile, name, file);
    Collector collector;
    if (!SectionConfig::parseFile(in.get(), Collector::onLine, &collector)) {
        throw systemError(kExitInvalidFile, name);
    }
    in.reset();
    collector.write();
}

}  // namespace telocli
