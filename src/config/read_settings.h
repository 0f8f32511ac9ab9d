// The values of all settings but the early keys, out of the sections of an initialization file.
#pragma once

#include <functional>
#include <string>

#include "config/configuration.h"
#include "config/ini_errors.h"
#include "config/list_files.h"
#include "config/section_store.h"

namespace trabex {

// What some settings depend on.
struct SettingContext {
  std::string program_directory;
  // The machine's own name; raises an Error when there is none.
  std::function<std::string()> local_host_name;
  // Whether the TLS library knows a list of ciphers (not empty); without this function every one is taken.
  std::function<bool(const std::string&)> accepts_ciphers = {};
  // A list whose file cannot be read stays as it is in the configuration, which is in force, and that is no
  // bad value.
  bool is_reload = false;
  // What is there is not read from the disk, and what is read is put there, so that what was checked is what is taken
  // afterwards; nullptr: nobody wants them.
  TakenListFiles* list_files = nullptr;
};

// Reads the files of section ListFiles first, then assigns the settings one by one, in the order of the settings table. A bad value is reported with
// ReportConfigError; where that raises, the settings before it are new and those after it as they were.
void ReadSettings(const SectionStore& store, const IniErrors& errors, const SettingContext& context,
                  Configuration& configuration);

}  // namespace trabex
