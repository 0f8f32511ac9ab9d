#include "config/list_files.h"

#include <algorithm>

#include "base/text.h"
#include "config/settings_table.h"
#include "platform/files.h"

namespace trabex {

namespace {

// Makes of the files so far and one more a number that is another one when any of them has changed.
void AddStamp(std::uint64_t& sum, const std::optional<std::int64_t>& stamp) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
  sum = (sum + static_cast<std::uint64_t>(stamp.value_or(-1)) + 1) * kFactor;
  sum ^= sum >> 32;
}

}  // namespace

const ListFile* FindListFile(const std::vector<ListFile>& files, const Setting& list) {
  const auto found =
      std::find_if(files.begin(), files.end(), [&](const ListFile& file) { return file.list == &list; });
  return found == files.end() ? nullptr : &*found;
}

bool MayHaveListFile(const Setting& setting) {
  switch (setting.kind) {
    case SettingKind::kAddressList:
    case SettingKind::kPlainList:
    case SettingKind::kExtensionList:
    case SettingKind::kRangeList:
    case SettingKind::kPartialRangeList:
      return true;
    default:
      return false;
  }
}

std::string ListFileKey(const Setting& list) {
  return std::string(list.section).append(".").append(list.key);
}

const Setting* FindList(std::string_view list_file_key) {
  const std::size_t dot = list_file_key.find('.');
  if (dot == std::string_view::npos) return nullptr;
  const Setting* const setting = FindSetting(list_file_key.substr(0, dot), list_file_key.substr(dot + 1));
  return setting != nullptr && MayHaveListFile(*setting) ? setting : nullptr;
}

std::int64_t StampOfRead(const std::vector<ListFile>& files) {
  std::uint64_t sum = 0;
  for (const ListFile& file : files) AddStamp(sum, file.stamp);
  return static_cast<std::int64_t>(sum);
}

std::int64_t StampNow(const std::vector<ListFile>& files) {
  std::uint64_t sum = 0;
  for (const ListFile& file : files) {
    const std::optional<FileIdentity> now = FindFileIdentity(NativePath(file.path));
    AddStamp(sum, now ? std::optional(now->stamp) : std::nullopt);
  }
  return static_cast<std::int64_t>(sum);
}

namespace mCommon {

std::string_view ListFileEntry(std::string_view line) {
  return line.starts_with('#') || line.starts_with(';') ? std::string_view() : line;
}

}  // namespace mCommon
}  // namespace trabex
