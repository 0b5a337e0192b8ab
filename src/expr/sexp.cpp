// Reclaiming dead nodes.
#include "vorn/expr/sexp.hpp"

#include "dismantle.hpp"
#include "vorn/expr/manager.hpp"

namespace vorn {
namespace detail {

// Does what "~Sexp_() then give the slot back" does, for a whole dying subtree: slots go
// back in post-order (the car subtree's, the cdr subtree's, then the cons's own), exactly
// as the recursive definition would return them.
void reclaim(Sexp_* node) noexcept {
  dismantle(node, [](Sexp_* dead) { dead->mgr->sexp_pool.deallocate(dead); });
}

}  // namespace detail
}  // namespace vorn
