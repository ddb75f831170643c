// Shared pieces of the telobackup-util command-line tool: exit codes, errors, output.
#ifndef TELO_TOOLS_TELOBACKUP_UTIL_CLI_H
#define TELO_TOOLS_TELOBACKUP_UTIL_CLI_H

#include <json/value.h>
#include <signal.h>

#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace telocli {

// The tool's exit codes (documented in --help and the man page).
enum ExitCode {
    kExitOk = 0,
    kExitNotFound = 1,     // file, section, key, share, session or volume not found
    kExitUsage = 2,        // bad command line: unknown option, bad JSON, bad name
    kExitInvalidFile = 3,  // a file exists but cannot be read as what it should be
    kExitCannotWrite = 4,  // a file could not be created or rewritten, or standard output failed
    kExitLockFailed = 5,   // the configuration lock could not be taken
    kExitUnreachable = 6,  // no address of the host accepted a connection
    kExitFailed = 7,       // anything else (a platform or system failure)
};

// Text of the exit-code table, for --help and the man page.
const char *exitCodeTable();

// A failure of a command: a message for standard error (one line, or several for a refusal
// that names lines of a file) and the exit code. `details`, an object or null, adds members to
// the JSON form of the error.
class CommandError : public std::runtime_error {
  public:
    CommandError(int code, const std::string &message, Json::Value details = Json::Value())
        : std::runtime_error(message), code_(code), details_(std::move(details)) {}
    int code() const { return code_; }
    const Json::Value &details() const { return details_; }

  private:
    int code_;
    Json::Value details_;
};

// Options shared by every command.
struct Context {
    bool json = false;  // machine-readable output, and errors and notices as JSON objects
    int exitCode = 0;   // of a command that succeeds but reports something (a dry run's change)
};

// Writes an error to standard error: "telobackup-util: <line>" for every line of `message`,
// or, when `json` is set, the one line {"error":"<message>","exit":<code>,<details>...}.
void printError(const std::string &message, int code, const Json::Value &details = Json::Value());
// Writes a notice that is no failure (a warning, a wait) to standard error: the text after
// "telobackup-util: ", or {"notice":"<text>"} under --json.
void printNotice(const std::string &text);
// Chooses the form of the two above for the rest of the run.
void setJsonDiagnostics(bool json);

// Sets the footer of `command` to `text` (may be empty) followed by its examples, each a
// command line and a one-line comment.
void setExamples(CLI::App *command, const std::string &text,
                 std::initializer_list<std::pair<const char *, const char *>> examples);

// Standard output of the commands goes through one buffer; a write that fails (a full disk,
// a closed pipe) throws CommandError(kExitCannotWrite, "standard output: <reason>").
void writeOut(const char *data, size_t size);
// Writes what is buffered; main calls it before it exits.
void flushOut();

// `text` with every byte that is not part of well-formed UTF-8 written as "\u00XX" of the
// byte (so "\xff" becomes the six characters \u00ff); only JSON text may go through it.
std::string escapeInvalidUtf8(const std::string &text);
// One line of JSON text for `value`, without the newline, with escapeInvalidUtf8 applied.
std::string jsonText(const Json::Value &value);

// Writes `value` as one line of JSON to standard output.
void printJson(const Json::Value &value);

// Writes `text` and a newline to standard output.
void printLine(const std::string &text);

// The CommandError for a failed system call: `what` followed by errno's text, and `code`.
CommandError systemError(int code, const std::string &what);

// The writers' lock of a token (Path::createIpcLockFile and flock), held until release() or
// destruction. Waits at most `waitSeconds` (negative: as long as it takes) and names the
// process that holds it on standard error once after 2 s. Every failure is a CommandError with
// exit code 5 that says why: the IPC tree, the lock file, the token, or who holds the lock.
// While it is held, SIGTERM, SIGINT and SIGHUP are held back: a rewrite under way finishes or
// fails and removes its temporary, and the signal takes effect when the lock is released. Once
// it holds the lock, it removes the stale temporaries that killed writers left beside `file`.
class ConfigLock {
  public:
    ConfigLock(const std::string &token, double waitSeconds, const std::string &file);
    ~ConfigLock();
    ConfigLock(const ConfigLock &) = delete;
    ConfigLock &operator=(const ConfigLock &) = delete;
    void release();

  private:
    void holdSignals();
    void letSignalsIn();

    std::string token_;
    int fd_ = -1;
    bool signalsHeld_ = false;
    sigset_t savedMask_;
};

// Why the IPC tree or its sub-directory `name` (of mode `mode`) cannot serve the caller, in
// words an administrator can act on ("/tmp/telobackup is owned by uid 65534 (expected root or
// you): remove it"); "" when nothing is wrong there.
std::string ipcTreeProblem(const std::string &name, unsigned int mode);

// systemError for a failed operation on the configuration `file`; when errno is EPERM because
// a symbolic link on the way was not followed, that link is named instead.
CommandError fileError(int code, const std::string &what, const std::string &file);

// The secret key's path, and why the last encryption or decryption failed, in words.
std::string secretKeyPath();
std::string keyProblem();

// Why the last platform call failed: the platform's detail text where it gives one, else errno's
// text, followed by the error triple ("[0x0007 src/share.cpp:120]").
std::string platformFailure();

// Each adds one subcommand with its own options and handler.
void addConfigCommand(CLI::App &app, Context &context);
void addFilterCommand(CLI::App &app, Context &context);
void addTemplateCommand(CLI::App &app, Context &context);
void addProbeCommand(CLI::App &app, Context &context);
void addShareCommand(CLI::App &app, Context &context);
void addVolumesCommand(CLI::App &app, Context &context);
void addTempCommands(CLI::App &app, Context &context);
void addLogCommand(CLI::App &app, Context &context);

// The bash completion script, and a JSON description of every command with its options and
// arguments (for the test that holds the manual page to the parser), both made from the tree.
std::string bashCompletion(const CLI::App &app);
std::string commandTree(const CLI::App &app);

}  // namespace telocli

#endif
