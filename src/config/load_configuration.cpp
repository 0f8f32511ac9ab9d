#include "config/load_configuration.h"

#include <utility>

#include "base/error.h"

namespace trabex {

namespace {

// The greylisting data as the setting says now.
void FollowGreyListing(const LoadDependencies& dependencies, const Configuration& configuration) {
  if (configuration.GreyListing.Enabled) {
    dependencies.host.LoadGreyListing();
  } else {
    dependencies.host.ClearGreyListing();
  }
}

// The same where there may be records in memory.
void FollowGreyListingAgain(const LoadDependencies& dependencies, const Configuration& configuration) {
  if (dependencies.host.SaveGreyListing()) FollowGreyListing(dependencies, configuration);
}

// False at a bad value, which is reported where it was found.
bool AssignSettings(const SectionStore& store, const IniErrors& errors, const LoadDependencies& dependencies,
                    bool is_reload, Configuration& configuration) {
  SettingContext context = dependencies.context;
  context.is_reload = is_reload;
  try {
    ReadSettings(store, errors, context, configuration);
    return true;
  } catch (const Error&) {
    return false;
  }
}

}  // namespace

LoadResult LoadConfiguration(const LoadDependencies& dependencies, Configuration& configuration) {
  const IniErrors errors{dependencies.log, configuration.IgnoreIniErrors};
  {
    SectionStore store;
    const IniReadResult read = mCommon::ReadIniFile(dependencies.file, store, errors);
    if (read == IniReadResult::kAbandoned || (read == IniReadResult::kUnreadable && !errors.ignore)) {
      FollowGreyListing(dependencies, configuration);
      return LoadResult::kFailed;
    }
    if (!AssignSettings(store, errors, dependencies, false, configuration)) return LoadResult::kFailed;
  }
  FollowGreyListing(dependencies, configuration);
  return LoadResult::kLoaded;
}

LoadResult ReloadConfiguration(const LoadDependencies& dependencies, IniText ini,
                               Configuration& configuration) {
  const IniErrors errors{dependencies.log, configuration.IgnoreIniErrors};
  const bool other_stamp = dependencies.file.stamp != ini.stamp;
  const std::int64_t lists_before = StampOfRead(configuration.ListFiles);
  {
    SectionStore store;
    if (!mCommon::ReadIniText(dependencies.file.path, std::move(ini.text), store, errors)) {
      FollowGreyListingAgain(dependencies, configuration);
      return LoadResult::kFailed;
    }
    dependencies.file.stamp = ini.stamp;
    if (!AssignSettings(store, errors, dependencies, true, configuration)) return LoadResult::kFailed;
  }
  const bool other_list = StampOfRead(configuration.ListFiles) != lists_before;
  dependencies.log.LogLine(
      other_stamp  ? "Configuration reloaded because date/time of initialization file changed."
      : other_list ? "Configuration reloaded because date/time of a list file changed."
                   : "Configuration reloaded; date/time of initialization file has not changed.");
  if (configuration.Log == log_mode::kWithConfiguration) dependencies.host.DumpConfiguration();
  FollowGreyListingAgain(dependencies, configuration);
  return LoadResult::kLoaded;
}

}  // namespace trabex
