// The option store: a flat JSON object of named options with typed getters and setters,
// encrypted secrets, JSON text, persistence in one section of a section config file, a
// cross-process lock for writers, and allocation of numbered section names.
//
// Every call is synchronous on the caller's thread and takes no in-process lock; one object is
// used by one thread at a time. The only lock is the flock(2) taken by lock() on the lock file
// of the object's lock token, shared by every process using that token. Diagnostics go to the
// system log as "(pid) [err] option_map:line ...".
#ifndef TELOBACKUP_OPTION_MAP_H
#define TELOBACKUP_OPTION_MAP_H

#include <json/value.h>

#include <list>
#include <memory>
#include <ostream>
#include <string>

#include "telobackup/export.h"

namespace TELO {
namespace Backup {

class OptionMapPrivate;

class TELO_EXPORT OptionMap {
  public:
    // "global": the section that keeps the identifier counters.
    static const char *SZK_SEC_GLOBAL;
    // "id_max": the counter of a prefix is the key prefix + "id_max" of the section "global".
    static const char *SZK_ID_MAX_SUBFIX;

    // An empty, unbound map without lock token.
    OptionMap();
    // A copy of every field, the lock descriptor as a number (see optCloneTo).
    OptionMap(const OptionMap &other);
    OptionMap &operator=(const OptionMap &other);
    // Neither unlocks nor closes a held lock descriptor: a map destroyed while locked keeps
    // every other holder of its token waiting until this process ends. Hold the lock through
    // an OptionMap::ScopedLock (below) to have it released on every path out of a scope.
    ~OptionMap();

    // Copies values, binding, lock token and the lock descriptor number into `dst` (the
    // descriptor is not duplicated: both objects then regard the lock as theirs, so unlock
    // through one of them only). Returns true.
    bool optCloneTo(OptionMap &dst) const;

    // ---- Values ----
    // Getters convert with jsoncpp's asString/asInt/asInt64/asBool, and only a value that
    // converts (isConvertibleTo): a value of another type reads as if `key` were not set, so
    // optInt("k", 7) of k="abc", k=1e10 or k={} is 7, and no getter throws. Strings convert
    // from numbers, booleans and null; ints, 64-bit ints and booleans from numbers in range,
    // booleans and null.

    // The option as text, or `def` when `key` is not set.
    std::string optString(const std::string &key, const std::string &def) const;
    // The decrypted secret, or `def` when `key` is not set. A secret that cannot be decrypted
    // reads as "" (not `def`), after logging "TLIBCCryptSzDecrypt: [0x%04X %s:%d]".
    std::string optSecret(const std::string &key, const std::string &def) const;
    int optInt(const std::string &key, int def) const;
    bool optBool(const std::string &key, bool def) const;

    // Each returns false and leaves `out` untouched when `key` is not set (or its value does
    // not convert), else fills `out` and returns true. With `secret` the stored text is
    // decrypted ("" when that fails, see optSecret).
    bool optGet(const std::string &key, std::string &out, bool secret = false) const;
    // Copies the text into `buf` cut to size - 1 bytes and NUL-terminated (size >= 1); true
    // even when cut.
    bool optGet(const std::string &key, char *buf, unsigned int size, bool secret = false) const;
    bool optGet(const std::string &key, int &out) const;
    bool optGet(const std::string &key, long long &out) const;
    bool optGet(const std::string &key, bool &out) const;
    bool optGet(const std::string &key, Json::Value &out) const;
    // Replaces `out` with the text of every element, in order; false with `out` untouched
    // when an element is an array or object.
    bool optGet(const std::string &key, std::list<std::string> &out) const;

    // Each replaces the option `key` and returns true. With `secret` the text is stored
    // encrypted by the platform; when encryption fails "" is stored and the failure is only
    // logged ("TLIBCCryptSzEncrypt: [0x%04X %s:%d]" or "calloc: %m").
    bool optSet(const std::string &key, const std::string &value, bool secret = false);
    bool optSet(const std::string &key, const char *value, bool secret = false);
    bool optSet(const std::string &key, int value);
    bool optSet(const std::string &key, long long value);
    bool optSet(const std::string &key, bool value);
    bool optSet(const std::string &key, const std::list<std::string> &value);
    bool optSet(const std::string &key, const Json::Value &value);

