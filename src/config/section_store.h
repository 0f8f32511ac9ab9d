// The initialization file as it was read: sections with keys and raw values, no types yet.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/text.h"

namespace trabex {

namespace section_name {
inline constexpr std::string_view kCommon = "Common";
inline constexpr std::string_view kGreyListing = "GreyListing";
inline constexpr std::string_view kResponseChanges = "ResponseChanges";
inline constexpr std::string_view kSenderReplacementsLocal = "SenderReplacements.Local";
inline constexpr std::string_view kSenderReplacementsRemote = "SenderReplacements.Remote";
inline constexpr std::string_view kRecipientReplacementsLocal = "RecipientReplacements.Local";
inline constexpr std::string_view kRecipientReplacementsRemote = "RecipientReplacements.Remote";
inline constexpr std::string_view kTLS = "TLS";
inline constexpr std::string_view kService = "Service";
inline constexpr std::string_view kListFiles = "ListFiles";
}  // namespace section_name

// The sections that there are, in the order of the store.
inline constexpr std::array<std::string_view, 10> kSectionNames = {
    section_name::kCommon,
    section_name::kGreyListing,
    section_name::kResponseChanges,
    section_name::kSenderReplacementsLocal,
    section_name::kSenderReplacementsRemote,
    section_name::kRecipientReplacementsLocal,
    section_name::kRecipientReplacementsRemote,
    section_name::kTLS,
    section_name::kService,
    section_name::kListFiles,
};

// One section. Names, keys and values are views: of constants, and of the text that the store keeps.
class SectionTable {
 public:
  // A key with its value, or, for a list key, with its values in the order of the file. Most keys occur once,
  // so the first value needs no room of its own.
  struct Entry {
    std::string_view key;  // spelled as where it appeared first
    std::string_view first_value;
    std::vector<std::string_view> further_values;
    bool is_list = false;
  };

  explicit SectionTable(std::string_view name) : name_(name) {}

  // As the store created it, however the file spells it.
  std::string_view Name() const { return name_; }
  // In the order in which each key appeared first.
  const std::vector<Entry>& Entries() const { return entries_; }
  // Without regard to case; nullptr when there is none. Valid until a key is added.
  const Entry* Find(std::string_view key) const;
  Entry* Find(std::string_view key);

  // A key that is not there yet.
  void AddKey(std::string_view key, std::string_view value, bool is_list);

 private:
  std::string_view name_;
  std::vector<Entry> entries_;
  std::unordered_map<std::string_view, std::uint32_t, HashNoCase, SameNoCase> index_;
};

// All of kSectionNames, created empty, and the file's text. No other section can come into being.
class SectionStore {
 public:
  SectionStore();
  SectionStore(const SectionStore&) = delete;
  SectionStore& operator=(const SectionStore&) = delete;

  // Without regard to case; nullptr for any other name.
  SectionTable* Find(std::string_view name);
  // `name` is one of kSectionNames.
  const SectionTable& Section(std::string_view name) const;

  // Keeps the text that keys and values point into; once only. Returns it as it is kept.
  std::string_view KeepText(std::string text);
  std::string_view Text() const { return text_; }

 private:
  std::string text_;
  std::vector<SectionTable> sections_;
};

}  // namespace trabex
