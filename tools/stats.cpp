// What expressions cost as plain trees and as canonical nodes.
#include "stats.hpp"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <limits>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace vorn::tool {

namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

std::uint64_t saturating_add(std::uint64_t a, std::uint64_t b) noexcept {
  return a > kMax - b ? kMax : a + b;
}

}  // namespace

void TreeCounter::add(const Sexp& e) {
  const auto known = [this](const Sexp_* n) {
    return n->id < size_by_id_.size() && size_by_id_[n->id] != 0;
  };
  todo_.push_back(e.get());
  while (!todo_.empty()) {
    const Sexp_* n = todo_.back();
    if (known(n)) {
      todo_.pop_back();
      continue;
    }
    std::uint64_t size = 1;
    if (!n->is_symbol) {
      if (!known(n->car) || !known(n->cdr)) {  // children first; n is met again after them
        if (!known(n->cdr)) todo_.push_back(n->cdr);
        if (!known(n->car)) todo_.push_back(n->car);
        continue;
      }
      size = saturating_add(1, saturating_add(size_by_id_[n->car->id], size_by_id_[n->cdr->id]));
    }
    if (n->id >= size_by_id_.size()) {
      size_by_id_.resize(std::max<std::size_t>(std::size_t{n->id} + 1, 2 * size_by_id_.size()));
    }
    size_by_id_[n->id] = size;
    ++distinct_;
    todo_.pop_back();
  }
  elements_ = saturating_add(elements_, size_by_id_[e.id()]);
}

std::size_t TreeCounter::own_bytes() const noexcept {
  return size_by_id_.capacity() * sizeof(std::uint64_t) + todo_.capacity() * sizeof(const Sexp_*);
}

std::optional<std::size_t> heap_in_use() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;  // small blocks in use, and blocks mapped on their own
#else
  return std::nullopt;
#endif
}

namespace {

std::string format(const char* printf_format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, printf_format, value);
  return text;
}

std::string bytes_text(std::uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static const char* const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  for (; value >= 1024 && unit + 1 < std::size(units); ++unit) value /= 1024;
  return format("%.1f ", value) + units[unit];
}

std::vector<std::string> cells(const StatsRow& r) {
  const auto ratio = [](std::uint64_t a, std::uint64_t b, const char* printf_format) {
    return b == 0 ? std::string("-")
                  : format(printf_format, static_cast<double>(a) / static_cast<double>(b));
  };
  const double ms = r.seconds * 1000;
  return {r.name,
          bytes_text(r.bytes),
          std::to_string(r.elements),
          std::to_string(r.distinct),
          ratio(r.elements, r.distinct, "%.2f"),
          r.heap ? bytes_text(*r.heap) : "-",
          r.heap ? ratio(*r.heap, r.distinct, "%.1f B") : "-",
          ms < 1000 ? format("%.3f ms", ms) : format("%.2f s", r.seconds),
          r.seconds > 0 ? format("%.1f", static_cast<double>(r.bytes) / 1e6 / r.seconds) : "-"};
}

}  // namespace

std::string stats_table(const std::vector<StatsRow>& rows) {
  std::vector<std::vector<std::string>> table{
      {"file", "bytes", "elements", "distinct", "sharing", "heap", "heap/node", "read", "MB/s"}};
  StatsRow total{"total", 0, 0, 0, std::uint64_t{0}, 0};
  for (const StatsRow& r : rows) {
    table.push_back(cells(r));
    total.bytes += r.bytes;
    total.elements = saturating_add(total.elements, r.elements);
    total.distinct += r.distinct;
    total.heap = total.heap && r.heap ? std::optional(*total.heap + *r.heap) : std::nullopt;
    total.seconds += r.seconds;
  }
  if (rows.size() > 1) table.push_back(cells(total));
  std::vector<std::size_t> width(table[0].size(), 0);
  for (const auto& line : table) {
    for (std::size_t i = 0; i < line.size(); ++i) width[i] = std::max(width[i], line[i].size());
  }
  std::string out;
  for (const auto& line : table) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
      const std::string pad(width[i] - line[i].size(), ' ');
      text += i == 0 ? line[i] + pad : "  " + pad + line[i];
    }
    out += text.erase(text.find_last_not_of(' ') + 1) + '\n';
  }
  return out;
}

}  // namespace vorn::tool
