// Boost.Flyweight as its users use it for terms: flyweight<T> with the hashed factory and
// reference counting (the defaults), T a term whose children are flyweights again, made
// recursive with boost::recursive_wrapper as Boost's composite example does. Locking is
// switched off (no_locking): the comparison is single-threaded and so is vorn.
#ifndef VORN_BENCH_SUITE_SYS_FLYWEIGHT_HPP
#define VORN_BENCH_SUITE_SYS_FLYWEIGHT_HPP

#include <boost/flyweight.hpp>
#include <boost/flyweight/no_locking.hpp>
#include <boost/functional/hash.hpp>
#include <boost/variant/recursive_wrapper.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace bench {

struct FlyTerm;
using FlyHandle =
    boost::flyweight<boost::recursive_wrapper<FlyTerm>, boost::flyweights::no_locking>;

struct FlyTerm {
  std::uint64_t symbol = 0;  // a leaf's name id; 0 in a cons
  std::optional<FlyHandle> car, cdr;
};

inline bool operator==(const boost::recursive_wrapper<FlyTerm>& a,
                       const boost::recursive_wrapper<FlyTerm>& b) {
  return a.get().symbol == b.get().symbol && a.get().car == b.get().car && a.get().cdr == b.get().cdr;
}

inline std::size_t hash_value(const boost::recursive_wrapper<FlyTerm>& w) {
  std::size_t h = std::hash<std::uint64_t>()(w.get().symbol);
  if (w.get().car) {
    boost::hash_combine(h, &w.get().car->get().get());
    boost::hash_combine(h, &w.get().cdr->get().get());
  }
  return h;
}

struct FlyweightSystem {
  static constexpr const char* name = "flyweight";
  using Ref = FlyHandle;
  using Name = boost::flyweight<std::string, boost::flyweights::no_locking>;

  Ref leaf(std::uint32_t i) {
    FlyTerm t;
    t.symbol = i + 1;
    return Ref(std::move(t));
  }
  Ref share(const Ref& car, const Ref& cdr) {
    FlyTerm t;
    t.car = car;
    t.cdr = cdr;
    return Ref(std::move(t));
  }
  Ref nil() { return leaf(1u << 31); }
  static bool same(const Ref& a, const Ref& b) { return a == b; }

  Name intern(const char* s) { return Name(s); }
};

}  // namespace bench

#endif  // VORN_BENCH_SUITE_SYS_FLYWEIGHT_HPP
