#include "telobackup/json_text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>

namespace TELO {
namespace Backup {

namespace {

// Deeper nesting is refused rather than parsed, so that no text can exhaust the stack.
constexpr int kMaxNesting = 1000;

std::unique_ptr<Json::StreamWriter> newWriter() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

std::unique_ptr<Json::CharReader> newReader() {
    Json::CharReaderBuilder builder;
    builder["allowComments"] = false;
    builder["failIfExtra"] = true;
    builder["strictRoot"] = false;
    builder["allowSpecialFloats"] = false;
    builder["stackLimit"] = kMaxNesting;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

// The per-thread writer and reader. After the thread's own destructors have run (a late exit
// handler may still format JSON), `gone` is set and calls fall back to a fresh object each.
struct ThreadCodec {
    std::unique_ptr<Json::StreamWriter> writer = newWriter();
    std::unique_ptr<Json::CharReader> reader = newReader();
    ~ThreadCodec();
};

thread_local bool codecGone = false;
ThreadCodec::~ThreadCodec() {
    codecGone = true;
}

ThreadCodec *threadCodec() {
    if (codecGone) return nullptr;
    thread_local ThreadCodec codec;
    return &codec;
}

}  // namespace

std::string jsonToString(const Json::Value &value) {
    std::ostringstream out;
    ThreadCodec *codec = threadCodec();
    if (codec != nullptr) {
        codec->writer->write(value, &out);
    } else {
        newWriter()->write(value, &out);
    }
    return out.str();
}

bool jsonFromString(Json::Value &value, const std::string &text) {
    Json::Value parsed;
    const char *begin = text.data();
    const char *end = begin + text.size();
    ThreadCodec *codec = threadCodec();
    bool ok;
    try {
        ok = codec != nullptr ? codec->reader->parse(begin, end, &parsed, nullptr)
                              : newReader()->parse(begin, end, &parsed, nullptr);
    } catch (const Json::Exception &) {
        // The reader throws instead of failing on some texts (nesting past its depth limit);
        // the reader resets itself at the start of every parse, so it stays usable.
        ok = false;
    }
    if (!ok) return false;
    value.swap(parsed);
    return true;
}

}  // namespace Backup
}  // namespace TELO
