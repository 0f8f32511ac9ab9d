#include "support/scripted_server.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "script/escapes.h"

namespace trabex {

namespace {

constexpr std::string_view kExtensions =
    "250-server.test\r\n250-SIZE 100000\r\n250-8BITMIME\r\n250-CHUNKING\r\n250-PIPELINING\r\n250-STARTTLS\r\n"
    "250-XCLIENT ADDR\r\n250-XFORWARD ADDR\r\n250 SMTPUTF8\r\n";
constexpr std::string_view kLineEnds{"\r\n\0\v\f", 5};
constexpr std::string_view kBlanks = " \t\x08\x1b\x7f\xa0";
constexpr std::string_view kWhiteSpace = " \t\n\r\v\f";

std::vector<std::string_view> PartsBetween(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of(separators), text.size());
    if (end > 0) parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

bool IsNumber(std::string_view word) {
  return !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos;
}

// The greatest number there is for all that are too great.
std::uint64_t NumberIn(std::string_view word) {
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t number = 0;
  for (const char digit : word) {
    number = number > (kMax - 9) / 10 ? kMax : number * 10 + static_cast<std::uint64_t>(digit - '0');
  }
  return number;
}

template <class Verbs>
bool BeginsWithOneOf(std::string_view line, const Verbs& verbs) {
  const std::size_t end = std::min(line.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                          "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"),
                                   line.size());
  return std::find(verbs.begin(), verbs.end(), ToUpper(line.substr(0, end))) != verbs.end();
}

bool HoldsMark(std::string_view text) {
  const std::string folded = FoldText(text);
  return folded.find("evil-nnn") != std::string::npos || folded.find("black-nnn") != std::string::npos;
}

// The line without the parameters whose addresses receive and send nothing.
std::string WithoutHarmless(std::string_view line) {
  std::string rest;
  while (!line.empty()) {
    const std::size_t begin = std::min(line.find_first_of(" \t"), line.size());
    const std::size_t end = std::min(line.find_first_of(kWhiteSpace, begin + 1), line.size());
    const std::string parameter = ToUpper(line.substr(begin, end - begin));
    rest += line.substr(0, begin);
    if (parameter.find("ORCPT=") != 1 && parameter.find("AUTH=") != 1)
      rest += line.substr(begin, end - begin);
    line.remove_prefix(end);
  }
  return rest;
}

// BDAT, a blank and a count below 2^31 without zeros in front.
bool IsPlainChunk(std::string_view line) {
  if (!line.starts_with("BDAT ")) return false;
  const std::string_view count = line.substr(5, line.substr(5).find(' '));
  return IsNumber(count) && count.size() <= 10 && (count == "0" || count[0] != '0') &&
         NumberIn(count) < (std::uint64_t{1} << 31);
}

void AddCommandViolations(std::string_view bytes, std::vector<std::string>& found) {
  static constexpr std::array<std::string_view, 7> kChecked = {"HELO", "EHLO", "MAIL", "RCPT",
                                                               "SEND", "SOML", "SAML"};
  static constexpr std::array<std::string_view, 5> kNever = {"STARTTLS", "TURN", "ATRN", "XCLIENT",
                                                             "XFORWARD"};
  static constexpr std::array<std::string_view, 1> kChunk = {"BDAT"};
  for (std::string_view line : PartsBetween(bytes, kLineEnds)) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    if (!line.empty()) line = line.substr(0, line.find_last_not_of(kBlanks) + 1);
    if (BeginsWithOneOf(line, kNever)) {
      found.push_back("a command that is never forwarded: " + script::Escape(line));
    } else if (BeginsWithOneOf(line, kChecked) && HoldsMark(WithoutHarmless(line))) {
      found.push_back("an address that was to be refused: " + script::Escape(line));
    } else if (BeginsWithOneOf(line, kChunk) && !IsPlainChunk(line)) {
      found.push_back("a count that may be read in several ways: " + script::Escape(line));
    }
  }
}

void AddContentViolations(std::string_view bytes, std::vector<std::string>& found) {
  // The line end before the last dot stays: it may be that of a doubtful one.
  if (bytes == ".\r\n" || bytes.ends_with("\r\n.\r\n")) bytes.remove_suffix(3);
  for (std::size_t dot = bytes.find('.'); dot != std::string_view::npos; dot = bytes.find('.', dot + 1)) {
    const bool begins_line = dot == 0 || bytes[dot - 1] == '\r' || bytes[dot - 1] == '\n';
    const bool ends_line = dot + 1 < bytes.size() &&
                           std::string_view("\r\n\0", 3).find(bytes[dot + 1]) != std::string_view::npos;
    if (!begins_line || !ends_line) continue;
    found.push_back("a dot that some take for the end: " + script::Escape(bytes.substr(dot, 60)));
    return;
  }
}

}  // namespace

