// Copying expressions into another manager.
#include "vorn/io/copy.hpp"

#include "build.hpp"
#include "listing.hpp"

namespace vorn {

namespace {

// The value in `to` of atom `a`: its name or string contents interned by content, or
// its value as it is (a raw value, or any value of `to` itself or of no manager).
std::uint64_t value_in(SexpManager& to, const Sexp_* a) {
  const SexpManager* from = a->mgr;
  if (from == &to || from == nullptr) return a->value;
  if (const char* name = from->get_symbol_value(a->value)) return to.make_symbol(name);
  if (const auto contents = from->get_string(a->value)) return to.make_string(*contents);
  return a->value;
}

std::vector<Sexp> copy_listed(SexpManager& to, const Sexp* roots, std::size_t n) {
  const detail::Listing listing = detail::list_nodes(roots, n);
  detail::Builder build(to, listing.atoms.size(), listing.conses());
  // Nodes of another manager are likely new here: grow the table for them at once. A copy
  // within one manager makes no node for a canonical expression, and needs no growth.
  if (listing.manager != nullptr && listing.manager != &to) build.grow_table_ahead();
  for (const Sexp_* a : listing.atoms) build.atom(value_in(to, a));
  build.conses(listing.refs.data(), listing.conses());
  return build.roots(listing.roots.data(), listing.roots.size());
}

}  // namespace

Sexp copy(SexpManager& to, const Sexp& e) { return copy_listed(to, &e, 1).front(); }

std::vector<Sexp> copy(SexpManager& to, const std::vector<Sexp>& roots) {
  return copy_listed(to, roots.data(), roots.size());
}

}  // namespace vorn
