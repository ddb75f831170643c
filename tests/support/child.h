// Runs a piece of a test in a forked child: for process-wide state (the log stream, signal
// dispositions), for an unprivileged caller, or for a private /tmp.
#ifndef TELO_TESTS_SUPPORT_CHILD_H
#define TELO_TESTS_SUPPORT_CHILD_H

#include <functional>
#include <string>
#include <type_traits>

namespace testsupport {

struct ChildOptions {
    // Drop to uid/gid 65534 (nobody/nogroup) before running; needs root, else the test skips.
    bool dropPrivileges = false;
    // A private mount namespace, so the child may mount; needs CAP_SYS_ADMIN, else skips.
    bool privateMounts = false;
    // A private mount namespace with a fresh tmpfs on /tmp; needs CAP_SYS_ADMIN, else skips.
    bool privateTmp = false;
};

struct ChildResult {
    bool skipped = false;  // the requested environment could not be set up
    int status = 0;        // raw wait status
    // What the child reported: "" on success, else the failure or the skip reason.
    std::string message;
    bool ok() const { return !skipped && message.empty() && status == 0; }
};

// What a failed check in a runInChild body throws (see CHILD_CHECK).
struct ChildFailure {
    std::string message;
};

// Forks, prepares the child as `options` asks and runs `body` there; a check that fails in it
// throws ChildFailure. A body may instead return a failure text, "" for success. The child ends
// with _exit, never returning into the test framework.
ChildResult runChildBody(const std::function<void()> &body, ChildOptions options);
template <typename Body>
ChildResult runInChild(ChildOptions options, const Body &body) {
    return runChildBody(
        [&body] {
            if constexpr (std::is_void<decltype(body())>::value) {
                body();
            } else {
                std::string failure = body();
                if (!failure.empty()) throw ChildFailure{failure};
            }
        },
        options);
}
template <typename Body>
ChildResult runInChild(const Body &body) {
    return runInChild(ChildOptions{}, body);
}

// True when this process may give files to other users (chown), i.e. it runs as root.
bool canChangeOwner();

}  // namespace testsupport

// Checks inside a runInChild body: the first that fails ends the body with its description.
#define CHILD_FAIL(message)                                                     \
    throw ::testsupport::ChildFailure {                                         \
        std::string(__FILE__ ":") + std::to_string(__LINE__) + ": " + (message) \
    }
#define CHILD_CHECK(cond)               \
    do {                                \
        if (!(cond)) CHILD_FAIL(#cond); \
    } while (0)
#define CHILD_CHECK_EQ(expected, actual) CHILD_CHECK((expected) == (actual))

// Runs a body in a child (the arguments of runInChild) and turns its outcome into a
// gtest result: a skip when the environment could not be set up, else a failure with the message.
#define EXPECT_CHILD_OK(...)                                                                   \
    do {                                                                                       \
        ::testsupport::ChildResult childResult_ = ::testsupport::runInChild(__VA_ARGS__);      \
        if (childResult_.skipped) GTEST_SKIP() << childResult_.message;                        \
        EXPECT_TRUE(childResult_.ok())                                                         \
            << "child: " << childResult_.message << " (status " << childResult_.status << ")"; \
    } while (0)

#endif
