// Reading rewriting rules from text.
#include "vorn/rewrite/load.hpp"

#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "vorn/rewrite/variables.hpp"
#include "vorn/text/parse.hpp"
#include "vorn/text/reader.hpp"

namespace vorn {

namespace {

// Whether `form` is (rule PATTERN REPLACEMENT), `rule` being the value of that name.
bool is_rule_form(const Sexp& form, std::uint64_t rule) {
  const Sexp_* n = form.get();
  if (n->is_symbol != 0 || n->car->is_symbol == 0 || n->car->value != rule) return false;
  n = n->cdr;
  if (n->is_symbol != 0 || n->cdr->is_symbol != 0) return false;
  return n->cdr->cdr->is_symbol != 0 && n->cdr->cdr->value == 0;
}

// Why the form starting at `where` is no rule, as its ParseError; or nothing.
void check_form(const SexpManager& m, const Sexp& form, std::uint64_t rule,
                const TextPosition& where) {
  if (!is_rule_form(form, rule)) {
    throw ParseError("expected (rule PATTERN REPLACEMENT)", where.line, where.column);
  }
  std::unordered_set<std::uint64_t> bound;
  for (const Sexp& v : variables_of(m, form.cdr().car())) bound.insert(v.value());
  for (const Sexp& v : variables_of(m, form.cdr().cdr().car())) {
    if (bound.count(v.value()) == 0) {
      throw ParseError(std::string(m.get_symbol_value(v.value())) +
                           " in the replacement is not bound by the pattern",
                       where.line, where.column);
    }
  }
}

}  // namespace

// Two passes. First the text is read into a manager of its own, which knows the names of
// the rewriter's manager under the same ids (so a value written as a number, #N, means
// there what it means here), and every form is checked there, where the reader gives each
// form's position. Only then is the text read into the rewriter's manager. The forms are
// checked again there: the two agree unless the manager holds one name under two ids
// (which an interning cut short by memory exhaustion can leave), and then the second
// check still keeps a bad form out.
std::size_t load_rules(Rewriter& rewriter, std::string_view text, const ReadOptions& options) {
  SexpManager& m = rewriter.manager();
  std::vector<TextPosition> starts;
  {
    SexpManager scratch;
    for (std::size_t id = 1; id < m.name_count(); ++id) scratch.make_symbol(m.get_symbol_value(id));
    std::istringstream in{std::string(text)};
    TextReader reader(scratch, in, options);
    std::vector<Sexp> forms;
    for (Sexp form; reader.next(form);) {
      forms.push_back(form);
      starts.push_back(reader.start());
    }
    // Interned after the text, as below, so that both managers give it the same id.
    const std::uint64_t rule = scratch.make_symbol("rule");
    for (std::size_t i = 0; i < forms.size(); ++i) check_form(scratch, forms[i], rule, starts[i]);
  }
  const std::vector<Sexp> forms = parse_all(m, text, options);
  if (forms.empty()) return 0;
  const std::uint64_t rule = m.make_symbol("rule");
  for (std::size_t i = 0; i < forms.size(); ++i) check_form(m, forms[i], rule, starts[i]);
  for (const Sexp& form : forms) rewriter.add_rule(form.cdr().car(), form.cdr().cdr().car());
  return forms.size();
}

}  // namespace vorn
