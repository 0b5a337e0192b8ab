// Reading rewriting rules from text: vorn::load_rules.
#ifndef VORN_REWRITE_LOAD_HPP
#define VORN_REWRITE_LOAD_HPP

#include <cstddef>
#include <string_view>

#include "vorn/rewrite/rewriter.hpp"
#include "vorn/text/dialect.hpp"

namespace vorn {

/// Reads the `(rule PATTERN REPLACEMENT)` forms of `text`, in the dialect of `options`,
/// and appends them to `rewriter` in order; returns how many. Comments and white space
/// may come between the forms, as parse_all reads them.
///
/// Errors: text that does not read, a form that is not a three-element list headed by the
/// symbol `rule`, and a replacement using a variable its pattern does not bind each throw
/// ParseError: at the offending byte for the first, at the start of the form for the
/// others ("expected (rule PATTERN REPLACEMENT)", "?m in the replacement is not bound by
/// the pattern"). The whole text is checked first, so on any error the rewriter and its
/// manager are left exactly as they were: no rule added, no node made, no name interned.
std::size_t load_rules(Rewriter& rewriter, std::string_view text, const ReadOptions& options = {});

}  // namespace vorn

#endif  // VORN_REWRITE_LOAD_HPP
