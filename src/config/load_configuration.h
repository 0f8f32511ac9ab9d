// Turns the initialization file into the configuration in force.
#pragma once

#include "base/log.h"
#include "config/configuration.h"
#include "config/ini_reader.h"
#include "config/read_settings.h"

namespace trabex {

// The program whose configuration is loaded. Its members log their own failures and raise no Error.
class LoadHost {
 public:
  virtual ~LoadHost() = default;

  // Writes the dump of the configuration; called after a reload if `Log` asks for it.
  virtual void DumpConfiguration() = 0;
  // Saves the greylisting data, if there are any in memory, to the database that they belong to; false when
  // they are to go on in memory, since a load would lose some or bring nothing new.
  virtual bool SaveGreyListing() = 0;
  // Loads them from the configuration's database; forgets those in memory.
  virtual void LoadGreyListing() = 0;
  virtual void ClearGreyListing() = 0;
};

// What a load needs of the program.
struct LoadDependencies {
  InitializationFile& file;  // its stamp is set by a successful read
  SettingContext context;
  Log& log;
  LoadHost& host;
};

enum class LoadResult {
  kLoaded,
  kFailed,  // the log says why
};

// Reads all settings but the early keys, which are in `configuration` already, and assigns them one by one: a
// load that fails at a bad value leaves the settings before it new and those after it as they were.
//
// Last, also when the file had a syntax error, but not after a bad value, the greylisting data are loaded, or
// forgotten with greylisting off.
LoadResult LoadConfiguration(const LoadDependencies& dependencies, Configuration& configuration);

// The same at a reload, from the file as it was taken; one line is logged when the settings are read. Before
// the greylisting data are loaded or forgotten they are saved. What could not be saved stays in memory.
LoadResult ReloadConfiguration(const LoadDependencies& dependencies, IniText ini,
                               Configuration& configuration);

}  // namespace trabex
