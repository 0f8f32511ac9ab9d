// Dialogues written as text, for every kind of test: the one reader of the language that README.md beside
// this file describes. It knows no session: what the steps of a script mean is the affair of who plays them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace trabex::script {

enum class Side { kClient, kServer };

// How a player hands over the bytes that both sides send.
enum class Delivery { kWhole, kByteByByte };

enum class StepKind {
  kSend,        // `side` sends `sending`
  kGetLine,     // `side` gets a line of the form `pattern`
  kGetNothing,  // `side` has got nothing more
  kGetBytes,    // `side` gets `bytes`, with a line end or without
  kClose,       // `side` closes its connection
  kReset,       // `side` breaks it off
  kShutDown,    // `side` ends its sending
  kClosed,      // `side` finds its connection closed, everything before that taken
  kConnect,     // one more client connects, from the address `bytes` unless that is empty
  kAccept,      // the server gets its connection
  kStartTls,    // the client, which was asked to, makes the TLS handshake
  kWait,        // the clock goes on by `milliseconds`
  kLog,         // a line of the form `pattern` has been logged
  kAskName,     // the addresses of the name `bytes` are asked for
  kAnswer,      // the names that were asked for are answered
  kStop,        // the program is asked to end
};

// Bytes that one side sends.
struct Sending {
  std::string bytes;
  // Where a segment ends in every delivery.
  std::vector<std::size_t> segments;
  // Where a delivery may be cut once.
  std::vector<std::size_t> cuts;
};

// An expected text: its pieces in this order, with any text between two of them.
struct Pattern {
  bool Matches(std::string_view text) const;

  std::vector<std::string> pieces;
};

// What answers the names that were asked for: these addresses, an error number, or, when it is neither, what
// the test has set for them.
struct NameAnswers {
  std::vector<std::string> addresses;
  std::optional<int> error;
};

struct Step {
  StepKind kind{};
  Side side{};
  Sending sending;
  Pattern pattern;
  std::string bytes;
  std::int64_t milliseconds = 0;
  NameAnswers answers;
  std::size_t line = 0;  // from 1
  std::string source;    // as it was written, without the blanks around it
};

struct SettingLine {
  std::string section;  // "Common" unless it was named
  std::string key;
  std::string value;
};

// The lines before the steps of a file; a script inside a test's source has none.
struct Head {
  std::string comment;
  std::optional<std::string> after;
  std::optional<std::vector<std::string>> direct;
  std::optional<std::string> owes;
  std::vector<SettingLine> settings;
  // Command to what a scripted server says to it, the first one to the first command of that name and so on.
  std::map<std::string, std::vector<Sending>> replies;
};

struct Script {
  Head head;
  std::vector<Step> steps;
};

// Tells the line's number, the line and what is wrong with it.
struct ScriptError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Raises ScriptError.
Script ReadScript(std::string_view text);

// The same of a file; an error tells its name.
Script ReadScriptFile(const std::filesystem::path& path);

// The steps with the sendings of one side that stand together made one.
std::vector<Step> JoinSendings(std::vector<Step> steps);

}  // namespace trabex::script
