#include "config/load_configuration.h"

#include <utility>

#include "base/error.h"

namespace trabex {

namespace {

// The greylisting data as the setting says now.
void FollowGreyListing(const LoadEnvironment& environment, const Configuration& configuration) {
  if (configuration.GreyListing.Enabled) {
    environment.host.LoadGreyListing();
  } else {
    environment.host.ClearGreyListing();
  }
}

// The same where there may be records in memory.
void FollowGreyListingAgain(const LoadEnvironment& environment, const Configuration& configuration) {
  if (environment.host.SaveGreyListing()) FollowGreyListing(environment, configuration);
}

// False at a bad value, which is reported where it was found.
bool AssignSettings(const SectionStore& store, const IniErrors& errors, const LoadEnvironment& environment,
                    Configuration& configuration) {
  try {
    ReadSettings(store, errors, environment.context, configuration);
    return true;
  } catch (const Error&) {
    return false;
  }
}

}  // namespace

LoadResult LoadConfiguration(const LoadEnvironment& environment, Configuration& configuration) {
  const IniErrors errors{environment.log, configuration.IgnoreIniErrors};
  {
    SectionStore store;
    const IniReadResult read = mCommon::ReadIniFile(environment.file, store, errors);
    if (read == IniReadResult::kAbandoned || (read == IniReadResult::kUnreadable && !errors.ignore)) {
      FollowGreyListing(environment, configuration);
      return LoadResult::kFailed;
    }
    if (!AssignSettings(store, errors, environment, configuration)) return LoadResult::kFailed;
  }
  FollowGreyListing(environment, configuration);
  return LoadResult::kLoaded;
}

LoadResult ReloadConfiguration(const LoadEnvironment& environment, IniText ini,
                               Configuration& configuration) {
  const IniErrors errors{environment.log, configuration.IgnoreIniErrors};
  const bool other_stamp = environment.file.stamp != ini.stamp;
  {
    SectionStore store;
    if (!mCommon::ReadIniText(environment.file.path, std::move(ini.text), store, errors)) {
      FollowGreyListingAgain(environment, configuration);
      return LoadResult::kFailed;
    }
    environment.file.stamp = ini.stamp;
    if (!AssignSettings(store, errors, environment, configuration)) return LoadResult::kFailed;
  }
  environment.log.LogLine(other_stamp
                              ? "Configuration reloaded because date/time of initialization file changed."
                              : "Configuration reloaded; date/time of initialization file has not changed.");
  if (configuration.Log == log_mode::kWithConfiguration) environment.host.DumpConfiguration();
  FollowGreyListingAgain(environment, configuration);
  return LoadResult::kLoaded;
}

}  // namespace trabex