    // ---- Checked secrets ----
    // optSet(key, text, true) stores "" when encryption fails and the secret getters read ""
    // when decryption fails, both still returning true; these two say so instead.
    //     if (!task.optSetSecretChecked("password", typed)) {
    //         fprintf(stderr, "cannot encrypt: platform error 0x%04X\n", TLIBCErrGet());
    //         return false;  // nothing was stored
    //     }
    //     std::string password;
    //     if (!task.optGetSecretChecked("password", password)) return false;  // unset, unreadable

    // Stores the platform's ciphertext of `value` as `key`, replacing it. Failure: false with
    // the option left as it was (never stored as ""), after logging as optSet does
    // ("TLIBCCryptSzEncrypt: [0x%04X %s:%d]" or "calloc: %m"); TLIBCErrGet, TLIBCErrorGetFile,
    // TLIBCErrorGetLine and errno then describe the failure.
    bool optSetSecretChecked(const std::string &key, const std::string &value);

    // Decrypts the secret `key` into `out`. Failure: false, `out` untouched: errno ENOENT when
    // `key` is not set or does not convert to text (see the getters), nothing logged; or
    // decryption failed, logged as optSecret does, with the platform error and errno readable
    // as above. The stored text always goes to the platform, "" included (what a failed
    // optSet(key, text, true) leaves, and what the generic platform refuses), where optSecret
    // reads "" without asking.
    bool optGetSecretChecked(const std::string &key, std::string &out) const;

    // Removes `key`; true only when it held a value other than JSON null.
    bool optRemove(const std::string &key);
    // Removes every option and the binding (the map is unbound, not loaded); the lock token and
    // a held lock stay. Returns true.
    bool optClear();

    // Replaces the options with the JSON object (or null) of `json`. False, options unchanged,
    // when the text does not parse (nested past 1,000 levels included, see jsonFromString) or
    // holds another kind of value. The binding is not touched.
    bool optLoadJsonString(const std::string &json);
    // The options as one-line JSON text ("null" for a map never set).
    std::string optToJsonString() const;
    // Sets every member of the JSON object `json`, keeping the other options. Text that is not
    // a JSON object (or does not parse, see jsonFromString) changes nothing. Returns true.
    bool optAppendJsonString(const std::string &json);

    // ---- Binding to a section ----
    // A map is bound when it has a file and a section name. Names of sections and keys must
    // read back as written (see SectionConfig::updateSection): a save with a key holding "=",
    // a newline or outer blanks fails with errno EINVAL.

    // True after a successful optSectionLoad (until optClear or another load).
    bool optIsLoaded() const;
    // The bound section's identifier, -1 when it has none or the map is unbound.
    int optSectionGetId() const;
    // The bound section's name, "" when unbound.
    std::string optSectionGetName() const;

    // Clears the map, binds it to `section` of `file` (to `section` + `id` in decimal when
    // `id` >= 0, e.g. "job" and 3 give "job3") and loads that section's values. The binding is
    // kept even when the load fails, so a later save writes there.
    // Failure: false; with an empty file (or section when `id` < 0) the map is left unbound and
    // "invalid sec [%s][%s]" is logged; otherwise errno as SectionConfig::loadSection left it
    // (ENOENT: no such file or section).
    bool optSectionLoad(const std::string &file, const std::string &section, int id);

    // Writes the values as `section` of `file` (SectionConfig::updateSection), bound or not,
    // without locking. Failure: false, logs "update section failed, %m", errno from the update
    // (ENOENT when the section is missing and `create` is false).
    bool optSectionExport(const std::string &file, const std::string &section, bool create) const;

    // Under the lock, writes the values to the bound section, which must already exist.
    // Failure: false; logs "not bind before save" for an unbound map, or as optSectionExport,
    // lock() and unlock(); the lock is released in every case.
    bool optSectionSave();

