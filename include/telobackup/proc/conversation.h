// A conversation with a program over SubProcess::callPipeOpen's socket pair, held by one object
// that owns the handle and the child: when the object goes, the program sees end of file and is
// reaped, so no descriptor, handle or zombie is left behind.
//
// Every call is synchronous on the caller's thread and takes no lock; one object is used by one
// thread at a time. SIGPIPE stays ignored in the caller after the first conversation
// (callPipeOpen ignores it and never restores it), so a write to a program that has gone fails
// with EPIPE instead of killing the caller.
//
//     SubProcess sort("/usr/bin/sort");
//     Conversation talk(sort);
//     if (!talk.started()) return false;            // the reason is in lastErrorText()
//     talk.write("b\na\n");
//     talk.closeInput();                            // sort sees end of file and answers
//     for (std::string line; talk.readLine(line);) use(line);   // "a", then "b"
//     int status = talk.wait(5000);                 // raw wait status, -1 with ETIMEDOUT
#ifndef TELOBACKUP_PROC_CONVERSATION_H
#define TELOBACKUP_PROC_CONVERSATION_H

#include <sys/types.h>

#include <string>

#include "telobackup/export.h"
#include "telobackup/proc/subprocess.h"

namespace TELO {
namespace Backup {

class TELO_EXPORT Conversation {
  public:
    // The longest line readLine() returns by default.
    static constexpr size_t kMaxLine = 64 * 1024;

    // Owns nothing: started() is false and the calls fail with EBADF.
    Conversation();
    // Starts `program` with SubProcess::callPipeOpen: its standard input and output are the
    // conversation, standard error follows the program's setting. started() tells whether it
    // ran; on failure callPipeOpen's line is logged, errno holds its failure and a half-made
    // handle is released.
    explicit Conversation(SubProcess &program);
    explicit Conversation(SubProcess &&program) : Conversation(program) {}
    // close(): the program is always reaped.
    ~Conversation();
    // The moved-from object owns nothing, as after Conversation(). Assignment first closes
    // what this object held, as close() does.
    Conversation(Conversation &&other) noexcept;
    Conversation &operator=(Conversation &&other) noexcept;
    Conversation(const Conversation &) = delete;
    Conversation &operator=(const Conversation &) = delete;

    // True while the object holds a started conversation (until close()).
    bool started() const;
    // The program's pid; -1 when nothing was started or the program has been collected.
    pid_t pid() const;
    // The caller's end of the socket pair, for poll(2) (both directions); -1 when none. Data
    // readLine() has already taken from it is not seen there: check hasBuffered() first.
    int fd() const;
    // True when read() or readLine() can return data without reading the socket.
    bool hasBuffered() const;

    // Writes all of `size` bytes, retrying short writes and EINTR. Blocks while the program does
    // not read. False with errno: EPIPE when the program has gone or closeInput() was called,
    // EBADF when nothing is held. Nothing is logged.
    bool write(const void *data, size_t size);
    bool write(const std::string &text);

    // Reads up to `size` bytes, first those readLine() buffered; blocks until some arrive.
    // Returns the count, 0 at end of file (the program closed its output or ended), -1 with
    // errno (EBADF when nothing is held). Nothing is logged.
    ssize_t read(void *buffer, size_t size);

    // Reads one line into `line` without its "\n"; a last line without one is returned too.
    // False at end of file with nothing left (errno 0), on a read error (errno), or when no
    // "\n" comes within `maxLength` bytes: then `line` holds those bytes, errno is EOVERFLOW,
    // and the next call goes on with the rest of that line. Nothing is logged.
    //     while (talk.readLine(line)) ...;  if (errno != 0) report(strerror(errno));
    bool readLine(std::string &line, size_t maxLength = kMaxLine);

    // Ends the caller's writing side with shutdown(SHUT_WR): the program reads end of file (so
    // sort and the like produce their output) while the caller can still read its answer.
    // False with errno (EBADF when nothing is held, ENOTCONN). Nothing is logged.
    bool closeInput();

    // Collects the program's end without killing it, waiting up to `timeoutMs` milliseconds
    // (0 checks once, a negative value waits without limit); on a pidfd where the kernel has
    // them, else by checking every 5 ms. Returns the raw wait status (WIFEXITED and friends),
    // again on later calls; -1 with errno ETIMEDOUT when the program is still running (it is
    // left as it was), ECHILD when there is no child to collect (nothing started, or reaped by
    // someone else). The conversation stays open: close() still closes it. Nothing is logged.
    int wait(int timeoutMs);

    // Closes the conversation (the program sees end of file) and collects the program as
    // SubProcess::callPipeClose does: up to 0.5 s of grace, then SIGTERM and one more check.
    // Where callPipeClose would leave it running ("waitpid [pid] return [0]" is logged), the
    // program is killed with SIGKILL and reaped, so none outlives the object. Returns the raw
    // wait status (that of wait() when it was already collected); -1 when nothing was started or
    // the child could not be waited for (errno from waitpid). Closing twice returns -1.
    int close();

  private:
    PipeFile *pipe_ = nullptr;
    pid_t pid_ = -1;
    int status_ = -1;         // the collected status, once pid_ is -1 after a wait()
    bool collected_ = false;  // wait() collected the program
    std::string buffered_;    // received, not yet returned
};

}  // namespace Backup
}  // namespace TELO

#endif
