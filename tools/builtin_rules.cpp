#include "builtin_rules.hpp"

namespace vorn::tool {

// Matching is purely syntactic, so the rules cannot ask whether a term is a constant or
// do arithmetic: numerals are plain symbols, and each constant the derivative knows is
// listed (0 to 3). Any other symbol but the variable of differentiation is left as an
// unevaluated derivative, e.g. (d x y). Every rule either moves `d` onto a strictly
// smaller term or makes the term smaller, except (* ?a ?a) -> (^ ?a 2), which no rule
// turns back, and the two rules that move `neg` outwards, so rewriting terminates.
const char* const builtin_rules = R"(; (d X E) is dE/dX, the derivative of E by the symbol X.
(rule (d ?x ?x) 1)
(rule (d ?x 0) 0)
(rule (d ?x 1) 0)
(rule (d ?x 2) 0)
(rule (d ?x 3) 0)
(rule (d ?x (+ ?u ?v)) (+ (d ?x ?u) (d ?x ?v)))
(rule (d ?x (* ?u ?v)) (+ (* (d ?x ?u) ?v) (* ?u (d ?x ?v))))
(rule (d ?x (^ ?u 2)) (* (* 2 ?u) (d ?x ?u)))
(rule (d ?x (^ ?u 3)) (* (* 3 (^ ?u 2)) (d ?x ?u)))
(rule (d ?x (sin ?u)) (* (cos ?u) (d ?x ?u)))
(rule (d ?x (cos ?u)) (* (neg (sin ?u)) (d ?x ?u)))
(rule (d ?x (exp ?u)) (* (exp ?u) (d ?x ?u)))
; Simplification.
(rule (+ 0 ?a) ?a)
(rule (+ ?a 0) ?a)
(rule (* 0 ?a) 0)
(rule (* ?a 0) 0)
(rule (* 1 ?a) ?a)
(rule (* ?a 1) ?a)
(rule (+ ?a ?a) (* 2 ?a))
(rule (* ?a ?a) (^ ?a 2))
(rule (* ?a (neg ?b)) (neg (* ?a ?b)))
(rule (+ ?a (neg ?b)) (- ?a ?b))
)";

const char* const builtin_samples = R"((d x (* x x))
(d x (+ (* 3 x) 2))
(d x (^ x 3))
(d x (sin (* x x)))
(d x (* (sin x) (cos x)))
(d x (exp (* 2 x)))
(+ (* 1 y) (* 0 z))
)";

}  // namespace vorn::tool
