// Samba's configuration on arbitrary contents: up to four files f0 to f3 (the input split at
// lines "#FILE"), f0 the main one, in a scratch directory where relative names are looked up (as
// if it were the working directory), so "include = f1" names the next file and "include = f0"
// makes a loop; absolute names are the machine's own files. Invariants: a refusal
// says why; shares have a name and an absolute path without %-macros or NUL bytes; a second read
// gives the same result; the main file with CR LF line ends reads like the one with LF (unless
// the bound of what one lookup reads stops either).
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "scratch_dir.h"
#include "share_config.h"
#include "telo/platform.h"

using fuzzsupport::check;
using telo_platform::SambaConfig;
using telo_platform::Share;

namespace {

constexpr char kSeparator[] = "\n#FILE\n";

std::string describe(SambaConfig &config, unsigned int code) {
    if (code != TELO_ERR_NONE) return "refused " + std::to_string(code) + " " + strerror(errno);
    std::string text;
    for (const Share &share : config.shares()) text += "[" + share.name + "]=" + share.path + "\n";
    return text;
}

// Reads relative names from the scratch directory, and `main` (if given) as the text of f0.
telo_platform::ShareFileReader reader(const std::string *main = nullptr) {
    return [main](const std::string &path, std::string &content) {
        if (main != nullptr && path == "f0") {
            content = *main;
            return true;
        }
        std::string real =
            path.empty() || path[0] == '/' ? path : fuzzsupport::scratchDir() + "/" + path;
        return telo_platform::readShareFile(real, content);
    };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input(reinterpret_cast<const char *>(data), size);
    std::string main;
    for (int i = 0; i < 4; ++i) {
        size_t end = i < 3 ? input.find(kSeparator) : std::string::npos;
        std::string part = input.substr(0, end);
        input = end == std::string::npos ? std::string() : input.substr(end + strlen(kSeparator));
        if (i == 0) main = part;
        fuzzsupport::writeText(fuzzsupport::scratchDir() + "/f" + std::to_string(i), part);
    }

    SambaConfig config(reader());
    unsigned int code = config.load("f0");
    int error = errno;
    if (code != TELO_ERR_NONE) {
        check(!config.detail().empty() && error != 0, "a refusal says why");
    } else {
        for (const Share &share : config.shares()) {
            check(!share.name.empty(), "named");
            check(!share.path.empty() && share.path[0] == '/', "absolute");
            check(share.path.find_first_of(std::string("%\0", 2)) == std::string::npos,
                  "no macro, no NUL");
        }
    }
    std::string first = describe(config, code);
    check(describe(config, config.load("f0")) == first, "deterministic");

    std::string crlf;
    for (char c : main) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    SambaConfig windows(reader(&crlf));
    std::string second = describe(windows, windows.load("f0"));
    // CR bytes count against the bound of what one lookup reads.
    bool bounded = errno == EFBIG || first.find(strerror(EFBIG)) != std::string::npos;
    check(bounded || second == first, "CR LF reads like LF");
    return 0;
}
