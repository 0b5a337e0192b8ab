// The rewriter's memo: term -> normal form, in two generations.
#ifndef VORN_SRC_REWRITE_MEMO_HPP
#define VORN_SRC_REWRITE_MEMO_HPP

#include <cstddef>

#include "../support/node_map.hpp"
#include "vorn/expr/sexp.hpp"

namespace vorn::detail {

/// Normal forms by term, both held: every key and every value of either generation holds
/// one reference on its node, so a collection never leaves an entry naming a dead node,
/// and a node that is a key stays a key for its whole life in the memo (a fresh node is
/// never one). Entries are added to the current generation; retire() drops the older
/// generation and makes the current one the older; a hit in the older generation is
/// copied into the current one.
class Memo {
 public:
  Memo() = default;
  Memo(const Memo&) = delete;
  Memo& operator=(const Memo&) = delete;
  ~Memo() {
    release(current_);
    release(older_);
  }

  /// The normal form recorded for `term`, or null.
  Sexp_* find(const Sexp_* term) {
    if (const NodeMap::Entry* e = current_.find(term)) return e->value;
    if (older_.size() == 0) return nullptr;
    const NodeMap::Entry* old = older_.find(term);
    if (old == nullptr) return nullptr;
    Sexp_* nf = old->value;
    current_.insert_absent(term, nf);
    const_cast<Sexp_*>(term)->add_ref();
    nf->add_ref();
    return nf;
  }

  /// Records that `term` has normal form `nf`. The references are taken once the entry is
  /// in, so std::bad_alloc (a growth that failed) leaves the memo as it was.
  void record(Sexp_* term, Sexp_* nf) {
    if (NodeMap::Entry* e = current_.find(term)) {
      nf->add_ref();
      e->value->release();
      e->value = nf;
      return;
    }
    record_absent(term, nf);
  }

  /// record() for a term known to have no entry in the current generation.
  void record_absent(Sexp_* term, Sexp_* nf) {
    current_.insert_absent(term, nf);
    term->add_ref();
    nf->add_ref();
  }

  /// Drops the older generation and makes the current one the older, when the current one
  /// holds more than `keep / 2` entries. An array much larger than that needs is freed.
  void retire_beyond(std::size_t keep) {
    if (current_.size() > keep / 2) retire(keep);
  }

  /// Entries in the current generation.
  std::size_t current_size() const noexcept { return current_.size(); }

  /// Drops the older generation and makes the current one the older.
  void retire(std::size_t keep) {
    release(older_);
    older_.clear();
    older_.swap(current_);
    if (current_.bytes() > 4 * keep * sizeof(NodeMap::Entry)) current_.release_memory();
  }

  /// Entries in both generations.
  std::size_t size() const noexcept { return current_.size() + older_.size(); }

 private:
  static void release(NodeMap& map) noexcept {
    map.for_each([](const NodeMap::Entry& e) {
      static_cast<Sexp_*>(const_cast<void*>(e.key))->release();
      e.value->release();
    });
  }

  NodeMap current_;
  NodeMap older_;
};

}  // namespace vorn::detail

#endif  // VORN_SRC_REWRITE_MEMO_HPP
