#include "telobackup/proc/conversation.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/child.h"
#include "support/process.h"

using namespace TELO::Backup;
using namespace testsupport;

// Reads standard input to end of file and then waits, deaf to SIGTERM, until killed.
TELO_TEST_HELPER(deaf) {
    signal(SIGTERM, SIG_IGN);
    char buffer[256];
    while (read(0, buffer, sizeof(buffer)) > 0) {
    }
    for (;;) pause();
    (void)args;
}

// Writes one line longer than a chunk, then "tail" without a newline, and exits.
TELO_TEST_HELPER(long_line) {
    std::string text = std::string(10000, 'x') + "\nshort\ntail";
    return write(1, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 3;
    (void)args;
}

namespace {

Conversation startHelper(const std::string &name, const std::vector<std::string> &args = {}) {
    return Conversation(SubProcess(helperCommand(name, args)));
}

}  // namespace

// sort answers only once its input has ended: closeInput() ends it while the answer can still
// be read, and the program is collected without being killed.
TEST(Conversation, SortAnswersAfterCloseInput) {
    std::set<int> fdsBefore = openFds();
    {
        Conversation sort(SubProcess(programPath("sort")));
        ASSERT_TRUE(sort.started());
        EXPECT_GT(sort.pid(), 0);
        EXPECT_TRUE(sort.write("pear\napple\n"));
        EXPECT_TRUE(sort.write(std::string("fig\n")));
        EXPECT_EQ(-1, sort.wait(0));
        EXPECT_EQ(ETIMEDOUT, errno);
        EXPECT_EQ(0, kill(sort.pid(), 0));  // left running
        EXPECT_TRUE(sort.closeInput());
        EXPECT_FALSE(sort.write("late\n"));
        EXPECT_EQ(EPIPE, errno);
        std::string line, all;
        while (sort.readLine(line)) all += line + ";";
        EXPECT_EQ(0, errno);
        EXPECT_EQ("apple;fig;pear;", all);
        int status = sort.wait(-1);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(0, WEXITSTATUS(status));
        EXPECT_EQ(-1, sort.pid());
        EXPECT_EQ(status, sort.wait(0));  // again, from the record
        EXPECT_EQ(status, sort.close());
        EXPECT_FALSE(sort.started());
        EXPECT_EQ(-1, sort.close());
    }
    EXPECT_EQ(fdsBefore, openFds());
    EXPECT_TRUE(noChildren());
}

// Lines split across reads, an over-long line, a last line without a newline, and read() that
// first returns what readLine() took ahead.
TEST(Conversation, LinesAndRawReads) {
    Conversation talk = startHelper("long_line");
    ASSERT_TRUE(talk.started());
    std::string line;
    EXPECT_FALSE(talk.readLine(line, 6000));
    EXPECT_EQ(EOVERFLOW, errno);
    EXPECT_EQ(std::string(6000, 'x'), line);
    EXPECT_TRUE(talk.readLine(line));
    EXPECT_EQ(std::string(4000, 'x'), line);
    EXPECT_TRUE(talk.hasBuffered());
    char buffer[3];
    EXPECT_EQ(3, talk.read(buffer, 3));
    EXPECT_EQ("sho", std::string(buffer, 3));
    EXPECT_TRUE(talk.readLine(line));
    EXPECT_EQ("rt", line);
    EXPECT_TRUE(talk.readLine(line));
    EXPECT_EQ("tail", line);
    EXPECT_FALSE(talk.readLine(line));
    EXPECT_EQ(0, errno);
    EXPECT_EQ("", line);
    EXPECT_EQ(0, talk.read(buffer, 3));
    EXPECT_EQ(0, talk.close());
}

// A program that ignores end of file and SIGTERM is killed and reaped by the destructor, after
// the grace; one that has gone makes writes fail with EPIPE, even with SIGPIPE at its default.
TEST(Conversation, NothingOutlivesTheObject) {
    pid_t deafPid;
    {
        Conversation deaf = startHelper("deaf");
        deafPid = deaf.pid();
        EXPECT_TRUE(deaf.write("x\n"));
        EXPECT_TRUE(deaf.closeInput());
        EXPECT_EQ(-1, deaf.wait(20));
        EXPECT_EQ(ETIMEDOUT, errno);
    }
    EXPECT_EQ(-1, kill(deafPid, 0));
    EXPECT_TRUE(noChildren());

    Conversation deaf = startHelper("deaf");
    int status = deaf.close();
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(SIGKILL, WTERMSIG(status)) << status;

    EXPECT_CHILD_OK([] {
        Conversation gone = startHelper("exit", {"4"});
        CHILD_CHECK_EQ(4 << 8, gone.wait(-1));
        signal(SIGPIPE, SIG_DFL);
        CHILD_CHECK(!gone.write("x") && errno == EPIPE);
        CHILD_CHECK_EQ(4 << 8, gone.close());
    });
}

// Moving hands the program over: the moved-from object owns nothing, and assigning over a
// conversation closes and reaps the program it held.
TEST(Conversation, MovesHandTheProgramOver) {
    Conversation first = startHelper("cat", {"7"});
    pid_t firstPid = first.pid();
    Conversation second(std::move(first));
    EXPECT_FALSE(first.started());
    EXPECT_EQ(-1, first.pid());
    EXPECT_EQ(-1, first.fd());
    EXPECT_FALSE(first.write("x"));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, first.wait(0));
    EXPECT_EQ(ECHILD, errno);
    EXPECT_EQ(firstPid, second.pid());

    second = startHelper("cat", {"8"});
    EXPECT_EQ(-1, kill(firstPid, 0));  // the first program was closed and reaped
    EXPECT_TRUE(second.write("again\n"));
    std::string line;
    EXPECT_TRUE(second.readLine(line));
    EXPECT_EQ("again", line);
    EXPECT_EQ(8 << 8, second.close());
    EXPECT_TRUE(noChildren());
}

// When the socket pair cannot be made, nothing is started and nothing leaks.
TEST(Conversation, FailedStart) {
    EXPECT_CHILD_OK([] {
        std::set<int> fdsBefore = openFds();
        CHILD_CHECK(limitNewDescriptors(1));
        Conversation talk = startHelper("cat");
        CHILD_CHECK(!talk.started() && errno == EMFILE);
        CHILD_CHECK(!talk.closeInput() && errno == EBADF);
        std::string line;
        CHILD_CHECK(!talk.readLine(line) && errno == EBADF);
        CHILD_CHECK_EQ(-1, talk.close());
        CHILD_CHECK(fdsBefore == openFds());
        CHILD_CHECK(noChildren());
    });
}
