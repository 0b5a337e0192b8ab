// The shape of a node: what makes two nodes one canonical node, and its hash.
#ifndef VORN_EXPR_SHAPE_HPP
#define VORN_EXPR_SHAPE_HPP

#include <cstdint>

#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// A node's shape, the single definition behind sharing. A symbol's shape is its value; a
/// cons's is the pair of its children's ids (so children are compared by id, never by
/// content or address). A symbol and a cons never have the same shape.
///
/// Hash: a symbol hashes to its value, a cons to (car id << 24) + cdr id. Ids and values
/// come in regular strides; the shared table reduces hashes modulo a prime, which spreads
/// such strides over all buckets, so the hash needs no mixing.
struct Shape {
  static std::uint64_t symbol_hash(std::uint64_t value) noexcept { return value; }
  static std::uint64_t cons_hash(const Sexp_* car, const Sexp_* cdr) noexcept {
    return cons_hash(car->id, cdr->id);
  }
  static std::uint64_t cons_hash(std::uint32_t car_id, std::uint32_t cdr_id) noexcept {
    return (static_cast<std::uint64_t>(car_id) << 24) + cdr_id;
  }
  static std::uint64_t hash(const Sexp_* n) noexcept {
    return n->is_symbol != 0 ? symbol_hash(n->value) : cons_hash(n->car, n->cdr);
  }

  /// Whether `stored` has the shape of the symbol of `value`.
  static bool is_symbol_of(const Sexp_* stored, std::uint64_t value) noexcept {
    return stored->is_symbol != 0 && stored->value == value;
  }
  /// Whether `stored` has the shape of a cons of `car` and `cdr`.
  static bool is_cons_of(const Sexp_* stored, const Sexp_* car, const Sexp_* cdr) noexcept {
    return stored->is_symbol == 0 && stored->car->id == car->id && stored->cdr->id == cdr->id;
  }
  /// Whether `stored` and `n` have one shape.
  static bool same(const Sexp_* stored, const Sexp_* n) noexcept {
    return n->is_symbol != 0 ? is_symbol_of(stored, n->value) : is_cons_of(stored, n->car, n->cdr);
  }
};

}  // namespace vorn::detail

#endif  // VORN_EXPR_SHAPE_HPP
