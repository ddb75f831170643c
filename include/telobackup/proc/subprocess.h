// Running external programs without a shell: an argument vector, a cleaned environment and
// redirected standard streams, started and waited for, detached, left running, exec'd in place,
// or joined to the caller by a socket pair for a conversation.
//
// Every call is synchronous on the caller's thread and takes no lock. The program is run from
// its path as given (never looked up in PATH; relative paths are taken from "/", where the child
// changes to) with the arguments unchanged. Failures are logged to the system log as
// "(pid) [err] proc/subprocess:line ..."; what fails in the child before the program runs ends
// it with exit code 127 and is logged under the child's pid.
//
// What a host program must not do while it uses these calls:
// - set SIGCHLD to SIG_IGN during call() or callBackground(): the kernel then reaps the child
//   and their wait loops never end (SA_NOCLDWAIT is handled for the caller);
// - run two call() or callBackground() at once, in two threads, or together with
//   UtilExec::Execv: they change process-wide signal state;
// - reap the launcher's children itself (waitpid(-1, ...), a SIGCHLD handler that reaps
//   everything) while call(), callBackground() or callPipeClose() waits for them.
//
// Every launch returns once the program has started (its exec done) or its child has failed,
// like posix_spawn, with the calling thread's signals held meanwhile; the child's lines are
// then written by the caller under the child's pid. Until its exec the child runs only system
// calls on data the caller prepared: it takes no lock and allocates nothing, so busy threads of
// a host cannot hang it, and it shares the caller's memory rather than copying it, so a large
// host launches as fast as a small one. One exception: when standard input is a path naming a
// FIFO, the child, which waits there for a writer, is a plain fork that is not waited for and
// writes its own lines (as a forked child of a multi-threaded host, it could then hang in the
// system logger if another thread held the logger's lock at the fork). Programs start with an
// empty signal mask, SIGPIPE at its default and no handler of the caller installed; other
// ignored signals stay ignored.
#ifndef TELOBACKUP_PROC_SUBPROCESS_H
#define TELOBACKUP_PROC_SUBPROCESS_H

#include <cstdio>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "telobackup/export.h"
#include "telobackup/proc/signal.h"

namespace TELO {
namespace Backup {

// The caller's side of a conversation started by SubProcess::callPipeOpen. Allocated with
// calloc and released with free by callPipeClose, never constructed or destroyed by the
// caller.
struct PipeFile {
    // The caller's end of the socket pair as an unbuffered "w+" stream; null until the open
    // succeeded. Both directions go through it.
    FILE *stream;
    // Records that SIGPIPE was set to be ignored. Released without restoring: SIGPIPE stays
    // ignored in the caller after the first conversation, so a write to a child that has
    // exited fails with EPIPE instead of killing the caller.
    ScopedTempSigHandler sigpipeGuard;
};

// Which step of a launch failed, so that a program that could not be run is told apart from a
// program that ran and exited 127. Filled by the overloads of call() and callNoWait() that take
// one.
struct LaunchFailure {
    enum Step {
        kNone,        // the program was started (it may still have failed on its own)
        kFork,        // no child could be made; the call returned -1
        kDevNull,     // the child could not open /dev/null
        kOpenStream,  // a redirection's file could not be opened (`stream` says which)
        kModeStream,  // an output file's mode could not be set with fchmod (`stream`)
        kDupStream,   // a descriptor could not be put on a standard stream (`stream`)
        kArguments,   // the argument array could not be allocated
        kExec,        // execve failed: a missing program, no permission, a bad interpreter
        kUnobserved,  // standard input is a FIFO: the launch does not wait for the exec, so a
                      // failure shows only as exit code 127 and the child's own log lines
    };
    Step step = kNone;
    int error = 0;    // errno of the failing step, 0 for kNone and kUnobserved
    int stream = -1;  // 0, 1 or 2 for the steps on a stream, else -1
};

class SubProcessPrivate;

class TELO_EXPORT SubProcess {
  public:
    // The argument vector is the one element `program` (never split into words: "ls -l" is a
    // program whose file name has a blank). A null `program` throws std::logic_error
    // ("basic_string::_M_construct null not valid").
    SubProcess(const std::string &program);
    SubProcess(const char *program);
    // The argument vector is a copy of `args` in order; element 0 is the program's path and
    // its argv[0].
    SubProcess(std::list<std::string> args);
    SubProcess(std::vector<std::string> args);
    // Does nothing to programs already started.
    ~SubProcess();
    SubProcess(const SubProcess &) = delete;
    SubProcess &operator=(const SubProcess &) = delete;
    // Hands the prepared arguments, environment and redirections over; programs already
    // started are not affected. The moved-from object may only be destroyed or assigned to.
    //     SubProcess rsyncTo(const std::string &dest) { SubProcess p("/usr/bin/rsync");
    //                                                   p.addArg(dest); return p; }
    SubProcess(SubProcess &&other) noexcept;
    SubProcess &operator=(SubProcess &&other) noexcept;

    // Appends one argument.
    void addArg(const std::string &arg);
    // Appends `first` and every further const char* argument up to a null pointer, which must
    // end the list: addArgList("-a", "-b", (char *)nullptr). A null `first` appends nothing.
    void addArgList(const char *first, ...) __attribute__((sentinel));
    // Appends one argument formatted like printf (see stringf).
    void addFormatArg(const char *format, ...) __attribute__((format(printf, 2, 3)));

