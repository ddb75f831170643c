// Scoped temporary files and folders: one object owns one temporary made from a name template,
// removes it when destroyed, and can hand it over instead (preserve, rename, renameWithMode).
// The volume variants place theirs on the storage volume a filter chooses; TempManager hands out
// the filters.
//
// Every call is synchronous on the caller's thread and takes no lock; one object is used by one
// thread at a time. Diagnostics go to the system log with the source "temp_manager/temp_manager".
#ifndef TELOBACKUP_TEMP_MANAGER_TEMP_MANAGER_H
#define TELOBACKUP_TEMP_MANAGER_TEMP_MANAGER_H

#include <cstdint>
#include <memory>
#include <string>

#include "telobackup/export.h"
#include "telobackup/temp_manager/volume_path_manager.h"

namespace TELO {
namespace Backup {

// Template rules shared by both classes' create(), for a caller's template T:
//   ""                          the class default, "/tmp/scoped_temp_file.XXXXXX" or
//                               "/tmp/scoped_temp_folder.XXXXXX";
//   T ending in "XXXXXX"        used as it stands ("a/bXXXXXX");
//   anything else               T + ".XXXXXX" ("a/b/name" gives "a/b/name.XXXXXX").
// The six X are replaced by random characters. A relative template is taken from the current
// directory; getPath() is always absolute.

// Owns one temporary regular file (mode 0600, descriptor close-on-exec). Not copyable.
class TELO_EXPORT ScopedTempFile {
  public:
    // An empty object that owns nothing; the argument is ignored.
    explicit ScopedTempFile(int);

    // create(templ); when that succeeds and `closeNow` is true the descriptor is closed at once
    // (the file stays and is owned). Test isValid() for the outcome.
    ScopedTempFile(const std::string &templ, bool closeNow);

    // close(), then unlink(). errno is preserved.
    virtual ~ScopedTempFile();

    ScopedTempFile(const ScopedTempFile &) = delete;
    ScopedTempFile &operator=(const ScopedTempFile &) = delete;
    // Hands the file and its descriptor over; the moved-from object owns nothing, as after
    // ScopedTempFile(0). Assignment first closes and removes what this object owned, as the
    // destructor does (errno preserved).
    //     ScopedTempFile spool() { return ScopedTempFile("/var/tmp/spool", false); }
    ScopedTempFile(ScopedTempFile &&other) noexcept;
    ScopedTempFile &operator=(ScopedTempFile &&other) noexcept;

    // Removes whatever the object owned, then creates a file from `templ` (rules above).
    // A name whose last component is too long for the file system (ENAMETOOLONG) and that does
    // not end in "XXXXXX" is shortened: its base name is cut to 248 bytes (or 136 on file
    // systems with 143-byte names) before ".XXXXXX", never inside a UTF-8 character, and the
    // whole path is kept within 4095 bytes; a name ending in "XXXXXX" is never shortened.
    // Failure: false, the object owns nothing, errno from the failing call. Logs
    // "create_truncate_mkstemp failed, %m [%s]" (error) when shortening did not help,
    // "mkstemp failed, %m [%s]" (debug) for other creation failures and
    // "chmod failed [%s], %m" (error), each in the short form "source:line message".
    bool create(const std::string &templ);

    // True when the object owns a file (its path is set and matches its check hash).
    bool isValid() const;

    // The absolute path of the owned file, "" when none.
    std::string getPath() const;

    // The open descriptor, or -1 (closed, or nothing owned).
    int getFileDescripter() const;

    // Closes the descriptor if open; the file stays owned.
    void close();

    // Removes the owned file and gives up ownership, without closing the descriptor.
    // Returns unlink(2)'s result (0, or -1 with errno set); 0 when nothing is owned.
    int unlink();

    // Moves the file to `newPath` (made absolute) with rename(2) and gives up ownership, closing
    // the descriptor. Failure: false, the file stays owned at its old place, errno from
    // rename(2). Renaming onto its own path fails and logs
    // "(pid) [err] temp_manager/temp_manager:line rename temp file to the same path[%s]".
    // The name must still be the file this object made: checked against the open descriptor,
    // or, once that is closed, the name must be a regular file of the caller with one link.
    // A name that is no longer it (another process swapped it) is neither moved nor removed:
    // false with errno ESTALE, and the object gives the name up.
    bool rename(const std::string &newPath);

    // As rename(), but moved with Path::renameWithMode, so that a replaced file's mode, owner
    // and ACL are kept, set through the descriptor; failures are logged by
    // Path::renameWithMode.
    bool renameWithMode(const std::string &newPath);

    // Gives up ownership and closes the descriptor, leaving the file on disk; returns its path,
    // or "" when nothing was owned.
    std::string preserve();

  private:
    bool moveTo(const std::string &newPath, bool withMode);

    int fd_;
    std::string path_;
    uint32_t hash_;
};

// Owns one temporary directory (mode 0700) and removes its whole tree. Not copyable.
class TELO_EXPORT ScopedTempFolder {
  public:
    // An empty object that owns nothing; the argument is ignored.
    explicit ScopedTempFolder(int);

