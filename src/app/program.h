// Everything that lives as long as the program does. main builds one; a test builds as many as it likes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "app/certificates.h"
#include "app/control_requests.h"
#include "app/control_server.h"
#include "app/greylisting.h"
#include "app/instance_name.h"
#include "app/log_file.h"
#include "app/service_notices.h"
#include "config/configuration.h"
#include "config/early_keys.h"
#include "config/ini_reader.h"
#include "config/load_configuration.h"
#include "net/modSocketMaster.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/instance_lock.h"
#include "platform/message.h"
#include "platform/sandbox.h"
#include "platform/service_manager.h"
#include "platform/sockets.h"
#include "proxy/tls_contexts.h"
#include "report/counters.h"
#include "report/json_log.h"
#include "report/minute_history.h"
#include "report/session_report.h"
#include "resolver/name_lookup.h"

namespace trabex {

class frmMain;

// What the program finds around itself. A test puts its own in place.
struct Dependencies {
  const Clock& clock;
  std::ostream& out;
  std::ostream& err;
  // Where the operator is told of problems once there may be sessions; never waits.
  std::function<void(std::string_view text)> show = ShowMessage;
  // Called when a command line that is no start was answered in `out` and `err`.
  std::function<void()> answered = [] {};
  // Closes the process in (sandbox.h). Empty: it stays as it is, as where a test goes on behind the program.
  std::function<std::optional<std::string>(const SandboxPaths& paths)> enclose = {};
  std::string program_directory = ProgramDirectory();
  std::string program_name = ProgramName();  // without extension; begins the names of its files
  std::function<std::unique_ptr<NameLookup>(EventLoop&)> make_names = [](EventLoop& loop) {
    return MakeNameLookup(loop);
  };
  std::function<std::unique_ptr<ServiceManager>()> find_service_manager = FindServiceManager;
};

struct Program final : LoadHost {
  explicit Program(Dependencies the_dependencies);
  // Unloads the window, should it still be loaded. Not inside the loop.
  ~Program() override;
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Reads the early keys into the configuration: from the file, or at a reload from its text. A failure is
  // logged.
  EarlyKeysResult ReadEarlyKeys();
  EarlyKeysResult ReadEarlyKeysAgain(std::string_view text);
  // Takes the lock of the instance that listens on `BindPort`, after giving back the one that is held. False
  // when another instance has it, or the system refuses; the reason is logged.
  bool LockInstance();
  // Opens the channel by which the locked instance is asked. A failure is logged, and shown on standard error:
  // the mail does not depend on it.
  void OpenControlChannel();
  // Writes the configuration in force into the log file.
  void DumpConfiguration() override;
  // Saves the greylisting data at a reload. False when they are to go on in memory: the setting still names
  // the database that they are saved to (then the save is made in the background), or the save has failed
  // (the log says so).
  bool SaveGreyListing() override;
  void LoadGreyListing() override;
  void ClearGreyListing() override;
  // Tells whoever runs the program a sentence, on standard error. While the window is shown on a terminal,
  // what that terminal is told waits.
  void Tell(std::string_view text);
  // Tells what has waited; called when the window is not shown any more.
  void TellWaiting();
  // What the early keys and a load of the configuration need of this program.
  EarlyKeyInputs MakeEarlyKeyInputs() const;
  SettingContext MakeSettingContext();
  LoadDependencies MakeLoadDependencies();

  Dependencies dependencies;
  Configuration configuration = DefaultConfiguration();
  std::uint64_t reloads_begun = 0;  // each of them may have changed the configuration
  InitializationFile ini_file;
  bool port_given = false;      // on the command line: the key is not read
  bool log_path_given = false;  // likewise
  bool user_given = false;      // likewise: the ports and keys of the start were opened as root
  // `Sandbox` as the start found it; nothing before.
  std::optional<std::int32_t> sandbox_in_force;
  int exit_status = 0;
  // What is not as the initialization file wants it, since the start or reload began, whose end records it.
  std::vector<std::string> problems;
  // Native paths of what the latest reload that began was to write in, and whose disk did not answer before it.
  std::vector<std::string> unanswered;
  static constexpr std::size_t kMaxProblems = 1000;

  Counters counters;
  LogFile log;
  EventLoop loop;
  ServiceNotices service_notices;
  JsonLog json_log;
  SessionReport session_report;
  MinuteHistory history;  // of messages, and refusals of all kinds
  Sockets sockets;
  std::unique_ptr<NameLookup> names;
  modSocketMaster socket_module;
  TlsContexts tls;
  Certificates certificates;
  GreyListing greylisting;
  GreyListingRecords* greylisting_records = &greylisting;  // never nullptr
  ControlRequests requests;                                // what a running instance can be asked
  ControlServer control;
  std::unique_ptr<InstanceLock> instance_lock;
  std::unique_ptr<frmMain> window;

 private:
  std::string waiting_;             // for the terminal to be free: whole lines
  std::size_t lines_left_out_ = 0;  // of those that would have to wait
};

// Why an instance of this name cannot be locked.
std::string NameTakenText(std::string_view instance_name);

}  // namespace trabex
