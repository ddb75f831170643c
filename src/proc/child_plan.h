// The launch plan: everything a child needs between fork and exec, built by the parent so that
// the child only makes system calls on it. The parent's side (building the plan, starting the
// child, logging what it reported) is in child_plan.cpp, the child's side in child_side.cpp.
#ifndef TELO_SRC_PROC_CHILD_PLAN_H
#define TELO_SRC_PROC_CHILD_PLAN_H

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "internal/unique_owners.h"
#include "proc/launch.h"
#include "telobackup/proc/subprocess.h"

namespace TELO {
namespace Backup {

// ---- The description of a program (SubProcess's private record) ----------------------------

struct StreamSpec {
    int fd = -1;       // a descriptor of the caller to duplicate, or -1
    std::string path;  // a file to open, or ""
    int mode = 0;      // fchmod bits for a new or existing output file; 0 leaves it
};

class SubProcessPrivate {
  public:
    std::vector<std::string> args_;
    std::map<std::string, std::string> env_;
    StreamSpec stdinSpec_;
    StreamSpec stdoutSpec_;
    StreamSpec stderrSpec_;
};

namespace internal {

// ---- The plan ------------------------------------------------------------------------------

// The five ways of starting a program.
enum class LaunchKind {
    Wait,          // call(): a child, waited for by the caller
    Detach,        // callBackground(): a grandchild, re-parented to init
    NoWait,        // callNoWait(): a child the caller reaps
    InProcess,     // exec(): no child, the caller's own process becomes the program
    Conversation,  // callPipeOpen(): a child whose standard input and output are a socket
};

// What the child reports; the parent turns each into its log line.
enum EventKind {
    kChdirFailed,
    kDevNullFailed,
    kOpenFailed,  // arg: the stream
    kFchmodFailed,
    kDup2Failed,  // arg: the stream
    kStdinFailed,
    kCallocFailed,
    kLaunchCommand,
    kExecvFailed,
    kForkFailed,
};

struct StreamPlan {
    int fd;
    const char *path;  // null when none
    int mode;
};

struct ChildPlan;

using EnvironmentVars = std::vector<std::pair<std::string, std::string>>;

// The environment a program sees, in order: PATH from the caller's environment when it has one,
// then every variable of `record` in name order, a name already there keeping its place with the
// new value. Names setenv refuses (empty, or holding '=') are left out. This is exactly what
// clearenv() followed by setenv() of PATH and then of each variable leaves.
EnvironmentVars programEnvironment(const SubProcessPrivate &record);

// Writes the line of one event, under the pid of the process where it happened.
void logChildEvent(const ChildEvent &event, const ChildPlan &plan);
void logChildEventNow(const ChildEvent &event, void *plan);

// Everything the child needs, made before the fork.
struct ChildPlan {
    ChildPlan(const SubProcessPrivate &r, LaunchKind launchKind, const std::set<int> &keepFds);
    ChildPlan(const ChildPlan &) = delete;
    ChildPlan &operator=(const ChildPlan &) = delete;

    bool keeps(int fd) const;
    // True when the sink is the parent's report, read once the launch has returned.
    bool observed() const { return sink == &report; }

    const SubProcessPrivate &record;
    const LaunchKind kind;
    const char *program = "";
    UniqueMalloc<char *> argv;  // null when calloc failed
    int argvErrno = 0;
    EnvironmentVars environment;
    std::vector<std::string> envStrings;  // "NAME=value", what envp points into
    std::vector<char *> envp;
    StreamPlan streams[3] = {};
    std::vector<int> keep;  // sorted

    int childFlags = 0;       // Wait, Detach: the caller's SIGCHLD flags, restored in the child
    bool newSession = false;  // Detach
    int socketParent = -1;    // Conversation: the caller's and the child's ends
    int socketChild = -1;

    // A child that is waited for reports to the parent; exec() and a child that is not waited
    // for log each event at once.
    ParentReport report;
    ImmediateLog immediateLog{logChildEventNow, this};
    EventSink *sink = &report;
    ChildStarter *starter = nullptr;
};

// ---- The parent's side (child_plan.cpp) ----------------------------------------------------

// Starts the child of `plan` (any kind but InProcess) and writes the lines it reported. The pid
// (of the intermediate child for Detach), or -1 with errno.
pid_t launch(ChildPlan &plan);

// The step that kept the program of a launch from running, from the events the child reported.
LaunchFailure failureOf(const ChildPlan &plan);

// ---- The child's side (child_side.cpp) -----------------------------------------------------

// The steps between fork and exec, in their fixed order; returns (0) only when something failed.
// For InProcess it runs in the caller's own process.
int runChild(ChildPlan &plan);

// Entry points for ChildStarter, on a ChildPlan: the child of Wait, NoWait and Conversation, and
// the intermediate child of Detach, which starts the grandchild and ends.
int childBody(void *plan);
int intermediateBody(void *plan);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
