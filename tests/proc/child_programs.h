// Child programs for the process tests: helper modes of the test binary itself, and a reader
// for what the "describe" helper reports about the process it runs in.
#ifndef TELO_TESTS_PROC_CHILD_PROGRAMS_H
#define TELO_TESTS_PROC_CHILD_PROGRAMS_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace proctest {

// What a child saw of itself ("describe" helper).
struct ChildView {
    std::map<int, std::string> fds;  // open descriptor -> readlink of /proc/self/fd/N
    std::vector<std::string> env;    // environ, in order
    std::set<int> blocked;           // signals in the mask
    std::string sigpipe;             // "default", "ignore" or "handler"
    std::string cwd;
    std::vector<std::string> argv;
    int pid = 0;
    int ppid = 0;
    int sid = 0;
};
ChildView parseView(const std::string &text);

// The descriptors open in this process.
std::set<int> openFds();

// True when this process has no child at all, running or zombie (a zombie found is reaped).
bool noChildren();

// Helper modes (see child_programs.cpp):
//   exit CODE                 exits with CODE
//   cat [CODE]                copies stdin to stdout until end of file, then exits with CODE
//   describe DEST             writes a ChildView report to DEST: a path (appended) or "fd:N"
//   ignore_eof                reads stdin to end of file, then waits until killed
//   signal_parent SIG CODE    sends SIG ("TERM" or "INT") to its parent, once the parent
//                             catches it, until SIG comes back; then exits with CODE
std::vector<std::string> helper(const std::string &name, const std::vector<std::string> &args = {});

}  // namespace proctest

#endif
