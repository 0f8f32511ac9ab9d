// All settings of the program. Fields carry the key names of the initialization file.
#pragma once

#include <cstdint>
#include <string>

#include "base/numbers.h"
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

// Section GreyListing. Durations are in days (minutes / 1440), to be added to date-times.
struct GreyListingSettings {
  bool Enabled = false;
  std::int32_t Log = 0;
  std::string Database;  // resolved path
  double Delay = 0;
  double BlackListDelay = 0;
  double TTL = 0;
  double ShortTTL = 0;
  double SaveInterval = 0;
  IPRangeList IPWhiteList;
  ExpressionList HostsWhiteList;
  IPRangeList IPBlackList;
  ExpressionList HostsBlackList;
  std::int32_t MinCount = 1;
  std::int32_t BlackListMinCount = 2;
  ExpressionList CallbackSendersList;
  std::int32_t CallbackSenderAction = 1;  // callback_sender_action
  // Records that were never accepted: of all clients, and of one network.
  std::int32_t MaxPending = 500000;
  std::int32_t MaxPendingPerNetwork = 20000;
};

// A load assigns field by field; one that stops at an error leaves the later fields as they were. Readers
// take it by const reference and read a setting at each use, so that a reload acts at once.
struct Configuration {
  // The early keys, read before all others.
  bool IgnoreIniErrors = false;
  std::int32_t Log = 1;  // log_mode
  std::string LogPath;
  std::int32_t BindPort = 25;

  // Section Common.
  std::string BindIP = "0.0.0.0";
  std::int32_t ServerPort = 25;
  std::string ServerIP = "127.0.0.1";
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
  std::int32_t ValidateRDNS = 0;  // bits: validate_rdns
  std::int32_t ValidateHELO = 0;  // bits: validate_helo
  ExpressionList HELOBlackList;
  std::int32_t LogLevelServer = 15;  // bits: log_level
  std::int32_t LogLevelRemote = 15;
  bool AddReceived = true;
  bool EnhancedStatusCodes = true;
  std::int32_t ProcessAddressesWithoutBrackets = 0;  // BareAddresses of the proxy
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
  std::int32_t MaxRecipientsLocal = 0;
  std::int32_t MaxRecipientsRemote = 0;
  std::int32_t MaxTransactionsLocal = 0;
  std::int32_t MaxTransactionsRemote = 0;
  std::int32_t MaxConnections = 0;  // 0: no limit
  FixedPoint MaxSize = 0;           // bytes, or one of max_size
  std::int32_t Timeout = 300;       // seconds; 0: none
  std::int32_t MaxBadSeq = 10;
  bool AutoReload = true;
  bool ConfirmHostNames = false;

  GreyListingSettings GreyListing;
  ResponseChangeTable ResponseChanges;
  ReplacementTable SenderReplacementsLocal;
  ReplacementTable SenderReplacementsRemote;
  ReplacementTable RecipientReplacementsLocal;
  ReplacementTable RecipientReplacementsRemote;
};

}  // namespace trabex
