#include "app/reload_check.h"

#include <string_view>

#include "app/program.h"
#include "base/error.h"
#include "base/log.h"
#include "config/early_keys.h"
#include "config/ini_errors.h"
#include "config/read_settings.h"
#include "config/section_store.h"

namespace trabex {

namespace {

// Keeps what a load says.
class RecordingLog final : public Log {
 public:
  void LogLine(std::string_view message) override { lines.emplace_back(message); }

  std::vector<std::string> lines;
};

}  // namespace

ReloadCheck CheckForReload(Program& program, const IniText& ini) {
  RecordingLog said;
  ReloadCheck check;
  check.settings.LogPath = program.configuration.LogPath;
  if (program.port_given) check.settings.BindPort = program.configuration.BindPort;
  // Without a value that is wrong the default counts, as if errors were ignored.
  ReadEarlyKeysAgain(ini.text, program.MakeEarlyKeyInputs(), check.settings, said);
  SectionStore store;
  const IniErrors errors{said, true};
  mCommon::ReadIniText(program.ini_file.path, ini.text, store, errors);
  ReadSettings(store, errors, program.MakeLoadDependencies().context, check.settings);
  for (const std::string& line : said.lines) check.findings.push_back(ReloadError(program, line));
  check.has_errors = !check.findings.empty();
  return check;
}

std::string ReloadError(const Program& program, const std::string& text) {
  return program.ini_file.path + ": error: " + text;
}

}  // namespace trabex
