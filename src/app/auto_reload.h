// The automatic reload: it watches the initialization file and reads it again when it has changed and then
// stayed as it is for half a minute. Open sessions go on; a setting acts from its next use on.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/date_time.h"
#include "platform/change_watch.h"
#include "platform/event_loop.h"

namespace trabex {

class frmMain;
struct Program;

class AutoReload {
 public:
  // Both outlive the object.
  AutoReload(Program& program, frmMain& window);
  AutoReload(const AutoReload&) = delete;
  AutoReload& operator=(const AutoReload&) = delete;

  // Begins to watch, if AutoReload is on. A folder that cannot be watched switches the reload off without a
  // word.
  void Begin();
  // Ends the watch, and a reload that is due.
  void End();

 private:
  // What a reload may change and what then has consequences outside of the configuration.
  struct Addresses {
    std::string bind_ip;
    std::int32_t bind_port = 0;
    std::string server_ip;
    std::int32_t server_port = 0;
  };

  void tmrAutoReload_Timer();
  void tmrAutoReloadDelay_Timer();
  // Whether the file has another date than at the last successful read, and not the one that the delay runs
  // for already. Asked at most every 15 seconds.
  bool ChangeCheck();
  // Reads everything again and acts on what has changed; false when that failed, with the reason in the log.
  bool Reload();
  bool ReadAgain(const Addresses& before, bool& changed);
  void ActOnAddresses(const Addresses& before);
  void Succeeded();
  // A failed reload ends the program.
  void Failed();
  Addresses InForce() const;

  Program& program_;
  frmMain& window_;
  std::unique_ptr<ChangeWatch> watch_;
  std::optional<DateTime> last_date_check_;  // local time
  std::int64_t awaited_stamp_ = 0;           // of the file that the delay runs for
  Timer tmrAutoReload;
  Timer tmrAutoReloadDelay;
};

}  // namespace trabex
