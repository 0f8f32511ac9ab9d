// The reload: the initialization file is read again when it has changed and then stayed as it is for half a
// minute. Open sessions go on; a setting acts from its next use on.
//
// What is in force is better than half a file: one that cannot be read, or that has no section, is left alone
// (the log says so), and one whose last line has no end, as if its writer were not done, is checked once
// more.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/disk_probe.h"
#include "app/reload_probe.h"
#include "base/date_time.h"
#include "config/ini_reader.h"
#include "config/list_files.h"
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
  // The file as it is now. A reload of it that was due is not made any more. Raises what TakeIniFile raises, and
  // 321 for a file without any section.
  IniText TakeFileNow();
  // Reads everything again and acts on what has changed. Ends the program when that fails, with the reason in
  // the log. `done`, which may be empty, is told whether it is in force, in this call or from the loop. Not to
  // be called while one is under way. Files of lists that are in `lists` are not read from the disk.
  void Reload(IniText ini, TakenListFiles lists = {}, std::function<void(bool made)> done = {});
  // Whether the new addresses of a reload are being put in force, which may take a look-up.
  bool UnderWay() const { return under_way_; }

 private:
  // What a reload may change and what then has consequences outside of the configuration.
  struct Addresses {
    std::string bind_ip;
    std::int32_t bind_port = 0;
    std::int32_t bind_port_tls = 0;
    std::string server_ip;
    std::int32_t server_port = 0;
  };

  void tmrAutoReload_Timer();
  void tmrAutoReloadDelay_Timer();
  void ReloadIfUsable();
  // Whether it is time to ask for the file's date: at most every 15 seconds.
  bool CheckIsDue();
  // The file's date if that is another one than at the last successful read, and not the one that the delay
  // runs for already.
  std::optional<std::int64_t> ChangeCheck();
  std::vector<std::string> FilesChecked() const;
  // The date of the file and its lists' files; nothing when that of the file cannot be asked for. The number
  // means nothing else than that it is another one after a change.
  std::optional<std::int64_t> StampNow() const;
  // The same as of the last successful read.
  std::optional<std::int64_t> StampOfRead() const;
  // Watches the folders of the lists' files too.
  void WatchListFiles();
  bool Signalled();
  // Begins the delay (anew) for the file of this date.
  void AwaitQuiet(std::int64_t stamp);
  // The file, or nothing when it cannot be used; the log says why, once for each date.
  std::optional<IniText> TakeFile();
  // Whether the file may not be complete yet; then it is checked again later.
  bool LooksUnfinished(const IniText& ini);
  // Whether a program that is not root any more may listen as the file says; the log says why not, once for each date.
  bool MayListen(const IniText& ini);
  bool ReadAgain(IniText ini, TakenListFiles lists);
  void ActOnAddresses(const Addresses& before);
  void Settled(bool succeeded);
  void Failed();
  Addresses InForce() const;

  Program& program_;
  frmMain& window_;
  std::unique_ptr<ChangeWatch> watch_;
  std::vector<std::unique_ptr<ChangeWatch>> list_watches_;  // none without watch_
  bool unwatched_list_ = false;  // a folder that is missing: the dates are asked for without a signal
  std::optional<DateTime> last_date_check_;       // local time
  std::int64_t awaited_stamp_ = 0;                // of the file that the delay runs for
  std::optional<std::int64_t> reported_stamp_;    // of the file of which the log says why it was not taken
  std::optional<std::int64_t> unfinished_stamp_;  // of the file that is checked once more
  std::optional<std::int64_t> refused_stamp_;     // of the file whose listeners are not permitted
  bool under_way_ = false;
  std::function<void(bool made)> done_;  // of the one that is under way
  DiskProbe check_probe_;
  ReloadProbe reload_probe_;
  Timer tmrAutoReload;
  Timer tmrAutoReloadDelay;
};

}  // namespace trabex
