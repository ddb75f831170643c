#include "telobackup/path/path_filter.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <unordered_map>
#include <vector>

#include "path/path_filter_private.h"

namespace TELO {
namespace Backup {

using internal::CompiledPattern;
using internal::MatchSubject;

namespace {

// The star at `pattern` against `path` (match() steps for a star).
int matchStar(const char *pattern, const char *path) {
    bool run = pattern[1] == '*';
    if (run) {
        while (*pattern == '*') ++pattern;
        if (*pattern == '\0') return 1;
    } else {
        ++pattern;
        if (*pattern == '\0') return strchr(path, '/') == nullptr ? 1 : 0;
    }
    if (*path == '\0') return -1;
    for (; *path != '\0'; ++path) {
        int result = PathFilterPrivate::match(pattern, path);
        if (run) {
            if (result != 0 && result != -2) return result;
        } else {
            if (result != 0) return result;
            if (*path == '/') return -2;
        }
    }
    return -1;
}

// rebase() in time polynomial in the lengths: trying every place of the prefix for every single
// star is exponential in the number of stars, so the outcome of a single star at a given place
// of the pattern and of the prefix is worked out once. An outcome's text is always "", "*", a
// tail of the pattern, or "/" and such a tail: it is kept as a kind and an offset.
class Rebaser {
  public:
    enum Kind : uint8_t { kEmpty, kTail, kSlashTail, kStar };
    struct Outcome {
        int code;
        Kind kind;
        size_t at;  // where the tail starts in the pattern
    };

    Rebaser(const char *pattern, const char *prefix)
        : pattern_(pattern), prefix_(prefix), width_(strlen(prefix) + 1) {}

    // rebase() of the pattern from `k` against the prefix from `i`.
    Outcome walk(size_t k, size_t i) {
        if (pattern_[k] == '\0') return prefix_[i] == '\0' ? Outcome{1, kEmpty, 0} : kNoMatch;
        while (prefix_[i] != '\0') {
            char p = pattern_[k];
            if (p == '*') return star(k, i);
            if (p == '?') {
                if (prefix_[i] == '/') return kNoMatch;
            } else {
                if (p == '\\') p = pattern_[++k];
                if (p != prefix_[i]) return kNoMatch;
            }
            ++k;
            ++i;
            if (pattern_[k] == '\0') return prefix_[i] == '\0' ? Outcome{1, kEmpty, 0} : kNoMatch;
        }
        if (pattern_[k] == '/') return {1, kTail, k};
        if (pattern_[k] == '*') return star(k, i);
        return kNoMatch;
    }

    std::string text(const Outcome &outcome) const {
        switch (outcome.kind) {
            case kEmpty:
                return std::string();
            case kTail:
                return std::string(pattern_ + outcome.at);
            case kSlashTail:
                return "/" + std::string(pattern_ + outcome.at);
            default:
                return "*";
        }
    }

  private:
    static constexpr Outcome kNoMatch = {0, kEmpty, 0};

    // The star at `k` against the prefix from `i`.
    Outcome star(size_t k, size_t i) {
        if (pattern_[k + 1] == '*') {
            size_t end = k;
            while (pattern_[end] == '*') ++end;
            return {1, kSlashTail, end - 2};
        }
        size_t rest = k + 1;
        if (pattern_[rest] == '\0') {
            return strchr(prefix_ + i, '/') != nullptr ? kNoMatch : Outcome{1, kStar, 0};
        }
        // The first place from `i` on that decides, else the star takes the whole prefix. Every
        // place passed on the way has that same outcome; it is remembered once the plain tries
        // have taken long enough for the pattern to look adversarial.
        bool remember = steps_ > kPlainSteps;
        Outcome result = {1, kTail, rest};
        size_t firstPassed = passed_.size();
        for (size_t j = i; prefix_[j] != '\0'; ++j) {
            ++steps_;
            if (remember) {
                auto known = decided_.find(k * width_ + j);
                if (known != decided_.end()) {
                    result = known->second;
                    break;
                }
                passed_.push_back(j);
            }
            Outcome r = walk(rest, j);
            if (r.code != 0 && r.code != -2) {
                result = r;
                break;
            }
            if (r.code == 0 && prefix_[j] == '/') {
                result = {-2, kEmpty, 0};
                break;
            }
        }
        for (size_t n = firstPassed; n < passed_.size(); ++n) {
            decided_[k * width_ + passed_[n]] = result;
        }
        passed_.resize(firstPassed);
        return result;
    }

