#include "app/requested_reload.h"

#include <iterator>
#include <utility>

#include "app/auto_reload.h"
#include "app/check_settings.h"
#include "app/finding.h"
#include "app/frmMain.h"
#include "app/instance_name.h"
#include "app/listeners.h"
#include "app/loop_test.h"
#include "app/program.h"
#include "base/error.h"
#include "platform/instance_lock.h"

namespace trabex {

RequestedReload::RequestedReload(Program& program, AutoReload& reload, Listeners& listeners)
    : program_(program), reload_(reload), listeners_(listeners), probe_(program) {}

void RequestedReload::Request(Done done) {
  waiting_.push_back(std::move(done));
  TakeWaiting();
}

void RequestedReload::TakeWaiting() {
  if (ended_ || reload_.UnderWay() || waiting_.empty()) return;
  // One that waits for what the file has named is begun anew: the file may name another disk by now.
  if (under_way_ && !probe_.AwaitsNamedFiles()) return;
  probe_.Cancel();
  const bool was_under_way = std::exchange(under_way_, true);
  asked_.insert(asked_.end(), std::make_move_iterator(waiting_.begin()),
                std::make_move_iterator(waiting_.end()));
  waiting_.clear();
  outcome_ = {};
  if (program_.window && !was_under_way) program_.window->ReloadBegins();
  probe_.Run([this] { Begin(); });
}

void RequestedReload::Begin() {
  try {
    // The check reads it once more; this says what a reload says of a file that is none.
    static_cast<void>(reload_.TakeFileNow());
  } catch (const Error& error) {
    mCommon::LogUnreadableIniFile(program_.log, program_.ini_file.path, error, {});
    AddError(mCommon::UnreadableIniFileText(program_.ini_file.path, error));
    if (program_.window) program_.window->Reloaded(false);
    return Answer(false);
  }
  // What a reload does not read anew.
  Configuration initial = DefaultConfiguration();
  initial.LogPath = program_.configuration.LogPath;
  if (program_.port_given) initial.BindPort = program_.configuration.BindPort;
  CheckSettings(program_, program_.ini_file.path, std::move(initial), AskNames::kYes,
                [this, still_here = std::weak_ptr<char>(here_)](CheckedConfiguration checked) {
                  if (!still_here.expired() && !ended_) Checked(std::move(checked));
                });
}

void RequestedReload::Checked(CheckedConfiguration checked) {
  for (const Finding& finding : checked.findings) {
    outcome_.findings.push_back(FormatFinding(finding));
    if (finding.severity == Finding::Severity::kError) errors_.push_back(outcome_.findings.back());
  }
  if (errors_.empty()) {
    if (const auto why_not = WhyNotAddresses(checked.configuration)) AddError(*why_not);
  }
  if (!errors_.empty()) return Refuse();
  ini_ = std::move(checked.ini);
  lists_ = std::move(checked.list_files);
  Make();
}

std::optional<std::string> RequestedReload::WhyNotAddresses(const Configuration& settings) const {
  if (settings.BindPort != program_.configuration.BindPort) {
    const std::string name = InstanceName(settings.BindPort);
    try {
      if (!TryLockInstance(program_.loop, name, [] {})) return NameTakenText(name);
    } catch (const Error& error) {
      return error.Description();
    }
  }
  const auto failure = listeners_.WhyNot(ListenEndpoints(settings));
  return failure ? std::optional(ListenErrorText(failure->endpoint, failure->error)) : std::nullopt;
}

void RequestedReload::Make() {
  // One that nobody asked for may have begun while the server's name was looked up; the file is read again after
  // it.
  if (reload_.UnderWay()) {
    waiting_.insert(waiting_.begin(), std::make_move_iterator(asked_.begin()),
                    std::make_move_iterator(asked_.end()));
    asked_.clear();
    under_way_ = false;
    return;
  }
  reload_.Reload(std::move(ini_), std::exchange(lists_, {}), [this](bool made) {
    if (!made) {
      AddError("The reload has failed, and the program ends; its log says why.");
    }
    Answer(made);
  });
}

void RequestedReload::AddError(const std::string& text) {
  errors_.push_back(FormatFinding({.file = program_.ini_file.path, .text = text}));
  outcome_.findings.push_back(errors_.back());
}

void RequestedReload::Refuse() {
  program_.problems.clear();
  for (const std::string& error : errors_) program_.log.LogProblem(error);
  if (program_.window) program_.window->Reloaded(false);
  program_.log.LogLine("Configuration not reloaded; the one in force stays.");
  Answer(false);
}

void RequestedReload::Answer(bool made) {
  outcome_.made = made;
  errors_.clear();
  under_way_ = false;
  const Outcome outcome = std::exchange(outcome_, {});
  for (const Done& done : std::exchange(asked_, {})) {
    if (done) done(outcome);
  }
  TakeWaiting();
}

void RequestedReload::End() {
  ended_ = true;
  probe_.Cancel();
  const Outcome outcome{
      .made = false,
      .findings = {FormatFinding({.file = program_.ini_file.path, .text = "The program ends."})}};
  for (std::vector<Done>* const requests : {&asked_, &waiting_}) {
    for (const Done& done : std::exchange(*requests, {})) {
      if (done) done(outcome);
    }
  }
}

}  // namespace trabex
