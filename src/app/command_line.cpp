#include "app/command_line.h"

#include <algorithm>
#include <array>

#include "app/version.h"
#include "base/numbers.h"
#include "base/text.h"
#include "platform/process.h"

namespace trabex {

namespace {

constexpr std::string_view kHelpText =
    "Command line switches:\r\n"
    "\r\n"
    "/P <portnumber>, /PORT <portnumber> - specify port to listen;\r\n"
    "/M, /MINIMIZE - run minimized;\r\n"
    "/HI, /HIDE - run hidden;\r\n"
    "/I <ini file pathname>, /INIFILE <ini file pathname> - specify initialization file;\r\n"
    "/L <log dir>, /LOGPATH <log dir> - specify log directory;\r\n"
    "/X, /EXIT - close another instance;\r\n"
    "/H, /?, /HELP - show this message.";

enum class Switch {
  kPort,
  kMinimize,
  kHide,
  kIniFile,
  kLogPath,
  kExit,
  kHelp,
  kRequest,
  kCheck,
  kDump,
  kUser,
  kOffline,
  kLive,
  kExplain
};

struct SwitchName {
  std::string_view name;  // after the slash or the hyphens; that of a request is its own
  Switch what;
  // Of a request: how many arguments it takes.
  std::size_t min_arguments = 0;
  std::size_t max_arguments = 0;
  // Of a request whose argument is nothing but this one, which is written as switches are.
  std::string_view option = {};
};

// Of a request that reads its arguments itself; such ones may also begin as a switch does.
constexpr std::size_t kAnyNumber = std::string_view::npos;

constexpr std::array kSwitchNames = {
    SwitchName{"P", Switch::kPort},
    SwitchName{"PORT", Switch::kPort},
    SwitchName{"M", Switch::kMinimize},
    SwitchName{"MINIMIZE", Switch::kMinimize},
    SwitchName{"HI", Switch::kHide},
    SwitchName{"HIDE", Switch::kHide},
    SwitchName{"I", Switch::kIniFile},
    SwitchName{"INIFILE", Switch::kIniFile},
    SwitchName{"L", Switch::kLogPath},
    SwitchName{"LOGPATH", Switch::kLogPath},
    SwitchName{"X", Switch::kExit},
    SwitchName{"EXIT", Switch::kExit},
    SwitchName{"H", Switch::kHelp},
    SwitchName{"?", Switch::kHelp},
    SwitchName{"HELP", Switch::kHelp},
    SwitchName{"CHECK", Switch::kCheck},
    SwitchName{"DUMP", Switch::kDump},
    SwitchName{"USER", Switch::kUser},
    SwitchName{"OFFLINE", Switch::kOffline},
    SwitchName{"LIVE", Switch::kLive},
    SwitchName{"STATUS", Switch::kRequest, 0, 1},
    SwitchName{"RELOAD", Switch::kRequest},
    SwitchName{"REOPENLOG", Switch::kRequest},
    SwitchName{"SESSIONS", Switch::kRequest, 0, 1, "JSON"},
    SwitchName{"CLOSE", Switch::kRequest, 1, 1},
    SwitchName{"GREYLIST", Switch::kRequest, 1, kAnyNumber},
    SwitchName{"VIEW", Switch::kRequest},
    SwitchName{"EXPLAIN", Switch::kExplain, 1, kAnyNumber},
};

// It has this one spelling only.
constexpr std::string_view kVersionSwitch = "--version";

// What stands behind the slash or the hyphens; "" when there are none.
std::string_view NameIn(std::string_view token) {
  if (token.starts_with("--")) return token.substr(2);
  return token.starts_with('/') || token.starts_with('-') ? token.substr(1) : std::string_view();
}

const SwitchName* FindSwitch(std::string_view token) {
  const std::string_view name = NameIn(token);
  if (name.empty()) return nullptr;
  const auto* found =
      std::find_if(kSwitchNames.begin(), kSwitchNames.end(),
                   [&](const SwitchName& candidate) { return EqualNoCase(candidate.name, name); });
  return found == kSwitchNames.end() ? nullptr : found;
}

std::string_view WithoutQuotes(std::string_view token) {
  const bool quoted = token.size() >= 2 && token.starts_with('"') && token.ends_with('"');
  return quoted ? token.substr(1, token.size() - 2) : token;
}

// The path that `token` names: without surrounding double quotes, nothing when that leaves nothing.
std::optional<std::string> Path(std::string_view token) {
  token = WithoutQuotes(token);
  if (token.empty()) return std::nullopt;
  return std::string(token);
}

// Walks the arguments; each switch with an argument takes the next one, whatever it looks like.
class Parser {
 public:
  explicit Parser(std::span<const std::string_view> arguments) : arguments_(arguments) {}

  CommandLine Parse() {
    while (next_ < arguments_.size() && line_.result == CommandLine::Result::kStart) {
      const std::string_view as_typed = arguments_[next_];
      const std::string_view token = *Next();
      if (!TakeForRequest(as_typed, token) && !token.empty()) Take(token);
    }
    if (line_.result == CommandLine::Result::kStart) CheckRequest();
    if (line_.result == CommandLine::Result::kStart) CheckOptions();
    return std::move(line_);
  }

 private:
  std::optional<std::string_view> Next() {
    if (next_ == arguments_.size()) return std::nullopt;
    return Trim(arguments_[next_++]);
  }