ScriptedServer::ScriptedServer(const std::map<std::string, std::vector<script::Sending>>& replies)
    : answers_chunks_at_once_(replies.contains("BDAT!")) {
  for (const auto& [command, sayings] : replies) replies_[command].assign(sayings.begin(), sayings.end());
  Say("greeting", "220 server.test ESMTP\r\n");
}

void ScriptedServer::Take(std::string_view bytes) {
  waiting_ += bytes;
  while (!hung_up_ && TakePiece()) {
  }
}

void ScriptedServer::TakeEnd() {
  if (!hung_up_) pieces_.push_back({next_, std::exchange(waiting_, {})});
  hung_up_ = true;
}

std::string ScriptedServer::NextSegment() {
  if (segments_.empty()) return {};
  std::string segment = std::move(segments_.front());
  segments_.pop_front();
  return segment;
}

bool ScriptedServer::TakePiece() {
  std::size_t size = 0;
  if (next_ == PieceKind::kOctets) {
    if (waiting_.size() < octets_) return false;
    size = static_cast<std::size_t>(octets_);
  } else {
    const bool content = next_ == PieceKind::kContent;
    const std::string_view end = content && !waiting_.starts_with(".\r\n") ? "\r\n.\r\n" : "\r\n";
    const std::size_t at = waiting_.find(end);
    if (at == std::string::npos) return false;
    size = at + end.size();
  }
  const std::string bytes = waiting_.substr(0, size);
  waiting_.erase(0, size);
  const PieceKind kind = std::exchange(next_, PieceKind::kCommand);
  pieces_.push_back({kind, bytes});
  switch (kind) {
    case PieceKind::kCommand:
      TakeCommand(bytes);
      break;
    case PieceKind::kContent:
      Say("content", "250 taken\r\n");
      break;
    case PieceKind::kOctets:
      if (!octets_reply_.empty()) Say(octets_reply_, "250 taken\r\n");
      break;
    case PieceKind::kSecret:
      if (Say("secret", "535 no\r\n") == "334") next_ = PieceKind::kSecret;
  }
  return true;
}

void ScriptedServer::TakeCommand(const std::string& line) {
  const std::vector<std::string_view> words = PartsBetween(line, kWhiteSpace);
  const std::string verb = words.empty() ? "" : ToUpper(words[0]);
  const bool counted = words.size() > 1 && IsNumber(words[1]);
  if (verb == "EHLO") {
    Say(verb, kExtensions);
  } else if (verb == "QUIT") {
    Say(verb, "221 bye\r\n");
    hung_up_ = true;
  } else if (verb == "DATA") {
    if (Say(verb, "354 go on\r\n") == "354") next_ = PieceKind::kContent;
  } else if (verb == "BDAT") {
    if (answers_chunks_at_once_) Say("BDAT!", "\r\n");
    octets_reply_ = answers_chunks_at_once_ ? "" : "BDAT";
    octets_ = counted ? NumberIn(words[1]) : 0;
    if (counted) {
      next_ = PieceKind::kOctets;
    } else if (!answers_chunks_at_once_) {
      Say("BDAT", "250 taken\r\n");
    }
  } else if (verb == "XEXCH50") {
    if (Say(verb, "354 go on\r\n") == "354" && counted) {
      octets_reply_ = "content";
      octets_ = NumberIn(words[1]);
      next_ = PieceKind::kOctets;
    }
  } else if (verb == "AUTH") {
    if (Say(verb, "334 \r\n") == "334") next_ = PieceKind::kSecret;
  } else {
    Say(verb, "250 ok\r\n");
  }
}

std::string ScriptedServer::Say(const std::string& command, std::string_view otherwise) {
  script::Sending said{std::string(otherwise), {}, {}};
  const auto own = replies_.find(command);
  if (own != replies_.end() && !own->second.empty()) {
    said = std::move(own->second.front());
    own->second.pop_front();
  }
  std::size_t begin = 0;
  said.segments.push_back(said.bytes.size());
  for (const std::size_t end : said.segments) {
    if (end > begin) segments_.push_back(said.bytes.substr(begin, end - begin));
    begin = end;
  }
  const std::vector<std::string_view> lines = PartsBetween(said.bytes, "\r\n");
  return lines.empty() ? "" : std::string(lines.back().substr(0, 3));
}

std::vector<std::string> ScriptedServer::Violations() const {
  std::vector<std::string> found;
  for (const Piece& piece : pieces_) {
    if (piece.kind == PieceKind::kCommand) AddCommandViolations(piece.bytes, found);
    if (piece.kind == PieceKind::kContent) AddContentViolations(piece.bytes, found);
  }
  return found;
}

}  // namespace trabex
