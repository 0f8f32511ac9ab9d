#include "base/text.h"

#include <algorithm>
#include <cstdint>

namespace trabex {

namespace {

// Replaces what `find(position)` finds, until it finds nothing.
template <class Find>
std::string ReplaceFound(std::string_view text, std::size_t search_size, std::string_view replacement,
                         Find find) {
  std::string result;
  std::size_t from = 0;
  for (std::size_t at = find(from); at != std::string_view::npos; at = find(from)) {
    result.append(text.substr(from, at - from)).append(replacement);
    from = at + search_size;
  }
  result.append(text.substr(from));
  return result;
}

}  // namespace

char ToLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}
char ToUpper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c;
}
bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 32 || c == 127;
}

bool IsHostNameByte(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
}

std::string ToLower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = ToLower(c);
  return result;
}

std::string ToUpper(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = ToUpper(c);
  return result;
}

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return text.substr(text.size());
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string_view WithoutLineEnd(std::string_view text) {
  return text.ends_with(kCrLf) ? text.substr(0, text.size() - kCrLf.size()) : text;
}

bool EqualNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return ToLower(x) == ToLower(y); });
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualNoCase(text.substr(0, prefix.size()), prefix);
}

bool EndsWithNoCase(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && EqualNoCase(text.substr(text.size() - suffix.size()), suffix);
}

std::size_t FindNoCase(std::string_view text, std::string_view search, std::size_t start) {
  if (start > text.size()) return std::string_view::npos;
  const auto found =
      std::search(text.begin() + static_cast<std::ptrdiff_t>(start), text.end(), search.begin(), search.end(),
                  [](char x, char y) { return ToLower(x) == ToLower(y); });
  if (found == text.end() && !search.empty()) return std::string_view::npos;
  return static_cast<std::size_t>(found - text.begin());
}

std::string ReplaceAll(std::string_view text, std::string_view search, std::string_view replacement) {
  return ReplaceFound(text, search.size(), replacement,
                      [&](std::size_t from) { return text.find(search, from); });
}

std::string ReplaceAllNoCase(std::string_view text, std::string_view search, std::string_view replacement) {
  return ReplaceFound(text, search.size(), replacement,
                      [&](std::size_t from) { return FindNoCase(text, search, from); });
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  std::size_t from = 0;
  for (std::size_t at = text.find(separator); at != std::string_view::npos; at = text.find(separator, from)) {
    pieces.push_back(text.substr(from, at - from));
    from = at + 1;
  }
  pieces.push_back(text.substr(from));
  return pieces;
}

std::string_view FirstWord(std::string_view text) {
  return text.substr(0, text.find(' '));
}

std::string_view AddressDomain(std::string_view address) {
  return address.substr(address.rfind('@') + 1);
}

std::string Quoted(std::string_view text) {
  return std::string("\"").append(text).append("\"");
}

std::string AlignRight(std::string_view text, std::size_t width) {
  std::string result;
  AppendAlignedRight(result, text, width);
  return result;
}

std::string ZeroPadded(long long number, std::size_t width) {
  const std::string digits = std::to_string(number);
  return digits.size() < width ? std::string(width - digits.size(), '0') + digits : digits;
}

std::size_t HashNoCase::operator()(std::string_view text) const noexcept {
  // FNV-1a over the folded bytes.
  std::uint64_t hash = 14695981039346656037ULL;
  for (char c : text) {
    hash ^= static_cast<unsigned char>(ToLower(c));
    hash *= 1099511628211ULL;
  }
  return static_cast<std::size_t>(hash);
}

}  // namespace trabex
