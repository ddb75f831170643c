#include "telobackup/option_map.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/eintr.h"
#include "internal/errno_saver.h"
#include "internal/safe_open.h"
#include "internal/section_rewrite.h"
#include "internal/stale_temporaries.h"
#include "internal/syslog.h"
#include "internal/unique_owners.h"
#include "telo/platform.h"
#include "telobackup/json_text.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"

namespace TELO {
namespace Backup {

using internal::retryOnEintr;

namespace {

constexpr char kLogSource[] = "option_map";

// The smallest buffer a decryption is given, however short the stored text.
constexpr size_t kMinPlainSize = 10;

enum CreateMode { kWithUniqueId, kByName, kGivenId, kWithIncreaseId };

using Buffer = internal::UniqueMalloc<char>;

// The platform's ciphertext of `plain` into `out`; false after logging when encryption fails,
// with the platform error and errno as the failing step left them.
bool encryptSecret(const std::string &plain, std::string &out) {
    size_t size = (strlen(plain.c_str()) + 2) * 2;
    Buffer buffer(static_cast<char *>(calloc(size, 1)));
    if (!buffer) {
        TELO_LOG_ERR("calloc: %m");
        return false;
    }
    if (TLIBCCryptSzEncrypt(plain.c_str(), buffer.get(), size) == 0) {
        TELO_LOG_ERR("TLIBCCryptSzEncrypt: " TELO_PLATFORM_ERR_FMT, TELO_PLATFORM_ERR_ARGS);
        return false;
    }
    out = buffer.get();
    return true;
}

std::string encryptSecret(const std::string &plain) {
    std::string cipher;
    encryptSecret(plain, cipher);
    return cipher;
}

// The plain text of `stored` into `out`; false after logging when decryption fails. An empty
// text is "" without asking the platform unless `checked`: no encryption makes it, so the
// checked getter lets the platform refuse it.
bool decryptSecret(const std::string &stored, std::string &out, bool checked) {
    if (stored.empty() && !checked) {
        out.clear();
        return true;
    }
    size_t size = std::max<size_t>(strlen(stored.c_str()), kMinPlainSize);
    Buffer buffer(static_cast<char *>(calloc(size, 1)));
    if (!buffer) {
        TELO_LOG_ERR("calloc: %m");
        return false;
    }
    if (TLIBCCryptSzDecrypt(stored.c_str(), buffer.get(), size) == 0) {
        TELO_LOG_ERR("TLIBCCryptSzDecrypt: " TELO_PLATFORM_ERR_FMT, TELO_PLATFORM_ERR_ARGS);
        return false;
    }
    out = buffer.get();
    return true;
}

std::string decryptSecret(const std::string &stored) {
    std::string plain;
    decryptSecret(stored, plain, false);
    return plain;
}

// The number of `name` for `prefix`, or false when the name is not one of the prefix's.
bool numberOf(const std::string &name, const std::string &prefix, int &number) {
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) return false;
    long value;
    {
        internal::ErrnoSaver keep;  // an out-of-range number is clamped, not an error
        value = strtol(name.c_str() + prefix.size(), nullptr, 10);
    }
    number = static_cast<int>(std::min<long>(std::max<long>(value, INT_MIN), INT_MAX));
    return true;
}

int largestNumber(const std::list<std::string> &names, const std::string &prefix, int start) {
    int largest = start, number;
    for (const std::string &name : names) {
        if (numberOf(name, prefix, number)) largest = std::max(largest, number);
    }
    return largest;
}

// Appends the header of `name` to `file` (created when missing), after a "\n" when the last
// line lacks one; nothing else is touched.
bool appendHeader(const std::string &file, const std::string &name) {
    if (name.find('\n') != std::string::npos || name.find('\0') != std::string::npos) {
        errno = EINVAL;
        TELO_LOG_ERR("invalid section name [%s]", name.c_str());
        return false;
    }
    // No link another user planted is followed, nor one to a file that does not exist yet.
    internal::ConfigFile opened;
    internal::UniqueFile stream;
    if (internal::openConfigFile(file, O_RDWR | O_CREAT | O_APPEND, 0666, opened)) {
        stream.reset(fdopen(opened.fd.get(), "a+"));
    }
    if (!stream) {
        TELO_LOG_ERR("fopen: %m");
        return false;
    }
    int fd = opened.fd.release();
    __fsetlocking(stream.get(), FSETLOCKING_BYCALLER);
    // A last line without its "\n" would swallow the header (and the value it ends). A last
    // byte that cannot be read fails the append: guessing would add a blank line, or worse.
    struct stat64 st;
    char last = '\n';
    ssize_t got = fstat64(fd, &st) != 0 ? -1 : st.st_size == 0 ? 1 : retryOnEintr([&] {
        return pread64(fd, &last, 1, st.st_size - 1);
    });
    if (got != 1) {
        if (got == 0) errno = EIO;  // shorter than it said a moment ago
        TELO_LOG_ERR("read last byte failed, %m");
        return false;
    }
    bool written = (last == '\n' || fputc('\n', stream.get()) != EOF) &&
                   SectionConfig::writeSectionName(stream.get(), name);
    // The header reaches the file only when the stream is flushed.
    if (fclose(stream.release()) != 0) written = false;
    return written;
}

// One more than `largest`, or -1 with EOVERFLOW when no number is left.
int nextNumber(int largest, const std::string &prefix) {
    if (largest < INT_MAX) return largest + 1;
    errno = EOVERFLOW;
    TELO_LOG_ERR("no id left for [%s]", prefix.c_str());
    return -1;
}

}  // namespace

class OptionMapPrivate {
  public:
    Json::Value values;
    bool loaded = false;
    std::string file;
    std::string section;
    int sectionId = -1;
    std::string lockToken;
    int lockFd = -1;

