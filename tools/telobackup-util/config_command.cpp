// config: section configuration files through OptionMap, writes under a lock token.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <list>
#include <memory>

#include "cli.h"
#include "config_dump.h"
#include "telobackup/json_text.h"
#include "telobackup/option_map.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"

namespace telocli {

namespace {

using TELO::Backup::OptionMap;
using TELO::Backup::Path;

struct ConfigArgs {
    std::string file;
    std::string section;
    std::string key;
    std::vector<std::string> assignments;  // KEY=JSON
    std::vector<std::string> strings;      // KEY=TEXT
    std::vector<std::string> secrets;      // KEY, value read from standard input
    std::vector<std::string> keys;
    std::string lockToken;
    double waitSeconds = -1;  // for the lock; negative: as long as it takes
    bool create = false;
    bool increasing = false;
    bool decrypt = false;
};

// FNV-1a, enough to tell files apart in a lock file name.
uint64_t fnv1a(const std::string &text) {
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

// The default lock token of a configuration file:
// "telobackup-util.<base name>.<16 hex digits of the FNV-1a hash of its real path>", the real
// path being that of the file, or of its directory joined with its name when it does not exist
// yet. Every tool invocation on the same file, by any name, takes the same lock.
std::string defaultLockToken(const std::string &file) {
    std::unique_ptr<char, void (*)(void *)> real(realpath(file.c_str(), nullptr), free);
    std::string resolved;
    if (real) {
        resolved = real.get();
    } else {
        std::unique_ptr<char, void (*)(void *)> dir(realpath(Path::dirname(file).c_str(), nullptr),
                                                    free);
        resolved = Path::join(dir ? dir.get() : Path::dirname(file), Path::basename(file));
    }
    char hash[17];
    snprintf(hash, sizeof(hash), "%016llx", static_cast<unsigned long long>(fnv1a(resolved)));
    return "telobackup-util." + Path::basename(resolved).substr(0, 100) + "." + hash;
}

// Fails with "not found" or "invalid file" unless `file` is an existing regular file.
void requireFile(const std::string &file) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0) {
        throw errno == ENOENT ? CommandError(kExitNotFound, file + ": no such file")
                              : systemError(kExitInvalidFile, file);
    }
    if (!S_ISREG(st.st_mode)) throw CommandError(kExitInvalidFile, file + ": not a regular file");
    if (access(file.c_str(), R_OK) != 0) throw systemError(kExitInvalidFile, file);
}

// Fails with "invalid file" when `file` exists but is no regular file (a FIFO would stall the
// write, a device would be read without end): checked before the lock is taken.
void refuseNonRegular(const std::string &file) {
    struct stat st;
    if (stat(file.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        throw CommandError(kExitInvalidFile, file + ": not a regular file");
    }
}

// errno of a failed library call says the file was no regular file (found so under the lock).
bool notRegularFile() {
    return errno == EINVAL || errno == EISDIR;
}

// The section argument names no section the map could be bound to.
void requireSection(const std::string &section, const char *command) {
    if (section.empty()) {
        throw CommandError(kExitUsage, std::string("config ") + command +
                                           ": bad section '': a section name cannot be empty");
    }
}

// Splits "KEY=VALUE" at its first "=".
std::pair<std::string, std::string> splitAssignment(const std::string &arg, const char *what) {
    size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0) {
        throw CommandError(kExitUsage,
                           std::string("bad ") + what + " '" + arg +
                               "': expected KEY=" + (strcmp(what, "value") == 0 ? "JSON" : "TEXT"));
    }
    return {arg.substr(0, eq), arg.substr(eq + 1)};
}

// Refuses a key that the file could not read back as written (SectionConfig::updateSection
// refuses it too, but `config new` must know before it creates the section).
void checkKey(const std::string &key) {
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    if (key.find_first_of("=\n") != std::string::npos ||
        (!key.empty() &&
         (blank(key.front()) || blank(key.back()) || key[0] == '#' || key[0] == '['))) {
        throw CommandError(kExitUsage, "bad key '" + key +
                                           "': no \"=\" or newline, no blanks at either end, "
                                           "no leading \"#\" or \"[\"");
    }
}

// Reads one line of standard input (the newline dropped) for each secret key. A read error is
// no end of input: part of a secret must never be stored as the whole.
std::string readSecret(const std::string &key) {
    std::string value;
    errno = 0;
    bool got = static_cast<bool>(std::getline(std::cin, value));
    if (std::cin.bad() || ferror(stdin)) {
        if (errno == 0) errno = EIO;
        throw systemError(kExitFailed, "cannot read secret '" + key + "' from standard input");
    }
    if (!got && value.empty()) {
        throw CommandError(kExitUsage, "no value on standard input for secret '" + key + "'");
    }
    if (!value.empty() && value.back() == '\r') value.pop_back();
    return value;
}

// Puts every value of the command line into `map`, checking all of them before any is set;
// returns the keys set.
std::vector<std::string> applyValues(const ConfigArgs &args, OptionMap &map) {
    std::vector<std::pair<std::string, Json::Value>> values;
    for (const std::string &arg : args.assignments) {
        auto kv = splitAssignment(arg, "value");
        Json::Value value;
        if (!TELO::Backup::jsonFromString(value, kv.second)) {
            throw CommandError(kExitUsage, "bad value for '" + kv.first + "': not JSON: " +
                                               kv.second + " (use --string for plain text)");
        }
        values.emplace_back(kv.first, value);
    }
    std::vector<std::pair<std::string, std::string>> texts;
    for (const std::string &arg : args.strings) texts.push_back(splitAssignment(arg, "string"));
    for (const auto &kv : values) checkKey(kv.first);
    for (const auto &kv : texts) checkKey(kv.first);
    for (const std::string &key : args.secrets) checkKey(key);
    std::vector<std::pair<std::string, std::string>> secrets;
    for (const std::string &key : args.secrets) secrets.emplace_back(key, readSecret(key));

    for (const auto &kv : values) map.optSet(kv.first, kv.second);
    for (const auto &kv : texts) map.optSet(kv.first, kv.second, false);
    // A key made now cannot read secrets sealed under one that went missing: say so.
    struct stat st;
    bool hadKey = secrets.empty() || lstat(secretKeyPath().c_str(), &st) == 0 || errno != ENOENT;
    for (const auto &kv : secrets) {
        map.optSet(kv.first, kv.second, true);
        std::string stored;
        if (map.optGet(kv.first, stored, false) && stored.empty() && !kv.second.empty()) {
            throw CommandError(kExitFailed,
                               "cannot encrypt secret '" + kv.first + "': " + keyProblem());
        }
    }
    if (!hadKey && lstat(secretKeyPath().c_str(), &st) == 0) {
        std::cerr << "telobackup-util: created a new secret key " << secretKeyPath()
                  << " (keep a copy: secrets cannot be read without it)\n";
    }
    std::vector<std::string> keys;
    for (const auto &kv : values) keys.push_back(kv.first);
    for (const auto &kv : texts) keys.push_back(kv.first);
    for (const auto &kv : secrets) keys.push_back(kv.first);
    return keys;
}

// The lock of a write, held for the whole read-modify-write (the maps then carry no token of
// their own), released on every way out.
ConfigLock takeLock(const ConfigArgs &args) {
    return ConfigLock(args.lockToken.empty() ? defaultLockToken(args.file) : args.lockToken,
                      args.waitSeconds, args.file);
}

// The error of a failed load of `section`; not found is exit code 1.
CommandError loadFailure(const std::string &file, const std::string &section) {
    if (errno == ENOENT)
        return CommandError(kExitNotFound, file + ": no section [" + section + "]");
    if (notRegularFile()) return CommandError(kExitInvalidFile, file + ": not a regular file");
    return fileError(kExitInvalidFile, file, file);
}

// Loads `section` of `file` into `map`.
void loadSection(OptionMap &map, const std::string &file, const std::string &section) {
    if (!map.optSectionLoad(file, section, -1)) throw loadFailure(file, section);
}

// Writes `map` as `section` of `file`; the caller holds the lock.
void exportSection(const OptionMap &map, const std::string &file, const std::string &section,
                   bool create) {
    if (map.optSectionExport(file, section, create)) return;
    if (errno == EINVAL) {
        throw CommandError(kExitUsage, "invalid section or key name in [" + section + "]");
    }
    if (errno == ENOENT && !create) {
        throw CommandError(kExitNotFound, file + ": no section [" + section + "]");
    }
    throw fileError(kExitCannotWrite, "cannot write " + file, file);
}

void printValue(const Json::Value &value, bool json) {
    if (value.isString() && !json) {
        printLine(value.asString());
    } else {
        printJson(value);
    }
}

void runSections(const ConfigArgs &args, const Context &context) {
    requireFile(args.file);
    std::list<std::string> names;
    if (!OptionMap::optSectionListName(args.file, names))
        throw fileError(kExitInvalidFile, args.file, args.file);
    if (context.json) {
        Json::Value list(Json::arrayValue);
        for (const std::string &name : names) list.append(name);
        printJson(list);
    } else {
        for (const std::string &name : names) printLine(name);
    }
}

void runGet(const ConfigArgs &args, const Context &context) {
    requireSection(args.section, "get");
    requireFile(args.file);
    if (args.key.empty()) {
        // Straight from the file: a value as deep as a text may be would not survive a trip
        // through the text of the whole section.
        Json::Value all;
        if (!TELO::Backup::SectionConfig::loadSection(args.file, args.section, all)) {
            throw loadFailure(args.file, args.section);
        }
        printJson(all.isNull() ? Json::Value(Json::objectValue) : all);
        return;
    }
    OptionMap map;
    loadSection(map, args.file, args.section);
    Json::Value value;
    if (!map.optGet(args.key, value)) {
        throw CommandError(kExitNotFound,
                           args.file + ": no key '" + args.key + "' in [" + args.section + "]");
    }
    if (args.decrypt) {
        if (!value.isString()) {
            throw CommandError(kExitInvalidFile, args.file + ": '" + args.key + "' in [" +
                                                     args.section +
                                                     "] is not a secret (not a string)");
        }
        std::string plain;
        map.optGet(args.key, plain, true);
        if (plain.empty() && !value.asString().empty()) {
            throw CommandError(kExitFailed, "cannot decrypt '" + args.key + "': " + keyProblem());
        }
        value = plain;
    }
    printValue(value, context.json);
}

void runSet(const ConfigArgs &args, const Context &) {
    requireSection(args.section, "set");
    if (args.assignments.empty() && args.strings.empty() && args.secrets.empty()) {
        throw CommandError(kExitUsage, "config set: nothing to set");
    }
    if (!args.create) requireFile(args.file);
    refuseNonRegular(args.file);
    OptionMap map;
    std::vector<std::string> keys = applyValues(args, map);  // before the lock: stdin may be slow
    ConfigLock lock = takeLock(args);
    OptionMap current;
    if (!current.optSectionLoad(args.file, args.section, -1) && (errno != ENOENT || !args.create)) {
        loadSection(current, args.file, args.section);  // reports the failure
    }
    for (const std::string &key : keys) {
        Json::Value value;
        map.optGet(key, value);
        current.optSet(key, value);
    }
    exportSection(current, args.file, args.section, args.create);
    lock.release();
}

void runUnset(const ConfigArgs &args, const Context &) {
    requireSection(args.section, "unset");
    requireFile(args.file);
    ConfigLock lock = takeLock(args);
    OptionMap map;
    loadSection(map, args.file, args.section);
    for (const std::string &key : args.keys) map.optRemove(key);
    exportSection(map, args.file, args.section, false);
    lock.release();
}

void runDelete(const ConfigArgs &args, const Context &) {
    requireSection(args.section, "delete");
    requireFile(args.file);
    ConfigLock lock = takeLock(args);
    OptionMap map;
    loadSection(map, args.file, args.section);
    if (!map.optSectionRemove()) {
        if (errno == ENOENT) {
            throw CommandError(kExitNotFound, args.file + ": no section [" + args.section + "]");
        }
        throw fileError(kExitCannotWrite, "cannot write " + args.file, args.file);
    }
    lock.release();
}

void runNew(const ConfigArgs &args, const Context &context) {
    if (args.file.empty() || args.section.empty() || args.section.find('\n') != std::string::npos) {
        throw CommandError(kExitUsage,
                           "config new: FILE and PREFIX must be non-empty, PREFIX "
                           "on one line");
    }
    refuseNonRegular(args.file);
    OptionMap map;
    applyValues(args, map);
    ConfigLock lock = takeLock(args);
    // Section, values and counter in one rewrite: a failure leaves the file as it was.
    if (!map.optSectionCreateAndSave(args.file, args.section, args.increasing)) {
        if (notRegularFile()) {
            throw CommandError(kExitInvalidFile, args.file + ": not a regular file");
        }
        throw fileError(kExitCannotWrite,
                        "cannot create a section " + args.section + "N in " + args.file, args.file);
    }
    lock.release();
    if (context.json) {
        Json::Value out;
        out["section"] = map.optSectionGetName();
        out["id"] = map.optSectionGetId();
        printJson(out);
    } else {
        printLine(map.optSectionGetName());
    }
}

void runDump(const ConfigArgs &args, const Context &) {
    requireFile(args.file);
    dumpSections(args.file);
}

void addValueOptions(CLI::App *command, ConfigArgs &args) {
    command->add_option("--string", args.strings, "KEY=TEXT: a plain-text value (repeatable)")
        ->allow_extra_args(false);
    command
        ->add_option("--secret", args.secrets,
                     "KEY: an encrypted value read from standard input, one line per key "
                     "(repeatable), so it never appears in a process listing")
        ->allow_extra_args(false);
}

void addLockOption(CLI::App *command, ConfigArgs &args) {
    command->add_option("--lock", args.lockToken,
                        "Lock token shared with the other writers of FILE (default: "
                        "telobackup-util.<name>.<hash of the real path>)");
    command
        ->add_option("--wait", args.waitSeconds,
                     "Wait at most SECONDS for the lock, then fail with exit status 5 (default: "
                     "as long as it takes; after 2 s the process holding it is named)")
        ->option_text("SECONDS")
        ->check(
            [](const std::string &text) {
                char *end = nullptr;
                double seconds = strtod(text.c_str(), &end);
                bool fine = end != text.c_str() && *end == '\0' && seconds >= 0 && seconds < 1e9;
                return fine ? std::string() : "expected a number of seconds, 0 or more";
            },
            "SECONDS");
}

}  // namespace