  // Whether the token goes to the request before it.
  bool TakeForRequest(std::string_view as_typed, std::string_view token) {
    if (request_ == nullptr || line_.request.size() > request_->max_arguments) return false;
    if (!request_->option.empty()) return TakeOption(token);
    if (token == "--" && !only_arguments_ && request_->max_arguments == kAnyNumber) {
      only_arguments_ = true;
      return true;
    }
    if (!only_arguments_ && !IsArgument(token)) return false;
    line_.request.emplace_back(kTokensKeepQuotes ? WithoutQuotes(token) : as_typed);
    return true;
  }

  bool TakeOption(std::string_view token) {
    if (!EqualNoCase(NameIn(token), request_->option)) return false;
    line_.request.emplace_back(request_->option);
    return true;
  }

  bool IsArgument(std::string_view token) const {
    const bool any = request_->max_arguments == kAnyNumber;
    if (token.starts_with('/') || token.starts_with('-')) return any && FindSwitch(token) == nullptr;
    return any || !token.empty();
  }

  void CheckRequest() {
    if (request_ != nullptr && line_.request.size() <= request_->min_arguments) {
      Refuse("Argument expected after", request_token_);
    }
  }

  // Whether something else than a start is asked for already.
  bool HasPurpose() const { return request_ != nullptr || line_.exit_request || line_.check || line_.dump; }

  void TakePurpose(bool& purpose, std::string_view token) {
    if (HasPurpose()) return Refuse("Only one request is possible:", token);
    purpose = true;
  }

  void TakeUser(std::string_view token) {
    const std::optional<std::string_view> name = Next();
    if (!name || name->empty()) return Refuse("Argument expected after", token);
    line_.user = *name;
  }

  // What goes with one switch only.
  void CheckOptions() {
    if (!check_option_.empty() && !line_.check) return Refuse("Only with --check:", check_option_);
    if (request_ != nullptr && request_->what == Switch::kExplain) return TakeExplain();
    if (live_option_.empty()) return;
    if (!line_.dump) return Refuse("Only with --dump and --explain:", live_option_);
    line_.dump = false;
    line_.request = {"DUMP"};
  }

  // It takes its arguments as a request does, but there is nobody to be asked.
  void TakeExplain() {
    line_.explain.emplace(line_.request.begin() + 1, line_.request.end());
    line_.request.clear();
    line_.live = !live_option_.empty();
  }

  void TakeRequest(std::string_view token, const SwitchName& request) {
    if (HasPurpose()) return Refuse("Only one request is possible:", token);
    request_ = &request;
    request_token_ = token;
    line_.request.emplace_back(request.name);
  }

  void TakeExit(std::string_view token) {
    if (request_ != nullptr || line_.check || line_.dump) {
      return Refuse("Only one request is possible:", token);
    }
    line_.exit_request = true;
  }

  void Refuse(std::string_view what, std::string_view token) {
    End(CommandLine::Result::kRefused, std::string(what) + " \"" + std::string(token) + "\".");
  }

  void Take(std::string_view token) {
    if (EqualNoCase(token, kVersionSwitch)) return End(CommandLine::Result::kShow, TitleAndVersion());
    const SwitchName* const found = FindSwitch(token);
    if (found == nullptr) return Refuse("Invalid switch", token);
    switch (found->what) {
      case Switch::kPort:
        return TakePort(Next().value_or(std::string_view()));
      case Switch::kMinimize:
        line_.minimized = true;
        return;
      case Switch::kHide:
        line_.hidden = true;
        return;
      case Switch::kIniFile:
        return TakePath(line_.ini_file);
      case Switch::kLogPath:
        return TakePath(line_.log_path);
      case Switch::kExit:
        return TakeExit(token);
      case Switch::kHelp:
        return End(CommandLine::Result::kShow, std::string(kHelpText));
      case Switch::kCheck:
        return TakePurpose(line_.check, token);
      case Switch::kDump:
        return TakePurpose(line_.dump, token);
      case Switch::kUser:
        return TakeUser(token);
      case Switch::kOffline:
        check_option_ = token;
        line_.offline = true;
        return;
      case Switch::kLive:
        live_option_ = token;
        return;
      case Switch::kRequest:
      case Switch::kExplain:
        return TakeRequest(token, *found);
    }
  }

  // A text that is no number leaves the port of an earlier switch, if there was one.
  void TakePort(std::string_view token) {
    if (const std::optional<std::int32_t> number = ParseInteger(token)) line_.port = number;
    if (line_.port.value_or(0) < 1 || *line_.port > 65535) {
      Refuse("Invalid port number", token);
    }
  }

  void TakePath(std::optional<std::string>& path) {
    if (const std::optional<std::string_view> token = Next()) path = Path(*token);
  }

  void End(CommandLine::Result result, std::string message) {
    line_.result = result;
    line_.message = std::move(message);
  }

  std::span<const std::string_view> arguments_;
  std::size_t next_ = 0;
  CommandLine line_;
  const SwitchName* request_ = nullptr;  // the one that was found
  std::string_view request_token_;
  bool only_arguments_ = false;  // behind "--"
  // As they were typed; empty: not given.
  std::string_view check_option_;
  std::string_view live_option_;
};

}  // namespace

CommandLine ParseCommandLine(std::span<const std::string_view> arguments) {
  return Parser(arguments).Parse();
}

std::vector<std::string_view> SwitchNames() {
  std::vector<std::string_view> names = {"VERSION"};
  for (const SwitchName& one : kSwitchNames) names.push_back(one.name);
  return names;
}

}  // namespace trabex
