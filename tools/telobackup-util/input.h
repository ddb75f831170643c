// What the commands read besides configuration files: standard input and files named on the
// command line, JSON arguments given inline or as @FILE, and a copy of standard input that a
// config command reads as a file.
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_INPUT_H
#define TELO_TOOLS_TELOBACKUP_UTIL_INPUT_H

#include <json/value.h>

#include <cstddef>
#include <memory>
#include <string>

namespace TELO {
namespace Backup {
class ScopedTempFile;
}
}  // namespace TELO

namespace telocli {

// The most the tool reads from one input.
constexpr size_t kMaxInputBytes = size_t(256) << 20;

// The whole text of `path`, or of standard input for "-". `what` names it in errors ("template
// notify.tmpl: ..."). Throws CommandError: not found (1) for a missing file, invalid file (3)
// when it cannot be read or is larger than kMaxInputBytes.
std::string readInput(const std::string &path, const std::string &what);

// The JSON object an argument gives: its own text, or that of @FILE, or of standard input for
// @-. `option` names the argument in errors ("--vars: ..."). Throws CommandError: usage (2) when
// it is no JSON object, and as readInput.
Json::Value readJsonObject(const std::string &argument, const std::string &option);

// A configuration file named on the command line for reading; "-" is standard input, copied
// into a private temporary file (removed with this object) so that it is read as any file is.
class ConfigInput {
  public:
    // Throws CommandError as readInput does.
    explicit ConfigInput(const std::string &argument);
    ~ConfigInput();
    ConfigInput(const ConfigInput &) = delete;
    ConfigInput &operator=(const ConfigInput &) = delete;

    // The file to read.
    const std::string &path() const { return path_; }
    // What messages call it: the argument, or "standard input".
    const std::string &name() const { return name_; }

  private:
    std::string path_, name_;
    std::unique_ptr<TELO::Backup::ScopedTempFile> copy_;
};

}  // namespace telocli

#endif
