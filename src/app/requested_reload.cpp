#include "app/requested_reload.h"

#include <iterator>
#include <utility>

#include "app/auto_reload.h"
#include "app/frmMain.h"
#include "app/instance_name.h"
#include "app/listeners.h"
#include "app/loop_test.h"
#include "app/program.h"
#include "base/error.h"
#include "platform/instance_lock.h"

namespace trabex {

RequestedReload::RequestedReload(Program& program, AutoReload& reload, Listeners& listeners)
    : program_(program), reload_(reload), listeners_(listeners) {}

RequestedReload::~RequestedReload() {
  program_.names->Cancel(server_lookup_);
}

void RequestedReload::Request(Done done) {
  waiting_.push_back(std::move(done));
  TakeWaiting();
}

void RequestedReload::TakeWaiting() {
  if (ended_ || under_way_ || reload_.UnderWay() || waiting_.empty()) return;
  under_way_ = true;
  asked_.insert(asked_.end(), std::make_move_iterator(waiting_.begin()),
                std::make_move_iterator(waiting_.end()));
  waiting_.clear();
  outcome_ = {};
  try {
    ini_ = reload_.TakeFileNow();
  } catch (const Error& error) {
    mCommon::LogUnreadableIniFile(program_.log, program_.ini_file.path, error, {});
    outcome_.findings.push_back(ReloadError(program_, error.Description()));
    if (program_.window) program_.window->Reloaded(false);
    return Answer(false);
  }
  ReloadCheck check = CheckForReload(program_, ini_);
  outcome_.findings = std::move(check.findings);
  if (check.has_errors) return Refuse();
  settings_ = std::move(check.settings);
  TestAddresses();
}

void RequestedReload::TestAddresses() {
  if (const auto why_not = WhyNotAddresses()) return RefuseFor(*why_not);
  const Configuration& now = program_.configuration;
  const bool same = FormatServer(*settings_) == FormatServer(now) &&
                    FormatEndpoints(ListenEndpoints(*settings_)) == FormatEndpoints(ListenEndpoints(now));
  if (same || EndpointsAtServerPort(*settings_).empty()) return Make();
  server_lookup_ = program_.names->FindAddresses(
      settings_->ServerIP, LookupFamily::kIPv4First, [this](const AddressAnswer& answer) {
        server_lookup_ = 0;
        const auto why_not = WhyNoListening(*settings_, program_.sockets, answer);
        why_not ? RefuseFor(*why_not) : Make();
      });
}

std::optional<std::string> RequestedReload::WhyNotAddresses() const {
  if (settings_->BindPort != program_.configuration.BindPort) {
    const std::string name = InstanceName(settings_->BindPort);
    try {
      if (!TryLockInstance(program_.loop, name, [] {})) return NameTakenText(name);
    } catch (const Error& error) {
      return error.Description();
    }
  }
  const auto failure = listeners_.WhyNot(ListenEndpoints(*settings_));
  return failure ? std::optional(ListenErrorText(failure->endpoint, failure->error)) : std::nullopt;
}

void RequestedReload::Make() {
  settings_.reset();
  // One that nobody asked for may have begun while the server's name was looked up; the file is read again after
  // it.
  if (reload_.UnderWay()) {
    waiting_.insert(waiting_.begin(), std::make_move_iterator(asked_.begin()),
                    std::make_move_iterator(asked_.end()));
    asked_.clear();
    under_way_ = false;
    return;
  }
  reload_.Reload(std::move(ini_), [this](bool made) {
    if (!made) {
      outcome_.findings.push_back(
          ReloadError(program_, "The reload has failed, and the program ends; its log says why."));
    }
    Answer(made);
  });
}

void RequestedReload::RefuseFor(const std::string& text) {
  outcome_.findings.push_back(ReloadError(program_, text));
  Refuse();
}

void RequestedReload::Refuse() {
  program_.problems.clear();
  for (const std::string& finding : outcome_.findings) program_.log.LogProblem(finding);
  if (program_.window) program_.window->Reloaded(false);
  program_.log.LogLine("Configuration not reloaded; the one in force stays.");
  Answer(false);
}

void RequestedReload::Answer(bool made) {
  settings_.reset();
  outcome_.made = made;
  under_way_ = false;
  const Outcome outcome = std::exchange(outcome_, {});
  for (const Done& done : std::exchange(asked_, {})) {
    if (done) done(outcome);
  }
  TakeWaiting();
}

void RequestedReload::End() {
  ended_ = true;
  program_.names->Cancel(std::exchange(server_lookup_, 0));
  const Outcome outcome{.made = false, .findings = {ReloadError(program_, "The program ends.")}};
  for (std::vector<Done>* const requests : {&asked_, &waiting_}) {
    for (const Done& done : std::exchange(*requests, {})) {
      if (done) done(outcome);
    }
  }
}

}  // namespace trabex
