#include "proxy/dialogue/extension_collection.h"

#include <algorithm>

#include "base/text.h"

namespace trabex {

namespace {

auto HasKeyword(std::string_view keyword) {
  return [keyword](std::string_view line) { return EqualNoCase(FirstWord(line), keyword); };
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
  RemoveExtension(FirstWord(line));
  lines_.emplace_back(line);
}

void ExtensionCollection::RemoveExtension(std::string_view keyword) {
  std::erase_if(lines_, HasKeyword(keyword));
}

std::string_view ExtensionCollection::GetExtension(std::string_view keyword) const {
  const auto line = std::find_if(lines_.begin(), lines_.end(), HasKeyword(keyword));
  return line == lines_.end() ? std::string_view() : std::string_view(*line);
}

bool ExtensionCollection::Has(std::string_view keyword) const {
  return std::any_of(lines_.begin(), lines_.end(), HasKeyword(keyword));
}

}  // namespace trabex
