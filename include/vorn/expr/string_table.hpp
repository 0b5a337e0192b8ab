// StringTable: the interned contents of a manager's string atoms.
#ifndef VORN_EXPR_STRING_TABLE_HPP
#define VORN_EXPR_STRING_TABLE_HPP

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vorn {

/// Interns byte strings (any bytes, NUL included) to dense indices from 0, in order of
/// first sight, and gives each back by index.
///
/// Ownership: the table owns one copy of each content; a view it returns stays valid for
/// the table's life (contents live in a deque, which never moves what it holds).
/// Failure: memory exhaustion throws std::bad_alloc and leaves the table as it was.
class StringTable {
 public:
  /// The index of `content`, copying it on first sight.
  std::uint64_t intern(std::string_view content) {
    const auto known = index_.find(content);
    if (known != index_.end()) return known->second;
    const std::uint64_t id = contents_.size();
    contents_.emplace_back(content);
    try {
      index_.emplace(std::string_view(contents_.back()), id);
    } catch (...) {
      contents_.pop_back();
      throw;
    }
    return id;
  }

  /// Whether `id` names an interned content.
  bool contains(std::uint64_t id) const noexcept { return id < contents_.size(); }
  /// The content of index `id`, which must be interned.
  std::string_view at(std::uint64_t id) const noexcept { return contents_[id]; }
  std::size_t size() const noexcept { return contents_.size(); }

 private:
  std::deque<std::string> contents_;                         // index -> owned copy
  std::unordered_map<std::string_view, std::uint64_t> index_;  // view of a copy -> index
};

}  // namespace vorn

#endif  // VORN_EXPR_STRING_TABLE_HPP
