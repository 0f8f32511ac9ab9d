#include "app/command_line.h"

#include <algorithm>
#include <array>

#include "app/version.h"
#include "base/numbers.h"
#include "base/text.h"

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

enum class Switch { kPort, kMinimize, kHide, kIniFile, kLogPath, kExit, kHelp };

struct SwitchName {
  std::string_view name;  // after the slash or the hyphens
  Switch what;
};

constexpr std::array kSwitchNames = {
    SwitchName{"P", Switch::kPort},     SwitchName{"PORT", Switch::kPort},
    SwitchName{"M", Switch::kMinimize}, SwitchName{"MINIMIZE", Switch::kMinimize},
    SwitchName{"HI", Switch::kHide},    SwitchName{"HIDE", Switch::kHide},
    SwitchName{"I", Switch::kIniFile},  SwitchName{"INIFILE", Switch::kIniFile},
    SwitchName{"L", Switch::kLogPath},  SwitchName{"LOGPATH", Switch::kLogPath},
    SwitchName{"X", Switch::kExit},     SwitchName{"EXIT", Switch::kExit},
    SwitchName{"H", Switch::kHelp},     SwitchName{"?", Switch::kHelp},
    SwitchName{"HELP", Switch::kHelp},
};

// It has this one spelling only.
constexpr std::string_view kVersionSwitch = "--version";

std::optional<Switch> FindSwitch(std::string_view token) {
  if (token.starts_with("--")) {
    token.remove_prefix(2);
  } else if (token.starts_with('/') || token.starts_with('-')) {
    token.remove_prefix(1);
  } else {
    return std::nullopt;
  }
  const auto* found =
      std::find_if(kSwitchNames.begin(), kSwitchNames.end(),
                   [&](const SwitchName& candidate) { return EqualNoCase(candidate.name, token); });
  if (found == kSwitchNames.end()) return std::nullopt;
  return found->what;
}

// The path that `token` names: without surrounding double quotes, nothing when that leaves nothing.
std::optional<std::string> Path(std::string_view token) {
  if (token.size() >= 2 && token.starts_with('"') && token.ends_with('"')) {
    token = token.substr(1, token.size() - 2);
  }
  if (token.empty()) return std::nullopt;
  return std::string(token);
}

// Walks the arguments; each switch with an argument takes the next one, whatever it looks like.
class Parser {
 public:
  explicit Parser(std::span<const std::string_view> arguments) : arguments_(arguments) {}

  CommandLine Parse() {
    while (next_ < arguments_.size() && line_.result == CommandLine::Result::kStart) {
      const std::string_view token = *Next();
      if (!token.empty()) Take(token);
    }
    return std::move(line_);
  }

 private:
  std::optional<std::string_view> Next() {
    if (next_ == arguments_.size()) return std::nullopt;
    return Trim(arguments_[next_++]);
  }

  void Take(std::string_view token) {
    if (EqualNoCase(token, kVersionSwitch)) return End(CommandLine::Result::kShow, TitleAndVersion());
    const std::optional<Switch> what = FindSwitch(token);
    if (!what) return End(CommandLine::Result::kRefused, "Invalid switch \"" + std::string(token) + "\".");
    switch (*what) {
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
        line_.exit_request = true;
        return;
      case Switch::kHelp:
        return End(CommandLine::Result::kShow, std::string(kHelpText));
    }
  }

  // A text that is no number leaves the port of an earlier switch, if there was one.
  void TakePort(std::string_view token) {
    if (const std::optional<std::int32_t> number = ParseInteger(token)) line_.port = number;
    if (line_.port.value_or(0) < 1 || *line_.port > 65535) {
      End(CommandLine::Result::kRefused, "Invalid port number \"" + std::string(token) + "\".");
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
};

}  // namespace

CommandLine ParseCommandLine(std::span<const std::string_view> arguments) {
  return Parser(arguments).Parse();
}

}  // namespace trabex