    // create(templ); test isValid() for the outcome.
    explicit ScopedTempFolder(const std::string &templ);

    // unlink(). errno is preserved.
    virtual ~ScopedTempFolder();

    ScopedTempFolder(const ScopedTempFolder &) = delete;
    ScopedTempFolder &operator=(const ScopedTempFolder &) = delete;
    // Hands the directory over; the moved-from object owns nothing. Assignment first removes
    // the tree this object owned, as the destructor does (errno preserved).
    ScopedTempFolder(ScopedTempFolder &&other) noexcept;
    ScopedTempFolder &operator=(ScopedTempFolder &&other) noexcept;

    // Removes whatever the object owned, then creates a directory from `templ` (rules above;
    // names are never shortened). Failure: false, errno from the failing call; only a failing
    // chmod is logged: "chmod failed, %m [%s]" (error, short form).
    bool create(const std::string &templ);

    // True when the object owns a directory.
    bool isValid() const;

    // The absolute path of the owned directory, "" when none.
    std::string getPath() const;

    // Removes the owned tree as removeAll does (depth first, relative to descriptors at every
    // depth, links removed and never followed, other mounts left alone), ignoring single
    // failures, and gives up ownership; nothing is logged. Returns 0 when the walk completed
    // (also when nothing is owned), else -1 with errno from the lstat of the top (ENOENT when
    // the directory is already gone).
    int unlink();

    // Moves the directory to `newPath` (made absolute) with rename(2) and gives up ownership.
    // Failure: false, still owned, errno from rename(2). Renaming onto its own path fails and
    // logs "(pid) [err] temp_manager/temp_manager:line rename temp folder to the same path[%s]".
    bool rename(const std::string &newPath);

    // Gives up ownership, leaving the directory on disk; returns its path, "" when none.
    std::string preserve();

  private:
    std::string path_;
    uint32_t hash_;
};

// A ScopedTempFile in the directory that `filter` selects (VolumePathManager), so that large
// temporary data lands on a volume with room. `name` must be a bare file name: the file is
// <directory>/<name>, or <directory>/<name>.XXXXXX when it does not end in six X, or
// <directory>/scoped_volume_temp_file.XXXXXX when `name` is empty; over-long names are shortened
// as ScopedTempFile::create describes. With `closeNow` the descriptor is closed at once.
// Test isValid(): every failure leaves an object that owns nothing. Logs
// "(pid) [err] temp_manager/temp_manager:line volume temp filter is null!" for a null filter and
// "... name[%s] is invalid!" for a name holding "/" or equal to "." or ".."; no directory for the
// filter fails silently.
// The filter is not kept.
class TELO_EXPORT ScopedVolumeTempFile : public ScopedTempFile {
  public:
    ScopedVolumeTempFile(std::shared_ptr<FilterVolume> filter, const std::string &name,
                         bool closeNow);
    // Movable as ScopedTempFile.
    ScopedVolumeTempFile(ScopedVolumeTempFile &&other) noexcept = default;
    ScopedVolumeTempFile &operator=(ScopedVolumeTempFile &&other) noexcept = default;
};

// The same for a directory: <directory>/<name>(.XXXXXX), default name
// scoped_volume_temp_folder.XXXXXX.
class TELO_EXPORT ScopedVolumeTempFolder : public ScopedTempFolder {
  public:
    ScopedVolumeTempFolder(std::shared_ptr<FilterVolume> filter, const std::string &name);
    // Movable as ScopedTempFolder.
    ScopedVolumeTempFolder(ScopedVolumeTempFolder &&other) noexcept = default;
    ScopedVolumeTempFolder &operator=(ScopedVolumeTempFolder &&other) noexcept = default;
};

// Factories of the volume filters, each a new filter built with the same arguments.
class TELO_EXPORT TempManager {
  public:
    static std::shared_ptr<FilterVolume> maxVolume();
    static std::shared_ptr<FilterVolume> maxVolume(bool useTmpFallback);
    static std::shared_ptr<FilterVolume> maxVolume(int location, int mode, bool useTmpFallback);
    static std::shared_ptr<FilterVolume> maxExtVolume();
    static std::shared_ptr<FilterVolume> maxExtVolume(bool useTmpFallback);
    static std::shared_ptr<FilterVolume> maxExtVolume(int location, int mode, bool useTmpFallback);
    static std::shared_ptr<FilterVolume> maxExtBtrfsVolume();
    static std::shared_ptr<FilterVolume> maxExtBtrfsVolume(bool useTmpFallback);
    static std::shared_ptr<FilterVolume> maxExtBtrfsVolume(int location, int mode,
                                                           bool useTmpFallback);
    // FilterSameVolume(path): the volume holding `path`.
    static std::shared_ptr<FilterVolume> sameVolume(const std::string &path);
};

}  // namespace Backup
}  // namespace TELO

#endif
