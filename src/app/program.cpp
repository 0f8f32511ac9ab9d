#include "app/program.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <utility>

#include "app/frmMain.h"
#include "app/printable.h"
#include "app/version.h"
#include "base/error.h"
#include "config/configuration_dump.h"
#include "net/CSocketMaster.h"
#include "platform/message.h"
#include "report/counted_lookup.h"
#include "report/program_events.h"
#include "tls/tls_context.h"

namespace trabex {

namespace {

// Of what waits for the terminal to be free: what any terminal takes at once, since nobody waits for one.
constexpr std::size_t kMaxWaiting = 4000;

}  // namespace

Program::Program(Dependencies the_dependencies)
    : dependencies(std::move(the_dependencies)),
      log(configuration, dependencies.clock, dependencies.program_name),
      loop(dependencies.clock),
      service_notices(loop, dependencies.find_service_manager()),
      json_log(configuration, dependencies.clock, loop, log),
      session_report(counters, json_log, dependencies.clock),
      history(dependencies.clock.Monotonic()),
      sockets(loop),
      names(CountLookups(dependencies.make_names(loop), dependencies.clock, counters)),
      socket_module(sockets, *names, log),
      certificates(configuration, log, dependencies.clock, loop, tls),
      greylisting(configuration.GreyListing, log, dependencies.clock, loop),
      control(loop, requests) {
  log.SetTell([this](std::string_view text) {
    Tell(text);
    if (problems.size() < kMaxProblems) problems.emplace_back(text);
  });
  loop.ObserveTurns([this](std::chrono::nanoseconds time) { counters.turn_time.Observe(time); });
  log.SetErrorObserver([this](int number, std::string_view text) { WriteError(json_log, number, text); });
  greylisting.ObserveSaves([this](const GreyListingSaveResult& result) {
    const bool saved = result.kind == GreyListingSaveResult::Kind::kSaved;
    ++counters.greylisting_saves[saved ? 0 : 1];
    if (saved) counters.greylisting_last_save = ToUnixMilliseconds(result.time) / 1000;
  });
}

Program::~Program() {
  if (!window) return;
  window->Form_Unload();
  // Sessions are destroyed at the end of a loop iteration, and need what is destroyed before the loop.
  loop.RunOnce(Milliseconds(0));
}

EarlyKeysResult Program::ReadEarlyKeys() {
  return trabex::ReadEarlyKeys(MakeEarlyKeyInputs(), configuration, log);
}

EarlyKeysResult Program::ReadEarlyKeysAgain(std::string_view text) {
  return trabex::ReadEarlyKeysAgain(text, MakeEarlyKeyInputs(), configuration, log);
}

std::string NameTakenText(std::string_view instance_name) {
  if (const auto user = OtherUserHolding(instance_name)) {
    return "A process of another user (" + *user +
           ") holds the name of the instance listening on the same port; no instance of our own user runs.";
  }
  return "The instance of this application listening on the same port already running.";
}

bool Program::LockInstance() {
  instance_lock.reset();
  try {
    instance_lock = TryLockInstance(loop, InstanceName(configuration.BindPort), [this] {
      if (window) window->Form_Unload();
    });
  } catch (const Error& error) {
    log.LogProblem(error);
    return false;
  }
  if (instance_lock) {
    OpenControlChannel();
    return true;
  }
  log.LogProblem(NameTakenText(InstanceName(configuration.BindPort)));
  return false;
}

void Program::OpenControlChannel() {
  try {
    if (control.Open(InstanceName(configuration.BindPort))) return;
  } catch (const Error& error) {
    log.LogError(error);
  }
  log.LogProblem("This instance takes no requests: their name is not free.");
}

void Program::DumpConfiguration() {
  mCommon::LogConfiguration(configuration, ini_file.path, log,
                            [this](std::string_view line) { log.WriteUnstamped(line); });
}

bool Program::SaveGreyListing() {
  const GreyListingSettings& settings = configuration.GreyListing;
  const auto saved = [this](DateTime time) {
    if (window) window->GreyListingSaved(time);
  };
  // To save and to load them anew would hold up the sessions, with a million records for most of a second.
  // Compared with the database in use, not with the setting from before: a move that failed at an earlier
  // reload is made now.
  if (settings.Enabled && settings.Database == greylisting_records->Database()) {
    greylisting_records->SaveInBackground(saved);
    return false;
  }
  // Nobody waits for a disk that is known not to answer; the records stay in memory then.
  const std::string before = NativePath(greylisting_records->Database());
  const bool answers = std::find(unanswered.begin(), unanswered.end(), before) == unanswered.end();
  const GreyListingSaveResult result =
      answers ? greylisting_records->Save() : greylisting_records->FailToSave();
  if (result.kind == GreyListingSaveResult::Kind::kSaved) saved(result.time);
  return result.kind != GreyListingSaveResult::Kind::kFailed;
}

void Program::LoadGreyListing() {
  greylisting_records->Load();
}

void Program::ClearGreyListing() {
  greylisting_records->Clear();
}

void Program::Tell(std::string_view text) {
  const std::string line = std::string(kApplicationTitle) + ": " + Printable(text) + "\n";
  if (!window || !window->Loaded()) {
    dependencies.err << line;
  } else if (!window->Shown() || !MessagesGoToTerminal()) {
    dependencies.show(line);
  } else if (lines_left_out_ == 0 && waiting_.size() + line.size() <= kMaxWaiting) {
    waiting_ += line;
  } else {
    ++lines_left_out_;
  }
}

void Program::TellWaiting() {
  if (const std::size_t count = std::exchange(lines_left_out_, 0); count > 0) {
    waiting_.append(kApplicationTitle).append(": ").append(std::to_string(count));
    waiting_ += count == 1 ? " more line is in the log.\n" : " more lines are in the log.\n";
  }
  if (!waiting_.empty()) dependencies.show(std::exchange(waiting_, {}));
}

EarlyKeyInputs Program::MakeEarlyKeyInputs() const {
  return {.ini_path = ini_file.path,
          .program_directory = dependencies.program_directory,
          .log_path_given = log_path_given,
          .port_given = port_given};
}

SettingContext Program::MakeSettingContext() {
  return {.program_directory = dependencies.program_directory,
          .local_host_name = [this] { return CSocketMaster(socket_module).LocalHostName(); },
          .accepts_ciphers = TlsContext::AcceptsCiphers};
}

LoadDependencies Program::MakeLoadDependencies() {
  return {.file = ini_file, .context = MakeSettingContext(), .log = log, .host = *this};
}

}  // namespace trabex
