// Every setting in one table, a row each, in reading order. Loading, the dump and the reference of settings
// all go by it.
#pragma once

#include <cassert>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "config/configuration.h"

namespace trabex {

enum class SettingKind {
  kText,
  kIPAddresses,  // addresses with commas between them; empty means the default
  kHostName,     // text; empty means the machine's own name
  kDatabase,     // path; ResolveDatabasePath
  kLogFolder,    // path; empty means the folder Log in the program's directory
  kFile,         // path; ResolveFilePath
  kOutput,       // the same, or "-": standard output
  kEndpoint,     // address and port; empty: none
  kChoice,       // one of a few texts
  kCiphers,      // text that SettingContext::accepts_ciphers takes
  kInteger,
  kTLSPort,      // integer; 0, or another port than BindPort
  kBoolean,      // 0 or 1
  kMinutes,      // kept in days
  kLifetime,     // minutes, more than the greater one of Delay and BlackListDelay; kept in days
  kSize,         // bytes, with suffixes
  kAddressList,  // the list forms of list_readers.h
  kPlainList,
  kExtensionList,
  kRangeList,
  kPartialRangeList,  // the same without ranges that are all addresses of their family
  kCertificateList,   // certificate_list.h
  kNameList,          // some of a few texts
};

// Whether the key may occur on several lines.
bool IsListKind(SettingKind kind);

// Where the value lies: in Configuration itself, or in its part for a section.
template <class... Values>
using FieldOfAny = std::variant<Values Configuration::*..., Values GreyListingSettings::*...,
                                Values TLSSettings::*..., Values ServiceSettings::*...>;
using SettingField = FieldOfAny<std::string, std::int32_t, bool, double, FixedPoint, ExpressionList,
                                IPRangeList, std::vector<CertificateFiles>, std::vector<std::string>>;

struct Setting {
  std::string_view section;  // Common, GreyListing, TLS or Service
  std::string_view key;
  SettingKind kind;
  SettingField field;
  // The default: what an absent key means, written as in the file; never checked.
  std::string_view default_text;
  // Its place among the settings of the section where the configuration is shown: the lowest comes first.
  int dump_order = 0;
  // Of the numbers; both belong to the range. The lower end of kLifetime is computed.
  std::int64_t min = 0;
  std::int64_t max = 0;
  // Read before all others, by ReadEarlyKeys.
  bool is_early = false;
  // Whether the dump shows it while it has its default. A setting that came later does not, so that the dump
  // of a file without it stays what it was. The default of such a list is empty.
  bool shown_at_default = true;
  // Of kRangeList: the default while IPv6 is in use; empty when that makes no difference.
  std::string_view default_with_ipv6 = {};
  // The texts of kChoice and kNameList.
  std::span<const std::string_view> choices = {};
};

// The early keys, then Common, then GreyListing, then TLS, then Service.
std::span<const Setting> AllSettings();

// Names without regard to case; nullptr when there is none.
const Setting* FindSetting(std::string_view section, std::string_view key);

// The settings of a section (Common, GreyListing, TLS or Service) in the order of the dump, which is made for reading.
std::vector<const Setting*> SettingsInDumpOrder(std::string_view section);

// The field of `setting` in `configuration` (const or not), which is a Value.
template <class Value, class AConfiguration>
auto& FieldOf(AConfiguration& configuration, const Setting& setting) {
  if (const auto* const field = std::get_if<Value GreyListingSettings::*>(&setting.field)) {
    return configuration.GreyListing.*(*field);
  }
  if (const auto* const field = std::get_if<Value TLSSettings::*>(&setting.field)) {
    return configuration.TLS.*(*field);
  }
  if (const auto* const field = std::get_if<Value ServiceSettings::*>(&setting.field)) {
    return configuration.Service.*(*field);
  }
  const auto* const field = std::get_if<Value Configuration::*>(&setting.field);
  assert(field != nullptr);
  return configuration.*(*field);
}

namespace mCommon {

// Whether the key may occur on several lines: the list settings, and every key of ResponseChanges. Names
// without regard to case.
bool IsListKey(std::string_view section, std::string_view key);

}  // namespace mCommon
}  // namespace trabex
