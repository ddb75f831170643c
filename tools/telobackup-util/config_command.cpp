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
#include <set>

#include "cli.h"
#include "config_dump.h"
#include "config_rewrite.h"
#include "input.h"
#include "telobackup/json_text.h"
#include "telobackup/option_map.h"
#include "telobackup/path/path_util.h"
#include "telobackup/section_config.h"
#include "unified_diff.h"

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
    std::string fromJson;  // @FILE or @-: members to set
    std::string lockToken;
    double waitSeconds = -1;  // for the lock; negative: as long as it takes
    std::string format;  // of get: "json" or "sh"; "" as --json says
    bool create = false;
    bool increasing = false;
    bool decrypt = false;
    bool dryRun = false;
    bool force = false;  // rewrite even when lines would be lost
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

// Fails with "not found" or "invalid file" unless `file` is an existing regular file; `name`
// is what messages call it.
void requireFile(const std::string &file, const std::string &name) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0) {
        throw errno == ENOENT ? CommandError(kExitNotFound, name + ": no such file")
                              : systemError(kExitInvalidFile, name);
    }
    if (!S_ISREG(st.st_mode)) throw CommandError(kExitInvalidFile, name + ": not a regular file");
    if (access(file.c_str(), R_OK) != 0) throw systemError(kExitInvalidFile, name);
}