void addConfigCommand(CLI::App &app, Context &context) {
    auto args = std::make_shared<ConfigArgs>();
    CLI::App *config = app.add_subcommand(
        "config", "Read and write section configuration files (values are one-line JSON)");
    config->require_subcommand(1);

    CLI::App *sections = config->add_subcommand("sections", "List the section names of FILE");
    sections->add_option("FILE", args->file, "Configuration file")->required();
    sections->callback([args, &context] { runSections(*args, context); });

    CLI::App *get = config->add_subcommand(
        "get", "Print SECTION as a JSON object, or the value of KEY (strings as plain text)");
    get->add_option("FILE", args->file, "Configuration file")->required();
    get->add_option("SECTION", args->section, "Section name")->required();
    get->add_option("KEY", args->key, "Key to print");
    get->add_flag("--secret", args->decrypt, "Decrypt KEY, a secret value");
    get->callback([args, &context] { runGet(*args, context); });

    CLI::App *set = config->add_subcommand("set", "Set values in SECTION, keeping its other keys");
    set->add_option("FILE", args->file, "Configuration file")->required();
    set->add_option("SECTION", args->section, "Section name")->required();
    set->add_option("VALUES", args->assignments, "KEY=JSON pairs: values as JSON texts");
    addValueOptions(set, *args);
    set->add_flag("--create", args->create, "Create FILE and SECTION when missing");
    addLockOption(set, *args);
    set->callback([args, &context] { runSet(*args, context); });

    CLI::App *unset = config->add_subcommand("unset", "Remove keys from SECTION");
    unset->add_option("FILE", args->file, "Configuration file")->required();
    unset->add_option("SECTION", args->section, "Section name")->required();
    unset->add_option("KEY", args->keys, "Keys to remove")->required();
    addLockOption(unset, *args);
    unset->callback([args, &context] { runUnset(*args, context); });

    CLI::App *del = config->add_subcommand("delete", "Remove SECTION and all its lines");
    del->add_option("FILE", args->file, "Configuration file")->required();
    del->add_option("SECTION", args->section, "Section name")->required();
    addLockOption(del, *args);
    del->callback([args, &context] { runDelete(*args, context); });

    CLI::App *create = config->add_subcommand(
        "new",
        "Create the section PREFIX<N> with the next free number N, save the values given, "
        "print its name");
    create->add_option("FILE", args->file, "Configuration file (created when missing)")->required();
    create->add_option("PREFIX", args->section, "Section name prefix")->required();
    create->add_option("VALUES", args->assignments, "KEY=JSON pairs: values as JSON texts");
    addValueOptions(create, *args);
    create->add_flag("--increasing", args->increasing,
                     "Never reuse a number, even of a removed section (counter in [global])");
    addLockOption(create, *args);
    create->callback([args, &context] { runNew(*args, context); });

    CLI::App *dump = config->add_subcommand("dump", "Print FILE as one JSON object of objects");
    dump->add_option("FILE", args->file, "Configuration file")->required();
    dump->callback([args, &context] { runDump(*args, context); });
}

}  // namespace telocli
