// The rules and sample terms `vorn rewrite` uses when it is given no rules file.
#ifndef VORN_TOOLS_BUILTIN_RULES_HPP
#define VORN_TOOLS_BUILTIN_RULES_HPP

namespace vorn::tool {

/// Symbolic differentiation and algebraic simplification, in the rules-file format:
/// `(rule PATTERN REPLACEMENT)` forms, variables named `?...`.
extern const char* const builtin_rules;

/// The terms of the demonstration, one expression after another.
extern const char* const builtin_samples;

}  // namespace vorn::tool

#endif  // VORN_TOOLS_BUILTIN_RULES_HPP
