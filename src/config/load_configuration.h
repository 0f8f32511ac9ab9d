// Turns the initialization file into the configuration in force.
#pragma once

#include <functional>
#include <string>

#include "base/log.h"
#include "config/configuration.h"
#include "config/ini_errors.h"
#include "config/ini_reader.h"
#include "config/section_store.h"

namespace trabex {

// What a load needs of the program around it. Hooks may be empty, and log their own failures.
struct LoadEnvironment {
  InitializationFile& file;  // its stamp is set by a successful read
  std::string program_directory;
  Log& log;
  // The machine's own name; raises an Error when there is none.
  std::function<std::string()> local_host_name;

  // Writes the dump of the configuration; called after a reload if `Log` asks for it.
  std::function<void()> dump_configuration = {};
  // Saves the greylisting data, if there are any in memory, to `database`; false when they are to go on in
  // memory, since a load would lose some or bring nothing new.
  std::function<bool(const std::string& database)> save_greylisting = {};
  // Loads them from the configuration's database; forgets those in memory.
  std::function<void()> load_greylisting = {};
  std::function<void()> clear_greylisting = {};
};

enum class LoadResult {
  kLoaded,
  kFailed,  // the log says why
};

// Reads all settings but the early keys, which are in `configuration` already, and assigns them one by one: a
// load that fails at a bad value leaves the settings before it new and those behind it as they were.
//
// Last, also when the file had a syntax error, but not after a bad value, the greylisting data are loaded, or
// forgotten with greylisting off.
LoadResult LoadConfiguration(const LoadEnvironment& environment, Configuration& configuration);

// The same at a reload, from the file as it was taken; one line is logged when the settings are read. Before
// the greylisting data are loaded or forgotten they are saved to the database that was in force before. What
// could not be saved stays in memory.
LoadResult ReloadConfiguration(const LoadEnvironment& environment, IniText ini, Configuration& configuration);

// The part that reads the settings. Raises what ReportConfigError raises.
void ReadSettings(const SectionStore& store, const IniErrors& errors, const LoadEnvironment& environment,
                  Configuration& configuration);

}  // namespace trabex
