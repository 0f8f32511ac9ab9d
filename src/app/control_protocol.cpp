#include "app/control_protocol.h"

#include <algorithm>

#include "base/numbers.h"
#include "base/text.h"
#include "base/utf8.h"

namespace trabex {

namespace {

// Of a header; a length has 19 digits at most.
constexpr std::size_t kMaxHeaderBytes = 32;
constexpr int kMaxStatus = 255;

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = FirstUtf8Character(text).size;
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

void AppendArgument(std::string& line, std::string_view argument) {
  for (const char c : argument) {
    switch (c) {
      case '\\':
        line += "\\\\";
        break;
      case '\t':
        line += "\\t";
        break;
      case '\n':
        line += "\\n";
        break;
      default:
        line += c;
    }
  }
}

std::optional<std::string> ReadArgument(std::string_view field) {
  std::string argument;
  argument.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '\\') {
      argument += field[i];
      continue;
    }
    switch (++i < field.size() ? field[i] : '\0') {
      case '\\':
        argument += '\\';
        break;
      case 't':
        argument += '\t';
        break;
      case 'n':
        argument += '\n';
        break;
      default:
        return std::nullopt;
    }
  }
  return argument;
}

void AppendPart(char kind, std::string_view text, std::string& bytes) {
  if (text.empty()) return;
  bytes += kind;
  bytes.append(" ").append(std::to_string(text.size())).append("\n").append(text);
}

}  // namespace

std::optional<std::string> FormatRequest(const std::vector<std::string>& request) {
  std::string line;
  for (const std::string& argument : request) {
    if (!IsUtf8(argument)) return std::nullopt;
    if (&argument != &request.front()) line += '\t';
    AppendArgument(line, argument);
  }
  line += '\n';
  if (line.size() > kMaxRequestBytes) return std::nullopt;
  return line;
}

std::optional<std::vector<std::string>> ParseRequest(std::string_view line) {
  if (!IsUtf8(line)) return std::nullopt;
  std::vector<std::string> request;
  for (const std::string_view field : Split(line, '\t')) {
    std::optional<std::string> argument = ReadArgument(field);
    if (!argument) return std::nullopt;
    request.push_back(std::move(*argument));
  }
  if (request.empty() || request.front().empty()) return std::nullopt;
  return request;
}

void AppendAnswer(const ControlAnswer& answer, bool is_last, std::string& bytes) {
  AppendPart('T', answer.text, bytes);
  AppendPart('E', answer.error, bytes);
  if (is_last) bytes += "X " + std::to_string(answer.status) + "\n";
}

void AppendStreamBegin(std::string& bytes) {
  bytes += "S 1\n";
}

AnswerReader::State AnswerReader::Take(std::string_view bytes) {
  while (!bytes.empty() && state_ == State::kMore) {
    if (missing_ > 0) {
      const std::string_view part = bytes.substr(0, missing_);
      (kind_ == 'T' ? sink_.text : sink_.error)(part);
      missing_ -= part.size();
      bytes.remove_prefix(part.size());
      continue;
    }
    const std::size_t end = bytes.find('\n');
    header_.append(bytes.substr(0, std::min(end, kMaxHeaderBytes)));
    if (header_.size() >= kMaxHeaderBytes) {
      state_ = State::kBroken;
    } else if (end == std::string_view::npos) {
      break;
    } else {
      TakeHeader(header_);
      header_.clear();
      bytes.remove_prefix(end + 1);
    }
  }
  if (state_ == State::kStream) stream_ += bytes;
  return state_;
}

void AnswerReader::TakeHeader(std::string_view line) {
  const bool has_form =
      line.size() >= 3 && line[1] == ' ' && std::all_of(line.begin() + 2, line.end(), IsDigit);
  const auto number = has_form ? ParseInteger(line.substr(2)) : std::nullopt;
  if (!number) {
    state_ = State::kBroken;
  } else if (line[0] == 'X' && *number <= kMaxStatus) {
    status_ = *number;
    state_ = State::kComplete;
  } else if (line[0] == 'S' && *number == 1) {
    state_ = State::kStream;
  } else if (line[0] == 'T' || line[0] == 'E') {
    kind_ = line[0];
    missing_ = static_cast<std::size_t>(*number);
  } else {
    state_ = State::kBroken;
  }
}

}  // namespace trabex
