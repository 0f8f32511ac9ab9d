#include "config/settings_table.h"

#include <algorithm>
#include <array>
#include <limits>

#include "base/text.h"
#include "config/section_store.h"

namespace trabex {

namespace {

using C = Configuration;
using G = GreyListingSettings;
using enum SettingKind;

constexpr std::int64_t kGreatest = std::numeric_limits<std::int32_t>::max();
// The counters stop one below it.
constexpr std::int64_t kGreatestCount = kGreatest - 1;
// Whole bytes, as far as the fixed-point type goes.
constexpr std::int64_t kGreatestSize = 922337203685476;

constexpr Setting Early(std::string_view key, SettingKind kind, SettingField field,
                        std::string_view default_text, std::int64_t min = 0, std::int64_t max = 1) {
  return {section_name::kCommon, key, kind, field, default_text, min, max, true};
}
constexpr Setting Common(std::string_view key, SettingKind kind, SettingField field,
                         std::string_view default_text = {}) {
  return {section_name::kCommon, key, kind, field, default_text};
}
constexpr Setting Common(std::string_view key, SettingKind kind, SettingField field,
                         std::string_view default_text, std::int64_t min, std::int64_t max) {
  return {section_name::kCommon, key, kind, field, default_text, min, max};
}
constexpr Setting Grey(std::string_view key, SettingKind kind, SettingField field,
                       std::string_view default_text = {}) {
  return {section_name::kGreyListing, key, kind, field, default_text};
}
constexpr Setting Grey(std::string_view key, SettingKind kind, SettingField field,
                       std::string_view default_text, std::int64_t min, std::int64_t max) {
  return {section_name::kGreyListing, key, kind, field, default_text, min, max};
}

// One that came later.
constexpr Setting Later(Setting setting) {
  setting.shown_at_default = false;
  return setting;
}

constexpr auto kSettings = std::to_array<Setting>({
    Early("IgnoreIniErrors", kBoolean, &C::IgnoreIniErrors, "1"),
    Early("Log", kInteger, &C::Log, "1", 0, 2),
    Early("LogPath", kLogFolder, &C::LogPath, ""),
    Early("BindPort", kInteger, &C::BindPort, "25", 0, 65535),

    Common("BindIP", kAddress, &C::BindIP, "0.0.0.0"),
    Common("ServerPort", kInteger, &C::ServerPort, "25", 1, 65535),
    Common("ServerIP", kText, &C::ServerIP, "127.0.0.1"),
    Common("LocalIPs", kRangeList, &C::LocalIPs,
           "127.0.0.0/8,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,169.254.0.0/16"),
    Common("LocalDomains", kPlainList, &C::LocalDomains),
    Common("LocalHostName", kHostName, &C::LocalHostName),
    Common("IPBlackList", kRangeList, &C::IPBlackList),
    Common("IPAllowList", kRangeList, &C::IPAllowList, "0.0.0.0/0"),
    Common("IPWhiteList", kRangeList, &C::IPWhiteList),
    Common("SendersBlackList", kAddressList, &C::SendersBlackList),
    Common("SendersWhiteList", kAddressList, &C::SendersWhiteList),
    Common("SendersAllowList", kAddressList, &C::SendersAllowList, "*"),
    Common("RestrictedSenders", kAddressList, &C::RestrictedSenders),
    Common("HostsWhiteList", kAddressList, &C::HostsWhiteList),
    Common("HostsAllowList", kAddressList, &C::HostsAllowList, "*"),
    Common("HostsBlackList", kAddressList, &C::HostsBlackList),
    Common("ValidateRDNS", kInteger, &C::ValidateRDNS, "0", 0, 3),
    Common("ValidateHELO", kInteger, &C::ValidateHELO, "0", 0, 15),
    Common("HELOBlackList", kAddressList, &C::HELOBlackList),
    Common("LogLevelServer", kInteger, &C::LogLevelServer, "15", 0, 15),
    Common("LogLevelRemote", kInteger, &C::LogLevelRemote, "15", 0, 15),
    Common("AddReceived", kBoolean, &C::AddReceived, "1", 0, 1),
    Common("EnhancedStatusCodes", kBoolean, &C::EnhancedStatusCodes, "1", 0, 1),
    Common("ProcessAddressesWithoutBrackets", kInteger, &C::ProcessAddressesWithoutBrackets, "0", 0, 2),
    Common("RemoveSMTPExtensionsLocal", kExtensionList, &C::RemoveSMTPExtensionsLocal),
    Common("RemoveSMTPExtensionsRemote", kExtensionList, &C::RemoveSMTPExtensionsRemote),
    Common("AddSMTPExtensionsLocal", kExtensionList, &C::AddSMTPExtensionsLocal),
    Common("AddSMTPExtensionsRemote", kExtensionList, &C::AddSMTPExtensionsRemote),
    Common("RecipientsAllowListLocal", kAddressList, &C::RecipientsAllowListLocal, "*"),
    Common("RecipientsBlackListLocal", kAddressList, &C::RecipientsBlackListLocal),
    Common("RecipientsWhiteListLocal", kAddressList, &C::RecipientsWhiteListLocal),
    Common("RecipientsAllowListRemote", kAddressList, &C::RecipientsAllowListRemote, "*"),
    Common("RecipientsBlackListRemote", kAddressList, &C::RecipientsBlackListRemote),
    Common("RecipientsWhiteListRemote", kAddressList, &C::RecipientsWhiteListRemote),
    Common("PrivateRecipients", kAddressList, &C::PrivateRecipients),
    Common("MaxRecipientsLocal", kInteger, &C::MaxRecipientsLocal, "0", 0, kGreatestCount),
    Common("MaxRecipientsRemote", kInteger, &C::MaxRecipientsRemote, "0", 0, kGreatestCount),
    Common("MaxTransactionsLocal", kInteger, &C::MaxTransactionsLocal, "0", 0, kGreatestCount),
    Common("MaxTransactionsRemote", kInteger, &C::MaxTransactionsRemote, "0", 0, kGreatestCount),
    Common("MaxConnections", kInteger, &C::MaxConnections, "0", 0, 65535),
    Common("MaxSize", kSize, &C::MaxSize, "0", -2, kGreatestSize),
    Common("Timeout", kInteger, &C::Timeout, "300", 0, kGreatest),
    Common("MaxBadSeq", kInteger, &C::MaxBadSeq, "10", 0, kGreatestCount),
    Common("AutoReload", kBoolean, &C::AutoReload, "1", 0, 1),
    Later(Common("ConfirmHostNames", kBoolean, &C::ConfirmHostNames, "0", 0, 1)),

    Grey("Enabled", kBoolean, &G::Enabled, "0", 0, 1),
    Grey("Log", kInteger, &G::Log, "0", 0, 1),
    Grey("Database", kDatabase, &G::Database),
    Grey("Delay", kMinutes, &G::Delay, "16", 0, kGreatest),
    Grey("BlackListDelay", kMinutes, &G::BlackListDelay, "64", 0, kGreatest),
    Grey("TTL", kLifetime, &G::TTL, "51840", 0, kGreatest),
    Grey("ShortTTL", kLifetime, &G::ShortTTL, "240", 0, kGreatest),
    Grey("SaveInterval", kMinutes, &G::SaveInterval, "120", 10, kGreatest),
    Grey("IPWhiteList", kRangeList, &G::IPWhiteList),
    Grey("HostsWhiteList", kAddressList, &G::HostsWhiteList),
    Grey("IPBlackList", kRangeList, &G::IPBlackList),
    Grey("HostsBlackList", kAddressList, &G::HostsBlackList, "[]"),
    Grey("MinCount", kInteger, &G::MinCount, "1", 1, kGreatest),
    Grey("BlackListMinCount", kInteger, &G::BlackListMinCount, "2", 1, kGreatest),
    Grey("CallbackSendersList", kPlainList, &G::CallbackSendersList, "[],postmaster@*"),
    Grey("CallbackSenderAction", kInteger, &G::CallbackSenderAction, "1", 0, 3),
    Later(Grey("MaxPending", kInteger, &G::MaxPending, "500000", 100, kGreatest)),
    Later(Grey("MaxPendingPerNetwork", kInteger, &G::MaxPendingPerNetwork, "20000", 100, kGreatest)),
});

}  // namespace

bool IsListKind(SettingKind kind) {
  return kind == kAddressList || kind == kPlainList || kind == kExtensionList || kind == kRangeList;
}

std::span<const Setting> AllSettings() {
  return kSettings;
}

const Setting* FindSetting(std::string_view section, std::string_view key) {
  const auto found = std::find_if(kSettings.begin(), kSettings.end(), [&](const Setting& setting) {
    return EqualNoCase(setting.key, key) && EqualNoCase(setting.section, section);
  });
  return found == kSettings.end() ? nullptr : &*found;
}

namespace mCommon {

bool IsListKey(std::string_view section, std::string_view key) {
  if (EqualNoCase(section, section_name::kResponseChanges)) return true;
  const Setting* const setting = FindSetting(section, key);
  return setting != nullptr && IsListKind(setting->kind);
}

}  // namespace mCommon
}  // namespace trabex
