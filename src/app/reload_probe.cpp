#include "app/reload_probe.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/certificates.h"
#include "app/places_in_use.h"
#include "app/program.h"
#include "base/error.h"
#include "config/ini_paths.h"
#include "config/list_files.h"
#include "config/read_settings.h"
#include "config/settings_table.h"
#include "platform/disk.h"
#include "platform/files.h"

namespace trabex {

namespace {

// What is wrong with the file is for the reload to say.
class NoLog final : public Log {
 public:
  void LogLine(std::string_view /*message*/) override {}

 private:
  void TakeProblem(std::string_view /*message*/, std::string_view /*addition*/) override {}
};

// The settings of the file, without the entries of list files, which are not read.
Configuration SettingsOf(Program& program, IniText ini) {
  Configuration settings = DefaultConfiguration();
  settings.LogPath = program.configuration.LogPath;
  NoLog log;
  ReadEarlyKeysFromText(ini.text, program.MakeEarlyKeyInputs(), settings, log);
  SectionStore store;
  const IniErrors errors{log, true};
  mCommon::ReadIniText(program.ini_file.path, std::move(ini.text), store, errors);
  SettingContext context = program.MakeSettingContext();
  TakenListFiles empty;
  for (const SectionTable::Entry& entry : store.Section(section_name::kListFiles).Entries()) {
    empty[mCommon::ResolveFilePath(entry.first_value, context.program_directory)] = {
        0, std::make_shared<const std::string>()};
  }
  context.list_files = &empty;
  ReadSettings(store, errors, context, settings);
  return settings;
}

struct Places {
  std::vector<std::string> read;
  std::vector<std::string> written;
};

Places PlacesOf(Program& program) {
  Places places;
  try {
    const Configuration settings = SettingsOf(program, mCommon::TakeIniFile(program.ini_file.path));
    for (const ListFile& file : settings.ListFiles) places.read.push_back(NativePath(file.path));
    for (std::string& file : FilesOf(settings.TLS)) places.read.push_back(std::move(file));
    for (const WrittenFolder& folder : WrittenFolders(settings)) places.written.push_back(folder.path);
    // A database that is moved is saved where it was and loaded where it is then.
    const std::string before = program.greylisting_records->Database();
    const GreyListingSettings& greylisting = settings.GreyListing;
    if (!before.empty() && !(greylisting.Enabled && greylisting.Database == before))
      places.written.push_back(NativePath(before));
    if (greylisting.Enabled && greylisting.Database != before)
      places.read.push_back(NativePath(greylisting.Database));
  } catch (const Error&) {
    // The reload says what is the matter.
  }
  return places;
}

}  // namespace

ReloadProbe::ReloadProbe(Program& program) : program_(program), probe_(program.loop, program.log) {}

void ReloadProbe::Run(std::function<void()> then) {
  program_.unanswered.clear();
  if (!AnyDiskMayHang()) return then();
  file_has_answered_ = false;
  probe_.Read({NativePath(program_.ini_file.path)}, [this, then = std::move(then)] { ReadPlaces(then); });
}

void ReloadProbe::ReadPlaces(std::function<void()> then) {
  file_has_answered_ = true;
  const Places places = PlacesOf(program_);
  probe_.Read(places.read, [this, written = places.written, then = std::move(then)] {
    probe_.ReadInTime(written, [this, then](std::vector<std::string> unanswered) {
      program_.unanswered = std::move(unanswered);
      then();
    });
  });
}

}  // namespace trabex
