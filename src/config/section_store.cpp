#include "config/section_store.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace trabex {

const SectionTable::Entry* SectionTable::Find(std::string_view key) const {
  const auto found = index_.find(key);
  return found == index_.end() ? nullptr : &entries_[found->second];
}

SectionTable::Entry* SectionTable::Find(std::string_view key) {
  const auto found = index_.find(key);
  return found == index_.end() ? nullptr : &entries_[found->second];
}

void SectionTable::AddKey(std::string_view key, std::string_view value, bool is_list) {
  const bool is_new = index_.emplace(key, static_cast<std::uint32_t>(entries_.size())).second;
  assert(is_new);
  static_cast<void>(is_new);
  entries_.push_back({key, value, {}, is_list});
}

SectionStore::SectionStore() {
  sections_.reserve(kSectionNames.size());
  for (std::string_view name : kSectionNames) sections_.emplace_back(name);
}

SectionTable* SectionStore::Find(std::string_view name) {
  const auto found = std::find_if(sections_.begin(), sections_.end(), [&](const SectionTable& section) {
    return EqualNoCase(section.Name(), name);
  });
  return found == sections_.end() ? nullptr : &*found;
}

const SectionTable& SectionStore::Section(std::string_view name) const {
  const auto found = std::find_if(sections_.begin(), sections_.end(),
                                  [&](const SectionTable& section) { return section.Name() == name; });
  assert(found != sections_.end());
  return *found;
}

std::string_view SectionStore::KeepText(std::string text) {
  assert(text_.empty());
  text_ = std::move(text);
  return text_;
}

}  // namespace trabex
