// Standard output of the tool: one buffer, written in large pieces, whose failures are reported;
// and its errors and notices on standard error, as text or as JSON objects.
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <memory>

#include "cli.h"
#include "fd_io.h"
#include "telobackup/json_text.h"

namespace telocli {

namespace {

constexpr size_t kBufferSize = 1 << 18;

class StandardOutput {
  public:
    void write(const char *data, size_t size) {
        if (used_ + size > kBufferSize) {
            flush();
            if (size > kBufferSize) {
                writeThrough(data, size);
                return;
            }
        }
        memcpy(buffer_.get() + used_, data, size);
        used_ += size;
    }

    void flush() {
        size_t size = used_;
        used_ = 0;  // a failed write is reported once, not again at exit
        writeThrough(buffer_.get(), size);
    }

  private:
    static void writeThrough(const char *data, size_t size) {
        if (size > 0 && !writeAll(1, data, size)) {
            throw systemError(kExitCannotWrite, "standard output");
        }
    }

    std::unique_ptr<char[]> buffer_{new char[kBufferSize]};
    size_t used_ = 0;
};

StandardOutput &standardOutput() {
    static StandardOutput *output = new StandardOutput;  // outlives every exit path
    return *output;
}

// The length of the well-formed UTF-8 sequence at `p` (at most `left` bytes), or 0.
size_t utf8Length(const unsigned char *p, size_t left) {
    unsigned char c = p[0];
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        if (c == 0xE0) low = 0xA0;   // no overlong forms
        if (c == 0xED) high = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        if (c == 0xF0) low = 0x90;
        if (c == 0xF4) high = 0x8F;  // nothing past U+10FFFF
    } else {
        return 0;
    }
    if (left < length || p[1] < low || p[1] > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (p[i] < 0x80 || p[i] > 0xBF) return 0;
    }
    return length;
}

}  // namespace

void writeOut(const char *data, size_t size) {
    standardOutput().write(data, size);
}

void flushOut() {
    standardOutput().flush();
}

std::string escapeInvalidUtf8(const std::string &text) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
    size_t size = text.size(), i = 0;
    while (i < size && bytes[i] < 0x80) ++i;
    if (i == size) return text;
    std::string out(text, 0, i);
    while (i < size) {
        if (bytes[i] < 0x80) {
            out += static_cast<char>(bytes[i++]);
        } else if (size_t length = utf8Length(bytes + i, size - i)) {
            out.append(text, i, length);
            i += length;
        } else {
            static const char kHex[] = "0123456789abcdef";
            out += "\\u00";
            out += kHex[bytes[i] >> 4];
            out += kHex[bytes[i] & 0xF];
            ++i;
        }
    }
    return out;
}

std::string jsonText(const Json::Value &value) {
    return escapeInvalidUtf8(TELO::Backup::jsonToString(value));
}

void printJson(const Json::Value &value) {
    std::string text = jsonText(value);
    text += '\n';
    writeOut(text.data(), text.size());
}

void printLine(const std::string &text) {
    writeOut(text.data(), text.size());
    writeOut("\n", 1);
}

namespace {
bool jsonDiagnostics = false;
}

void setJsonDiagnostics(bool json) {
    jsonDiagnostics = json;
}

void printError(const std::string &message, int code, const Json::Value &details) {
    if (jsonDiagnostics) {
        Json::Value error = details.isObject() ? details : Json::Value(Json::objectValue);
        error["error"] = message;
        error["exit"] = code;
        std::cerr << jsonText(error) << std::endl;
        return;
    }
    std::string text;
    size_t start = 0;
    do {
        size_t end = message.find('\n', start);
        if (end == std::string::npos) end = message.size();
        text += "telobackup-util: " + message.substr(start, end - start) + "\n";
        start = end + 1;
    } while (start < message.size());
    std::cerr << text << std::flush;
}

void printNotice(const std::string &text) {
    if (jsonDiagnostics) {
        Json::Value notice;
        notice["notice"] = text;
        std::cerr << jsonText(notice) << std::endl;
    } else {
        std::cerr << "telobackup-util: " << text << std::endl;
    }
}

}  // namespace telocli
