// Path algebra on arbitrary bytes: no crash, and the relations between the functions hold.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "telobackup/path/path_util.h"
#include "telobackup/stringf.h"

using TELO::Backup::Path;

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input(reinterpret_cast<const char *>(data), size);
    size_t cut = input.find('\n');
    std::string a = input.substr(0, cut);
    std::string b = cut == std::string::npos ? std::string() : input.substr(cut + 1);

    std::vector<std::string> parts;
    check(Path::split(a, parts));
    for (size_t i = 1; i < parts.size() + 2; ++i) {
        check(Path::token(a, static_cast<unsigned>(i)) == (i < parts.size() ? parts[i] : ""));
    }
    // Components never hold a "/" except a leading "/" component and one trailing "/".
    for (size_t i = 0; i < parts.size(); ++i) {
        const std::string &c = parts[i];
        size_t slash = c.find('/');
        check(slash == std::string::npos || slash == c.size() - 1);
    }

    check(Path::common(a, b) == Path::common(b, a));
    std::string rel = Path::relative(a, b);
    check(rel.size() <= a.size() && a.compare(a.size() - rel.size(), rel.size(), rel) == 0);

    std::string joined = Path::join(a, b);
    check(joined.size() <= a.size() + b.size() + 1);
    Path::join(a, b, a, b, "", a, b);
    Path::basename(a);
    Path::dirname(b);

    check(TELO::Backup::stringf("%s|%s", a.c_str(), b.c_str()) ==
          a.substr(0, a.find('\0')) + "|" + b.substr(0, b.find('\0')));
    return 0;
}
