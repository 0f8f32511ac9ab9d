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
using T = TLSSettings;
using S = ServiceSettings;
using enum SettingKind;

constexpr std::int64_t kMaxInteger = std::numeric_limits<std::int32_t>::max();
// The counters stop one below it.
constexpr std::int64_t kMaxCount = kMaxInteger - 1;
// Whole bytes, as far as the fixed-point type goes.
constexpr std::int64_t kMaxBytes = 922337203685476;

constexpr Setting Early(int dump_order, std::string_view key, SettingKind kind, SettingField field,
                        std::string_view default_text, std::int64_t min = 0, std::int64_t max = 1) {
  return {section_name::kCommon, key, kind, field, default_text, dump_order, min, max, true};
}
constexpr Setting Common(int dump_order, std::string_view key, SettingKind kind, SettingField field,
                         std::string_view default_text = {}, std::int64_t min = 0, std::int64_t max = 0) {
  return {section_name::kCommon, key, kind, field, default_text, dump_order, min, max};
}
constexpr Setting Grey(int dump_order, std::string_view key, SettingKind kind, SettingField field,
                       std::string_view default_text = {}, std::int64_t min = 0, std::int64_t max = 0) {
  return {section_name::kGreyListing, key, kind, field, default_text, dump_order, min, max};
}

constexpr Setting Tls(int dump_order, std::string_view key, SettingKind kind, SettingField field,
                      std::string_view default_text = {}, std::int64_t min = 0, std::int64_t max = 0) {
  return {section_name::kTLS, key, kind, field, default_text, dump_order, min, max};
}

// One of section Service; all of them came later.
constexpr Setting Service(int dump_order, std::string_view key, SettingKind kind, SettingField field,
                          std::string_view default_text = {}, std::int64_t min = 0, std::int64_t max = 0) {
  Setting setting{section_name::kService, key, kind, field, default_text, dump_order, min, max};
  setting.shown_at_default = false;
  return setting;
}

// One that came later.
constexpr Setting Later(Setting setting) {
  setting.shown_at_default = false;
  return setting;
}

constexpr Setting WithIPv6(std::string_view default_text, Setting setting) {
  setting.default_with_ipv6 = default_text;
  return setting;
}

constexpr auto kTlsVersions = std::to_array<std::string_view>({"1.0", "1.1", "1.2", "1.3"});
constexpr auto kJsonEvents = std::to_array<std::string_view>(
    {"start", "stop", "reload", "refusal", "greylisting", "message", "session", "error"});
constexpr Setting OneOf(std::span<const std::string_view> choices, Setting setting) {
  setting.choices = choices;
  return setting;
}