    // Standard input read from the file `path`, or a duplicate of the caller's `fd`. The later
    // setter of a stream wins; a stream never set is the null device.
    void setStdInput(const std::string &path);
    void setStdInput(int fd);
    // Standard output appended to `path` (created 0600 when missing, never truncated, then
    // given the permission bits `mode` with fchmod when `mode` is not 0), or a duplicate of
    // the caller's `fd`.
    void setStdOutput(const std::string &path, int mode);
    void setStdOutput(int fd);
    // The same for standard error.
    void setStdError(const std::string &path, int mode);
    void setStdError(int fd);

    // Sets a variable for the program, replacing an earlier value of the same name. The program
    // sees only PATH from the caller's environment plus these, so setEnv("PATH", ...) wins.
    void setEnv(const std::string &name, const std::string &value);
    // Logs every variable set with setEnv as "env: NAME=VALUE", in name order, at LOG_ERR
    // (a diagnostic aid). Nothing for none.
    void printEnv();
    // The command line for display: every argument in double quotes with each '"' preceded by
    // a backslash (nothing else escaped), joined by blanks: the arguments  a"b  and  c  give
    //  "a\"b" "c"  and no arguments give "". For display only: never hand it to a shell.
    std::string getCmdline() const;

    // Runs the program and waits for it. Returns the raw wait status (exit code in bits 8..15,
    // terminating signal in bits 0..6: use WIFEXITED and friends), so 127 << 8 when the child
    // failed before the program ran; -1 when it could not start, after logging
    // "remove SA_RESTART failed, %m", "fork failed, %m" or "sigaction failed, %m" (errno holds
    // the failure). A SIGTERM reaching the calling thread while it waits is forwarded to the
    // program (again at every later interruption) and handed on to the SIGTERM handler the
    // caller had installed; the call still waits for the program's end. The SIGCHLD flags and
    // the SIGTERM disposition are as before when it returns. See the preconditions above.
    int call() const;
    // As call(), and fills `failure` with the step that kept the program from running, with
    // its errno; kNone when the program ran, so a status of 127 << 8 is then its own.
    //     LaunchFailure why;
    //     int status = SubProcess("/usr/bin/rsync").call(why);
    //     if (why.step == LaunchFailure::kExec)
    //         fprintf(stderr, "cannot run rsync: %s\n", strerror(why.error));  // ENOENT, EACCES
    // Logs and results exactly as call(); a call that returns -1 before the fork leaves
    // `failure` at kNone.
    int call(LaunchFailure &failure) const;

    // Starts the program as a grandchild that is re-parented to init and never waited for;
    // in a new session when `newSession`. True when the grandchild was started; false after
    // logging "fork failed, %m". Also true, after logging "remove SA_RESTART failed, %m", when
    // the SIGCHLD flags could not be changed and nothing was started. See the preconditions.
    bool callBackground(bool newSession) const;
    // Starts the program and returns its pid; the caller reaps it. Descriptors listed in
    // `keepFds` survive into the program unchanged, even when close-on-exec in the caller; a
    // standard stream listed there is left as the caller has it instead of being redirected.
    // Every other descriptor is closed in the child. -1 after logging "fork failed, %m".
    int callNoWait(const std::set<int> &keepFds) const;
    // As callNoWait(), and fills `failure` as call(LaunchFailure &) does. A child whose step
    // failed has already ended with exit code 127 when this returns; the caller still reaps it.
    int callNoWait(const std::set<int> &keepFds, LaunchFailure &failure) const;
    // Turns the calling process into the program: working directory "/", the environment,
    // streams and descriptors as for the other calls (the standard streams are redirected and
    // every other descriptor is closed first). Returns only when the program could not be
    // started, with 0, leaving the process in that prepared state; the failure is logged.
    int exec() const;

    // Starts the program with its standard input and output on one end of a Unix stream socket
    // pair (the stdin/stdout settings are ignored; standard error follows its setting) and
    // stores in `*out` a handle on the other end. Returns the child's pid, or -1 after logging
    // "create pipe failed, %m", "fork failed, %m" (then `*out` is untouched), "create pipe file
    // io failed" (`*out` null), "failed to ignore pipe signal", "set cloexec failed %m" or
    // "fdopen failed, %m" (each of these with "create file io failed" after the last two; `*out`
    // is then a handle without a stream, to release with callPipeClose(*out, -1)). SIGPIPE is
    // ignored in the caller from then on. errno never reads ESPIPE after a success.
    int callPipeOpen(PipeFile **out);
    // Closes the stream (the child sees end of file), frees the handle and collects child
    // `pid` the moment it ends, waiting up to 0.5 s (on a pidfd of the child, which is closed
    // again; where the kernel has none, by checking every 5 ms), then sends SIGTERM and checks
    // once more without waiting. Returns the raw wait status; -1 for pid -1, when waiting fails or
    // when the child is still there after SIGTERM (logged as "waitpid [pid] return [result]"; the
    // child is then left for the caller to reap). A null `pipe` is allowed.
    static int callPipeClose(PipeFile *pipe, int pid);
    // fread from the conversation; 0 without reading when `size` is 0. `pipe` must not be
    // null.
    static size_t readPipe(void *buffer, size_t size, size_t count, PipeFile *pipe);
    // fwrite to the conversation; 0 without writing when `size` is 0. A short count with errno
    // EPIPE when the child has gone. `pipe` must not be null.
    static size_t writePipe(const void *buffer, size_t size, size_t count, PipeFile *pipe);
    // fflush of the stream; nothing for a null pipe or a handle without a stream.
    static void flushPipe(PipeFile *pipe);
    // The conversation's descriptor (both directions, for select/poll); -1 for a null pipe or a
    // handle without a stream.
    static int getReadFD(PipeFile *pipe);

  private:
    std::unique_ptr<SubProcessPrivate> d_;
};

}  // namespace Backup
}  // namespace TELO

#endif
