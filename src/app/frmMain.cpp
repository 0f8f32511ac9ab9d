#include "app/frmMain.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

#include "app/instance_requests.h"
#include "app/log_file.h"
#include "app/loop_test.h"
#include "app/program.h"
#include "app/version.h"
#include "base/error.h"
#include "platform/message.h"
#include "proxy/cProxy.h"
#include "report/program_events.h"

namespace trabex {

namespace {

constexpr Milliseconds kStatusInterval{500};
constexpr Milliseconds kSaveInterval{60000};
// How long an iteration of the loop may wait during the start. The look-up is answered long before.
constexpr Milliseconds kMaxWait{1000};
// The system's number for a port that only root may bind.
constexpr int kNotPermitted = 10013;
// Two times that are an interval apart may differ by less than it when they are kept in days.
constexpr double kRounding = 0.001 / kSecondsPerDay;

}  // namespace

frmMain::frmMain(Program& program)
    : program_(program),
      session_dependencies_{.configuration = program.configuration,
                            .log = program.log,
                            .clock = program.dependencies.clock,
                            .loop = program.loop,
                            .sockets = program.socket_module,
                            .names = *program.names,
                            .sessions = sessions_,
                            .tls = program.tls,
                            .greylisting = &program.greylisting,
                            .observer = &program.session_report,
                            .moment = program.dependencies.clock.Monotonic()},
      listeners_(program.socket_module,
                 {.ConnectionRequest = [this](std::int32_t requestID,
                                              bool tls) { Listener_ConnectionRequest(requestID, tls); },
                  .Error = [this](int number,
                                  const std::string& description) { Listener_Error(number, description); }}),
      tmrStatus(program.loop, kStatusInterval, [this] { tmrStatus_Timer(); }),
      tmrLog(program.loop, LogFile::kCloseAfter, [this] { tmrLog_Timer(); }),
      tmrSaveGreyListing(program.loop, kSaveInterval, [this] { tmrSaveGreyListing_Timer(); }),
      status_(program, *this),
      auto_reload_(program, *this),
      requested_reload_(program, auto_reload_, listeners_),
      live_source_(sessions_, program.counters, program.session_report, program.history,
                   program.dependencies.clock),
      view_(program.loop, live_source_),
      viewers_(program.loop, live_source_) {
  tmrStatus.Enable();
  tmrLog.Enable();
  AddInstanceRequests(program, *this);
}

frmMain::~frmMain() {
  Form_Unload();
}

bool frmMain::Form_Load(bool to_be_shown) {
  view_is_due_ = to_be_shown && !WhyNoView();
  system_requests_ = WatchSystemRequests(program_.loop, {.end = [this] { Form_Unload(); },
                                                         .hang_up = [this] { HangUp(); },
                                                         .reopen_log = [this] { ReopenLog(); }});
  program_.log.LogLine(TitleAndVersion() + " started.");
  if (program_.configuration.Log == log_mode::kWithConfiguration) program_.DumpConfiguration();
  program_.certificates.Follow();
  if (!WaitForListening()) return false;
  ShowAddresses();
  program_.log.SetTimer(&tmrLog);
  auto_reload_.Begin();
  EnableGreyListingTimer();
  last_greylisting_save_ = program_.dependencies.clock.UniversalNow();
  loaded_ = true;
  program_.control.Begin();
  status_.Follow();
  WriteStart(program_.json_log, VersionText(), TakeProblems());
  program_.service_notices.Ready();
  if (std::exchange(reload_is_due_, false)) requested_reload_.Request({});
  return true;
}

bool frmMain::WaitForListening() {
  bool answered = false;
  bool listening = false;
  StartListening([&](bool result) {
    answered = true;
    listening = result;
  });
  while (!answered && !unloaded_) program_.loop.RunOnce(kMaxWait);
  return listening && !unloaded_;
}

void frmMain::Show(bool minimized) {
  if (unloaded_) return;
  const bool was_due = std::exchange(view_is_due_, false);
  const auto why_not = view_.Show(minimized, {.closed = [this] { Form_Unload(); },
                                              .folded = {},
                                              .lost = [this] { ViewLost(); },
                                              .screen_gone = [this] { ScreenGone(); }});
  if (!why_not) return;
  if (why_not->kind != NoView::Kind::kNoScreen) {
    program_.dependencies.err << kApplicationTitle << ": Running without a window. " << why_not->text << '\n';
  }
  // It was there when the start began.
  if (was_due && why_not->kind != NoView::Kind::kUnusable) ScreenGone();
}

void frmMain::Form_Unload() {
  if (unloaded_) return;
  unloaded_ = true;
  // Nothing begins any more that it would have to be kept for.
  program_.socket_module.Reserve().Release();
  // Each step is made whatever becomes of the one before.
  for (const auto step : {&frmMain::EndOwnWork, &frmMain::EndServing, &frmMain::KeepWhatIsToBeKept})
    RunLogged(program_.log, "frmMain.Form_Unload", [this, step] { (this->*step)(); });
  try {
    program_.socket_module.WhenNoneLingers([&loop = program_.loop] { loop.Quit(); });
  } catch (const std::bad_alloc&) {
    program_.loop.Quit();
  }
}

void frmMain::EndOwnWork() {
  program_.service_notices.Stopping();
  auto_reload_.End();
  requested_reload_.End();
  tmrStatus.Disable();
  tmrSaveGreyListing.Disable();
  tmrLog.Disable();
  program_.log.SetTimer(nullptr);
  view_.Hide();
  viewers_.Close();
  program_.TellWaiting();
}

void frmMain::EndServing() {
  // A listener itself may be the caller, so they stay until the window goes.
  program_.names->Cancel(std::exchange(server_lookup_, 0));
  listeners_.Close();
  sessions_.ForEach([](cProxy& session) { session.Shutdown(); });
}

void frmMain::KeepWhatIsToBeKept() {
  program_.control.Close();  // before the save: what is imported is completed
  // A reload may have switched greylisting off and not saved the records.
  if (program_.configuration.GreyListing.Enabled || !program_.greylisting_records->Database().empty()) {
    program_.greylisting_records->Save();
  }
  status_.Close();
  if (loaded_) WriteStop(program_.json_log, VersionText());
  program_.json_log.Flush();
  program_.log.LogLine(TitleAndVersion() + " stopped.");
  program_.log.Close();
  program_.instance_lock.reset();
}

void frmMain::StartListening(std::function<void(bool listening)> done) {
  TestForLoop([this, done = std::move(done)](bool passed) { done(passed && Listen()); });
}

void frmMain::TestForLoop(std::function<void(bool passed)> done) {
  program_.names->Cancel(std::exchange(server_lookup_, 0));
  if (EndpointsAtServerPort(program_.configuration).empty()) {
    done(true);
    return;
  }
  server_lookup_ = program_.names->FindAddresses(program_.configuration.ServerIP, LookupFamily::kIPv4First,
                                                 [this, done = std::move(done)](const AddressAnswer& answer) {
                                                   server_lookup_ = 0;
                                                   done(PassesLoopTest(answer));
                                                 });
}

std::optional<ListenFailure> frmMain::WhyNotAllowed(const Configuration& settings) const {
  auto failure = listeners_.WhyNot(ListenEndpoints(settings));
  return failure && failure->error.Number() == kNotPermitted ? failure : std::nullopt;
}

// A failure is logged.
bool frmMain::PassesLoopTest(const AddressAnswer& server) {
  const auto why_not = WhyNoListening(program_.configuration, program_.sockets, server);
  if (why_not) program_.log.LogProblem(*why_not);
  return !why_not;
}

bool frmMain::Listen() {
  const auto failure = listeners_.Listen(ListenEndpoints(program_.configuration));
  if (failure) program_.log.LogProblem(ListenErrorText(failure->endpoint, failure->error));
  return !failure;
}

void frmMain::ShowAddresses() {
  const std::string bound = FormatEndpoints(ListenEndpoints(program_.configuration));
  const std::string server = FormatServer(program_.configuration);
  program_.log.LogLine("Listen on: " + bound + "; Connect to: " + server + ".");
  live_source_.SetStatus(bound + " --> " + server);
  RefreshViews();
}

void frmMain::ReloadBegins() {
  program_.service_notices.Reloading();
}

void frmMain::Reloaded(bool succeeded) {
  program_.service_notices.Ready();
  ++program_.counters.reloads[succeeded ? 0 : 1];
  program_.counters.last_reload_ok = succeeded;
  if (succeeded) status_.Follow();
  if (succeeded && program_.sandbox_in_force.value_or(program_.configuration.Service.Sandbox) !=
                       program_.configuration.Service.Sandbox) {
    program_.log.LogLine("Sandbox takes effect at the next start.");
  }
  WriteReload(program_.json_log, succeeded, TakeProblems());
}

std::vector<std::string> frmMain::TakeProblems() {
  auto problems = std::exchange(program_.problems, {});
  program_.counters.configuration_errors = std::ssize(problems);
  return problems;
}

void frmMain::EnableGreyListingTimer() {
  if (program_.configuration.GreyListing.Enabled) {
    tmrSaveGreyListing.Enable();
  } else {
    tmrSaveGreyListing.Disable();
  }
}

void frmMain::Listener_ConnectionRequest(std::int32_t requestID, bool tls) {
  // It may be over when Begin returns.
  const std::uint64_t sessions = sessions_.Count() + 1;
  cProxy::Begin(session_dependencies_, requestID, tls);
  program_.counters.sessions_peak = std::max(program_.counters.sessions_peak, sessions);
}

void frmMain::Listener_Error(int number, const std::string& description) {
  program_.log.LogProblem("L: Error " + std::to_string(number) + ". " + description);
  program_.exit_status = 1;
  Form_Unload();
}

Totals frmMain::CurrentTotals() {
  return TotalsOf(program_.counters, program_.session_report, sessions_);
}

void frmMain::tmrStatus_Timer() {
  const MonotonicTime now = program_.dependencies.clock.Monotonic();
  session_dependencies_.moment = now;
  program_.history.Observe(now, program_.counters.messages[0] + program_.counters.messages[1],
                           program_.session_report.Refusals().Count());
  RefreshViews();
}

void frmMain::RefreshViews() {
  view_.Refresh();
  viewers_.Refresh();
}

void frmMain::tmrLog_Timer() {
  tmrLog.Disable();
  program_.log.Close();
}

void frmMain::tmrSaveGreyListing_Timer() {
  const DateTime now = program_.dependencies.clock.UniversalNow();
  // In either direction: a clock that was set back by days must not put the save off for as long.
  const double passed = std::abs(now - last_greylisting_save_);
  if (passed + kRounding < program_.configuration.GreyListing.SaveInterval) return;
  program_.greylisting_records->SaveInBackground([this](DateTime time) { GreyListingSaved(time); });
}

// The system's own word of the same comes now or has come. Not waiting for it here, so that it is not taken
// for a request of somebody who sees no window.
void frmMain::ScreenGone() {
  HangUpIsIgnored() ? ViewLost() : Form_Unload();
}

void frmMain::HangUp() {
  if (unloaded_) return;
  if (view_.Shown() || view_is_due_) return Form_Unload();
  if (loaded_) return requested_reload_.Request({});
  reload_is_due_ = true;
}

void frmMain::ReopenLog() {
  if (unloaded_) return;
  program_.log.Close();
  program_.log.LogLine("Log file reopened.");
  program_.json_log.Reopen();
}

void frmMain::ViewLost() {
  view_.Hide();
  program_.TellWaiting();
  const std::string text = std::string(LostViewText()) + "; running on without one.";
  program_.log.LogLine(text);
  ShowMessage(std::string(kApplicationTitle) + ": " + text + "\n");
}

}  // namespace trabex
