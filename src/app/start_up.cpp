#include "app/start_up.h"

#include <string>
#include <utility>

#include "app/command_line.h"
#include "app/control_client.h"
#include "app/exit_status.h"
#include "app/frmMain.h"
#include "app/printable.h"
#include "app/version.h"
#include "config/ini_paths.h"

namespace trabex {

namespace {

// The steps of a start, each taken only when those before it succeeded.
class StartUp {
 public:
  StartUp(Program& program, const CommandLine& line) : program_(program), line_(line) {
    TakeCommandLine();
    // The line that says why a start failed is the last one that was logged, whether logging is on or not.
    program_.log.SetObserver([this](std::string_view message) { last_message_ = message; });
  }
  ~StartUp() { program_.log.SetObserver({}); }
  StartUp(const StartUp&) = delete;
  StartUp& operator=(const StartUp&) = delete;

  int Run() {
    if (program_.ReadEarlyKeys() == EarlyKeysResult::kFailed) return Failed();
    const std::int32_t port = program_.configuration.BindPort;
    if (line_.exit_request) return AskForExit(port, program_.dependencies.err);
    if (!line_.request.empty()) {
      return AskInstance(port, line_.request, program_.dependencies.out, program_.dependencies.err);
    }
    if (!program_.LockInstance()) return Failed();
    if (LoadConfiguration(program_.MakeLoadDependencies(), program_.configuration) == LoadResult::kFailed) {
      return ConfigurationFailed();
    }
    program_.window = std::make_unique<frmMain>(program_);
    if (!program_.window->Form_Load(!line_.hidden) && !program_.window->Unloaded()) return ListenerFailed();
    if (!line_.hidden) program_.window->Show(line_.minimized);
    program_.log.SetObserver({});
    program_.log.CollectOn(&program_.loop);
    program_.loop.Run();
    program_.log.CollectOn(nullptr);
    return program_.exit_status;
  }

 private:
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

  int Failed() {
    PrintReason(last_message_);
    return exit_status::kFailed;
  }

  int ConfigurationFailed() {
    PrintReason(last_message_);
    program_.log.LogLine(TitleAndVersion() + " not started due to an error in initialization file.");
    program_.log.Close();
    program_.control.Close();
    program_.instance_lock.reset();
    return Failed();
  }

  int ListenerFailed() {
    const std::string reason = std::exchange(last_message_, {});
    program_.window->Form_Unload();
    PrintReason(reason);
    return exit_status::kFailed;
  }

  void PrintReason(std::string_view message) {
    if (!message.empty())
      program_.dependencies.err << kApplicationTitle << ": " << Printable(message) << '\n';
  }

  Program& program_;
  const CommandLine& line_;
  std::string last_message_;
};

}  // namespace

int RunProgram(std::span<const std::string_view> arguments, Dependencies dependencies) {
  const CommandLine line = ParseCommandLine(arguments);
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

}  // namespace trabex
