// Runs a callable when the scope ends, unless dismissed.
#ifndef TELO_SRC_INTERNAL_SCOPE_GUARD_H
#define TELO_SRC_INTERNAL_SCOPE_GUARD_H

#include <utility>

namespace TELO {
namespace Backup {
namespace internal {

template <typename F>
class ScopeGuard {
  public:
    explicit ScopeGuard(F fn) : fn_(std::move(fn)) {}
    ScopeGuard(const ScopeGuard &) = delete;
    ScopeGuard &operator=(const ScopeGuard &) = delete;
    ~ScopeGuard() {
        if (active_) fn_();
    }
    void dismiss() { active_ = false; }

  private:
    F fn_;
    bool active_ = true;
};

template <typename F>
ScopeGuard<F> makeScopeGuard(F fn) {
    return ScopeGuard<F>(std::move(fn));
}

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
