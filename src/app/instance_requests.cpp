#include "app/instance_requests.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/control_requests.h"
#include "app/frmMain.h"
#include "app/greylist_tool.h"
#include "app/live_source.h"
#include "app/printable.h"
#include "app/program.h"
#include "app/requested_reload.h"
#include "config/configuration_dump.h"
#include "proxy/cProxy.h"
#include "proxy/session_id.h"
#include "report/session_json.h"

namespace trabex {

namespace {

// A row costs some microseconds.
constexpr std::size_t kRowsInSlice = 500;
// An entry of a list costs one at most.
constexpr std::size_t kEntriesInSlice = 4000;

// A session that may be gone when its turn comes. Keys are used again, ids are not.
struct ListedSession {
  std::string key;
  SessionId id;
};

std::vector<ListedSession> AllSessions(SessionCollection& sessions) {
  std::vector<ListedSession> all;
  all.reserve(sessions.Count());
  for (std::size_t i = 0; i < sessions.Count(); ++i) {
    const cProxy& session = sessions.At(i);
    all.push_back({session.Key(), session.Id()});
  }
  return all;
}

cProxy* Find(SessionCollection& sessions, const ListedSession& listed) {
  cProxy* const session = sessions.Find(listed.key);
  return session != nullptr && session->Id() == listed.id ? session : nullptr;
}

using AppendSession = void (*)(const cProxy& session, std::string& out);

// The sessions of now, one line for each that is there when its slice is made.
ControlSlices ListSessions(SessionCollection& sessions, AppendSession append) {
  return
      [&sessions, append, all = AllSessions(sessions), next = std::size_t{0}](ControlAnswer& slice) mutable {
        const std::size_t end = std::min(all.size(), next + kRowsInSlice);
        for (; next < end; ++next) {
          const cProxy* const session = Find(sessions, all[next]);
          if (session != nullptr) append(*session, slice.text);
        }
        return next < all.size();
      };
}

void AppendRow(const cProxy& session, std::string& out) {
  out += FormatSessionId(session.Id()) + "  " + Printable(RowOf(session)) + "\n";
}

ControlReply ListSessions(SessionCollection& sessions, const std::vector<std::string>& arguments) {
  if (arguments.empty()) return ListSessions(sessions, AppendRow);
  if (arguments.size() == 1 && arguments.front() == "JSON") {
    return ListSessions(sessions, [](const cProxy& session, std::string& out) {
      AppendSessionJson(SnapshotOf(session), out);
    });
  }
  return ControlAnswer{
      .status = exit_status::kBadCommandLine, .text = {}, .error = "SESSIONS takes nothing but JSON."};
}

ControlAnswer CloseSession(SessionCollection& sessions, const std::string& digits) {
  const std::optional<SessionId> id = ParseSessionId(digits);
  for (const ListedSession& listed : AllSessions(sessions)) {
    if (listed.id != id) continue;
    Find(sessions, listed)->Shutdown(SessionEnd::kClosed);
    return {};
  }
  return {.status = exit_status::kFailed, .text = {}, .error = "There is no session " + digits + "."};
}

// That of one moment: a reload meanwhile ends it.
ControlSlices Dump(const Program& program) {
  return [&program, dump = DumpInSlices(program.configuration, program.ini_file.path),
          reloads = program.reloads_begun](ControlAnswer& slice) {
    if (program.reloads_begun == reloads) return dump(slice);
    slice.status = exit_status::kFailed;
    slice.error = "The configuration was reloaded meanwhile.";
    return false;
  };
}

std::shared_ptr<PendingAnswer> Reload(frmMain& window) {
  auto answer = std::make_shared<PendingAnswer>();
  window.RequestReload([answer](const RequestedReload::Outcome& outcome) {
    ControlAnswer said;
    for (const std::string& finding : outcome.findings) said.text += Printable(finding) + "\n";
    if (!outcome.made) {
      said.status = exit_status::kFailed;
      said.error = "Configuration not reloaded; the one in force stays.";
    }
    answer->Give(std::move(said));
  });
  return answer;
}

ControlReply GreyList(Program& program, const std::vector<std::string>& arguments) {
  const GreyListingSettings& settings = program.configuration.GreyListing;
  if (!settings.Enabled) {
    return ControlAnswer{.status = exit_status::kFailed, .text = {}, .error = "Greylisting is off."};
  }
  GreyListing& greylisting = program.greylisting;
  return AnswerGreyList(
      {.database = greylisting.RecordsInMemory(),
       .settings = settings,
       .clock = program.dependencies.clock,
       .loads = [&greylisting] { return greylisting.Loads(); },
       .hold_saves = [&greylisting](auto complete) { return greylisting.HoldSaves(std::move(complete)); },
       .release_saves = [&greylisting] { greylisting.ReleaseSaves(); },
       .attached = [&program] { return program.requests.TakeAttached(); }},
      arguments);
}

}  // namespace

ControlSlices DumpInSlices(const Configuration& configuration, std::string_view ini_path) {
  auto dump = std::make_shared<ConfigurationDump>(configuration, ini_path);
  return [dump](ControlAnswer& slice) {
    return dump->WriteSome(kEntriesInSlice,
                           [&](std::string_view line) { slice.text.append(line).append("\n"); });
  };
}

void AddInstanceRequests(Program& program, frmMain& window) {
  ControlRequests& requests = program.requests;
  requests.Add("RELOAD", [&window](const std::vector<std::string>&) { return Reload(window); });
  requests.Add("REOPENLOG", [&window](const std::vector<std::string>&) {
    window.ReopenLog();
    return ControlAnswer{};
  });
  requests.Add("DUMP", [&program](const std::vector<std::string>&) { return Dump(program); });
  requests.Add("SESSIONS", [&window](const std::vector<std::string>& arguments) {
    return ListSessions(window.Sessions(), arguments);
  });
  requests.Add("CLOSE", [&window](const std::vector<std::string>& arguments) {
    return CloseSession(window.Sessions(), arguments.empty() ? std::string() : arguments.front());
  });
  requests.Add("VIEW", [&window](const std::vector<std::string>& arguments) {
    return window.Viewers().Answer(arguments.empty() ? std::string_view() : arguments.front());
  });
  requests.Add("GREYLIST", [&program](const std::vector<std::string>& arguments) {
    return GreyList(program, arguments);
  });
}

}  // namespace trabex
