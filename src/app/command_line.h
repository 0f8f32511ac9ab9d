// The command line: switches that select the port, the files and the window, or ask for something else than a
// start. Each argument is one token, as the shell has split them; "/PORT", "-port" and "--port" are the same,
// in any case of letters.
//
// A request to a running instance takes what follows it and is no switch, as far as it has use for it; other
// switches may stand between. With "--" all that follows are its arguments.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// What a command line asks for. An argument that is a path is kept as typed, without surrounding quotes; an
// empty one counts as not given.
struct CommandLine {
  enum class Result {
    kStart,    // go on with the fields below
    kShow,     // show `message` and end well: help or version
    kRefused,  // `message` says what is wrong
  };
  Result result = Result::kStart;
  std::string message;

  std::optional<std::int32_t> port;     // 1 to 65535; the key BindPort is then not read
  std::optional<std::string> ini_file;  // not resolved yet
  std::optional<std::string> log_path;  // the key LogPath is then not read, and Log is 1
  bool minimized = false;
  bool hidden = false;
  bool exit_request = false;
  std::optional<std::string> user;  // whose the process is to be: a name or a number
  // What a running instance is asked (control_requests.h): a name and its arguments, which are kept as typed.
  // Empty: nothing.
  std::vector<std::string> request;
  // What is done instead of a start (check_command.h): both are not possible, nor is a request beside one.
  bool check = false;
  bool dump = false;
  bool offline = false;  // of `check`: no name is asked for
  // What is to be explained instead of a start (explain_command.h), as typed; nothing: nothing is.
  std::optional<std::vector<std::string>> explain;
  bool live = false;  // of `explain`: greylisting is that of the running instance
};

// Reads the arguments in order and stops at the first that cannot be taken. `arguments` is without the
// program's own name.
CommandLine ParseCommandLine(std::span<const std::string_view> arguments);

// The names of all switches in capital letters, without what stands in front of them: "PORT", "P". For tests that hold the
// documents against them.
std::vector<std::string_view> SwitchNames();

}  // namespace trabex
