// Section ListFiles: lists whose entries go on in files of their own, one entry a line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

struct Setting;

// A list with a file of its own, as of the last load.
struct ListFile {
  const Setting* list = nullptr;  // one of the settings table
  std::string path;               // resolved
  // FileModificationStamp when it was read; nothing: it could not be.
  std::optional<std::int64_t> stamp = {};
  // How many entries of the list are those of the initialization file: they come first, in a list of ranges
  // within their family.
  std::size_t own_entries = 0;
  std::size_t own_ipv6_ranges = 0;
};

// The file of `list`, or nullptr.
const ListFile* FindListFile(const std::vector<ListFile>& files, const Setting& list);

// A list file as it was taken from the disk.
struct TakenListFile {
  std::int64_t stamp = 0;
  std::shared_ptr<const std::string> text;
};
// By their resolved paths.
using TakenListFiles = std::map<std::string, TakenListFile, std::less<>>;

// Whether a list of this kind may have a file.
bool MayHaveListFile(const Setting& setting);

// "Common.HostsWhiteList": the key under which ListFiles names the file of a list.
std::string ListFileKey(const Setting& list);
// The list that a key of section ListFiles names, without regard to case; nullptr when there is none.
const Setting* FindList(std::string_view list_file_key);

// When the files were changed last, in one number that tells one state from another: as of the last load, and
// now. 0 without any file.
std::int64_t StampOfRead(const std::vector<ListFile>& files);
std::int64_t StampNow(const std::vector<ListFile>& files);

namespace mCommon {

// The entry that a line of a list file holds; "" for a line that is empty or a comment ("#" or ";" at its
// beginning).
std::string_view ListFileEntry(std::string_view line);

}  // namespace mCommon
}  // namespace trabex
