#include "proxy/dialogue/extension_collection.h"

#include <algorithm>
#include <utility>

#include "base/text.h"

namespace trabex {

namespace {

constexpr std::string_view kAuth = "AUTH";

// Some servers write a tab between the words of a line, and some clients take it.
constexpr std::string_view kBlanks = " \t";

std::string_view WithoutLeadingBlanks(std::string_view line) {
  return line.substr(std::min(line.size(), line.find_first_not_of(kBlanks)));
}

// What a client may take for the first word of `text`: it ends at any blank, and at a control character.
std::string_view WordAtStart(std::string_view text) {
  const auto* const end =
      std::find_if(text.begin(), text.end(), [](char byte) { return byte == ' ' || IsControl(byte); });
  return text.substr(0, static_cast<std::size_t>(end - text.begin()));
}

std::string_view KeywordOf(std::string_view line) {
  return WordAtStart(WithoutLeadingBlanks(line));
}

// Whether the line is AUTH, in the form of RFC 4954 or in the older one.
bool IsAuthentication(std::string_view line) {
  const std::string_view keyword = KeywordOf(line);
  if (!StartsWithNoCase(keyword, kAuth)) return false;
  return keyword.size() == kAuth.size() || keyword[kAuth.size()] == '=';
}

// The line, which is AUTH, without the mechanisms that RemoveBoundAuthentication names; "" when none is left.
std::string WithoutBoundMechanisms(std::string_view line) {
  line = WithoutLeadingBlanks(line);
  constexpr std::string_view kPlus = "-PLUS";
  std::vector<std::string_view> mechanisms;
  for (std::string_view rest = line.substr(std::min(line.size(), kAuth.size() + 1)); !rest.empty();) {
    const std::string_view word = WordAtStart(rest);
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

// Takes the first line from `text`, in which each has its CR LF.
std::string_view TakeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find(kCrLf));
  text.remove_prefix(line.size() + kCrLf.size());
  return line;
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
  text_.append(line).append(kCrLf);
}

template <class Predicate>
void ExtensionCollection::RemoveIf(Predicate is_removed) {
  for (std::size_t at = 0; at < text_.size();) {
    std::string_view rest = std::string_view(text_).substr(at);
    const std::string_view line = TakeLine(rest);
    const std::size_t size = line.size() + kCrLf.size();
    if (is_removed(line)) {
      text_.erase(at, size);
    } else {
      at += size;
    }
  }
}

void ExtensionCollection::RemoveExtension(std::string_view keyword) {
  RemoveIf(HasKeyword(keyword));
}

void ExtensionCollection::RemoveAuthentication() {
  RemoveIf(IsAuthentication);
}

void ExtensionCollection::RemoveBoundAuthentication() {
  std::string left;
  for (const std::string& line : Lines()) {
    const std::string kept = IsAuthentication(line) ? WithoutBoundMechanisms(line) : line;
    if (!kept.empty()) left.append(kept).append(kCrLf);
  }
  text_ = std::move(left);
}

std::string_view ExtensionCollection::GetExtension(std::string_view keyword) const {
  for (std::string_view rest = text_; !rest.empty();) {
    const std::string_view line = TakeLine(rest);
    if (HasKeyword(keyword)(line)) return line;
  }
  return {};
}

std::vector<std::string> ExtensionCollection::Lines() const {
  std::vector<std::string> lines;
  for (std::string_view rest = text_; !rest.empty();) lines.emplace_back(TakeLine(rest));
  return lines;
}

}  // namespace trabex
