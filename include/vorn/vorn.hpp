// Everything public in vorn: pools, hash table, nodes and handles, the manager,
// printing, the matcher, instantiation, reading and writing text (whole or streamed), the
// binary format and copying between managers.
#ifndef VORN_VORN_HPP
#define VORN_VORN_HPP

#include "vorn/support/memory_pool.hpp"
#include "vorn/support/hashtable.hpp"
#include "vorn/support/ordered_map.hpp"
#include "vorn/expr/sexp.hpp"
#include "vorn/expr/manager.hpp"
#include "vorn/expr/matcher.hpp"
#include "vorn/expr/instantiate.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/write.hpp"
#include "vorn/text/reader.hpp"
#include "vorn/io/binary.hpp"
#include "vorn/io/copy.hpp"

#endif  // VORN_VORN_HPP
