// Which names read back bare, and the spelling of scheme characters.
#include "syntax.hpp"

#include <cstdint>
#include <cstring>

namespace vorn::detail {

namespace {

struct CharName {
  const char* name;
  std::uint32_t code;
};
// The canonical names first: spelling a code point takes the first entry that has it.
constexpr CharName char_names[] = {
    {"null", 0},    {"alarm", 7},   {"backspace", 8}, {"tab", 9},   {"newline", 10},
    {"return", 13}, {"escape", 27}, {"space", 32},    {"delete", 127},
    {"nul", 0},     {"linefeed", 10}, {"page", 12},   // accepted on reading only
};

bool is_hex(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool all_of(std::string_view s, const char* set) noexcept {
  for (const char c : s) {
    if (std::strchr(set, c) == nullptr || c == '\0') return false;
  }
  return !s.empty();
}

// The code point of the one UTF-8 character `s`, or a value above 0x10FFFF when `s` is
// not exactly one well-formed character.
std::uint32_t decode_one(std::string_view s) noexcept {
  constexpr std::uint32_t bad = 0x110000;
  const auto lead = static_cast<unsigned char>(s[0]);
  const std::size_t len = utf8_length(lead);
  if (len != s.size() || (len == 1 && lead >= 0x80)) return bad;
  if (len == 1) return lead;
  std::uint32_t cp = lead & (0x7Fu >> len);
  for (std::size_t i = 1; i < len; ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if ((c & 0xC0) != 0x80) return bad;
    cp = cp << 6 | (c & 0x3Fu);
  }
  return cp;
}

}  // namespace

std::size_t canonical_char(std::string_view token, char* out) noexcept {
  if (token.empty()) return 0;
  std::uint32_t cp = decode_one(token);
  if (cp > 0x10FFFF) {
    cp = 0x110000;
    if (token[0] == 'x' && token.size() > 1 && token.size() <= 9) {
      cp = 0;
      for (const char c : token.substr(1)) {
        if (!is_hex(c)) return 0;
        cp = cp << 4 | static_cast<std::uint32_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
      }
    } else {
      for (const CharName& n : char_names) {
        if (token == n.name) cp = n.code;
      }
    }
    if (cp > 0x10FFFF) return 0;
  }
  for (const CharName& n : char_names) {
    if (n.code == cp) {
      const std::size_t len = std::strlen(n.name);
      std::memcpy(out, n.name, len);
      return len;
    }
  }
  if (cp > ' ' && cp < 0x7F) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  static const char digits[] = "0123456789abcdef";
  char hex[8];
  std::size_t n = 0;
  do {
    hex[n++] = digits[cp & 15];
    cp >>= 4;
  } while (cp != 0);
  out[0] = 'x';
  for (std::size_t i = 0; i < n; ++i) out[1 + i] = hex[n - 1 - i];
  return n + 1;
}

bool reads_back_bare(Dialect dialect, std::string_view name) noexcept {
  if (name.empty() || name == ".") return false;
  const Syntax& syntax = syntax_of(dialect);
  if (dialect == Dialect::scheme && name.size() > 2 && name[0] == '#' && name[1] == '\\') {
    char spelling[max_char_spelling];
    return name.substr(2) == std::string_view(spelling, canonical_char(name.substr(2), spelling));
  }
  for (const char c : name) {
    if (syntax.classes[static_cast<unsigned char>(c)] >= space) return false;
  }
  switch (syntax.classes[static_cast<unsigned char>(name[0])]) {
    case prefix:
      return false;
    case hash:
      break;
    default:  // `@` would join a preceding `,` into `,@`
      return dialect != Dialect::scheme || name[0] != '@';
  }
  const std::string_view rest = name.substr(1);
  switch (dialect) {
    case Dialect::vorn:
      return false;  // `#` starts a number
    case Dialect::smtlib:
      return rest.size() > 1 &&
             ((rest[0] == 'x' && all_of(rest.substr(1), "0123456789abcdefABCDEF")) ||
              (rest[0] == 'b' && all_of(rest.substr(1), "01")));
    case Dialect::scheme:
      return name == "#t" || name == "#f" || (rest.size() > 1 && rest[0] == ':') ||
             (rest.size() > 1 && std::strchr("xXbBoOdDeEiI", rest[0]) != nullptr);
  }
  return false;
}

}  // namespace vorn::detail
