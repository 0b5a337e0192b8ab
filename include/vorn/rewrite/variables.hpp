// Pattern variables of rewriting rules: the symbols whose names start with `?`.
#ifndef VORN_REWRITE_VARIABLES_HPP
#define VORN_REWRITE_VARIABLES_HPP

#include <vector>

#include "vorn/expr/manager.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn {

/// Whether `node` is a pattern variable: a symbol whose name (in `m`) starts with `?`.
bool is_variable(const SexpManager& m, const Sexp_* node) noexcept;

/// The distinct variables of `e`, in order of first occurrence, car side first (the order
/// of the text, and the order in which SexpMatcher binds them). Iterative: any depth.
std::vector<Sexp> variables_of(const SexpManager& m, const Sexp& e);

}  // namespace vorn

#endif  // VORN_REWRITE_VARIABLES_HPP