// The columns: place in the dump, key, kind, field, default, range. The places go up in tens, so that there
// is room for another setting between any two.
constexpr auto kSettings = std::to_array<Setting>({
    Early(60, "IgnoreIniErrors", kBoolean, &C::IgnoreIniErrors, "1"),
    Early(10, "Log", kInteger, &C::Log, "1", 0, 2),
    Early(20, "LogPath", kLogFolder, &C::LogPath, ""),
    Early(80, "BindPort", kInteger, &C::BindPort, "25", 0, 65535),

    Common(70, "BindIP", kIPAddresses, &C::BindIP, "0.0.0.0"),
    Later(Common(500, "BindPortTLS", kTLSPort, &C::BindPortTLS, "0", 0, 65535)),
    Later(Common(510, "ProxyProtocolFrom", kPartialRangeList, &C::ProxyProtocolFrom)),
    Later(Common(520, "ProxyProtocolTimeout", kInteger, &C::ProxyProtocolTimeout, "5", 1, 600)),
    Later(Common(530, "SendClientIP", kInteger, &C::SendClientIP, "0", 0, 3)),
    Common(100, "ServerPort", kInteger, &C::ServerPort, "25", 1, 65535),
    Common(90, "ServerIP", kText, &C::ServerIP, "127.0.0.1"),
    WithIPv6("127.0.0.0/8,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,169.254.0.0/16,::1,fc00::/7",
             Common(110, "LocalIPs", kRangeList, &C::LocalIPs,
                    "127.0.0.0/8,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,169.254.0.0/16")),
    Common(120, "LocalDomains", kPlainList, &C::LocalDomains),
    Common(130, "LocalHostName", kHostName, &C::LocalHostName),
    Common(200, "IPBlackList", kRangeList, &C::IPBlackList),
    WithIPv6("0.0.0.0/0,::/0", Common(190, "IPAllowList", kRangeList, &C::IPAllowList, "0.0.0.0/0")),
    Common(180, "IPWhiteList", kRangeList, &C::IPWhiteList),
    Common(370, "SendersBlackList", kAddressList, &C::SendersBlackList),
    Common(350, "SendersWhiteList", kAddressList, &C::SendersWhiteList),
    Common(360, "SendersAllowList", kAddressList, &C::SendersAllowList, "*"),
    Common(470, "RestrictedSenders", kAddressList, &C::RestrictedSenders),
    Common(230, "HostsWhiteList", kAddressList, &C::HostsWhiteList),
    Common(240, "HostsAllowList", kAddressList, &C::HostsAllowList, "*"),
    Common(250, "HostsBlackList", kAddressList, &C::HostsBlackList),
    Common(220, "ValidateRDNS", kInteger, &C::ValidateRDNS, "0", 0, 3),
    Common(300, "ValidateHELO", kInteger, &C::ValidateHELO, "0", 0, 15),
    Common(310, "HELOBlackList", kAddressList, &C::HELOBlackList),
    Common(30, "LogLevelServer", kInteger, &C::LogLevelServer, "15", 0, 15),
    Common(40, "LogLevelRemote", kInteger, &C::LogLevelRemote, "15", 0, 15),
    Common(480, "AddReceived", kBoolean, &C::AddReceived, "1", 0, 1),
    Common(140, "EnhancedStatusCodes", kBoolean, &C::EnhancedStatusCodes, "1", 0, 1),
    Common(170, "ProcessAddressesWithoutBrackets", kInteger, &C::ProcessAddressesWithoutBrackets, "0", 0, 2),
    Common(260, "RemoveSMTPExtensionsLocal", kExtensionList, &C::RemoveSMTPExtensionsLocal),
    Common(270, "RemoveSMTPExtensionsRemote", kExtensionList, &C::RemoveSMTPExtensionsRemote),
    Common(280, "AddSMTPExtensionsLocal", kExtensionList, &C::AddSMTPExtensionsLocal),
    Common(290, "AddSMTPExtensionsRemote", kExtensionList, &C::AddSMTPExtensionsRemote),
    Common(410, "RecipientsAllowListLocal", kAddressList, &C::RecipientsAllowListLocal, "*"),
    Common(420, "RecipientsBlackListLocal", kAddressList, &C::RecipientsBlackListLocal),
    Common(400, "RecipientsWhiteListLocal", kAddressList, &C::RecipientsWhiteListLocal),
    Common(440, "RecipientsAllowListRemote", kAddressList, &C::RecipientsAllowListRemote, "*"),
    Common(450, "RecipientsBlackListRemote", kAddressList, &C::RecipientsBlackListRemote),
    Common(430, "RecipientsWhiteListRemote", kAddressList, &C::RecipientsWhiteListRemote),
    Common(460, "PrivateRecipients", kAddressList, &C::PrivateRecipients),
    Common(380, "MaxRecipientsLocal", kInteger, &C::MaxRecipientsLocal, "0", 0, kMaxCount),
    Common(390, "MaxRecipientsRemote", kInteger, &C::MaxRecipientsRemote, "0", 0, kMaxCount),
    Common(320, "MaxTransactionsLocal", kInteger, &C::MaxTransactionsLocal, "0", 0, kMaxCount),
    Common(330, "MaxTransactionsRemote", kInteger, &C::MaxTransactionsRemote, "0", 0, kMaxCount),
    Common(150, "MaxConnections", kInteger, &C::MaxConnections, "0", 0, 65535),
    Common(340, "MaxSize", kSize, &C::MaxSize, "0", -2, kMaxBytes),
    Common(160, "Timeout", kInteger, &C::Timeout, "300", 0, kMaxInteger),
    Common(210, "MaxBadSeq", kInteger, &C::MaxBadSeq, "10", 0, kMaxCount),
    Common(50, "AutoReload", kBoolean, &C::AutoReload, "1", 0, 1),
    Later(Common(490, "ConfirmHostNames", kBoolean, &C::ConfirmHostNames, "0", 0, 1)),

    Grey(10, "Enabled", kBoolean, &G::Enabled, "0", 0, 1),
    Grey(20, "Log", kInteger, &G::Log, "0", 0, 1),
    Grey(30, "Database", kDatabase, &G::Database),
    Grey(60, "Delay", kMinutes, &G::Delay, "16", 0, kMaxInteger),
    Grey(70, "BlackListDelay", kMinutes, &G::BlackListDelay, "64", 0, kMaxInteger),
    Grey(80, "TTL", kLifetime, &G::TTL, "51840", 0, kMaxInteger),
    Grey(90, "ShortTTL", kLifetime, &G::ShortTTL, "240", 0, kMaxInteger),
    Grey(100, "SaveInterval", kMinutes, &G::SaveInterval, "120", 10, kMaxInteger),
    Grey(110, "IPWhiteList", kRangeList, &G::IPWhiteList),
    Grey(120, "HostsWhiteList", kAddressList, &G::HostsWhiteList),
    Grey(130, "IPBlackList", kRangeList, &G::IPBlackList),
    Grey(140, "HostsBlackList", kAddressList, &G::HostsBlackList, "[]"),
    Grey(40, "MinCount", kInteger, &G::MinCount, "1", 1, kMaxInteger),
    Grey(50, "BlackListMinCount", kInteger, &G::BlackListMinCount, "2", 1, kMaxInteger),
    Grey(150, "CallbackSendersList", kPlainList, &G::CallbackSendersList, "[],postmaster@*"),
    Grey(160, "CallbackSenderAction", kInteger, &G::CallbackSenderAction, "1", 0, 3),
    Later(Grey(170, "MaxPending", kInteger, &G::MaxPending, "500000", 100, kMaxInteger)),
    Later(Grey(180, "MaxPendingPerNetwork", kInteger, &G::MaxPendingPerNetwork, "20000", 100, kMaxInteger)),
    Later(Grey(190, "IPv6Prefix", kInteger, &G::IPv6Prefix, "64", 16, 128)),

    Later(Tls(10, "Certificate", kCertificateList, &T::Certificate)),
    Later(OneOf(kTlsVersions, Tls(20, "MinVersion", kChoice, &T::MinVersion, "1.2"))),
    Later(Tls(30, "Ciphers", kCiphers, &T::Ciphers)),
    Later(Tls(40, "Require", kInteger, &T::Require, "0", 0, 3)),
    Later(Tls(50, "RequireForAUTH", kInteger, &T::RequireForAUTH, "3", 0, 3)),
    Later(Tls(60, "ClientCertificates", kInteger, &T::ClientCertificates, "0", 0, 2)),
    Later(Tls(70, "ClientCA", kFile, &T::ClientCA)),
    Later(Tls(80, "SessionTickets", kBoolean, &T::SessionTickets, "1", 0, 1)),
    Later(Tls(90, "HandshakeTimeout", kInteger, &T::HandshakeTimeout, "30", 1, 600)),
    Later(Tls(100, "MaxHandshakes", kInteger, &T::MaxHandshakes, "1000", 0, 65535)),
    Later(Tls(110, "Server", kInteger, &T::Server, "0", 0, 3)),
    Later(Tls(120, "ServerVerify", kBoolean, &T::ServerVerify, "0", 0, 1)),
    Later(Tls(130, "ServerName", kText, &T::ServerName)),
    Later(Tls(140, "ServerCA", kFile, &T::ServerCA)),

    Service(10, "ServerTimeout", kInteger, &S::ServerTimeout, "0", 0, kMaxInteger),
    Service(20, "JsonLog", kOutput, &S::JsonLog),
    OneOf(kJsonEvents, Service(30, "JsonEvents", kNameList, &S::JsonEvents)),
    Service(40, "StatusHTTP", kEndpoint, &S::StatusHTTP),
    Service(50, "DnsFailure", kInteger, &S::DnsFailure, "0", 0, 1),
    Service(60, "EnforceMaxSize", kBoolean, &S::EnforceMaxSize, "0", 0, 1),
    Service(70, "Sandbox", kInteger, &S::Sandbox, "1", 0, 2),
});

}  // namespace

bool IsListKind(SettingKind kind) {
  switch (kind) {
    case kAddressList:
    case kPlainList:
    case kExtensionList:
    case kRangeList:
    case kPartialRangeList:
    case kCertificateList:
    case kNameList:
      return true;
    default:
      return false;
  }
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

std::vector<const Setting*> SettingsInDumpOrder(std::string_view section) {
  std::vector<const Setting*> settings;
  for (const Setting& setting : kSettings) {
    if (setting.section == section) settings.push_back(&setting);
  }
  std::sort(settings.begin(), settings.end(),
            [](const Setting* a, const Setting* b) { return a->dump_order < b->dump_order; });
  return settings;
}

namespace mCommon {

bool IsListKey(std::string_view section, std::string_view key) {
  if (EqualNoCase(section, section_name::kResponseChanges)) return true;
  const Setting* const setting = FindSetting(section, key);
  return setting != nullptr && IsListKind(setting->kind);
}

}  // namespace mCommon
}  // namespace trabex
