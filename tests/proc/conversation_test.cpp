// Conversation with real programs. Every case leaves this process as it found it: the same open
// descriptors and no child.
#include "telobackup/proc/conversation.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/child.h"
#include "support/process.h"

using namespace TELO::Backup;
using namespace testsupport;

namespace {

Conversation startHelper(const std::string &name, const std::vector<std::string> &args = {}) {
    return Conversation(SubProcess(helperCommand(name, args)));
}

class Talk : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(fds_, openFds()) << "descriptors leaked or closed";
        EXPECT_TRUE(noChildren()) << "a child was left behind";
    }
    const std::set<int> fds_ = openFds();
};

// sort answers only once its input has ended: closeInput() ends it while the answer can still
// be read, and the program is collected without being killed; its status stays on record.
TEST_F(Talk, SortAnswersAfterCloseInput) {
    Conversation sort(SubProcess(programPath("sort")));
    EXPECT_TRUE(sort.write("pear\napple\n"));
    EXPECT_TRUE(sort.write("fig\n", 4));
    EXPECT_EQ(-1, sort.wait(0));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_TRUE(sort.closeInput());
    EXPECT_FALSE(sort.write("late\n"));
    EXPECT_EQ(EPIPE, errno);
    std::string line, all;
    while (sort.readLine(line)) all += line + ";";
    EXPECT_EQ(0, errno);
    EXPECT_EQ("apple;fig;pear;", all);
    EXPECT_EQ(0, sort.wait(-1));
    EXPECT_EQ(0, sort.close());
    EXPECT_EQ(-1, sort.close());
}

// Lines split across reads, an over-long line, a last line without a newline, and read() that
// first returns what readLine() took ahead.
TEST_F(Talk, LinesAndRawReads) {
    Conversation talk = startHelper("cat");
    ASSERT_TRUE(talk.write(std::string(10000, 'x') + "\nshort\ntail"));
    ASSERT_TRUE(talk.closeInput());
    std::string line;
    EXPECT_FALSE(talk.readLine(line, 6000));
    EXPECT_EQ(EOVERFLOW, errno);
    EXPECT_EQ(std::string(6000, 'x'), line);
    EXPECT_TRUE(talk.readLine(line));
    EXPECT_EQ(std::string(4000, 'x'), line);
    char buffer[3];
    EXPECT_EQ(3, talk.read(buffer, 3));
    EXPECT_EQ("sho", std::string(buffer, 3));
    for (const char *expected : {"rt", "tail"}) {
        EXPECT_TRUE(talk.readLine(line));
        EXPECT_EQ(expected, line);
    }
    EXPECT_FALSE(talk.readLine(line));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(0, talk.close());
}

// A program that ignores end of file and SIGTERM is killed and reaped by the destructor, after
// the grace, and by close(); one that has gone makes writes fail with EPIPE, even with SIGPIPE at
// its default.
TEST_F(Talk, NothingOutlivesTheObject) {
    pid_t deafPid;
    {
        Conversation deaf = startHelper("ignore_eof", {"deaf"});
        deafPid = deaf.pid();
        EXPECT_TRUE(deaf.closeInput());
    }
    EXPECT_EQ(-1, kill(deafPid, 0));
    EXPECT_EQ(SIGKILL, startHelper("ignore_eof", {"deaf"}).close());
    EXPECT_CHILD_OK([] {
        Conversation gone = startHelper("exit", {"4"});
        CHILD_CHECK_EQ(4 << 8, gone.wait(-1));
        signal(SIGPIPE, SIG_DFL);
        CHILD_CHECK(!gone.write("x") && errno == EPIPE);
        CHILD_CHECK_EQ(4 << 8, gone.close());
    });
}

// Moving hands the program over, and assigning over a conversation closes and reaps the program
// it held.
TEST_F(Talk, MovesHandTheProgramOver) {
    Conversation first = startHelper("cat", {"7"});
    pid_t firstPid = first.pid();
    Conversation second(std::move(first));
    EXPECT_FALSE(first.write("x"));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(firstPid, second.pid());
    second = startHelper("cat", {"8"});
    EXPECT_EQ(-1, kill(firstPid, 0));
    EXPECT_EQ(8 << 8, second.close());
}

// When the socket pair cannot be made, nothing is started and nothing leaks.
TEST_F(Talk, FailedStart) {
    EXPECT_CHILD_OK([] {
        std::set<int> fdsBefore = openFds();
        CHILD_CHECK(limitNewDescriptors(1));
        Conversation talk = startHelper("cat");
        CHILD_CHECK(!talk.started() && errno == EMFILE);
        std::string line;
        CHILD_CHECK(!talk.readLine(line) && errno == EBADF);
        CHILD_CHECK_EQ(-1, talk.close());
        CHILD_CHECK(fdsBefore == openFds() && noChildren());
    });
}

}  // namespace
