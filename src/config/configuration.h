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
  std::int32_t CallbackSenderAction = 1;
  // Records that were never accepted: of all clients, and of one network.
  std::int32_t MaxPending = 500000;
  std::int32_t MaxPendingPerNetwork = 20000;
};

// A load assigns field by field; one that stops at an error leaves the later fields as they were. Readers
// take it by const reference and read a setting at each use, so that a reload acts at once.
struct Configuration {
  // The early keys, read before all others.
  bool IgnoreIniErrors = false;
  std::int32_t Log = 1;
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
  std::int32_t ValidateRDNS = 0;  // 1 local clients, 2 remote clients
  std::int32_t ValidateHELO = 0;  // 1 DNS local, 2 DNS remote, 4 black list local, 8 black list remote
  ExpressionList HELOBlackList;
  std::int32_t LogLevelServer = 15;
  std::int32_t LogLevelRemote = 15;
  bool AddReceived = true;
  bool EnhancedStatusCodes = true;
  std::int32_t ProcessAddressesWithoutBrackets = 0;
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
  FixedPoint MaxSize = 0;           // bytes; 0 and below: see the server reply filter
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
