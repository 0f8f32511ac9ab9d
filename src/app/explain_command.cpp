#include "app/explain_command.h"

#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "app/check_configuration.h"
#include "app/command_line.h"
#include "app/control_client.h"
#include "app/exit_status.h"
#include "app/explain_arguments.h"
#include "app/explain_list.h"
#include "app/explain_session.h"
#include "app/explanation.h"
#include "app/greylist_text.h"
#include "app/greylist_tool.h"
#include "app/program.h"
#include "base/error.h"
#include "greylist/database_file.h"
#include "greylist/triple_key.h"

namespace trabex {

namespace {

// There is no explanation; standard error has been told why.
struct Failed {
  int status;
};

// The records of a database file, which is read when the first one is wanted.
class FileRecords {
 public:
  explicit FileRecords(const GreyListingSettings& settings) : settings_(settings) {}

  std::optional<cGreyListingData> Find(const IPAddress& ip, const std::string& sender,
                                       const std::string& recipient) {
    if (!database_) database_ = std::make_unique<GreyListingDatabase>(Load());
    const cGreyListingData* const record =
        database_->Find(TripleKey(NetworkOf(ip, settings_.IPv6Prefix), sender, recipient));
    return record == nullptr ? std::nullopt : std::optional(*record);
  }

 private:
  GreyListingDatabase Load() const {
    try {
      return LoadDatabaseFile(settings_.Database);
    } catch (const Error& error) {
      const bool is_missing =
          error.Number() == error_number::kFileNotFound || error.Number() == error_number::kPathNotFound;
      if (is_missing) return {};
      throw Error(error.Number(), error.Source(),
                  "Unable to load GreyListing database. Error " + std::to_string(error.Number()) + ". " +
                      error.Description() + ".");
    }
  }

  const GreyListingSettings& settings_;
  std::unique_ptr<GreyListingDatabase> database_;
};

// Those of the instance that listens on `port`.
std::optional<cGreyListingData> AskForRecord(Program& program, std::int32_t port,
                                             const std::string& network_client, const std::string& sender,
                                             const std::string& recipient) {
  std::ostringstream said;
  std::ostringstream error;
  const int status = AskInstance(
      port, {"GREYLIST", "show", network_client, sender.empty() ? "<>" : sender, recipient, "--json"}, said,
      error);
  if (status == exit_status::kDone) {
    std::string line = said.str();
    if (line.ends_with('\n')) line.pop_back();
    return ParseExported(line);
  }
  if (status == exit_status::kFailed && error.str().find(kNoRecord) != std::string::npos) return std::nullopt;
  program.dependencies.err << error.str();
  throw Failed{status};
}

// The settings of the file, with `places`; nothing when it has errors, which standard error is told.
std::optional<Configuration> LoadSettings(Program& program, const CommandLine& line, SettingPlaces& places) {
  CheckedConfiguration checked = CheckConfiguration({.file = line.ini_file.value_or(program.ini_file.path),
                                                     .early = program.MakeEarlyKeyInputs(),
                                                     .context = program.MakeSettingContext(),
                                                     .surroundings = false,
                                                     .places = &places},
                                                    program.configuration);
  if (CountErrors(checked.findings) == 0) return std::move(checked.configuration);
  std::erase_if(checked.findings,
                [](const Finding& finding) { return finding.severity != Finding::Severity::kError; });
  program.dependencies.err << FormatFindings(checked.findings);
  return std::nullopt;
}

int Explain(Program& program, const CommandLine& line, const ExplainArguments& arguments) {
  SettingPlaces places;
  const std::optional<Configuration> configuration = LoadSettings(program, line, places);
  if (!configuration) return exit_status::kFailed;
  std::ostream& out = program.dependencies.out;
  if (arguments.list) {
    const ListExplanation explanation = ExplainList(*arguments.list, *configuration, places);
    out << (arguments.json ? FormatListExplanationJson(explanation) : FormatListExplanation(explanation));
    return out.flush() ? exit_status::kDone : exit_status::kFailed;
  }
  FileRecords records(configuration->GreyListing);
  const auto find = [&](const IPAddress& ip, const std::string& sender, const std::string& recipient) {
    if (!line.live) return records.Find(ip, sender, recipient);
    return AskForRecord(program, configuration->BindPort, FormatIPAddress(ip), sender, recipient);
  };
  const Explanation explanation = ExplainClient(*arguments.client, *configuration,
                                                {.places = places,
                                                 .clock = program.dependencies.clock,
                                                 .loop = program.loop,
                                                 .names = *program.names,
                                                 .find_record = find});
  out << (arguments.json ? FormatExplanationJson(explanation) : FormatExplanation(explanation));
  return out.flush() ? StatusOf(explanation) : exit_status::kFailed;
}

}  // namespace

int ExplainOnRequest(Program& program, const CommandLine& line) {
  try {
    ExplainArguments arguments = ReadExplainArguments(*line.explain);
    if (line.live && arguments.list) {
      throw Error(error_number::kBadValue, "ExplainOnRequest", "--live goes with \"client=\" only.");
    }
    return Explain(program, line, arguments);
  } catch (const Failed& failed) {
    return failed.status;
  } catch (const Error& error) {
    program.Tell(error.Description());
    return error.Number() == error_number::kBadValue ? exit_status::kBadCommandLine : exit_status::kFailed;
  }
}

}  // namespace trabex
