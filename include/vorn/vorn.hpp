// Everything public in vorn: pools, hash table, nodes and handles, the manager,
// printing and the matcher.
#ifndef VORN_VORN_HPP
#define VORN_VORN_HPP

#include "vorn/support/memory_pool.hpp"
#include "vorn/support/hashtable.hpp"
#include "vorn/support/ordered_map.hpp"
#include "vorn/expr/sexp.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"

#endif  // VORN_VORN_HPP
