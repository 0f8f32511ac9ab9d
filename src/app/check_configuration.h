// A check of the settings: the file is read by the readers of a start, nothing is changed, and whatever is not
// as it should be is found, each with its place.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "app/finding.h"
#include "app/setting_places.h"
#include "base/ip_address.h"
#include "config/configuration.h"
#include "config/early_keys.h"
#include "config/ini_reader.h"
#include "config/list_files.h"
#include "config/read_settings.h"
#include "platform/permissions.h"
#include "resolver/name_lookup.h"

namespace trabex {

struct CheckInputs {
  std::string file;  // as people wrote it; findings name it so
  EarlyKeyInputs early;
  SettingContext context;
  // Whether it is looked at the machine too: folders, and the right to listen on ports.
  bool surroundings = true;
  // Folders, as native paths, whose disk is known not to answer: they are not looked at.
  std::vector<std::string> unanswered = {};
  SettingPlaces* places = nullptr;  // gets where keys and entries stand
  std::function<bool(std::int32_t port)> may_listen_on = MayListenOn;
};

struct CheckedConfiguration {
  // What a start with this file would have in force, bad values replaced as with IgnoreIniErrors.
  Configuration configuration;
  IniText ini = {};                // the file as it was checked
  TakenListFiles list_files = {};  // and those of its lists
  bool was_read = false;           // false: the file is missing or cannot be read
  std::vector<Finding> findings = {};
  // Section, key and place of ServerIP, for what is found about the server later.
  Finding server_finding = {};
};

// Checks the file at `inputs.early.ini_path`. `initial` are the settings that the command line has given, or,
// in a running instance, those that a reload does not read anew. Asks no name of DNS; raises no Error.
CheckedConfiguration CheckConfiguration(const CheckInputs& inputs, Configuration initial);
// The same of a file that was taken already.
CheckedConfiguration CheckText(const CheckInputs& inputs, IniText ini, Configuration initial);

// Adds what is wrong with the server: `answer` is what FindAddresses says for ServerIP, `own` are the
// addresses of this machine. Raises no Error.
void CheckServer(const AddressAnswer& answer, const std::vector<IPAddress>& own,
                 CheckedConfiguration& checked);

}  // namespace trabex
