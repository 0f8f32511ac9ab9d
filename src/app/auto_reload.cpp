#include "app/auto_reload.h"

#include <cmath>
#include <string_view>

#include "app/frmMain.h"
#include "app/program.h"
#include "base/error.h"
#include "base/text.h"
#include "platform/files.h"

namespace trabex {

namespace {

constexpr Milliseconds kPollInterval{1000};
// Whoever edits the file has this long to save it again before it is read.
constexpr Milliseconds kDelay{30000};
// The file's date is not asked for more often.
constexpr double kBetweenDateChecks = 15 / kSecondsPerDay;

}  // namespace

AutoReload::AutoReload(Program& program, frmMain& window)
    : program_(program),
      window_(window),
      tmrAutoReload(program.loop, kPollInterval, [this] { tmrAutoReload_Timer(); }),
      tmrAutoReloadDelay(program.loop, kDelay, [this] { tmrAutoReloadDelay_Timer(); }) {}

void AutoReload::Begin() {
  if (!program_.configuration.AutoReload) return;
  watch_ = WatchFolderOf(NativePath(program_.ini_file.path));
  if (watch_) tmrAutoReload.Enable();
}

void AutoReload::End() {
  watch_.reset();
  tmrAutoReload.Disable();
  tmrAutoReloadDelay.Disable();
}

void AutoReload::tmrAutoReload_Timer() {
  if (!program_.configuration.AutoReload) {
    watch_.reset();
    tmrAutoReload.Disable();
    return;
  }
  // Every further change restarts the delay.
  if (ChangeCheck()) tmrAutoReloadDelay.Enable();
}

bool AutoReload::ChangeCheck() {
  // The first check asks in any case: the file may have changed while the program started.
  if (last_date_check_ && !watch_->Signalled()) return false;
  const DateTime now = program_.surroundings.clock.Now();
  // In either direction, so that a clock that was set back does not put the check off.
  if (last_date_check_ && std::abs(now - *last_date_check_) <= kBetweenDateChecks) return false;
  // Armed before the date is read: what is written from here on is signalled anew.
  watch_->Rearm();
  last_date_check_ = now;
  try {
    const std::int64_t stamp =
        FileModificationStamp(NativePath(program_.ini_file.path), "mCommon.ChangeCheck");
    if (stamp == program_.ini_file.stamp) return false;
    // Another file of the folder, a log perhaps, must not put the reload off for as long as it is written to.
    if (tmrAutoReloadDelay.Enabled() && stamp == awaited_stamp_) return false;
    awaited_stamp_ = stamp;
    return true;
  } catch (const Error&) {
    return false;  // a file that cannot be asked counts as unchanged
  }
}

void AutoReload::tmrAutoReloadDelay_Timer() {
  tmrAutoReloadDelay.Disable();
  if (!Reload()) Failed();
}

bool AutoReload::Reload() {
  const Addresses before = InForce();
  bool changed = false;
  if (!ReadAgain(before, changed)) return false;
  if (changed) ActOnAddresses(before);
  return true;
}

bool AutoReload::ReadAgain(const Addresses& before, bool& changed) {
  Configuration& configuration = program_.configuration;
  const bool ignore_errors = configuration.IgnoreIniErrors;
  const std::int32_t log_level = configuration.Log;
  switch (program_.ReadEarlyKeys(true)) {
    case EarlyKeysResult::kUnchanged:
      return true;
    case EarlyKeysResult::kFailed:
      return false;
    case EarlyKeysResult::kRead:
      break;
  }
  const bool other_port = configuration.BindPort != before.bind_port;
  if (other_port && !program_.LockInstance()) return false;
  switch (LoadConfiguration(program_.MakeLoadEnvironment(), configuration, true)) {
    case LoadResult::kFailed:
      return false;
    case LoadResult::kUnchanged:
      // The file went between the two reads: what was in force stays, the early keys too.
      configuration.IgnoreIniErrors = ignore_errors;
      configuration.Log = log_level;
      configuration.BindPort = before.bind_port;
      return !other_port || program_.LockInstance();
    case LoadResult::kLoaded:
      changed = true;
  }
  return true;
}

void AutoReload::ActOnAddresses(const Addresses& before) {
  const Addresses now = InForce();
  const auto done = [this](bool succeeded) { succeeded ? Succeeded() : Failed(); };
  if (!EqualNoCase(now.bind_ip, before.bind_ip) || now.bind_port != before.bind_port) {
    window_.StartListening(done);
  } else if (now.server_ip != before.server_ip || now.server_port != before.server_port) {
    window_.TestForLoop(done);
  } else {
    Succeeded();
  }
}

void AutoReload::Succeeded() {
  window_.EnableGreyListingTimer();
  window_.ShowAddresses();
}

void AutoReload::Failed() {
  program_.exit_status = 1;
  window_.Form_Unload();
}

AutoReload::Addresses AutoReload::InForce() const {
  const Configuration& configuration = program_.configuration;
  return {configuration.BindIP, configuration.BindPort, configuration.ServerIP, configuration.ServerPort};
}

}  // namespace trabex
