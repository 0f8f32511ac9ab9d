#include "app/auto_reload.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "app/check_configuration.h"
#include "app/frmMain.h"
#include "app/loop_test.h"
#include "app/program.h"
#include "base/error.h"
#include "base/text.h"
#include "config/ini_lines.h"
#include "config/list_files.h"
#include "platform/files.h"

namespace trabex {

namespace {

constexpr Milliseconds kPollInterval{1000};
// An editor has this long to save the file again before it is read.
constexpr Milliseconds kDelay{30000};
// The file's date is not asked for more often, and a file that looked unfinished is checked again after as
// long.
constexpr Milliseconds kBetweenLooks{15000};
constexpr double kBetweenDateChecks = 15 / kSecondsPerDay;

IniText TakeUsableFile(const std::string& path) {
  IniText ini = mCommon::TakeIniFile(path);
  if (mCommon::HasSection(ini.text)) return ini;
  throw Error(error_number::kBadFileContent, "AutoReload.TakeFile",
              "It has no section; the configuration in force stays.");
}

}  // namespace

AutoReload::AutoReload(Program& program, frmMain& window)
    : program_(program),
      window_(window),
      check_probe_(program.loop, program.log),
      reload_probe_(program),
      tmrAutoReload(program.loop, kPollInterval, [this] { tmrAutoReload_Timer(); }),
      tmrAutoReloadDelay(program.loop, kDelay, [this] { tmrAutoReloadDelay_Timer(); }) {}

void AutoReload::Begin() {
  if (watch_) WatchListFiles();
  if (!program_.configuration.AutoReload || watch_) return;
  watch_ = WatchFolderOf(NativePath(program_.ini_file.path));
  last_date_check_.reset();
  if (!watch_) return;
  WatchListFiles();
  tmrAutoReload.Enable();
}

void AutoReload::WatchListFiles() {
  list_watches_.clear();
  unwatched_list_ = false;
  for (const ListFile& file : program_.configuration.ListFiles) {
    if (auto watch = WatchFolderOf(NativePath(file.path), WatchedChanges::kWritesAndRemovals)) {
      list_watches_.push_back(std::move(watch));
    } else {
      unwatched_list_ = true;
    }
  }
  // What has changed since they were read.
  if (!program_.configuration.ListFiles.empty()) last_date_check_.reset();
}

bool AutoReload::Signalled() {
  return unwatched_list_ || watch_->Signalled() ||
         std::any_of(list_watches_.begin(), list_watches_.end(),
                     [](const auto& watch) { return watch->Signalled(); });
}

void AutoReload::End() {
  watch_.reset();
  list_watches_.clear();
  tmrAutoReload.Disable();
  tmrAutoReloadDelay.Disable();
  check_probe_.Cancel();
  reload_probe_.Cancel();
}

IniText AutoReload::TakeFileNow() {
  tmrAutoReloadDelay.Disable();
  reload_probe_.Cancel();
  reported_stamp_.reset();
  return TakeUsableFile(program_.ini_file.path);
}

void AutoReload::tmrAutoReload_Timer() {
  if (!program_.configuration.AutoReload) {
    watch_.reset();
    list_watches_.clear();
    tmrAutoReload.Disable();
    return;
  }
  if (check_probe_.Running() || !CheckIsDue()) return;
  check_probe_.Read(FilesChecked(), [this] {
    if (!watch_) return;
    // Every further change restarts the delay.
    if (const std::optional<std::int64_t> stamp = ChangeCheck()) AwaitQuiet(*stamp);
  });
}

std::vector<std::string> AutoReload::FilesChecked() const {
  std::vector<std::string> files = {NativePath(program_.ini_file.path)};
  for (const ListFile& file : program_.configuration.ListFiles) files.push_back(NativePath(file.path));
  return files;
}

bool AutoReload::CheckIsDue() {
  // The first check asks in any case: the file may have changed while the program started.
  if (last_date_check_ && !Signalled()) return false;
  const DateTime now = program_.dependencies.clock.Now();
  // In either direction, so that a clock that was set back does not put the check off.
  return !last_date_check_ || std::abs(now - *last_date_check_) > kBetweenDateChecks;
}

std::optional<std::int64_t> AutoReload::ChangeCheck() {
  const DateTime now = program_.dependencies.clock.Now();
  // Armed before the date is read: what is written from here on is signalled anew.
  watch_->Rearm();
  for (const auto& watch : list_watches_) watch->Rearm();
  last_date_check_ = now;
  const std::optional<std::int64_t> stamp = StampNow();
  if (stamp == StampOfRead()) return std::nullopt;
  // Another file of the folder, a log perhaps, must not put the reload off for as long as it is written to.
  if (tmrAutoReloadDelay.Enabled() && stamp == awaited_stamp_) return std::nullopt;
  return stamp;
}

std::optional<std::int64_t> AutoReload::StampNow() const {
  try {
    const std::int64_t stamp =
        FileModificationStamp(NativePath(program_.ini_file.path), "mCommon.ChangeCheck");
    return stamp ^ trabex::StampNow(program_.configuration.ListFiles);
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::optional<std::int64_t> AutoReload::StampOfRead() const {
  const std::optional<std::int64_t>& stamp = program_.ini_file.stamp;
  if (!stamp) return std::nullopt;
  return *stamp ^ trabex::StampOfRead(program_.configuration.ListFiles);
}

void AutoReload::AwaitQuiet(std::int64_t stamp) {
  awaited_stamp_ = stamp;
  unfinished_stamp_.reset();
  tmrAutoReloadDelay.SetInterval(kDelay);
  tmrAutoReloadDelay.Enable();
}

void AutoReload::tmrAutoReloadDelay_Timer() {
  tmrAutoReloadDelay.Disable();
  // One that waits for what the file has named before is begun anew.
  if (reload_probe_.AwaitsNamedFiles()) reload_probe_.Cancel();
  if (!reload_probe_.Running()) reload_probe_.Run([this] { ReloadIfUsable(); });
}

void AutoReload::ReloadIfUsable() {
  if (under_way_) return AwaitQuiet(awaited_stamp_);
  std::optional<IniText> ini = TakeFile();
  if (ini && !LooksUnfinished(*ini) && MayListen(*ini)) Reload(std::move(*ini));
}

std::optional<IniText> AutoReload::TakeFile() {
  const std::string& path = program_.ini_file.path;
  try {
    return TakeUsableFile(path);
  } catch (const Error& error) {
    // It is tried again at each change in its folder, and that may be the line of the log itself.
    const std::optional<std::int64_t> stamp = StampNow();
    if (!stamp || stamp != reported_stamp_) mCommon::LogUnreadableIniFile(program_.log, path, error, {});
    reported_stamp_ = stamp;
  }
  return std::nullopt;
}

bool AutoReload::LooksUnfinished(const IniText& ini) {
  const std::optional<std::int64_t> seen = std::exchange(unfinished_stamp_, std::nullopt);
  if (seen && *seen != ini.stamp) {
    AwaitQuiet(ini.stamp);
    return true;
  }
  if (seen || LastLineHasEnd(ini.text)) return false;
  program_.log.LogProblem("Initialization file \"" + program_.ini_file.path +
                          "\" is not read yet because its last line has no line end.");
  unfinished_stamp_ = ini.stamp;
  awaited_stamp_ = StampNow().value_or(ini.stamp);
  tmrAutoReloadDelay.SetInterval(kBetweenLooks);
  tmrAutoReloadDelay.Enable();
  return true;
}

bool AutoReload::MayListen(const IniText& ini) {
  // Root would be told of a bad address or one that is taken as ever: at the end of the reload.
  if (!program_.user_given) return true;
  const CheckedConfiguration checked = CheckConfiguration({.file = program_.ini_file.path,
                                                           .early = program_.MakeEarlyKeyInputs(),
                                                           .context = program_.MakeSettingContext(),
                                                           .surroundings = false},
                                                          DefaultConfiguration());
  const auto failure = window_.WhyNotAllowed(checked.configuration);
  if (!failure) return true;
  if (std::exchange(refused_stamp_, ini.stamp) != ini.stamp) {
    program_.log.LogProblem(ListenErrorText(failure->endpoint, failure->error));
    program_.log.LogLine("Configuration not reloaded; the one in force stays.");
  }
  return false;
}

void AutoReload::Reload(IniText ini, TakenListFiles lists, std::function<void(bool made)> done) {
  done_ = std::move(done);
  check_probe_.Cancel();  // the files may be others now
  window_.ReloadBegins();
  program_.log.TellFailureAgain();
  program_.problems.clear();
  const Addresses before = InForce();
  if (!ReadAgain(std::move(ini), std::move(lists))) return Failed();
  program_.certificates.Follow();
  under_way_ = true;
  ActOnAddresses(before);
}

bool AutoReload::ReadAgain(IniText ini, TakenListFiles lists) {
  ++program_.reloads_begun;
  const std::int32_t port_before = program_.configuration.BindPort;
  if (program_.ReadEarlyKeysAgain(ini.text) == EarlyKeysResult::kFailed) return false;
  if (program_.configuration.BindPort != port_before && !program_.LockInstance()) return false;
  LoadDependencies dependencies = program_.MakeLoadDependencies();
  dependencies.context.list_files = &lists;
  return ReloadConfiguration(dependencies, std::move(ini), program_.configuration) == LoadResult::kLoaded;
}

void AutoReload::ActOnAddresses(const Addresses& before) {
  const Addresses now = InForce();
  const auto done = [this](bool succeeded) { Settled(succeeded); };
  if (!EqualNoCase(now.bind_ip, before.bind_ip) || now.bind_port != before.bind_port ||
      now.bind_port_tls != before.bind_port_tls) {
    window_.StartListening(done);
  } else if (now.server_ip != before.server_ip || now.server_port != before.server_port) {
    window_.TestForLoop(done);
  } else {
    Settled(true);
  }
}

void AutoReload::Settled(bool succeeded) {
  under_way_ = false;
  if (!succeeded) return Failed();
  window_.EnableGreyListingTimer();
  window_.ShowAddresses();
  window_.Reloaded(true);
  Begin();  // it may have been switched on
  if (const auto done = std::exchange(done_, nullptr)) done(true);
  window_.ReloadIsOver();
}

void AutoReload::Failed() {
  window_.Reloaded(false);
  if (const auto done = std::exchange(done_, nullptr)) done(false);
  program_.exit_status = 1;
  window_.Form_Unload();
}

AutoReload::Addresses AutoReload::InForce() const {
  const Configuration& configuration = program_.configuration;
  return {configuration.BindIP, configuration.BindPort, configuration.BindPortTLS, configuration.ServerIP,
          configuration.ServerPort};
}

}  // namespace trabex
