// Reading the share configuration of the generic server: the administrator's shares file, and
// Samba's configuration read the way Samba reads it.
#ifndef TELO_PLATFORM_SRC_SHARE_CONFIG_H
#define TELO_PLATFORM_SRC_SHARE_CONFIG_H

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace telo_platform {

struct Share {
    std::string name;
    std::string path;  // as configured: absolute, without Samba's macros
};

// The largest file of the share configuration, and the most read for one lookup (includes
// included), in bytes; the most files one lookup reads.
constexpr size_t kMaxShareFileBytes = 4 * 1024 * 1024;
constexpr size_t kMaxShareConfigBytes = 16 * 1024 * 1024;
constexpr int kMaxShareConfigFiles = 1000;
// Samba's own limit of nested includes.
constexpr int kMaxIncludeDepth = 100;

// Reads one file of the configuration into `content`; false with errno set (ENOENT when it does
// not exist). The default reads a regular file of at most kMaxShareFileBytes.
using ShareFileReader = std::function<bool(const std::string &path, std::string &content)>;
bool readShareFile(const std::string &path, std::string &content);

// The shares of the administrator's shares file: "[name]" sections with a "path" key whose value
// is a JSON string ("\"/srv/a\"") or the plain path (/srv/a). Lines as in the library's section
// config files: trimmed of TAB, LF, CR and SPACE, "#" comments, a header ends with "]". Shares
// whose path is not absolute, or whose name or path holds a NUL byte, are left out; of a section
// named twice the last path counts. Returns false when the file has no section at all: it defines
// no shares.
bool parseSharesFile(const std::string &content, std::vector<Share> &shares);

// Samba's configuration as Samba reads it. Shares are the disk shares: every section but
// [global], [homes] and [printers] that is available and not printable, with a non-empty
// absolute path. Paths with Samba's %-macros depend on the connecting user and are left out.
class SambaConfig {
  public:
    explicit SambaConfig(ShareFileReader read = readShareFile) : read_(std::move(read)) {}

    // Reads `file` and its includes. TELO_ERR_NONE, or the error code with errno and detail():
    // TELO_ERR_SYSTEM or TELO_ERR_BAD_CONFIG (a file cannot be read: errno from
    // readConfigFile), TELO_ERR_BAD_CONFIG when Samba would refuse the configuration (errno
    // EINVAL: a bad header, an unnamed parameter, a bad boolean, a bad copy; ELOOP: includes
    // nested too deep; EFBIG: too much to read).
    unsigned int load(const std::string &file);

    // The disk shares in the order of their sections, after a successful load().
    std::vector<Share> shares() const;

    // What failed, for an administrator: file, line and reason.
    const std::string &detail() const { return detail_; }

  private:
    struct Service {
        std::string name;
        std::string path;
        bool available = true;
        bool printable = false;
        unsigned int setHere = 0;  // parameters set in this section (copy leaves them alone)
    };

    // Reads and parses one file; `includedAt` is the place of the include that names it.
    bool readFile(const std::string &file, int depth, const std::string &includedAt);
    bool parseLine(const std::string &line, const std::string &where, int depth);
    bool setParameter(const std::string &key, const std::string &value, const std::string &where,
                      int depth);
    // Records a failure: `code`, errno `error` and the detail text; returns false.
    bool fail(unsigned int code, int error, const std::string &detail);

    ShareFileReader read_;
    Service global_;
    std::vector<Service> services_;
    std::unordered_map<std::string, size_t> byName_;  // lower-case name to index in services_
    int current_ = -1;                                // index into services_, -1 in [global]
    size_t bytesRead_ = 0;
    int filesRead_ = 0;
    unsigned int code_ = 0;
    int error_ = 0;
    std::string detail_;
};

}  // namespace telo_platform

#endif
