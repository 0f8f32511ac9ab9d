#include "app/start_up.h"

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/check_command.h"
#include "app/command_line.h"
#include "app/control_client.h"
#include "app/exit_status.h"
#include "app/explain_command.h"
#include "app/frmMain.h"
#include "app/greylist_file.h"
#include "app/printable.h"
#include "app/version.h"
#include "base/text.h"
#include "config/ini_paths.h"
#include "platform/files.h"

namespace trabex {

namespace {

// An instance has another current directory, so it is given the whole path of a file to be imported.
std::vector<std::string> WithWholePath(std::vector<std::string> request) {
  if (request.size() < 3 || request[0] != "GREYLIST" || request[1] != "import") return request;
  const auto file = std::find_if(request.begin() + 2, request.end(),
                                 [](const std::string& argument) { return !argument.starts_with("--"); });
  if (file != request.end()) *file = AbsolutePath(*file);
  return request;
}

// The steps of a start, each taken only when those before it succeeded.
class StartUp {
 public:
  StartUp(Program& program, const CommandLine& line) : program_(program), line_(line) { TakeCommandLine(); }
  StartUp(const StartUp&) = delete;
  StartUp& operator=(const StartUp&) = delete;

  int Run() {
    if (line_.check) return CheckOnRequest(program_, line_);
    if (line_.dump) return DumpOnRequest(program_, line_);
    if (line_.explain) return ExplainOnRequest(program_, line_);
    if (program_.ReadEarlyKeys() == EarlyKeysResult::kFailed) return exit_status::kFailed;
    const std::int32_t port = program_.configuration.BindPort;
    if (line_.exit_request) return AskForExit(port, program_.dependencies.err);
    if (!line_.request.empty()) {
      return Ask(port);
    }
    TellOtherPlace();
    if (!program_.LockInstance()) return exit_status::kFailed;
    if (LoadConfiguration(program_.MakeLoadDependencies(), program_.configuration) == LoadResult::kFailed) {
      return ConfigurationFailed();
    }
    program_.window = std::make_unique<frmMain>(program_);
    // A window and the lines of a log have no place on one screen.
    const bool shown = !line_.hidden && program_.configuration.Service.JsonLog != kStandardOutput;
    if (!program_.window->Form_Load(shown) && !program_.window->Unloaded()) return ListenerFailed();
    if (shown) program_.window->Show(line_.minimized);
    program_.log.CollectOn(&program_.loop);
    program_.loop.Run();
    program_.log.CollectOn(nullptr);
    return program_.exit_status;
  }

 private:
  int Ask(std::int32_t port) {
    const Dependencies& around = program_.dependencies;
    if (line_.request.front() == "GREYLIST" && !IsInstanceLocked(InstanceName(port))) {
      return AskGreyListFile(program_, {line_.request.begin() + 1, line_.request.end()}, around.out,
                             around.err);
    }
    if (line_.request.front() == "VIEW") return ViewInstance(port, around.out, around.err);
    return AskInstance(port, WithWholePath(line_.request), around.out, around.err);
  }

  void TakeCommandLine() {
    const Dependencies& around = program_.dependencies;
    program_.ini_file.path = mCommon::ResolveIniPath(line_.ini_file.value_or(std::string()),
                                                     around.program_directory, around.program_name);
    program_.port_given = line_.port.has_value();
    if (line_.port) program_.configuration.BindPort = *line_.port;
    program_.log_path_given = line_.log_path.has_value();
    if (line_.log_path) {
      program_.configuration.LogPath = *line_.log_path;
      program_.configuration.Log = log_mode::kOn;
    }
  }

  // A path that was meant from the current directory leads elsewhere.
  void TellOtherPlace() {
    const std::string& path = program_.ini_file.path;
    if (!line_.ini_file || *line_.ini_file == path) return;
    const auto exists = [](std::string_view file) { return FindFileIdentity(NativePath(file)).has_value(); };
    if (exists(path) || !exists(*line_.ini_file)) return;
    program_.Tell("The initialization file is " + Quoted(path) + "; the one in the current directory is " +
                  Quoted("./" + *line_.ini_file) + ".");
  }

  int ConfigurationFailed() {
    program_.log.LogProblem(TitleAndVersion() + " not started due to an error in initialization file.");
    program_.log.Close();
    program_.control.Close();
    program_.instance_lock.reset();
    return exit_status::kFailed;
  }

  int ListenerFailed() {
    program_.window->Form_Unload();
    return exit_status::kFailed;
  }

  Program& program_;
  const CommandLine& line_;
};

// Whether somebody waits for an answer to `line`. Who asks for an end is a script as often as a person, and gets it
// without a word.
bool IsQuestion(const CommandLine& line) {
  return line.result != CommandLine::Result::kStart || line.check || line.dump || line.explain ||
         !line.request.empty();
}

int Run(const CommandLine& line, Dependencies dependencies) {
  switch (line.result) {
    case CommandLine::Result::kShow:
      dependencies.out << line.message << '\n';
      return exit_status::kDone;
    case CommandLine::Result::kRefused:
      dependencies.err << kApplicationTitle << ": " << Printable(line.message) << '\n';
      return exit_status::kBadCommandLine;
    case CommandLine::Result::kStart:
      break;
  }
  Program program(std::move(dependencies));
  return StartUp(program, line).Run();
}

}  // namespace

int RunProgram(std::span<const std::string_view> arguments, Dependencies dependencies) {
  const CommandLine line = ParseCommandLine(arguments);
  const std::function<void()> answered = dependencies.answered;
  const int status = Run(line, std::move(dependencies));
  if (IsQuestion(line)) answered();
  return status;
}

}  // namespace trabex