    bool bound() const { return !file.empty() && !section.empty(); }

    const Json::Value *find(const std::string &key) const {
        return values.find(key.data(), key.data() + key.size());
    }

    // The member `key` when the JSON library converts it to `type` without throwing (a string
    // is no int, an object no bool), else null: a value of another type reads as missing.
    const Json::Value *findAs(const std::string &key, Json::ValueType type) const {
        const Json::Value *value = find(key);
        return value != nullptr && value->isConvertibleTo(type) ? value : nullptr;
    }

    // The same for asInt64, which the library's conversion table does not cover.
    const Json::Value *findInt64(const std::string &key) const {
        const Json::Value *value = find(key);
        if (value == nullptr) return nullptr;
        if (value->isInt64() || value->isBool() || value->isNull()) return value;
        if (value->type() == Json::realValue && value->asDouble() >= -9223372036854775808.0 &&
            value->asDouble() < 9223372036854775808.0) {
            return value;
        }
        return nullptr;
    }
};

const char *OptionMap::SZK_SEC_GLOBAL = "global";
const char *OptionMap::SZK_ID_MAX_SUBFIX = "id_max";

OptionMap::OptionMap() : d_(new OptionMapPrivate) {}

OptionMap::OptionMap(const OptionMap &other) : d_(new OptionMapPrivate) {
    other.optCloneTo(*this);
}

OptionMap &OptionMap::operator=(const OptionMap &other) {
    other.optCloneTo(*this);
    return *this;
}

OptionMap::~OptionMap() = default;

bool OptionMap::optCloneTo(OptionMap &dst) const {
    if (&dst != this) *dst.d_ = *d_;
    return true;
}

// ---- Values -----------------------------------------------------------------------------------

std::string OptionMap::optString(const std::string &key, const std::string &def) const {
    const Json::Value *value = d_->findAs(key, Json::stringValue);
    return value != nullptr ? value->asString() : def;
}

std::string OptionMap::optSecret(const std::string &key, const std::string &def) const {
    const Json::Value *value = d_->findAs(key, Json::stringValue);
    return value != nullptr ? decryptSecret(value->asString()) : def;
}

int OptionMap::optInt(const std::string &key, int def) const {
    const Json::Value *value = d_->findAs(key, Json::intValue);
    return value != nullptr ? value->asInt() : def;
}

bool OptionMap::optBool(const std::string &key, bool def) const {
    const Json::Value *value = d_->findAs(key, Json::booleanValue);
    return value != nullptr ? value->asBool() : def;
}

bool OptionMap::optGet(const std::string &key, std::string &out, bool secret) const {
    const Json::Value *value = d_->findAs(key, Json::stringValue);
    if (value == nullptr) return false;
    out = secret ? decryptSecret(value->asString()) : value->asString();
    return true;
}

bool OptionMap::optGet(const std::string &key, char *buf, unsigned int size, bool secret) const {
    std::string text;
    if (!optGet(key, text, secret)) return false;
    snprintf(buf, size, "%s", text.c_str());
    return true;
}

bool OptionMap::optGet(const std::string &key, int &out) const {
    const Json::Value *value = d_->findAs(key, Json::intValue);
    if (value == nullptr) return false;
    out = value->asInt();
    return true;
}

bool OptionMap::optGet(const std::string &key, long long &out) const {
    const Json::Value *value = d_->findInt64(key);
    if (value == nullptr) return false;
    out = value->asInt64();
    return true;
}

bool OptionMap::optGet(const std::string &key, bool &out) const {
    const Json::Value *value = d_->findAs(key, Json::booleanValue);
    if (value == nullptr) return false;
    out = value->asBool();
    return true;
}

bool OptionMap::optGet(const std::string &key, Json::Value &out) const {
    const Json::Value *value = d_->find(key);
    if (value == nullptr) return false;
    out = *value;
    return true;
}

bool OptionMap::optGet(const std::string &key, std::list<std::string> &out) const {
    const Json::Value *value = d_->find(key);
    if (value == nullptr) return false;
    for (const Json::Value &element : *value) {
        if (!element.isConvertibleTo(Json::stringValue)) return false;
    }
    out.clear();
    for (const Json::Value &element : *value) out.push_back(element.asString());
    return true;
}

bool OptionMap::optSet(const std::string &key, const std::string &value, bool secret) {
    d_->values[key] = secret ? encryptSecret(value) : value;
    return true;
}

bool OptionMap::optSetSecretChecked(const std::string &key, const std::string &value) {
    std::string cipher;
    if (!encryptSecret(value, cipher)) return false;
    d_->values[key] = cipher;
    return true;
}

bool OptionMap::optGetSecretChecked(const std::string &key, std::string &out) const {
    const Json::Value *value = d_->findAs(key, Json::stringValue);
    if (value == nullptr) {
        errno = ENOENT;
        return false;
    }
    std::string plain;
    if (!decryptSecret(value->asString(), plain, true)) return false;
    out.swap(plain);
    return true;
}

bool OptionMap::optSet(const std::string &key, const char *value, bool secret) {
    return optSet(key, std::string(value != nullptr ? value : ""), secret);
}

bool OptionMap::optSet(const std::string &key, int value) {
    d_->values[key] = value;
    return true;
}

bool OptionMap::optSet(const std::string &key, long long value) {
    d_->values[key] = static_cast<Json::Int64>(value);
    return true;
}

bool OptionMap::optSet(const std::string &key, bool value) {
    d_->values[key] = value;
    return true;
}

bool OptionMap::optSet(const std::string &key, const std::list<std::string> &value) {
    Json::Value array(Json::arrayValue);
    for (const std::string &element : value) array.append(element);
    d_->values[key].swap(array);
    return true;
}

bool OptionMap::optSet(const std::string &key, const Json::Value &value) {
    d_->values[key] = value;
    return true;
}

bool OptionMap::optRemove(const std::string &key) {
    Json::Value removed;
    return d_->values.removeMember(key, &removed) && !removed.isNull();
}

bool OptionMap::optClear() {
    d_->values.clear();
    d_->loaded = false;
    d_->file.clear();
    d_->section.clear();
    d_->sectionId = -1;
    return true;
}

bool OptionMap::optLoadJsonString(const std::string &json) {
    Json::Value parsed;
    if (!jsonFromString(parsed, json) || !(parsed.isObject() || parsed.isNull())) return false;
    d_->values.swap(parsed);
    return true;
}

std::string OptionMap::optToJsonString() const {
    return jsonToString(d_->values);
}

bool OptionMap::optAppendJsonString(const std::string &json) {
    Json::Value parsed;
    if (!jsonFromString(parsed, json) || !parsed.isObject()) return true;
    for (auto it = parsed.begin(); it != parsed.end(); ++it) d_->values[it.name()] = *it;
    return true;
}

std::ostream &operator<<(std::ostream &os, const OptionMap &map) {
    return os << map.optToJsonString();
}

// ---- Binding ----------------------------------------------------------------------------------

bool OptionMap::optIsLoaded() const {
    return d_->loaded;
}

int OptionMap::optSectionGetId() const {
    return d_->bound() ? d_->sectionId : -1;
}

std::string OptionMap::optSectionGetName() const {
    return d_->bound() ? d_->section : std::string();
}

bool OptionMap::optSectionLoad(const std::string &file, const std::string &section, int id) {
    optClear();
    d_->file = file;
    d_->sectionId = id;
    d_->section = id < 0 ? section : section + std::to_string(id);
    if (!d_->bound()) {
        TELO_LOG_ERR("invalid sec [%s][%s]", file.c_str(), section.c_str());
        return false;
    }
    Json::Value loaded;
    if (!SectionConfig::loadSection(file, d_->section, loaded)) return false;
    d_->values.swap(loaded);
    d_->loaded = true;
    return true;
}

bool OptionMap::optSectionExport(const std::string &file, const std::string &section,
                                 bool create) const {
    if (SectionConfig::updateSection(file, section, d_->values, create)) return true;
    TELO_LOG_ERR("update section failed, %m");
    return false;
}

bool OptionMap::optSectionSave() {
    if (!d_->bound()) {
        TELO_LOG_ERR("not bind before save");
        return false;
    }
    ScopedLock held(*this);
    if (!held) return false;
    tidyUnderLock(d_->file);
    if (optSectionExport(d_->file, d_->section, false)) return held.unlock();
    return false;
}

bool OptionMap::optSectionRemove() {
    if (!d_->bound()) {
        TELO_LOG_ERR("not bind before remove");
        return false;
    }
    ScopedLock held(*this);
    if (!held) return false;
    tidyUnderLock(d_->file);
    if (SectionConfig::removeSection(d_->file, d_->section)) return held.unlock();
    TELO_LOG_ERR("remove sec failed, %m");
    return false;
}

bool OptionMap::optSectionListName(const std::string &file, std::list<std::string> &names) {
    if (SectionConfig::listSection(file, names)) return true;
    if (errno == ENOENT) return true;
    TELO_LOG_ERR("open[%s] failed, %m", file.c_str());
    return false;
}

// ---- Locking ----------------------------------------------------------------------------------

bool OptionMap::setLockToken(const std::string &token) {
    if (token.empty()) {
        TELO_LOG_ERR("setLockToken: invalid parameter.");
        return false;
    }
    if (d_->lockFd >= 0) {
        TELO_LOG_ERR("setLockToken: file locked already. fd: [%d].", d_->lockFd);
        return false;
    }
    d_->lockToken = token;
    return true;
}

bool OptionMap::lock() {
    if (d_->lockToken.empty()) return true;
    if (d_->lockFd >= 0) {
        TELO_LOG_ERR("lock: file locked already. fd: [%d].", d_->lockFd);
        return false;
    }
    d_->lockFd = Path::createIpcLockFile(d_->lockToken);
    if (d_->lockFd < 0) {
        d_->lockFd = -1;
        TELO_LOG_ERR("lock: open lock token failed.");
        return false;
    }
    int fd = d_->lockFd;
    if (retryOnEintr([fd] { return flock(fd, LOCK_EX); }) != 0) {
        TELO_LOG_ERR("lock: flock(LOCK_EX) failed. %m");
        internal::ErrnoSaver keep;
        close(fd);
        d_->lockFd = -1;
        return false;
    }
    return true;
}

void OptionMap::tidyUnderLock(const std::string &file) const {
    // Without a token nothing is held, and a live rewrite of another writer may be under way.
    if (d_->lockFd >= 0) internal::removeStaleTemporaries(file);
}

bool OptionMap::unlock() {
    if (d_->lockToken.empty()) return true;
    if (d_->lockFd < 0) {
        TELO_LOG_ERR("lock: file released already. fd: [%d].", d_->lockFd);
        return false;
    }
    int fd = d_->lockFd;
    if (retryOnEintr([fd] { return flock(fd, LOCK_UN); }) != 0) {
        TELO_LOG_ERR("unlock: flock(LOCK_UN) failed. %m");
        return false;
    }
    close(fd);
    d_->lockFd = -1;
    return true;
}

OptionMap::ScopedLock::ScopedLock(OptionMap &map) : map_(map.lock() ? &map : nullptr) {}

OptionMap::ScopedLock::ScopedLock(ScopedLock &&other) noexcept : map_(other.map_) {
    other.map_ = nullptr;
}

OptionMap::ScopedLock &OptionMap::ScopedLock::operator=(ScopedLock &&other) noexcept {
    if (&other != this) {
        unlock();
        map_ = other.map_;
        other.map_ = nullptr;
    }
    return *this;
}

OptionMap::ScopedLock::~ScopedLock() {
    // A scope left after a failure keeps the errno that failure set.
    internal::ErrnoSaver keep;
    unlock();
}

bool OptionMap::ScopedLock::unlock() {
    if (map_ == nullptr) return true;
    OptionMap *map = map_;
    map_ = nullptr;
    return map->unlock();
}

// ---- Numbered sections ------------------------------------------------------------------------

bool OptionMap::optSectionListId(const std::string &file, const std::string &prefix,
                                 std::list<int> &ids) {
    ids.clear();
    std::list<std::string> names;
    if (!SectionConfig::listSection(file, names)) {
        if (errno == ENOENT) return true;
        TELO_LOG_ERR("open[%s] failed, %m", file.c_str());
        return false;
    }
    int number;
    for (const std::string &name : names) {
        if (numberOf(name, prefix, number)) ids.push_back(number);
    }
    return true;
}

int OptionMap::optSectionGetUniqueId(const std::string &file, const std::string &prefix) {
    std::list<std::string> names;
    int largest = 0;
    if (SectionConfig::listSection(file, names)) {
        largest = largestNumber(names, prefix, 0);
    } else if (errno != ENOENT) {
        return -1;
    }
    int id = nextNumber(largest, prefix);
    if (id < 0 || !appendHeader(file, prefix + std::to_string(id))) return -1;
    return id;
}

bool OptionMap::optSectionCreateUniqueId(const std::string &file, const std::string &prefix,
                                         int id) {
    std::list<int> ids;
    if (!optSectionListId(file, prefix, ids)) return false;
    if (std::find(ids.begin(), ids.end(), id) != ids.end()) return false;
    return appendHeader(file, prefix + std::to_string(id));
}

bool OptionMap::optSectionCreateUniqueName(const std::string &file, const std::string &name) {
    std::list<std::string> names;
    if (!optSectionListName(file, names)) return false;
    if (std::find(names.begin(), names.end(), name) != names.end()) return false;
    return appendHeader(file, name);
}

int OptionMap::optSectionGetIncreaseId(const std::string &file, const std::string &prefix) {
    const std::string counterKey = prefix + SZK_ID_MAX_SUBFIX;
    OptionMap counter;
    int largest = 0;
    if (counter.optSectionLoad(file, SZK_SEC_GLOBAL, -1)) {
        largest = counter.optInt(counterKey, 0);
    } else if (errno == ENOENT) {
        counter.optClear();
        if (!counter.optSectionCreate(file, SZK_SEC_GLOBAL, false)) {
            TELO_LOG_ERR("create global section for [%s] failed %m", file.c_str());
        }
    } else {
        counter.optClear();
    }

    std::list<std::string> names;
    if (SectionConfig::listSection(file, names)) {
        largest = largestNumber(names, prefix, largest);
    } else if (errno != ENOENT) {
        return -1;
    }
    int id = nextNumber(largest, prefix);
    if (id < 0 || !appendHeader(file, prefix + std::to_string(id))) return -1;

    if (!counter.optSet(counterKey, id)) TELO_LOG_ERR("set id_max [%d] failed", id);
    if (!counter.optSectionSave()) {
        TELO_LOG_ERR("save [%s] id_max [%d] failed %m", file.c_str(), id);
    }
    return id;
}

bool OptionMap::createLocked(const std::string &file, const std::string &name, int id, int mode) {
    if (d_->loaded || file.empty() || name.empty()) return false;
    ScopedLock held(*this);
    if (!held) return false;
    tidyUnderLock(file);
    bool created;
    switch (mode) {
        case kWithUniqueId:
            id = optSectionGetUniqueId(file, name);
            created = id >= 1;
            break;
        case kWithIncreaseId:
            id = optSectionGetIncreaseId(file, name);
            created = id >= 1;
            break;
        case kGivenId:
            created = optSectionCreateUniqueId(file, name, id);
            break;
        default:
            id = -1;
            created = optSectionCreateUniqueName(file, name);
            break;
    }
    if (!created || !held.unlock()) return false;
    d_->file = file;
    d_->sectionId = id;
    d_->section = id < 0 ? name : name + std::to_string(id);
    return d_->bound();
}

bool OptionMap::optSectionCreate(const std::string &file, const std::string &name, bool withId) {
    return createLocked(file, name, -1, withId ? kWithUniqueId : kByName);
}

bool OptionMap::optSectionCreate(const std::string &file, const std::string &prefix, int id) {
    if (id < 1) return false;
    return createLocked(file, prefix, id, kGivenId);
}

bool OptionMap::optSectionCreateIncreaseId(const std::string &file, const std::string &prefix) {
    return createLocked(file, prefix, -1, kWithIncreaseId);
}

bool OptionMap::optSectionCreateAndSave(const std::string &file, const std::string &prefix,
                                        bool increasing) {
    if (d_->loaded || file.empty() || prefix.empty()) {
        errno = EINVAL;
        return false;
    }
    ScopedLock held(*this);
    if (!held) return false;
    tidyUnderLock(file);
    int id = writeNewSection(file, prefix, increasing);
    if (id < 0 || !held.unlock()) return false;
    d_->file = file;
    d_->sectionId = id;
    d_->section = prefix + std::to_string(id);
    return true;
}

int OptionMap::writeNewSection(const std::string &file, const std::string &prefix,
                               bool increasing) const {
    std::list<std::string> names;
    int largest = 0;
    if (SectionConfig::listSection(file, names)) {
        largest = largestNumber(names, prefix, 0);
    } else if (errno != ENOENT) {
        TELO_LOG_ERR("open[%s] failed, %m", file.c_str());
        return -1;
    }
    const std::string global = SZK_SEC_GLOBAL;
    const std::string counterKey = prefix + SZK_ID_MAX_SUBFIX;
    Json::Value counters;
    if (increasing) {
        if (SectionConfig::loadSection(file, global, counters)) {
            // As optInt reads it: a counter that is no int counts as 0.
            const Json::Value *counter =
                counters.find(counterKey.data(), counterKey.data() + counterKey.size());
            if (counter != nullptr && counter->isConvertibleTo(Json::intValue)) {
                largest = std::max(largest, counter->asInt());
            }
        } else if (errno != ENOENT) {
            TELO_LOG_ERR("open[%s] failed, %m", file.c_str());
            return -1;
        }
    }
    int id = nextNumber(largest, prefix);
    if (id < 0) return -1;
    // The section, its values and the counter reach the file in one rename.
    const std::string section = prefix + std::to_string(id);
    std::vector<internal::SectionUpdate> updates;
    if (increasing) {
        counters[counterKey] = id;
        updates.push_back({&global, &counters});
    }
    updates.push_back({&section, &d_->values});
    if (!internal::updateSections(file, updates, true)) {
        TELO_LOG_ERR("update section failed, %m");
        return -1;
    }
    return id;
}

}  // namespace Backup
}  // namespace TELO
