// The main window, which is the program at work: it owns the listeners, the sessions and the timers. Its load
// is the second half of a start, its unload the whole shut-down; the program runs as long as it is loaded,
// whether the open connections are shown (connection_view.h) or not.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/attached_viewers.h"
#include "app/auto_reload.h"
#include "app/connection_view.h"
#include "app/listeners.h"
#include "app/live_source.h"
#include "app/requested_reload.h"
#include "app/status_service.h"
#include "platform/event_loop.h"
#include "platform/system_requests.h"
#include "proxy/session_collection.h"
#include "proxy/session_dependencies.h"
#include "report/totals.h"

namespace trabex {

struct Program;

class frmMain final {
 public:
  // `program` outlives the window.
  explicit frmMain(Program& program);
  ~frmMain();
  frmMain(const frmMain&) = delete;
  frmMain& operator=(const frmMain&) = delete;

  // The duties of a start, in order, the listeners among them. False when one could not be started; the
  // reason is logged. Runs the loop while it waits for the look-up of a server's name: the end of the
  // program may be asked for meanwhile (see Unloaded). Not called from inside the loop. `to_be_shown`: Show
  // comes next.
  bool Form_Load(bool to_be_shown = false);
  // Opens the view where there is a screen that can show it; `minimized` folds it.
  void Show(bool minimized);
  // The shut-down, in order; the second call does nothing. May be called in any handler. The loop quits when
  // everything that was said to the clients has been sent, 5 seconds later at most.
  void Form_Unload();
  bool Unloaded() const { return unloaded_; }
  // Whether Form_Load is done and the listeners are open; sessions may come then.
  bool Loaded() const { return loaded_; }
  bool Shown() const { return view_.Shown(); }

  // Listens as the settings in force say, after the test that the server is no listener of this program.
  // `done` gets whether that succeeded (if not, the reason is logged): inside this call, or from the loop
  // when a name has to be looked up first; then the listeners from before go on meanwhile. A second call
  // replaces the first.
  void StartListening(std::function<void(bool listening)> done);
  // The first listener of `settings` that the system would not permit.
  std::optional<ListenFailure> WhyNotAllowed(const Configuration& settings) const;
  // Only the test that the server is no listener of this program; `done` as above.
  void TestForLoop(std::function<void(bool passed)> done);
  // Logs the addresses in force and shows them in the status line.
  void ShowAddresses();
  // Enables the save timer exactly when greylisting is on.
  void EnableGreyListingTimer();
  // The next save is due when its interval has passed since `time` (universal), that of the last one.
  void GreyListingSaved(DateTime time) { last_greylisting_save_ = time; }

  // The listeners' events; `tls`: TLS begins with the first byte there. An error ends the program, with the
  // exit status 1.
  void Listener_ConnectionRequest(std::int32_t requestID, bool tls);
  void Listener_Error(int number, const std::string& description);

  SessionCollection& Sessions() { return sessions_; }
  // Takes a step for each session.
  Totals CurrentTotals();
  AttachedViewers& Viewers() { return viewers_; }

  // Reloads the initialization file, see RequestedReload::Request.
  void RequestReload(RequestedReload::Done done) { requested_reload_.Request(std::move(done)); }
  // A reload, asked for or not, is in force.
  void ReloadIsOver() { requested_reload_.TakeWaiting(); }
  // Lets go of the log file, which was moved, and opens it anew.
  void ReopenLog();
  // Whether clients can connect.
  bool Listening() const { return loaded_ && !unloaded_; }
  // A reload begins, to which Reloaded will say how it has ended.
  void ReloadBegins();
  // A reload has ended; what is in force now is followed.
  void Reloaded(bool succeeded);

 private:
  // The steps of Form_Unload.
  void EndOwnWork();
  void EndServing();
  void KeepWhatIsToBeKept();
  bool WaitForListening();
  bool Listen();
  bool PassesLoopTest(const AddressAnswer& server);

  void tmrStatus_Timer();
  void tmrLog_Timer();
  void tmrSaveGreyListing_Timer();
  void ViewLost();
  void ScreenGone();
  void RefreshViews();
  std::vector<std::string> TakeProblems();
  // What the system asks for (system_requests.h).
  void HangUp();

  Program& program_;
  SessionCollection sessions_;
  SessionDependencies session_dependencies_;
  Listeners listeners_;
  LookupId server_lookup_ = 0;
  DateTime last_greylisting_save_ = 0;  // universal
  bool loaded_ = false;                 // Form_Load is done
  bool unloaded_ = false;
  bool view_is_due_ = false;    // a view can be shown, and Show is still to come
  bool reload_is_due_ = false;  // at the end of Form_Load
  Timer tmrStatus;
  Timer tmrLog;
  Timer tmrSaveGreyListing;
  StatusService status_;
  AutoReload auto_reload_;
  RequestedReload requested_reload_;
  std::unique_ptr<SystemRequests> system_requests_;
  LiveSource live_source_;
  ConnectionView view_;
  AttachedViewers viewers_;
};

}  // namespace trabex
