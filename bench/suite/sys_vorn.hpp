// vorn itself, as the comparison drives every system.
#ifndef VORN_BENCH_SUITE_SYS_VORN_HPP
#define VORN_BENCH_SUITE_SYS_VORN_HPP

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <vorn/vorn.hpp>

namespace bench {

struct VornSystem {
  static constexpr const char* name = "vorn";
  using Ref = vorn::Sexp;

  vorn::SexpManager m;

  Ref leaf(std::uint32_t i) { return m.sh_sym(m.make_symbol(("leaf" + std::to_string(i)).c_str())); }
  Ref share(const Ref& car, const Ref& cdr) { return m.sh_cons(car, cdr); }
  Ref cons(const Ref& car, const Ref& cdr) { return m.cons(car, cdr); }
  Ref nil() { return m.nil(); }
  unsigned long intern(const char* name) { return m.make_symbol(name); }
  static bool same(const Ref& a, const Ref& b) { return a == b; }

  // ---- matching and printing -----------------------------------------------------------
  Ref symbol(const std::string& name) { return m.sh_sym(m.make_symbol(name.c_str())); }
  Ref list(const std::vector<Ref>& xs) {
    Ref tail = m.nil();
    for (auto it = xs.rbegin(); it != xs.rend(); ++it) tail = m.sh_cons(*it, tail);
    return tail;
  }

  struct Matcher {
    vorn::SexpMatcher matcher;
    explicit Matcher(const std::vector<Ref>& vars) : matcher(vars) {}
    bool match(const Ref& pattern, const Ref& expr) { return matcher.match(pattern, expr); }
    std::uint64_t match(const std::vector<Ref>& patterns, const Ref& expr) {
      return matcher.match(patterns, expr);
    }
  };

  void print(const Ref& e, std::ostream& os) { e.print(os); }
};

}  // namespace bench

#endif  // VORN_BENCH_SUITE_SYS_VORN_HPP
