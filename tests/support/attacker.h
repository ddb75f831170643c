// Another local user for the tests of hostile ground: a process running as uid/gid 65534 that
// performs the steps a test gave it, each when the test asks, so that code under test meets the
// attack at a chosen moment (asked from a test hook of the library).
#ifndef TELO_TESTS_SUPPORT_ATTACKER_H
#define TELO_TESTS_SUPPORT_ATTACKER_H

#include <sys/types.h>

#include <functional>
#include <vector>

namespace testsupport {

class Attacker {
  public:
    // Forks the attacker, which drops to uid/gid 65534 and waits for requests. Needs root:
    // check started().
    explicit Attacker(std::vector<std::function<bool()>> steps);
    // Ends the attacker and reaps it.
    ~Attacker();
    Attacker(const Attacker &) = delete;
    Attacker &operator=(const Attacker &) = delete;

    bool started() const { return pid_ > 0; }
    // Runs step `index` in the attacker and waits for it; its result (false also when the
    // attacker is gone).
    bool perform(size_t index);

  private:
    pid_t pid_ = -1;
    int request_ = -1;
    int reply_ = -1;
};

}  // namespace testsupport

#endif
