// A fresh temporary directory per test, and small file helpers for assertions.
#ifndef TELO_TESTS_SUPPORT_TEMP_DIR_H
#define TELO_TESTS_SUPPORT_TEMP_DIR_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace testsupport {

// Creates a directory under $TMPDIR (or /tmp) and removes it with everything in it, whatever
// the test did to the modes inside.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    // path() + "/" + name.
    std::string file(const std::string &name) const;

  private:
    std::string path_;
};

// Whole-file helpers; they fail the current test (ADD_FAILURE) on I/O errors.
void writeFile(const std::string &path, const std::string &content, mode_t mode = 0644);
// A directory with exactly `mode`, whatever the umask.
void makeDir(const std::string &path, mode_t mode = 0755);
std::string readFile(const std::string &path);
bool exists(const std::string &path);  // lstat succeeds
// Sorted names in a directory, without "." and "..".
std::vector<std::string> listDir(const std::string &path);
// st_mode & 07777 of lstat, or -1.
int fileMode(const std::string &path);

// The POSIX access ACL "u::rw-,u:UID:r--,g::r--,m::r--,o::---" in the kernel's extended
// attribute form (for system.posix_acl_access or _default), as `setfacl -m u:UID:r` makes it of
// a file of mode 0600.
std::string aclGrantingRead(uid_t uid);
// The extended attribute `name` of `path` (not following a link) in `value`; false when it has
// none or it cannot be read.
bool attributeOf(const std::string &path, const std::string &name, std::string &value);

// Everything at and below `path`, one sorted line per entry: relative name, type, mode, owner,
// and a file's content or a link's target; "" when `path` does not exist. Two equal
// descriptions mean that nothing there was changed.
std::string describeTree(const std::string &path);

// `levels` nested directories "d" below the existing directory `root`, which all (root too)
// hold a file "f"; made relative to descriptors, so that any depth works.
void makeDeepTree(const std::string &root, int levels);

}  // namespace testsupport

#endif
