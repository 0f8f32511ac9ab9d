// All settings of the program. Fields carry the key names of the initialization file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/ip_address.h"
#include "base/numbers.h"
#include "config/list_files.h"
#include "config/service_settings.h"
#include "config/tls_settings.h"
#include "match/address_replacement.h"
#include "match/cReplaces.h"
#include "match/ip_range.h"
#include "match/mText.h"

namespace trabex {

// What the numbers of some settings mean.

// Log. At the start and after each reload the log may also show the configuration in force.
namespace log_mode {
inline constexpr std::int32_t kOff = 0;
inline constexpr std::int32_t kOn = 1;
inline constexpr std::int32_t kWithConfiguration = 2;
}  // namespace log_mode

// Bits of LogLevelServer and LogLevelRemote: what of one side of a session is logged.
namespace log_level {
inline constexpr std::int32_t kErrors = 1;
inline constexpr std::int32_t kReceived = 2;
inline constexpr std::int32_t kSent = 4;
inline constexpr std::int32_t kConnection = 8;
}  // namespace log_level

// Bits of ValidateRDNS: whose names are admitted by the lists of host names only.
namespace validate_rdns {
inline constexpr std::int32_t kLocalClients = 1;
inline constexpr std::int32_t kRemoteClients = 2;
}  // namespace validate_rdns

// Bits of ValidateHELO: checks of the name in HELO and EHLO, by kind of client.
namespace validate_helo {
inline constexpr std::int32_t kDnsLocal = 1;
inline constexpr std::int32_t kDnsRemote = 2;
inline constexpr std::int32_t kBlackListLocal = 4;
inline constexpr std::int32_t kBlackListRemote = 8;
}  // namespace validate_helo

// The values of MaxSize that are no size, in bytes like the others.
namespace max_size {
inline constexpr FixedPoint kAsServer = 0;                  // the server's limit holds
inline constexpr FixedPoint kNone = -kFixedPointOne;        // no limit; the server's SIZE line stays
inline constexpr FixedPoint kHidden = -2 * kFixedPointOne;  // no limit; no SIZE line
}  // namespace max_size

// CallbackSenderAction: what a sender in CallbackSendersList gets for a recipient that is to wait.
namespace callback_sender_action {
inline constexpr std::int32_t kAccept = 0;
inline constexpr std::int32_t kRefuseAtData = 1;
inline constexpr std::int32_t kRefuse = 2;  // like every other sender
inline constexpr std::int32_t kCloseAtData = 3;
}  // namespace callback_sender_action

// SendClientIP: how the server learns the client's address.
namespace send_client_ip {
inline constexpr std::int32_t kNot = 0;
inline constexpr std::int32_t kProxyVersion1 = 1;  // header of the PROXY protocol, as text
inline constexpr std::int32_t kProxyVersion2 = 2;  // the same, binary
inline constexpr std::int32_t kXCLIENT = 3;
}  // namespace send_client_ip

struct Configuration;

// The only way to a new configuration: every setting has the default of the settings table. Those that depend
// on the machine (LogPath, LocalHostName, Database) are empty.
Configuration DefaultConfiguration();

// Section GreyListing. Durations are in days (minutes / 1440), to be added to date-times.
struct GreyListingSettings {
  bool Enabled;
  std::int32_t Log;
  std::string Database;  // resolved path
  double Delay;
  double BlackListDelay;
  double TTL;
  double ShortTTL;
  double SaveInterval;
  IPRangeList IPWhiteList;
  ExpressionList HostsWhiteList;
  IPRangeList IPBlackList;
  ExpressionList HostsBlackList;
  std::int32_t MinCount;
  std::int32_t BlackListMinCount;
  ExpressionList CallbackSendersList;
  std::int32_t CallbackSenderAction;  // callback_sender_action
  // Records that were never accepted: of all clients, and of one network.
  std::int32_t MaxPending;
  std::int32_t MaxPendingPerNetwork;
  std::int32_t IPv6Prefix;  // bits of an IPv6 address that are the client's network

 private:
  GreyListingSettings() = default;
  friend struct Configuration;
};

// A load assigns field by field; one that stops at an error leaves the later fields as they were. Readers
// take it by const reference and read a setting at each use, so that a reload acts at once.
struct Configuration {
  // The early keys, read before all others.
  bool IgnoreIniErrors;
  std::int32_t Log;  // log_mode
  std::string LogPath;
  std::int32_t BindPort;

  // Section Common.
  std::string BindIP;
  // The addresses of BindIP, each once, in its order. An entry like "300.1.1.1", which is an address of no
  // family, is the empty address here; binding to it fails.
  std::vector<IPAddress> BindAddresses;
  std::int32_t BindPortTLS;           // 0: none
  IPRangeList ProxyProtocolFrom;      // balancers: their connections begin with a PROXY header
  std::int32_t ProxyProtocolTimeout;  // seconds
  std::int32_t SendClientIP;          // send_client_ip
  std::int32_t ServerPort;
  std::string ServerIP;
  IPRangeList LocalIPs;
  ExpressionList LocalDomains;
  std::string LocalHostName;
  IPRangeList IPBlackList;
  IPRangeList IPAllowList;
  IPRangeList IPWhiteList;
  ExpressionList SendersBlackList;
  ExpressionList SendersWhiteList;
  ExpressionList SendersAllowList;
  ExpressionList RestrictedSenders;
  ExpressionList HostsWhiteList;
  ExpressionList HostsAllowList;
  ExpressionList HostsBlackList;
  std::int32_t ValidateRDNS;  // bits: validate_rdns
  std::int32_t ValidateHELO;  // bits: validate_helo
  ExpressionList HELOBlackList;
  std::int32_t LogLevelServer;  // bits: log_level
  std::int32_t LogLevelRemote;
  bool AddReceived;
  bool EnhancedStatusCodes;
  std::int32_t ProcessAddressesWithoutBrackets;  // AddressesWithoutBrackets of the proxy
  ExpressionList RemoveSMTPExtensionsLocal;
  ExpressionList RemoveSMTPExtensionsRemote;
  ExpressionList AddSMTPExtensionsLocal;
  ExpressionList AddSMTPExtensionsRemote;
  ExpressionList RecipientsAllowListLocal;
  ExpressionList RecipientsBlackListLocal;
  ExpressionList RecipientsWhiteListLocal;
  ExpressionList RecipientsAllowListRemote;
  ExpressionList RecipientsBlackListRemote;
  ExpressionList RecipientsWhiteListRemote;
  ExpressionList PrivateRecipients;
  std::int32_t MaxRecipientsLocal;
  std::int32_t MaxRecipientsRemote;
  std::int32_t MaxTransactionsLocal;
  std::int32_t MaxTransactionsRemote;
  std::int32_t MaxConnections;  // 0: no limit
  FixedPoint MaxSize;           // bytes, or one of max_size
  std::int32_t Timeout;         // seconds; 0: none
  std::int32_t MaxBadSeq;
  bool AutoReload;
  bool ConfirmHostNames;

  GreyListingSettings GreyListing;
  TLSSettings TLS;
  ServiceSettings Service;
  std::vector<ListFile> ListFiles;  // in the order of the settings table
  ResponseChangeTable ResponseChanges;
  ReplacementTable SenderReplacementsLocal;
  ReplacementTable SenderReplacementsRemote;
  ReplacementTable RecipientReplacementsLocal;
  ReplacementTable RecipientReplacementsRemote;

 private:
  Configuration() = default;
  friend Configuration DefaultConfiguration();
};

}  // namespace trabex
