// The readers of list keys: expression lists, address ranges, response changes.
//
// An absent key gives what the default text says. A bad entry is reported with ReportConfigError, which
// raises unless errors are ignored; then the good entries are kept. Time and memory grow in proportion to the
// text, however it is spread over lines and whatever is wrong with it.
#pragma once

#include <cstddef>
#include <string_view>

#include "config/ini_errors.h"
#include "config/section_store.h"
#include "match/cReplaces.h"
#include "match/ip_range.h"
#include "match/mText.h"

namespace trabex::mCommon {

// How a list is written.
struct ListForm {
  std::string_view open_delimiter = {};
  std::string_view close_delimiter = {};  // empty: the open one
  bool undelimit = false;                 // an expression that begins with the open delimiter loses both
  bool skip_empty = true;                 // empty pieces between commas are no entries
  bool validate_pattern = false;
  bool split_on_blanks = false;     // several words make an AND-group
  bool require_delimiters = false;  // with undelimit: an expression without delimiters is an error
  bool key_by_first_word = false;   // two entries with the same first word are duplicates
};

// The forms in use.
inline constexpr ListForm kAddressListForm = {
    .open_delimiter = "\"", .undelimit = true, .validate_pattern = true, .split_on_blanks = true};
inline constexpr ListForm kPlainListForm = {
    .undelimit = true, .validate_pattern = true, .split_on_blanks = true};
inline constexpr ListForm kExtensionListForm = {
    .open_delimiter = "\"", .undelimit = true, .key_by_first_word = true};
inline constexpr ListForm kRangeListForm = {.undelimit = true};
inline constexpr ListForm kReplaceRecordForm = {.open_delimiter = "<", .close_delimiter = ">"};

// What a list reader is given of the list's own file, and what it says of it. The entries of the file follow
// those of the initialization file; the default is for a list without a file.
struct ListFileEntries {
  std::string_view path;  // for messages
  std::string_view text;
  // The entries of the initialization file (ListFile).
  std::size_t own_entries = 0;
  std::size_t own_ipv6_ranges = 0;
};

// Entries in the order of their first occurrence. Reported are unbalanced delimiters in a raw value (321;
// its entries do not count), a bad delimited part (321), a bad pattern (93; it drops the whole group it is
// in) and a duplicate entry (457; found without regard to case).
ExpressionList GetList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                       std::string_view default_text, const ListForm& form, ListFileEntries* file = nullptr);

// Ranges in the order of their entries; also reports what InitIPRange raises.
IPRangeList GetIPRangeList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                           std::string_view default_text, ListFileEntries* file = nullptr);

// The same, but a range of all addresses of its family is reported as a bad one (380).
IPRangeList GetPartialIPRangeList(const IniErrors& errors, std::string_view key, const SectionTable& section,
                                  std::string_view default_text, ListFileEntries* file = nullptr);

// All keys of the section ResponseChanges that have at least one rule, in the order of the file. Also reports
// entries that are no replace record (321).
ResponseChangeTable GetResponseChanges(const IniErrors& errors, const SectionTable& section);

}  // namespace trabex::mCommon