void requireFile(const std::string &file) {
    requireFile(file, file);
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
    if (key.empty() || key.find_first_of("=\n") != std::string::npos ||
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
    if (!args.fromJson.empty()) {
        if (args.fromJson == "@-" && !args.secrets.empty()) {
            throw CommandError(kExitUsage,
                               "--from-json @- and --secret cannot both read standard input");
        }
        Json::Value object = readJsonObject(args.fromJson, "--from-json");
        for (const std::string &key : object.getMemberNames()) values.emplace_back(key, object[key]);
    }
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
        if (!map.optSetSecretChecked(kv.first, kv.second)) {
            throw CommandError(kExitFailed,
                               "cannot encrypt secret '" + kv.first + "': " + keyProblem());
        }
    }
    if (!hadKey && lstat(secretKeyPath().c_str(), &st) == 0) {
        printNotice("created a new secret key " + secretKeyPath() +
                    " (keep a copy: secrets cannot be read without it)");
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

// The error of a failed load of `section` from `file`, called `name`; not found is exit code 1.
CommandError loadFailure(const std::string &file, const std::string &section,
                         const std::string &name) {
    if (errno == ENOENT)
        return CommandError(kExitNotFound, name + ": no section [" + section + "]");
    if (notRegularFile()) return CommandError(kExitInvalidFile, name + ": not a regular file");
    return fileError(kExitInvalidFile, name, file);
}

CommandError loadFailure(const std::string &file, const std::string &section) {
    return loadFailure(file, section, file);
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

// `text` in single quotes for the POSIX shell, each ' written as '\''.
std::string shellQuote(const std::string &text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

// A key `eval` can assign: letters, digits and "_", not beginning with a digit.
bool isShellName(const std::string &key) {
    if (key.empty() || (key[0] >= '0' && key[0] <= '9')) return false;
    for (char c : key) {
        bool fine = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_';
        if (!fine) return false;
    }
    return true;
}

// KEY='value' lines of `values` for eval: strings as their text, other values as JSON. Every
// key and value is checked before anything is printed, so eval never sees half a section.
void printShell(const Json::Value &values, const std::string &where) {
    std::string text;
    for (const std::string &key : values.getMemberNames()) {
        if (!isShellName(key)) {
            throw CommandError(kExitInvalidFile,
                               where + ": key '" + key +
                                   "' is no shell variable name (letters, digits and _, not "
                                   "beginning with a digit): read it with --json");
        }
        const Json::Value &value = values[key];
        std::string plain = value.isString() ? value.asString() : TELO::Backup::jsonToString(value);
        if (plain.find('\0') != std::string::npos) {
            throw CommandError(kExitInvalidFile, where + ": the value of '" + key +
                                                     "' holds a NUL byte, which no shell "
                                                     "variable can: read it with --json");
        }
        text += key + "=" + shellQuote(plain) + "\n";
    }
    writeOut(text.data(), text.size());
}

void runSections(const ConfigArgs &args, const Context &context) {
    ConfigInput input(args.file);
    requireFile(input.path(), input.name());
    std::list<std::string> names;
    if (!OptionMap::optSectionListName(input.path(), names))
        throw fileError(kExitInvalidFile, input.name(), input.path());
    if (context.json) {
        Json::Value list(Json::arrayValue);
        for (const std::string &name : names) list.append(name);
        printJson(list);
    } else {
        for (const std::string &name : names) printLine(name);
    }
}

// The keys of a section, as it is read (straight from the file: see runGet).
Json::Value readSection(const ConfigInput &input, const std::string &section) {
    requireFile(input.path(), input.name());
    Json::Value all;
    if (!TELO::Backup::SectionConfig::loadSection(input.path(), section, all)) {
        throw loadFailure(input.path(), section, input.name());
    }
    return all.isNull() ? Json::Value(Json::objectValue) : all;
}

void runKeys(const ConfigArgs &args, const Context &context) {
    requireSection(args.section, "keys");
    ConfigInput input(args.file);
    Json::Value all = readSection(input, args.section);
    if (context.json) {
        Json::Value list(Json::arrayValue);
        for (const std::string &key : all.getMemberNames()) list.append(key);
        printJson(list);
    } else {
        for (const std::string &key : all.getMemberNames()) printLine(key);
    }
}

void runGet(const ConfigArgs &args, const Context &context) {
    requireSection(args.section, "get");
    if (args.format == "sh" && context.json) {
        throw CommandError(kExitUsage, "config get: --format sh and --json exclude each other");
    }
    const bool json = context.json || args.format == "json";
    ConfigInput input(args.file);
    const std::string where = input.name() + ": [" + args.section + "]";
    if (args.key.empty()) {
        // Straight from the file: a value as deep as a text may be would not survive a trip
        // through the text of the whole section.
        Json::Value all = readSection(input, args.section);
        if (args.format == "sh") {
            printShell(all, where);
        } else {
            printJson(all);
        }
        return;
    }
    requireFile(input.path(), input.name());
    OptionMap map;
    if (!map.optSectionLoad(input.path(), args.section, -1)) {
        throw loadFailure(input.path(), args.section, input.name());
    }
    Json::Value value;
    if (!map.optGet(args.key, value)) {
        throw CommandError(kExitNotFound,
                           input.name() + ": no key '" + args.key + "' in [" + args.section + "]");
    }
    if (args.decrypt) {
        if (!value.isString() || value.asString().empty()) {
            throw CommandError(kExitInvalidFile, input.name() + ": '" + args.key + "' in [" +
                                                     args.section + "] is not a secret (" +
                                                     (value.isString() ? "empty" : "not a string") +
                                                     ")");
        }
        std::string plain;
        if (!map.optGetSecretChecked(args.key, plain)) {
            throw CommandError(kExitFailed, "cannot decrypt '" + args.key + "': " + keyProblem());
        }
        value = plain;
    }
    if (args.format == "sh") {
        Json::Value one(Json::objectValue);
        one[args.key] = value;
        printShell(one, where);
    } else {
        printValue(value, json);
    }
}

// The text of FILE before a rewrite, refusing it when lines not named in `touched` would be
// lost (unless --force); the caller holds the lock.
std::string checkRewrite(const ConfigArgs &args, const std::string &section,
                         const std::set<std::string> &touched) {
    std::string text;
    if (!readConfigText(args.file, text)) return text;
    if (!args.force) refuseLostLines(args.file, text, section, touched);
    return text;
}

// {"changed":BOOL} under --json, comparing FILE with its text before the rewrite.
void printChanged(const ConfigArgs &args, const Context &context, const std::string &before) {
    if (!context.json || args.dryRun) return;
    std::string after;
    readConfigText(args.file, after);
    Json::Value out;
    out["changed"] = after != before;
    printJson(out);
}

void runSet(const ConfigArgs &args, const Context &context) {
    requireSection(args.section, "set");
    if (args.assignments.empty() && args.strings.empty() && args.secrets.empty() &&
        args.fromJson.empty()) {
        throw CommandError(kExitUsage, "config set: nothing to set");
    }
    if (!args.create) requireFile(args.file);
    refuseNonRegular(args.file);
    OptionMap map;
    std::vector<std::string> keys = applyValues(args, map);  // before the lock: stdin may be slow
    ConfigLock lock = takeLock(args);
    std::string before = checkRewrite(args, args.section, {keys.begin(), keys.end()});
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
    printChanged(args, context, before);
    lock.release();
}

void runUnset(const ConfigArgs &args, const Context &context) {
    requireSection(args.section, "unset");
    requireFile(args.file);
    ConfigLock lock = takeLock(args);
    std::string before = checkRewrite(args, args.section, {args.keys.begin(), args.keys.end()});
    OptionMap map;
    loadSection(map, args.file, args.section);
    for (const std::string &key : args.keys) map.optRemove(key);
    exportSection(map, args.file, args.section, false);
    printChanged(args, context, before);
    lock.release();
}

void runDelete(const ConfigArgs &args, const Context &context) {
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
    if (context.json && !args.dryRun) {
        Json::Value out;
        out["changed"] = true;
        printJson(out);
    }
}

// The sections of a dump: every member an object of valid keys.
Json::Value readDump(const ConfigArgs &args) {
    Json::Value dump = readJsonObject(args.fromJson, "config import");
    for (const std::string &section : dump.getMemberNames()) {
        if (section.find_first_of(std::string("\n\0", 2)) != std::string::npos) {
            throw CommandError(kExitUsage, "config import: bad section name '" + section + "'");
        }
        if (!dump[section].isObject()) {
            throw CommandError(kExitUsage,
                               "config import: [" + section + "] is not a JSON object of keys");
        }
        for (const std::string &key : dump[section].getMemberNames()) checkKey(key);
    }
    return dump;
}

void runImport(const ConfigArgs &args, const Context &context) {
    Json::Value dump = readDump(args);
    if (!args.create) requireFile(args.file);
    ConfigLock lock = takeLock(args);
    std::string before;
    bool exists = readConfigText(args.file, before);
    if (!exists && !args.create) throw CommandError(kExitNotFound, args.file + ": no such file");
    // Everything is checked before the first section is written.
    std::list<std::string> present;
    if (exists && !OptionMap::optSectionListName(args.file, present)) {
        throw fileError(kExitInvalidFile, args.file, args.file);
    }
    std::set<std::string> have(present.begin(), present.end());
    for (const std::string &section : dump.getMemberNames()) {
        if (!args.create && have.count(section) == 0) {
            throw CommandError(kExitNotFound, args.file + ": no section [" + section +
                                                  "] (add --create to make the missing ones)");
        }
        std::vector<std::string> keys = dump[section].getMemberNames();
        if (!args.force) refuseLostLines(args.file, before, section, {keys.begin(), keys.end()});
    }
    // One rewrite for all sections: a reader sees the file before the import or after it.
    if (!TELO::Backup::SectionConfig::updateSections(args.file, dump, args.create)) {
        throw fileError(kExitCannotWrite, "cannot write " + args.file, args.file);
    }
    if (context.json && !args.dryRun) {
        std::string after;
        readConfigText(args.file, after);
        Json::Value out;
        out["changed"] = after != before;
        out["sections"] = static_cast<Json::UInt>(dump.size());
        printJson(out);
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
    if (args.dryRun) return;
    if (context.json) {
        Json::Value out;
        out["changed"] = true;
        out["section"] = map.optSectionGetName();
        out["id"] = map.optSectionGetId();
        printJson(out);
    } else {
        printLine(map.optSectionGetName());
    }
}

void runDump(const ConfigArgs &args, const Context &) {
    ConfigInput input(args.file);
    requireFile(input.path(), input.name());
    dumpSections(input.path(), input.name());
}

using Writer = void (*)(const ConfigArgs &, const Context &);

// Runs a writing command, or with --dry-run runs it on a private copy of FILE and prints the
// unified diff from FILE to the copy instead; a dry run that would change something ends with
// exit status 1, as diff does.
void runWriting(Writer write, const ConfigArgs &args, Context &context) {
    if (!args.dryRun) {
        write(args, context);
        return;
    }
    DryRunCopy copy(args.file);
    ConfigArgs onCopy = args;
    onCopy.file = copy.path();
    if (onCopy.lockToken.empty()) onCopy.lockToken = defaultLockToken(args.file);
    try {
        write(onCopy, context);
    } catch (const CommandError &e) {
        // Messages name FILE, not the copy.
        std::string message = e.what();
        for (size_t at = message.find(copy.path()); at != std::string::npos;
             at = message.find(copy.path(), at + args.file.size())) {
            message.replace(at, copy.path().size(), args.file);
        }
        throw CommandError(e.code(), message, e.details());
    }
    std::string after = copy.after();
    std::string diff = unifiedDiff(copy.before(), after, args.file, args.file);
    if (context.json) {
        Json::Value out;
        out["changed"] = !diff.empty();
        out["diff"] = diff;
        printJson(out);
    } else {
        writeOut(diff.data(), diff.size());
    }
    context.exitCode = diff.empty() ? kExitOk : kExitNotFound;
}

// What a rewrite does to the section it edits, for the help of the commands that make one.
const char kRewriteNote[] =
    "A rewrite writes the section's keys in the object's order right under its header; the "
    "comments and other lines that stood in the section follow them, and every line of FILE is "
    "written back trimmed. A key line whose value is not JSON, an earlier duplicate of a key or "
    "a key of a second copy of the section would be lost: the command then refuses with exit "
    "status 3 and names each such line (FILE:LINE: text); --force accepts the loss. --dry-run "
    "shows the diff first.";

void addValueOptions(CLI::App *command, ConfigArgs &args) {
    command->add_option("--string", args.strings, "KEY=TEXT: a plain-text value (repeatable)")
        ->allow_extra_args(false);
    command
        ->add_option("--secret", args.secrets,
                     "KEY: an encrypted value read from standard input, one line per key "
                     "(repeatable), so it never appears in a process listing")
        ->allow_extra_args(false);
}

void addDryRunOption(CLI::App *command, ConfigArgs &args) {
    command->add_flag("--dry-run", args.dryRun,
                      "Print the unified diff of the file that would be written and change "
                      "nothing; exit status 0 when nothing would change, 1 when something would");
}

void addForceOption(CLI::App *command, ConfigArgs &args) {
    command->add_flag("--force", args.force,
                      "Rewrite even when lines of the section would be lost (see below)");
}

void addLockOption(CLI::App *command, ConfigArgs &args) {
    addDryRunOption(command, args);
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
    setExamples(config,
                "FILE may be - (standard input) for sections, keys, get and dump. Writes take a "
                "lock shared by every writer of FILE.",
                {{"telobackup-util config get tasks.conf task1", "a section as a JSON object"},
                 {"telobackup-util config set tasks.conf task1 keep=14", "one value"}});

    CLI::App *sections = config->add_subcommand("sections", "List the section names of FILE");
    sections->add_option("FILE", args->file, "Configuration file, or - for standard input")
        ->required();
    setExamples(sections, "",
                {{"telobackup-util config sections tasks.conf", "one name a line"},
                 {"ssh nas cat /etc/app/tasks.conf | telobackup-util --json config sections -",
                  "a JSON array, from standard input"}});
    sections->callback([args, &context] { runSections(*args, context); });

    CLI::App *keys = config->add_subcommand("keys", "List the keys of SECTION");
    keys->add_option("FILE", args->file, "Configuration file, or - for standard input")
        ->required();
    keys->add_option("SECTION", args->section, "Section name")->required();
    setExamples(keys, "",
                {{"telobackup-util config keys tasks.conf task1", "one key a line, sorted"},
                 {"telobackup-util --json config keys tasks.conf task1", "a JSON array"}});
    keys->callback([args, &context] { runKeys(*args, context); });

    CLI::App *get = config->add_subcommand(
        "get", "Print SECTION as a JSON object, or the value of KEY (strings as plain text)");
    get->add_option("FILE", args->file, "Configuration file, or - for standard input")->required();
    get->add_option("SECTION", args->section, "Section name")->required();
    get->add_option("KEY", args->key, "Key to print");
    get->add_flag("--secret", args->decrypt, "Decrypt KEY, a secret value");
    get->add_option("--format", args->format,
                    "json: values as JSON (as --json); sh: KEY='value' lines for eval, strings "
                    "as their text, quoted for the POSIX shell")
        ->check(CLI::IsMember({"json", "sh"}));
    setExamples(get, "",
                {{"telobackup-util config get tasks.conf task1 keep", "one value"},
                 {"eval \"$(telobackup-util config get tasks.conf task1 --format sh)\"",
                  "every key of the section as a shell variable"},
                 {"telobackup-util config get tasks.conf task1 password --secret",
                  "a secret, decrypted"}});
    get->callback([args, &context] { runGet(*args, context); });

    CLI::App *set = config->add_subcommand("set", "Set values in SECTION, keeping its other keys");
    set->add_option("FILE", args->file, "Configuration file")->required();
    set->add_option("SECTION", args->section, "Section name")->required();
    set->add_option("VALUES", args->assignments, "KEY=JSON pairs: values as JSON texts");
    addValueOptions(set, *args);
    set->add_option("--from-json", args->fromJson,
                    "@FILE or @-: set every member of a JSON object (with the VALUES) in one "
                    "rewrite")
        ->option_text("@FILE|@-");
    set->add_flag("--create", args->create, "Create FILE and SECTION when missing");
    addForceOption(set, *args);
    addLockOption(set, *args);
    setExamples(set, kRewriteNote,
                {{"telobackup-util config set tasks.conf task1 keep=14 enabled=true",
                  "two values as JSON"},
                 {"telobackup-util config set tasks.conf task1 --string 'note=two words'",
                  "a plain-text value"}});
    set->callback([args, &context] { runWriting(runSet, *args, context); });

    CLI::App *unset = config->add_subcommand("unset", "Remove keys from SECTION");
    unset->add_option("FILE", args->file, "Configuration file")->required();
    unset->add_option("SECTION", args->section, "Section name")->required();
    unset->add_option("KEY", args->keys, "Keys to remove")->required();
    addForceOption(unset, *args);
    addLockOption(unset, *args);
    setExamples(unset, kRewriteNote,
                {{"telobackup-util config unset tasks.conf task1 note", "one key"},
                 {"telobackup-util config unset tasks.conf task1 keep note", "two keys"}});
    unset->callback([args, &context] { runWriting(runUnset, *args, context); });

    CLI::App *del = config->add_subcommand(
        "delete", "Remove SECTION and all its lines, the comments inside it included");
    del->add_option("FILE", args->file, "Configuration file")->required();
    del->add_option("SECTION", args->section, "Section name")->required();
    addLockOption(del, *args);
    setExamples(del, "Every copy of SECTION goes; the rest of FILE is written back as it reads.",
                {{"telobackup-util config delete tasks.conf task2", "remove a task"},
                 {"telobackup-util config delete tasks.conf task2 --wait 10",
                  "give up after 10 s if another writer holds the lock"}});
    del->callback([args, &context] { runWriting(runDelete, *args, context); });

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
    setExamples(create, "",
                {{"telobackup-util config new tasks.conf task name='\"nightly\"'",
                  "prints task1, then task2, ..."},
                 {"printf '%s\\n' \"$pw\" | telobackup-util config new tasks.conf task "
                  "--increasing --secret password",
                  "an encrypted value from standard input; numbers never reused"}});
    create->callback([args, &context] { runWriting(runNew, *args, context); });

    CLI::App *import = config->add_subcommand(
        "import", "Restore the output of config dump: replace the keys of every section it names");
    import->add_option("FILE", args->file, "Configuration file")->required();
    import->add_option("DUMP", args->fromJson, "@FILE, @- or the JSON text of a dump: an object of sections")
        ->required()
        ->option_text("@FILE|@-|JSON");
    import->add_flag("--create", args->create, "Create FILE and the missing sections");
    addForceOption(import, *args);
    addLockOption(import, *args);
    setExamples(import,
                std::string(kRewriteNote) +
                    " Sections FILE holds but DUMP does not name are kept; all sections are "
                    "checked, then written in one rewrite under one lock.",
                {{"telobackup-util config import new.conf @tasks.json --create",
                  "restore a dump into a new file"},
                 {"telobackup-util config dump a.conf | telobackup-util config import b.conf @- "
                  "--dry-run",
                  "what copying a.conf's sections into b.conf would change"}});
    import->callback([args, &context] { runWriting(runImport, *args, context); });

    CLI::App *dump = config->add_subcommand("dump", "Print FILE as one JSON object of objects");
    dump->add_option("FILE", args->file, "Configuration file, or - for standard input")
        ->required();
    setExamples(dump, "",
                {{"telobackup-util config dump tasks.conf > tasks.json", "every section"},
                 {"telobackup-util config dump tasks.conf | jq '.task1.keep'",
                  "one value through jq"}});
    dump->callback([args, &context] { runDump(*args, context); });
}

}  // namespace telocli
