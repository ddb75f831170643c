// Time budget of Net::getAvailableIp, apart so that its arithmetic can be checked directly.
#ifndef TELO_SRC_NETWORK_NETWORK_PRIVATE_H
#define TELO_SRC_NETWORK_NETWORK_PRIVATE_H

#include <cstddef>

namespace TELO {
namespace Backup {
namespace internal {

struct ProbeBudget {
    int perTry;         // seconds given to each connection attempt
    long long overall;  // whole seconds after which no further candidate is tried
};

// The budget for `candidates` addresses; totalSec -1 asks for the derived budget.
ProbeBudget probeBudget(int timeoutSec, int totalSec, size_t candidates);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
