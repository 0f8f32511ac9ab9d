#include "app/check_command.h"

#include <optional>
#include <string>
#include <utility>

#include "app/check_settings.h"
#include "app/command_line.h"
#include "app/exit_status.h"
#include "app/finding.h"
#include "app/program.h"
#include "config/configuration_dump.h"

namespace trabex {

namespace {

// The file as findings name it.
std::string FileAsGiven(const Program& program, const CommandLine& line) {
  return line.ini_file.value_or(program.ini_file.path);
}

// Whether all that was said has arrived, which a full disk may prevent; otherwise that is told.
bool IsWritten(Program& program) {
  if (program.dependencies.out.flush()) return true;
  program.Tell(kOutputNotWritten);
  return false;
}

}  // namespace

int CheckOnRequest(Program& program, const CommandLine& line) {
  constexpr Milliseconds kMaxWait{1000};
  std::optional<CheckedConfiguration> checked;
  CheckSettings(program, FileAsGiven(program, line), program.configuration,
                line.offline ? AskNames::kNo : AskNames::kYes,
                [&checked](CheckedConfiguration result) { checked = std::move(result); });
  while (!checked) program.loop.RunOnce(kMaxWait);
  program.dependencies.out << FormatFindings(checked->findings);
  if (!IsWritten(program)) return exit_status::kFailed;
  return CountErrors(checked->findings) == 0 ? exit_status::kDone : exit_status::kFailed;
}

int DumpOnRequest(Program& program, const CommandLine& line) {
  const CheckedConfiguration checked = CheckConfiguration({.file = FileAsGiven(program, line),
                                                           .early = program.MakeEarlyKeyInputs(),
                                                           .context = program.MakeSettingContext()},
                                                          program.configuration);
  if (checked.was_read) {
    DumpConfiguration(checked.configuration, program.ini_file.path,
                      [&](std::string_view text) { program.dependencies.out << text << '\n'; });
  }
  if (!IsWritten(program)) return exit_status::kFailed;
  if (CountErrors(checked.findings) == 0) return exit_status::kDone;
  program.dependencies.err << FormatFindings(checked.findings);
  return exit_status::kFailed;
}

}  // namespace trabex
