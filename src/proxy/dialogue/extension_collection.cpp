#include "proxy/dialogue/extension_collection.h"

#include <algorithm>

#include "base/text.h"

namespace trabex {

namespace {

constexpr std::string_view kAuth = "AUTH";

// Some servers write a tab between the words of a line, and some clients take it.
constexpr std::string_view kBlanks = " \t";

std::string_view WithoutLeadingBlanks(std::string_view line) {
  return line.substr(std::min(line.size(), line.find_first_not_of(kBlanks)));
}

// What a client may take for the keyword: it ends at any blank, and at a control character.
std::string_view KeywordOf(std::string_view line) {
  line = WithoutLeadingBlanks(line);
  const auto* const end =
      std::find_if(line.begin(), line.end(), [](char byte) { return byte == ' ' || IsControl(byte); });
  return line.substr(0, static_cast<std::size_t>(end - line.begin()));
}

// Whether the line is AUTH, in the form of RFC 4954 or in the older one.
bool IsAuthentication(std::string_view line) {
  line = WithoutLeadingBlanks(line);
  if (!StartsWithNoCase(line, kAuth)) return false;
  if (line.size() == kAuth.size() || line[kAuth.size()] == '=') return true;
  return kBlanks.find(line[kAuth.size()]) != std::string_view::npos;
}

// The line, which is AUTH, without the mechanisms that RemoveBoundAuthentication names; "" when none is left.
std::string WithoutBoundMechanisms(std::string_view line) {
  line = WithoutLeadingBlanks(line);
  constexpr std::string_view kPlus = "-PLUS";
  std::vector<std::string_view> mechanisms;
  for (std::string_view rest = line.substr(std::min(line.size(), kAuth.size() + 1)); !rest.empty();) {
    const std::string_view word = rest.substr(0, rest.find_first_of(kBlanks));
    if (!word.empty()) mechanisms.push_back(word);
    rest.remove_prefix(std::min(rest.size(), word.size() + 1));
  }
  const auto binds = [&](std::string_view mechanism) {
    return mechanism.size() >= kPlus.size() &&
           EqualNoCase(mechanism.substr(mechanism.size() - kPlus.size()), kPlus);
  };
  std::string left;
  for (const std::string_view mechanism : mechanisms) {
    const std::string with_plus = std::string(mechanism).append(kPlus);
    const bool has_bound_form =
        std::any_of(mechanisms.begin(), mechanisms.end(),
                    [&](std::string_view other) { return EqualNoCase(other, with_plus); });
    if (EqualNoCase(mechanism, "EXTERNAL") || binds(mechanism) || has_bound_form) continue;
    left.append(left.empty() ? "" : " ").append(mechanism);
  }
  return left.empty() ? left : std::string(line.substr(0, kAuth.size() + 1)).append(left);
}

auto HasKeyword(std::string_view keyword) {
  return [keyword](std::string_view line) { return EqualNoCase(KeywordOf(line), keyword); };
}

}  // namespace

void ExtensionCollection::ParseLines(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find(kCrLf);
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + kCrLf.size());
    if (line.starts_with("250") && line.size() > 4) AddExtension(line.substr(4));
  }
}

void ExtensionCollection::AddExtension(std::string_view line) {
  RemoveExtension(KeywordOf(line));
  lines_.emplace_back(line);
}

void ExtensionCollection::RemoveExtension(std::string_view keyword) {
  std::erase_if(lines_, HasKeyword(keyword));
}

void ExtensionCollection::RemoveAuthentication() {
  std::erase_if(lines_, IsAuthentication);
}

void ExtensionCollection::RemoveBoundAuthentication() {
  for (std::string& line : lines_) {
    if (IsAuthentication(line)) line = WithoutBoundMechanisms(line);
  }
  std::erase(lines_, std::string());
}

std::string_view ExtensionCollection::GetExtension(std::string_view keyword) const {
  const auto line = std::find_if(lines_.begin(), lines_.end(), HasKeyword(keyword));
  return line == lines_.end() ? std::string_view() : std::string_view(*line);
}

}  // namespace trabex