    // Under the lock, removes the bound section from its file; the map stays bound with its
    // values. Failure: false; logs "not bind before remove", or "remove sec failed, %m" (errno
    // ENOENT when the section is missing), or as lock() and unlock().
    bool optSectionRemove();

    // Replaces `names` with every section name of `file` in order; a missing file gives an
    // empty list and true. Failure: false after logging "open[%s] failed, %m".
    static bool optSectionListName(const std::string &file, std::list<std::string> &names);

    // ---- Locking ----
    // lock() and unlock() pair by hand, and ~OptionMap releases nothing (see above); a
    // ScopedLock pairs them for the caller.
    // A writer that holds the lock (optSectionSave, optSectionRemove and the creating members,
    // with a token set) first removes what rewrites of the file that were killed left beside
    // it: "<file>.XXXXXX" temporaries (six characters of mkstemp's alphabet) that are regular
    // files of the caller unchanged for 10 minutes. Links are not followed; nothing is logged.

    // Switches locking on with the lock file `token` (see Path::createIpcLockFile; a token
    // must not contain "/"). Failure: false after logging "setLockToken: invalid parameter."
    // (empty token) or "setLockToken: file locked already. fd: [%d]." (lock held).
    bool setLockToken(const std::string &token);

    // Takes the exclusive lock of the token's lock file, waiting as long as another holder
    // keeps it. Not re-entrant. Without a token: true, nothing done.
    // Failure: false after logging "lock: file locked already. fd: [%d].",
    // "lock: open lock token failed." (errno from the open) or
    // "lock: flock(LOCK_EX) failed. %m".
    bool lock();

    // Releases the lock and closes its descriptor. Without a token: true, nothing done.
    // Failure: false after logging "lock: file released already. fd: [%d]." or
    // "unlock: flock(LOCK_UN) failed. %m" (the lock then still counts as held).
    bool unlock();

    // Holds the map's lock for the life of the guard: lock() on construction, unlock() on
    // destruction. Movable, not copyable; the map must outlive the guard and its lock must not
    // be released through the map (or a copy of it) while a guard holds it.
    //     OptionMap tasks;
    //     tasks.setLockToken("tasks.conf");
    //     {
    //         OptionMap::ScopedLock guard(tasks);
    //         if (!guard) return false;   // lock() failed and said why in the system log
    //         ... read, change and export sections of tasks.conf ...
    //     }                               // released here, also on an early return
    class TELO_EXPORT ScopedLock {
      public:
        // Calls map.lock(); owns() tells whether it succeeded (logs and errno as lock()).
        explicit ScopedLock(OptionMap &map);
        // Takes over `other`'s hold; `other` then owns nothing.
        ScopedLock(ScopedLock &&other) noexcept;
        // Releases this guard's hold (as unlock() below), then takes over `other`'s.
        ScopedLock &operator=(ScopedLock &&other) noexcept;
        ScopedLock(const ScopedLock &) = delete;
        ScopedLock &operator=(const ScopedLock &) = delete;
        // Releases the hold, if any, through map.unlock(); a failure is only logged by it.
        // errno is kept as it was, so a scope left after a failure reports that failure.
        ~ScopedLock();

        // True while the guard holds the map's lock (for a map without a token: while lock()
        // has succeeded, though there is nothing to hold).
        bool owns() const { return map_ != nullptr; }
        explicit operator bool() const { return owns(); }

        // Releases the hold early. Returns map.unlock()'s result (true when nothing is held);
        // the guard owns nothing afterwards either way, so the destructor does not try again.
        bool unlock();

      private:
        OptionMap *map_;  // the map whose lock is held, or null
    };

    // ---- Numbered sections ----
    // A numbered section is named prefix + decimal number ("job12"). The number of a name is
    // read loosely with strtol after the prefix: "job12x" counts as 12, "jobx" as 0, "job-3" as
    // -3; names equal to the prefix or not starting with it are skipped. New headers are
    // appended to the file as "[name]\n" (the file is created when missing; a last line without
    // its "\n" gets one first, so the header never joins it, and a last byte that cannot be read
    // fails the append after logging "read last byte failed, %m"); a failed open
    // logs "fopen: %m" (EPERM for a symbolic link SectionConfig would not follow, EINVAL or
    // EISDIR for a file that is no regular file), a name holding a newline or NUL is refused
    // with errno EINVAL.
    // The static allocators take no lock; the creating members run them under the map's lock.

