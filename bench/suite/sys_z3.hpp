// Z3's C API as its users use it for terms: a reference-counted context, one uninterpreted
// sort, an uninterpreted binary function f, constants for leaves, Z3_mk_app for every node
// (Z3 shares equal applications), Z3_inc_ref / Z3_dec_ref held by a small RAII handle (the
// same two words as the C++ API's expr), and Z3_mk_string_symbol for names.
#ifndef VORN_BENCH_SUITE_SYS_Z3_HPP
#define VORN_BENCH_SUITE_SYS_Z3_HPP

#include <z3.h>

#include <cstdint>
#include <string>

namespace bench {

class Z3System {
 public:
  static constexpr const char* name = "z3";

  class Ref {
   public:
    Ref() noexcept = default;
    Ref(Z3_context c, Z3_ast a) : ctx_(c), ast_(a) { Z3_inc_ref(ctx_, ast_); }
    Ref(const Ref& o) : ctx_(o.ctx_), ast_(o.ast_) {
      if (ast_ != nullptr) Z3_inc_ref(ctx_, ast_);
    }
    Ref& operator=(const Ref& o) {
      if (o.ast_ != nullptr) Z3_inc_ref(o.ctx_, o.ast_);
      if (ast_ != nullptr) Z3_dec_ref(ctx_, ast_);
      ctx_ = o.ctx_;
      ast_ = o.ast_;
      return *this;
    }
    ~Ref() {
      if (ast_ != nullptr) Z3_dec_ref(ctx_, ast_);
    }
    Z3_ast get() const noexcept { return ast_; }

   private:
    Z3_context ctx_ = nullptr;
    Z3_ast ast_ = nullptr;
  };

  Z3System() {
    Z3_config cfg = Z3_mk_config();
    ctx_ = Z3_mk_context_rc(cfg);
    Z3_del_config(cfg);
    sort_ = Z3_mk_uninterpreted_sort(ctx_, Z3_mk_string_symbol(ctx_, "T"));
    Z3_inc_ref(ctx_, Z3_sort_to_ast(ctx_, sort_));
    Z3_sort domain[2] = {sort_, sort_};
    f_ = Z3_mk_func_decl(ctx_, Z3_mk_string_symbol(ctx_, "f"), 2, domain, sort_);
    Z3_inc_ref(ctx_, Z3_func_decl_to_ast(ctx_, f_));
  }
  Z3System(const Z3System&) = delete;
  Z3System& operator=(const Z3System&) = delete;
  ~Z3System() {
    Z3_dec_ref(ctx_, Z3_func_decl_to_ast(ctx_, f_));
    Z3_dec_ref(ctx_, Z3_sort_to_ast(ctx_, sort_));
    Z3_del_context(ctx_);
  }

  Ref constant(const char* n) { return Ref(ctx_, Z3_mk_const(ctx_, Z3_mk_string_symbol(ctx_, n), sort_)); }
  Ref leaf(std::uint32_t i) { return constant(("leaf" + std::to_string(i)).c_str()); }
  Ref share(const Ref& car, const Ref& cdr) {
    Z3_ast args[2] = {car.get(), cdr.get()};
    return Ref(ctx_, Z3_mk_app(ctx_, f_, 2, args));
  }
  Ref nil() { return constant("nil"); }
  static bool same(const Ref& a, const Ref& b) { return a.get() == b.get(); }

  /// Z3's symbol table is process-wide and keeps every name for good, so a name is new
  /// only once per process: the intern workload gives this system fresh names each round.
  Z3_symbol intern(const char* s) { return Z3_mk_string_symbol(ctx_, s); }
  static constexpr bool names_outlive_context = true;

 private:
  Z3_context ctx_;
  Z3_sort sort_;
  Z3_func_decl f_;
};

}  // namespace bench

#endif  // VORN_BENCH_SUITE_SYS_Z3_HPP
