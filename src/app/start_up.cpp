#include "app/start_up.h"

#include <algorithm>
#include <functional>
#include <optional>
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
#include "app/places_in_use.h"
#include "app/printable.h"
#include "app/version.h"
#include "base/text.h"
#include "config/ini_paths.h"
#include "platform/files.h"
#include "platform/permissions.h"
#include "platform/sandbox.h"

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
    if (const std::optional<int> status = TakeUser()) return *status;
    if (line_.check) return CheckOnRequest(program_, line_);
    if (line_.dump) return DumpOnRequest(program_, line_);
    if (line_.explain) return ExplainOnRequest(program_, line_);
    if (program_.ReadEarlyKeys() == EarlyKeysResult::kFailed) return exit_status::kFailed;
    const std::int32_t port = program_.configuration.BindPort;
    if (line_.exit_request || !line_.request.empty()) {
      if (!LetGoOfRoot()) return exit_status::kFailed;
      return line_.exit_request ? AskForExit(port, program_.dependencies.err) : Ask(port);
    }
    TellOtherPlace();
    if (!program_.LockInstance()) return exit_status::kFailed;
    if (LoadConfiguration(program_.MakeLoadDependencies(), program_.configuration) == LoadResult::kFailed) {
      return ConfigurationFailed();
    }
    if (line_.user) TellWhatIsNotWritable();
    if (!SandboxIsPossible()) return NotStarted();
    program_.window = std::make_unique<frmMain>(program_);
    // A window and the lines of a log have no place on one screen.
    const bool shown = !line_.hidden && program_.configuration.Service.JsonLog != kStandardOutput;
    if (!program_.window->Form_Load(shown) && !program_.window->Unloaded()) return EndAtOnce();
    // The ports are bound and the keys are read; nothing of a client has been.
    if (!LetGoOfRoot()) return EndAtOnce();
    if (shown) program_.window->Show(line_.minimized);
    if (!Enclose(shown)) return EndAtOnce();
    program_.log.CollectOn(&program_.loop);
    program_.json_log.BeginDetaching();
    program_.loop.Run();
    program_.json_log.EndDetaching();
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
    program_.user_given = line_.user.has_value();
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
    return NotStarted();
  }

  int NotStarted() {
    program_.log.Close();
    program_.control.Close();
    program_.instance_lock.reset();
    return exit_status::kFailed;
  }

  int EndAtOnce() {
    program_.window->Form_Unload();
    return exit_status::kFailed;
  }

  // Becomes the user who is named, a start and a request only for now: they need root for what only root may read, and
  // a start for the ports below 1024. The exit status when that is not possible.
  std::optional<int> TakeUser() {
    if (!line_.user) return std::nullopt;
    const bool for_good = line_.check || line_.dump || line_.explain;
    switch (for_good ? BecomeUser(*line_.user) : BecomeUserForNow(*line_.user)) {
      case BecomeUserResult::kDone:
        return std::nullopt;
      case BecomeUserResult::kUnknownUser:
        program_.Tell("There is no user " + Quoted(*line_.user) + ".");
        return exit_status::kBadCommandLine;
      case BecomeUserResult::kNotHere:
        program_.Tell(
            "--user goes with --check only on this system; a service's user is set where services are.");
        return exit_status::kBadCommandLine;
      case BecomeUserResult::kNotPermitted:
        break;
    }
    program_.Tell(line_.check ? "Only root can check for another user."
                              : "Only root can become another user.");
    return exit_status::kFailed;
  }

  // Whatever was possible until now as root is not from here on.
  bool LetGoOfRoot() {
    if (!line_.user || GiveUpRoot()) return true;
    program_.log.LogProblem("The system does not let the process give up root.");
    return false;
  }

  // With Sandbox=2 a system that cannot do all of it is no place to start, which is better known before there is a
  // listener.
  bool SandboxIsPossible() {
    if (program_.configuration.Service.Sandbox != sandbox::kRequired || !program_.dependencies.enclose)
      return true;
    const std::optional<std::string> why_not = WhyNoSandbox();
    if (why_not) TellNoSandbox(*why_not);
    return !why_not;
  }

  void TellNoSandbox(const std::string& why_not) {
    program_.log.LogProblem("Sandbox=2 is not possible: " + why_not + ".");
  }

  // Behind the window, which is drawn by a process of another program file. Nothing of a client has been read.
  bool Enclose(bool shown) {
    const std::int32_t level = program_.configuration.Service.Sandbox;
    program_.sandbox_in_force = level;
    const bool ends_already = program_.window->Unloaded();
    if (level == sandbox::kNone || !program_.dependencies.enclose || ends_already) return true;
    MakeDatabaseFolderNow(program_);
    SandboxPaths paths = PlacesInUse(program_);
    paths.has_children = shown;
    const std::optional<std::string> why_not = program_.dependencies.enclose(paths);
    if (level != sandbox::kRequired) return true;
    if (why_not) {
      TellNoSandbox(*why_not);
    } else {
      program_.log.LogLine("Sandbox in force.");
    }
    return !why_not;
  }

  // A start as root could write everywhere; what its user cannot is found out here rather than hours later.
  void TellWhatIsNotWritable() {
    for (const WrittenFolder& written : WrittenFolders(program_.configuration)) {
      if (!written.in_use) continue;
      // The log makes the last level of its folder.
      std::string path = written.path;
      if (StateOfFolder(path) == FolderState::kMissing && written.key == "LogPath") path = FolderOf(path);
      if (StateOfFolder(path) != FolderState::kNotWritable) continue;
      program_.log.LogProblem("User " + Quoted(*line_.user) + " may not write in the folder " + Quoted(path) +
                              " (" + std::string(written.key) + ").");
    }
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