    // Tries of single stars made before their outcomes are remembered.
    static constexpr size_t kPlainSteps = 4096;

    const char *pattern_;
    const char *prefix_;
    size_t width_;
    std::unordered_map<size_t, Outcome> decided_;  // single stars: k * width_ + j
    std::vector<size_t> passed_;  // places of the prefix the stars being tried have passed
    size_t steps_ = 0;
};

}  // namespace

int PathFilterPrivate::match(const char *pattern, const char *path) {
    if (*pattern == '\0') return *path == '\0' ? 1 : 0;
    while (*path != '\0') {
        char p = *pattern;
        if (p == '*') return matchStar(pattern, path);
        if (p == '?') {
            if (*path == '/') return 0;
        } else {
            if (p == '\\') p = *++pattern;
            if (p != *path) return 0;
        }
        ++pattern;
        ++path;
        if (*pattern == '\0') return *path == '\0' ? 1 : 0;
    }
    if (*pattern != '*') return -1;
    return matchStar(pattern, path);
}

int PathFilterPrivate::rebase(const char *pattern, const char *prefix, std::string &out) {
    Rebaser rebaser(pattern, prefix);
    Rebaser::Outcome outcome = rebaser.walk(0, 0);
    if (outcome.code == 1) out = rebaser.text(outcome);
    return outcome.code;
}

void PathFilterPrivate::rebaseList(const std::list<std::string> &patterns,
                                   std::list<std::string> &out, const std::string &prefix) {
    if (prefix.empty()) {
        out = patterns;
        return;
    }
    std::string rest;
    for (const std::string &pattern : patterns) {
        if (rebase(pattern.c_str(), prefix.c_str(), rest) != 1) continue;
        // Throws std::out_of_range for a prefix without "/".
        out.push_back(prefix.substr(prefix.rfind('/')) + rest);
    }
}

// ---- PatternList ------------------------------------------------------------------------------

// Room for `more` patterns, both in the compiled list and in the candidate table; each grows to
// at least twice its size, so adding patterns one by one costs linear time overall. May throw;
// what it changes is invisible (capacity, words of zeros).
void PatternList::reserve(size_t more) {
    size_t count = compiled_.size() + more;
    if (compiled_.capacity() < count) {
        compiled_.reserve(std::max(count, 2 * compiled_.capacity()));
    }
    size_t needed = (count + 63) / 64;
    if (needed <= words_) return;
    size_t words = std::max(needed, 2 * words_);
    std::vector<uint64_t> table(256 * words, 0);
    for (size_t c = 0; c < 256; ++c) {
        for (size_t w = 0; w < words_; ++w) table[c * words + w] = byLastByte_[c * words_ + w];
    }
    byLastByte_.swap(table);
    words_ = words;
}

void PatternList::mark(size_t i, int lastByte) {
    for (size_t c = 0; c < 256; ++c) {
        if (lastByte < 0 || size_t(lastByte) == c)
            byLastByte_[c * words_ + i / 64] |= uint64_t(1) << (i % 64);
    }
}

// Everything that can throw happens before the first change, so a failed allocation leaves
// the list as it was.
void PatternList::add(const std::string &pattern) {
    CompiledPattern compiled(pattern.c_str());
    reserve(1);
    patterns_.push_back(pattern);
    compiled_.push_back(std::move(compiled));
    mark(compiled_.size() - 1, compiled_.back().lastByte());
}

void PatternList::merge(std::list<std::string> &more) {
    std::vector<CompiledPattern> incoming;
    incoming.reserve(more.size());
    for (const std::string &pattern : more) incoming.emplace_back(pattern.c_str());
    reserve(incoming.size());
    // The steps of std::list::merge, spelled out so that unsorted lists are merged the same
    // way instead of breaking its precondition.
    auto here = patterns_.begin();
    auto there = more.begin();
    while (here != patterns_.end() && there != more.end()) {
        if (*there < *here) {
            auto next = std::next(there);
            patterns_.splice(here, more, there);
            there = next;
        } else {
            ++here;
        }
    }
    patterns_.splice(patterns_.end(), more);
    for (CompiledPattern &pattern : incoming) {
        compiled_.push_back(std::move(pattern));
        mark(compiled_.size() - 1, compiled_.back().lastByte());
    }
}

void PatternList::clear() {
    patterns_.clear();
    compiled_.clear();
    byLastByte_.clear();
    words_ = 0;
}

bool PatternList::anyMatches(MatchSubject &subject) const {
    if (compiled_.empty()) return false;
    if (subject.size() == 0) {
        for (const CompiledPattern &pattern : compiled_) {
            if (pattern.matches(subject)) return true;
        }
        return false;
    }
    size_t last = static_cast<unsigned char>(subject.data()[subject.size() - 1]);
    const uint64_t *candidates = &byLastByte_[last * words_];
    for (size_t w = 0; w < words_; ++w) {
        for (uint64_t bits = candidates[w]; bits != 0; bits &= bits - 1) {
            if (compiled_[w * 64 + static_cast<size_t>(__builtin_ctzll(bits))].matches(subject)) {
                return true;
            }
        }
    }
    return false;
}

// ---- PathFilter -------------------------------------------------------------------------------

PathFilter::PathFilter() : d_(new PathFilterPrivate) {}

PathFilter::~PathFilter() {
    delete d_;
}

bool PathFilter::addIncludePattern(const std::string &pattern) {
    d_->include_.add(pattern);
    return true;
}

bool PathFilter::addPriorIncludePattern(const std::string &pattern) {
    d_->priorInclude_.add(pattern);
    return true;
}

bool PathFilter::addExcludePattern(const std::string &pattern) {
    d_->exclude_.add(pattern);
    return true;
}

bool PathFilter::addIncludePattern(std::list<std::string> &patterns) {
    d_->include_.merge(patterns);
    return true;
}

bool PathFilter::addPriorIncludePattern(std::list<std::string> &patterns) {
    d_->priorInclude_.merge(patterns);
    return true;
}

bool PathFilter::addExcludePattern(std::list<std::string> &patterns) {
    d_->exclude_.merge(patterns);
    return true;
}

bool PathFilter::filterOut(const std::string &path) {
    MatchSubject subject(path.c_str(), strlen(path.c_str()));
    if (d_->priorInclude_.anyMatches(subject)) return false;
    if (d_->include_.anyMatches(subject)) return false;
    return d_->exclude_.anyMatches(subject);
}

bool PathFilter::filterOutIncludeException(const std::string &path) {
    MatchSubject subject(path.c_str(), strlen(path.c_str()));
    if (d_->priorInclude_.anyMatches(subject)) return false;
    if (d_->exclude_.anyMatches(subject)) return true;
    if (d_->include_.empty()) return true;
    return !d_->include_.anyMatches(subject);
}

void PathFilter::clear() {
    d_->include_.clear();
    d_->exclude_.clear();
}

bool PathFilter::getIncludePattern(std::list<std::string> &out, const std::string &prefix) {
    PathFilterPrivate::rebaseList(d_->include_.patterns(), out, prefix);
    return true;
}

bool PathFilter::getPriorIncludePattern(std::list<std::string> &out, const std::string &prefix) {
    PathFilterPrivate::rebaseList(d_->priorInclude_.patterns(), out, prefix);
    return true;
}

bool PathFilter::getExcludePattern(std::list<std::string> &out, const std::string &prefix) {
    PathFilterPrivate::rebaseList(d_->exclude_.patterns(), out, prefix);
    return true;
}

}  // namespace Backup
}  // namespace TELO
