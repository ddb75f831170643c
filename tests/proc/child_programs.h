// Child programs for the process tests: helper modes of the test binary itself (no shell).
//   exit CODE               exits with CODE
//   cat [CODE]              copies stdin to stdout until end of file, then exits with CODE
//   describe DEST           reports on itself to DEST (a path, appended, or "fd:N"), one fact a
//                           line: "fd N TARGET", "env NAME=VALUE", "pid N", "sid N" and its
//                           "SigBlk:"/"SigIgn:" lines of /proc/self/status
//   ignore_eof              reads stdin to end of file, then waits to be killed
//   signal_parent SIG CODE  sends SIG ("TERM" or "INT") to its parent, once the parent catches
//                           it, until SIG comes back; then exits with CODE
#ifndef TELO_TESTS_PROC_CHILD_PROGRAMS_H
#define TELO_TESTS_PROC_CHILD_PROGRAMS_H

#include <set>
#include <string>
#include <vector>

namespace proctest {

std::vector<std::string> helper(const std::string &name, const std::vector<std::string> &args = {});
// The descriptors open in this process.
std::set<int> openFds();
// True when this process has no child, running or zombie (a zombie found is reaped).
bool noChildren();
// The rest of every line of `report` that starts with `key` + " ", in order.
std::vector<std::string> field(const std::string &report, const std::string &key);

}  // namespace proctest

#endif