    // Allocates one more than the largest number in use (1 when none or no file), appends its
    // header and returns the number. Failure: -1 (errno EOVERFLOW when no number is left).
    static int optSectionGetUniqueId(const std::string &file, const std::string &prefix);

    // Allocates one more than the larger of the counter prefix + "id_max" of the section
    // "global" and every number in use, appends its header, records the number as the counter
    // and returns it: numbers are never handed out twice, even after removals. A counter that
    // is not an int (optInt: "abc", 1e10) counts as 0. Failure: -1.
    // A counter that cannot be kept is logged ("create global section for [%s] failed %m",
    // "set id_max [%d] failed", "save [%s] id_max [%d] failed %m") but the number is returned.
    static int optSectionGetIncreaseId(const std::string &file, const std::string &prefix);

    // Appends prefix + `id` unless that number is in use. Failure: false.
    static bool optSectionCreateUniqueId(const std::string &file, const std::string &prefix,
                                         int id);

    // Appends `name` unless a section of that exact name exists. Failure: false.
    static bool optSectionCreateUniqueName(const std::string &file, const std::string &name);

    // Replaces `ids` with the number of every section of the prefix, in file order, duplicates
    // and numbers <= 0 included; a missing file gives none. Failure: false after logging
    // "open[%s] failed, %m".
    static bool optSectionListId(const std::string &file, const std::string &prefix,
                                 std::list<int> &ids);

    // Under the lock, creates a new section and binds the map to it, keeping its values (save
    // them with optSectionSave). With `withId`: prefix `name` and a unique number; without:
    // exactly `name`, which must not exist yet. Fails (false) on a loaded map (optClear it
    // first), an empty file or name, or when the allocation or the lock fails.
    bool optSectionCreate(const std::string &file, const std::string &name, bool withId);

    // As above for prefix + `id` (`id` >= 1), which must not be in use.
    bool optSectionCreate(const std::string &file, const std::string &prefix, int id);

    // As optSectionCreate with `withId`, using optSectionGetIncreaseId.
    bool optSectionCreateIncreaseId(const std::string &file, const std::string &prefix);

    // Creates a numbered section holding the map's values in one step, where optSectionCreate
    // and optSectionSave take two: under the lock it takes the number as optSectionGetUniqueId
    // does, or with `increasing` as optSectionGetIncreaseId does, and writes the section with
    // its values, and the raised counter, in a single rewrite of `file` (made when missing).
    // A reader never sees the section empty nor the counter behind it. Binds the map to the
    // new section, keeping its values.
    // Failure: false, the map left unbound and the file as it was: on a loaded map or an empty
    // file or prefix (errno EINVAL), when the lock fails (logged as lock()), when the file
    // cannot be read ("open[%s] failed, %m"; errno EINVAL or EISDIR when it is no regular
    // file) or rewritten ("update section failed, %m", errno from the rewrite), or when no
    // number is left (errno EOVERFLOW, "no id left for [%s]").
    //     OptionMap task;
    //     task.optSet("name", "nightly");
    //     task.setLockToken("tasks.conf");
    //     task.optSectionCreateAndSave("/etc/app/tasks.conf", "task", true);
    //     // a new file now reads "[global]\ntaskid_max=1\n[task1]\nname=\"nightly\"\n"
    bool optSectionCreateAndSave(const std::string &file, const std::string &prefix,
                                 bool increasing);

  private:
    bool createLocked(const std::string &file, const std::string &name, int id, int mode);
    int writeNewSection(const std::string &file, const std::string &prefix,
                        bool increasing) const;
    void tidyUnderLock(const std::string &file) const;

    std::unique_ptr<OptionMapPrivate> d_;
};

// Writes map.optToJsonString() to `os`.
TELO_EXPORT std::ostream &operator<<(std::ostream &os, const OptionMap &map);

}  // namespace Backup
}  // namespace TELO

#endif
