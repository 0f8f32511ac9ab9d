// The reload on request: the file is checked first (check_settings.h), and with an error nothing changes. That
// covers what only the system can say as well: that the new port has no instance yet, that its addresses can be
// bound. So a request does not end the program, as an automatic reload may.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/check_configuration.h"
#include "app/reload_probe.h"
#include "config/configuration.h"
#include "config/ini_reader.h"
#include "config/list_files.h"

namespace trabex {

class AutoReload;
class Listeners;
struct Program;

class RequestedReload {
 public:
  struct Outcome {
    bool made = false;  // the file is in force
    std::vector<std::string>
        findings;  // one line each, without a line end: errors, and what is worth a warning

    friend bool operator==(const Outcome&, const Outcome&) = default;
  };
  using Done = std::function<void(const Outcome&)>;

  // All outlive the object.
  RequestedReload(Program& program, AutoReload& reload, Listeners& listeners);
  RequestedReload(const RequestedReload&) = delete;
  RequestedReload& operator=(const RequestedReload&) = delete;

  // Reads the file now, whether it has changed or not, and whatever AutoReload says; who asks has finished
  // writing it. A reload that was due is made with it. While another one is under way this one waits for it, and
  // those that wait are made as one; one that waits for files on a disk that hangs is begun anew with it. `done`, which may be empty, is told what came of it, in this call or from
  // the loop; the log has it too.
  void Request(Done done);
  // To be called when a reload that was not asked for is over.
  void TakeWaiting();
  // The program ends, and whoever waits is told.
  void End();

 private:
  void Begin();
  void Checked(CheckedConfiguration checked);
  // What stands against the addresses of `settings`, but for a loop.
  std::optional<std::string> WhyNotAddresses(const Configuration& settings) const;
  void Make();
  void AddError(const std::string& text);
  void Refuse();
  void Answer(bool made);

  Program& program_;
  AutoReload& reload_;
  Listeners& listeners_;
  ReloadProbe probe_;
  bool ended_ = false;
  std::vector<Done> waiting_;
  // The one that is under way, for all of `asked_`.
  bool under_way_ = false;
  std::vector<Done> asked_;
  IniText ini_;
  TakenListFiles lists_;
  std::vector<std::string> errors_;  // those of the findings
  Outcome outcome_;
  std::shared_ptr<char> here_ = std::make_shared<char>();
};

}  // namespace trabex
