#include "telobackup/path/path_util.h"

// Included after the declarations of Path: its basename macro would rename Path::basename.
#include <libgen.h>
#include <unistd.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cstdlib>
#include <cstring>
#include <new>

#include "internal/unique_owners.h"

// libgen.h maps basename to the POSIX flavour with a macro; the definition below is Path's.
#undef basename

namespace TELO {
namespace Backup {

namespace {

const std::string kSeparator = "/";

// Interface limits: a current directory longer than the first, or an executable's path longer
// than the second less one, gives "".
constexpr size_t kCwdBufferSize = 4095;
constexpr size_t kBinPathBufferSize = 4096;

// A heap copy of `path` up to its first NUL byte, for the POSIX functions that modify it.
internal::UniqueMalloc<char> heapCopy(const std::string &path) {
    internal::UniqueMalloc<char> copy(strdup(path.c_str()));
    if (!copy) throw std::bad_alloc();
    return copy;
}

}  // namespace

// ---- Algebra ----------------------------------------------------------------------------------

std::string Path::join(const std::string &a, const std::string &b) {
    size_t leftEnd = a.find_last_not_of('/');
    size_t leftLength = leftEnd == std::string::npos ? 0 : leftEnd + 1;
    size_t rightStart = b.find_first_not_of('/');
    if (rightStart == std::string::npos) rightStart = b.size();
    if (b.compare(rightStart, 2, "./") == 0) rightStart += 2;
    if (b.compare(rightStart, std::string::npos, ".") == 0) rightStart = b.size();
    size_t rightLength = b.size() - rightStart;

    std::string result;
    if (leftLength > 0) {
        if (leftLength == 1 && a[0] == '.') return b.substr(rightStart);
        result.reserve(leftLength + 1 + rightLength);
        result.assign(a, 0, leftLength);
        if (rightLength > 0) {
            result += '/';
            result.append(b, rightStart, rightLength);
        }
        return result;
    }
    if (!a.empty() && a[0] == '/') {
        result.reserve(1 + rightLength);
        result += '/';
    }
    result.append(b, rightStart, rightLength);
    return result;
}

std::string Path::join(const std::string &a, const std::string &b, const std::string &c,
                       const std::string &d, const std::string &e, const std::string &f,
                       const std::string &g) {
    std::string result = join(join(a, b), c);
    for (const std::string *part : {&d, &e, &f, &g}) {
        if (!part->empty()) result = join(result, *part);
    }
    return result;
}

std::string Path::join(std::vector<std::string>::const_iterator first,
                       std::vector<std::string>::const_iterator last) {
    if (first == last) return std::string();
    std::string result = *first;
    for (++first; first != last; ++first) result = join(result, *first);
    return result;
}

std::string Path::join(const std::vector<std::string> &parts) {
    return join(parts.cbegin(), parts.cend());
}

bool Path::split(const std::string &path, std::vector<std::string> &out) {
    out.clear();
    if (path.empty()) return true;
    boost::algorithm::split(out, path, boost::is_any_of(kSeparator));
    if (out.front().empty()) out.front() = kSeparator;
    if (out.size() == 2 && out[0] == kSeparator && out[1].empty()) {
        out.pop_back();
    } else if (out.size() > 1 && out.back().empty()) {
        out.pop_back();
        out.back() += kSeparator;
    }
    return true;
}

std::string Path::token(const std::string &path, unsigned int index) {
    if (path.empty()) return std::string();
    if (index != 0) {
        std::vector<std::string> parts;
        split(path, parts);
        return index < parts.size() ? parts[index] : std::string();
    }
    if (path[0] == '/') return kSeparator;
    size_t slash = path.find('/');
    if (slash == std::string::npos || slash == path.size() - 1) return path;
    if (path.find_first_not_of('/', slash) == std::string::npos) return path.substr(0, slash + 1);
    return path.substr(0, slash);
}

std::string Path::common(const std::string &a, const std::string &b) {
    std::vector<std::string> left, right;
    split(a, left);
    split(b, right);
    auto stripTrailing = [](std::string &s) {
        size_t end = s.find_last_not_of('/');
        s.resize(end == std::string::npos ? 0 : end + 1);
    };
    size_t i = 0;
    for (; i < left.size() && i < right.size(); ++i) {
        if (i == left.size() - 1) stripTrailing(left[i]);
        if (i == right.size() - 1) stripTrailing(right[i]);
        if (left[i] != right[i]) break;
    }
    return join(left.cbegin(), left.cbegin() + static_cast<std::ptrdiff_t>(i));
}

std::string Path::relative(const std::string &path, const std::string &base) {
    if (base.empty()) return std::string();
    size_t end = base.find_last_not_of('/');
    size_t baseLength = end == std::string::npos ? 0 : end + 1;
    // The base is compared with exactly one "/" after it.
    if (path.size() < baseLength + 1 || path.compare(0, baseLength, base, 0, baseLength) != 0 ||
        path[baseLength] != '/') {
        return std::string();
    }
    return path.substr(baseLength + 1);
}

std::string Path::basename(const std::string &path) {
    auto copy = heapCopy(path);
    return std::string(__xpg_basename(copy.get()));
}

std::string Path::dirname(const std::string &path) {
    auto copy = heapCopy(path);
    return std::string(::dirname(copy.get()));
}

std::string Path::absPath(const std::string &path) {
    if (!path.empty() && path[0] == '/') return path;
    char cwd[kCwdBufferSize] = {};
    if (getcwd(cwd, sizeof(cwd)) == nullptr) return std::string();
    return join(cwd, path);
}

// ---- Well-known locations ---------------------------------------------------------------------

std::string Path::getBinPath() {
    char buffer[kBinPathBufferSize] = {};
    if (readlink("/proc/self/exe", buffer, sizeof(buffer) - 1) < 0) return std::string();
    return std::string(buffer);
}

std::string Path::getLogPath() {
    const char *configured = getenv("TELO_LOGFILE");
    if (configured != nullptr) return configured;
    return join(dirname(getBinPath()), "Quarnix.log");
}

// ---- Share-rooted paths -----------------------------------------------------------------------

std::string ConfigPath::shareName(const std::string &path) {
    if (path.empty() || path[0] != '/') return std::string();
    size_t end = path.find('/', 1);
    if (end == std::string::npos) end = path.size();
    return path.substr(1, end - 1);
}

std::string ConfigPath::shareRelativePath(const std::string &path) {
    if (path.empty() || path[0] != '/') return std::string();
    size_t slash = path.find('/', 1);
    if (slash == std::string::npos || slash + 1 == path.size()) return std::string();
    return path.substr(slash + 1);
}

}  // namespace Backup
}  // namespace TELO
