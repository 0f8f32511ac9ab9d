#include "app/greylist_file.h"

#include <exception>
#include <memory>
#include <utility>
#include <variant>

#include "app/check_configuration.h"
#include "app/exit_status.h"
#include "app/greylist_tool.h"
#include "app/printable.h"
#include "app/program.h"
#include "app/version.h"
#include "base/error.h"
#include "greylist/database_file.h"

namespace trabex {

namespace {

std::string ErrorText(std::string_view action, const Error& error) {
  return "Unable to " + std::string(action) + " GreyListing database. Error " +
         std::to_string(error.Number()) + ". " + error.Description() + ".";
}

// One that is not there yet has no records; only what adds some goes on then.
GreyListingDatabase Load(const std::string& path, const std::string& command) {
  try {
    return LoadDatabaseFile(path);
  } catch (const Error& error) {
    const bool adds = command == "add" || command == "import";
    if (error.Number() == error_number::kFileNotFound && adds) return {};
    throw Error(error.Number(), error.Source(), ErrorText("load", error));
  }
}

void Save(const std::string& path, const GreyListingDatabase& database, DateTime now) {
  try {
    SaveDatabaseFile(path, database, now);
  } catch (const Error& error) {
    throw Error(error.Number(), error.Source(), ErrorText("save", error));
  }
}

// The whole answer. What comes before its last slice goes to `out` at once.
ControlAnswer WholeAnswer(ControlReply reply, std::ostream& out) {
  if (auto* const answer = std::get_if<ControlAnswer>(&reply)) return std::move(*answer);
  const ControlSlices slices = std::get<ControlSlices>(std::move(reply));
  for (;;) {
    ControlAnswer slice;
    if (!slices(slice)) return slice;
    out << slice.text;
  }
}

ControlAnswer Answer(Program& program, const std::vector<std::string>& arguments, std::ostream& out) {
  const auto lock = TryLockInstance(program.loop, InstanceName(program.configuration.BindPort), [] {});
  if (!lock) {
    return {.status = exit_status::kFailed,
            .text = {},
            .error = NameTakenText(InstanceName(program.configuration.BindPort))};
  }
  const CheckedConfiguration checked = CheckConfiguration({.file = program.ini_file.path,
                                                           .early = program.MakeEarlyKeyInputs(),
                                                           .context = program.MakeSettingContext()},
                                                          program.configuration);
  if (!checked.was_read) {
    return {.status = exit_status::kFailed, .text = {}, .error = checked.findings.front().text};
  }
  const GreyListingSettings& settings = checked.configuration.GreyListing;
  GreyListingDatabase database =
      Load(settings.Database, arguments.empty() ? std::string() : arguments.front());
  const Clock& clock = program.dependencies.clock;
  ControlAnswer answer = WholeAnswer(
      AnswerGreyList({.database = database, .settings = settings, .clock = clock}, arguments), out);
  if (database.Changed()) Save(settings.Database, database, clock.UniversalNow());
  return answer;
}

}  // namespace

int AskGreyListFile(Program& program, const std::vector<std::string>& arguments, std::ostream& out,
                    std::ostream& err) {
  ControlAnswer answer;
  try {
    answer = Answer(program, arguments, out);
  } catch (const std::exception& error) {
    answer = {.status = exit_status::kFailed, .text = {}, .error = error.what()};
  }
  out << answer.text;
  if (!answer.error.empty()) err << kApplicationTitle << ": " << Printable(answer.error) << '\n';
  if (out.flush()) return answer.status;
  err << kApplicationTitle << ": " << kOutputNotWritten << '\n';
  return exit_status::kFailed;
}

}  // namespace trabex
