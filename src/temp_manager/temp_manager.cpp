#include "telobackup/temp_manager/temp_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "internal/errno_saver.h"
#include "internal/fs_rules.h"
#include "internal/held_rename.h"
#include "internal/scope_guard.h"
#include "internal/syslog.h"
#include "internal/unique_fd.h"
#include "path/remove_all.h"
#include "telo/platform.h"
#include "telobackup/path/path_util.h"

namespace TELO {
namespace Backup {

namespace {

constexpr char kLogSource[] = "temp_manager/temp_manager";
constexpr char kDefaultFileTemplate[] = "/tmp/scoped_temp_file.XXXXXX";
constexpr char kDefaultFolderTemplate[] = "/tmp/scoped_temp_folder.XXXXXX";
constexpr char kSuffix[] = "XXXXXX";
constexpr size_t kSuffixLength = sizeof(kSuffix) - 1;
// Longest path the shortening produces before ".XXXXXX" is added (4095 in all).
constexpr size_t kMaxStemLength = 4088;
constexpr size_t kNameLimit = 255;
constexpr size_t kShortNameLimit = 143;

uint32_t checkHash(const std::string &path) {
    uint32_t hash = 5381;
    for (unsigned char byte : path) hash = hash * 33 + byte;
    return hash;
}

bool endsWithSuffix(const std::string &text) {
    return text.size() >= kSuffixLength &&
           text.compare(text.size() - kSuffixLength, kSuffixLength, kSuffix) == 0;
}

std::string chooseTemplate(const std::string &templ, const char *fallback) {
    if (templ.empty()) return fallback;
    if (templ.size() > 5 && endsWithSuffix(templ)) return templ;
    return templ + "." + kSuffix;
}

// A writable NUL-terminated copy for mkstemp and friends.
std::vector<char> writableCopy(const std::string &text) {
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

// The largest cut of `text` at or below `length` that does not split a UTF-8 character.
size_t utf8Cut(const std::string &text, size_t length) {
    if (length >= text.size()) return text.size();
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
    return length;
}

// mkstemp of `name` with its base name cut to fit `limit` bytes per component and the whole
// path within 4095 bytes. `tried` gets the name passed to mkstemp, as it left it.
int createTruncated(const std::string &name, size_t limit, std::string &tried) {
    std::string stem;
    if (!name.empty() && name.back() == '/') {
        stem = name;  // a hidden ".XXXXXX" in that directory
    } else {
        std::string base = Path::basename(name);
        std::string dir = Path::dirname(name);
        base.resize(utf8Cut(base, limit - 1 - kSuffixLength));
        stem = Path::join(dir, base);
        if (stem.size() > kMaxStemLength && base.size() + kMaxStemLength >= stem.size()) {
            base.resize(utf8Cut(base, base.size() + kMaxStemLength - stem.size()));
            stem = Path::join(dir, base);
        }
    }
    tried = stem;
    if (stem.empty()) {
        errno = EINVAL;
        return -1;
    }
    std::vector<char> buffer = writableCopy(stem + "." + kSuffix);
    int fd = mkostemp64(buffer.data(), O_CLOEXEC);
    tried = buffer.data();
    return fd;
}

int lastComponentLength(const std::string &path) {
    size_t slash = path.rfind('/');
    return static_cast<int>(slash == std::string::npos ? path.size() : path.size() - slash - 1);
}

}  // namespace

// ---- ScopedTempFile ---------------------------------------------------------------------------

ScopedTempFile::ScopedTempFile(int) : fd_(-1), hash_(0) {}

ScopedTempFile::ScopedTempFile(const std::string &templ, bool closeNow) : fd_(-1), hash_(0) {
    if (create(templ) && closeNow) close();
}

ScopedTempFile::~ScopedTempFile() {
    internal::ErrnoSaver keep;
    close();
    unlink();
}

ScopedTempFile::ScopedTempFile(ScopedTempFile &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      path_(std::move(other.path_)),
      hash_(std::exchange(other.hash_, 0)) {
    other.path_.clear();
}

ScopedTempFile &ScopedTempFile::operator=(ScopedTempFile &&other) noexcept {
    if (this != &other) {
        {
            internal::ErrnoSaver keep;
            close();
            unlink();
        }
        fd_ = std::exchange(other.fd_, -1);
        path_ = std::move(other.path_);
        other.path_.clear();
        hash_ = std::exchange(other.hash_, 0);
    }
    return *this;
}

bool ScopedTempFile::create(const std::string &templ) {
    close();
    unlink();
    const std::string chosen = chooseTemplate(templ, kDefaultFileTemplate);
    std::vector<char> name = writableCopy(chosen);
    int entryErrno = errno;
    std::string created;
    fd_ = mkostemp64(name.data(), O_CLOEXEC);
    if (fd_ >= 0) {
        created = name.data();
    } else if (errno == ENAMETOOLONG && !templ.empty() && !endsWithSuffix(templ)) {
        errno = entryErrno;
        std::string tried;
        fd_ = createTruncated(templ, kNameLimit, tried);
        if (fd_ < 0 && errno == ENAMETOOLONG && !tried.empty() &&
            lastComponentLength(tried) > static_cast<int>(kShortNameLimit)) {
            errno = entryErrno;
            fd_ = createTruncated(templ, kShortNameLimit, tried);
        }
        if (fd_ < 0) {
            TELO_LOG_SHORT(LOG_ERR, "create_truncate_mkstemp failed, %m [%s]", tried.c_str());
            return false;
        }
        created = tried;
    } else {
        TELO_LOG_SHORT(LOG_DEBUG, "mkstemp failed, %m [%s]", chosen.c_str());
        return false;
    }

    auto discard = internal::makeScopeGuard([&] {
        internal::ErrnoSaver keep;
        ::unlink(created.c_str());
        close();
    });
    if (fchmod(fd_, 0600) != 0 && !internal::chmodRefusalExpected(errno, created)) {
        TELO_LOG_SHORT(LOG_ERR, "chmod failed [%s], %m", created.c_str());
        return false;
    }
    std::string absolute = Path::absPath(created);
    if (absolute.empty()) return false;
    discard.dismiss();
    path_ = std::move(absolute);
    hash_ = checkHash(path_);
    return true;
}

bool ScopedTempFile::isValid() const {
    return !path_.empty() && hash_ == checkHash(path_);
}

std::string ScopedTempFile::getPath() const {
    return path_;
}

int ScopedTempFile::getFileDescripter() const {
    return fd_;
}

void ScopedTempFile::close() {
    if (fd_ < 0) return;
    ::close(fd_);
    fd_ = -1;
}

int ScopedTempFile::unlink() {
    if (!isValid()) return 0;
    int result = ::unlink(path_.c_str());
    path_.clear();
    hash_ = 0;
    return result;
}

bool ScopedTempFile::moveTo(const std::string &newPath, bool withMode) {
    if (!isValid()) return false;
    std::string target = Path::absPath(newPath);
    if (target == path_) {
        TELO_LOG_ERR("rename temp file to the same path[%s]", target.c_str());
        return false;
    }
    // The file is checked through its descriptor; once that is closed, a file that is still
    // only ours (regular, the caller's, one link) is taken at the name.
    internal::HeldSource source;
    internal::UniqueFd opened;
    bool foreign = false;
    source.fd = fd_;
    if (fd_ < 0) {
        opened.reset(open(path_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat64 st;
        if (opened && (fstat64(opened.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
                       st.st_uid != geteuid() || st.st_nlink != 1)) {
            opened.reset();
            foreign = true;
            errno = ESTALE;
        }
        source.fd = opened.get();
        source.openErrno = errno;
    }
    source.srcName = source.src = path_;
    source.dstName = source.dst = target;
    bool nameGone = false;
    bool moved = withMode ? internal::renameHeldWithMode(source, nameGone)
                          : internal::renameHeld(source, nameGone);
    // A name that no longer holds our file is not ours to remove either.
    if (moved || nameGone || foreign) {
        path_.clear();
        hash_ = 0;
    }
    if (moved) close();
    return moved;
}

bool ScopedTempFile::rename(const std::string &newPath) {
    return moveTo(newPath, false);
}

bool ScopedTempFile::renameWithMode(const std::string &newPath) {
    return moveTo(newPath, true);
}

std::string ScopedTempFile::preserve() {
    if (!isValid()) return std::string();
    std::string kept;
    kept.swap(path_);
    close();
    hash_ = 0;
    return kept;
}

// ---- ScopedTempFolder -------------------------------------------------------------------------

ScopedTempFolder::ScopedTempFolder(int) : hash_(0) {}

ScopedTempFolder::ScopedTempFolder(const std::string &templ) : hash_(0) {
    create(templ);
}

ScopedTempFolder::~ScopedTempFolder() {
    internal::ErrnoSaver keep;
    unlink();
}

ScopedTempFolder::ScopedTempFolder(ScopedTempFolder &&other) noexcept
    : path_(std::move(other.path_)), hash_(std::exchange(other.hash_, 0)) {
    other.path_.clear();
}

ScopedTempFolder &ScopedTempFolder::operator=(ScopedTempFolder &&other) noexcept {
    if (this != &other) {
        {
            internal::ErrnoSaver keep;
            unlink();
        }
        path_ = std::move(other.path_);
        other.path_.clear();
        hash_ = std::exchange(other.hash_, 0);
    }
    return *this;
}

bool ScopedTempFolder::create(const std::string &templ) {
    unlink();
    std::vector<char> name = writableCopy(chooseTemplate(templ, kDefaultFolderTemplate));
    if (mkdtemp(name.data()) == nullptr) return false;
    std::string created = name.data();
    auto discard = internal::makeScopeGuard([&] {
        internal::ErrnoSaver keep;
        rmdir(created.c_str());
    });
    if (chmod(created.c_str(), 0700) != 0 && !internal::chmodRefusalExpected(errno, created)) {
        TELO_LOG_SHORT(LOG_ERR, "chmod failed, %m [%s]", created.c_str());
        return false;
    }
    std::string absolute = Path::absPath(created);
    if (absolute.empty()) return false;
    discard.dismiss();
    path_ = std::move(absolute);
    hash_ = checkHash(path_);
    return true;
}

bool ScopedTempFolder::isValid() const {
    return !path_.empty() && hash_ == checkHash(path_);
}

std::string ScopedTempFolder::getPath() const {
    return path_;
}

int ScopedTempFolder::unlink() {
    if (!isValid()) return 0;
    internal::TreeRemoval removal = internal::removeTree(path_);
    path_.clear();
    hash_ = 0;
    // Single failures are ignored; only a top that cannot be examined fails the walk.
    if (removal.examined) return 0;
    errno = removal.topErrno;
    return -1;
}

bool ScopedTempFolder::rename(const std::string &newPath) {
    if (!isValid()) return false;
    std::string target = Path::absPath(newPath);
    if (target == path_) {
        TELO_LOG_ERR("rename temp folder to the same path[%s]", target.c_str());
        return false;
    }
    if (::rename(path_.c_str(), target.c_str()) != 0) return false;
    path_.clear();
    hash_ = 0;
    return true;
}

std::string ScopedTempFolder::preserve() {
    if (!isValid()) return std::string();
    std::string kept;
    kept.swap(path_);
    hash_ = 0;
    return kept;
}

// ---- Volume temporaries -----------------------------------------------------------------------

namespace {

// The template of a volume temporary, or "" (logged where the filter or name is at fault).
std::string volumeTemplate(const std::shared_ptr<FilterVolume> &filter, const std::string &name,
                           const char *defaultName) {
    if (!filter) {
        TELO_LOG_ERR("volume temp filter is null!");
        return std::string();
    }
    // "." and ".." are no file names: joined to the directory they would place the temporary
    // beside it. An empty name asks for the default one.
    if (!name.empty() && !internal::isPlainName(name)) {
        TELO_LOG_ERR("name[%s] is invalid!", name.c_str());
        return std::string();
    }
    std::string directory;
    if (!VolumePathManager::getInstance().getVolumePath(filter, directory)) return std::string();
    return Path::join(directory, name.empty() ? defaultName : name);
}

}  // namespace

ScopedVolumeTempFile::ScopedVolumeTempFile(std::shared_ptr<FilterVolume> filter,
                                           const std::string &name, bool closeNow)
    : ScopedTempFile(0) {
    std::string templ = volumeTemplate(filter, name, "scoped_volume_temp_file.XXXXXX");
    if (!templ.empty() && create(templ) && closeNow) close();
}

ScopedVolumeTempFolder::ScopedVolumeTempFolder(std::shared_ptr<FilterVolume> filter,
                                               const std::string &name)
    : ScopedTempFolder(0) {
    std::string templ = volumeTemplate(filter, name, "scoped_volume_temp_folder.XXXXXX");
    if (!templ.empty()) create(templ);
}

// ---- Filter factories -------------------------------------------------------------------------

std::shared_ptr<FilterVolume> TempManager::maxVolume() {
    return std::make_shared<FilterMaxVolume>();
}
std::shared_ptr<FilterVolume> TempManager::maxVolume(bool useTmpFallback) {
    return std::make_shared<FilterMaxVolume>(useTmpFallback);
}
std::shared_ptr<FilterVolume> TempManager::maxVolume(int location, int mode, bool useTmpFallback) {
    return std::make_shared<FilterMaxVolume>(location, mode, useTmpFallback);
}
std::shared_ptr<FilterVolume> TempManager::maxExtVolume() {
    return std::make_shared<FilterMaxExtVolume>();
}
std::shared_ptr<FilterVolume> TempManager::maxExtVolume(bool useTmpFallback) {
    return std::make_shared<FilterMaxExtVolume>(useTmpFallback);
}
std::shared_ptr<FilterVolume> TempManager::maxExtVolume(int location, int mode,
                                                        bool useTmpFallback) {
    return std::make_shared<FilterMaxExtVolume>(location, mode, useTmpFallback);
}
std::shared_ptr<FilterVolume> TempManager::maxExtBtrfsVolume() {
    return std::make_shared<FilterMaxExtBtrfsVolume>();
}
std::shared_ptr<FilterVolume> TempManager::maxExtBtrfsVolume(bool useTmpFallback) {
    return std::make_shared<FilterMaxExtBtrfsVolume>(useTmpFallback);
}
std::shared_ptr<FilterVolume> TempManager::maxExtBtrfsVolume(int location, int mode,
                                                             bool useTmpFallback) {
    return std::make_shared<FilterMaxExtBtrfsVolume>(location, mode, useTmpFallback);
}
std::shared_ptr<FilterVolume> TempManager::sameVolume(const std::string &path) {
    return std::make_shared<FilterSameVolume>(path);
}

}  // namespace Backup
}  // namespace TELO
