// print_scripts FOLDER: the hostile files below the folder as JSON, for players that are not written in C++.
// Bytes are strings of the characters U+0000 to U+00FF.
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "script/hostile_files.h"

namespace trabex::script {
namespace {

std::string Text(std::string_view bytes) {
  std::string json = "\"";
  for (const char byte : bytes) {
    if (byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\') {
      json += byte;
    } else {
      char escape[7];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(byte));
      json += escape;
    }
  }
  return json + '"';
}

template <class List, class Function>
std::string Array(const List& list, Function element) {
  std::string json = "[";
  for (const auto& item : list) json += (json.size() > 1 ? "," : "") + element(item);
  return json + "]";
}

std::string Texts(const std::vector<std::string>& texts) {
  return Array(texts, Text);
}

std::string Number(std::size_t number) {
  return std::to_string(number);
}

// What is said in one reply, as the list of its segments; none for silence.
std::string Segments(const Sending& sending) {
  std::vector<std::string> segments;
  std::size_t begin = 0;
  for (const std::size_t end : sending.segments) {
    segments.push_back(sending.bytes.substr(begin, end - begin));
    begin = end;
  }
  if (begin < sending.bytes.size()) segments.push_back(sending.bytes.substr(begin));
  return Texts(segments);
}

// Whether a reply goes on after the line.
bool GoesOn(const Pattern& line) {
  return line.pieces.front().size() > 3 && line.pieces.front()[3] == '-';
}

// The steps of a client; the lines of one reply are one step. In front of the built program the clock goes on
// by itself.
std::string Steps(const std::vector<Step>& steps) {
  std::vector<std::string> objects;
  bool reply_goes_on = false;
  for (const Step& step : steps) {
    const bool is_line = step.kind == StepKind::kGetLine;
    if (step.side != Side::kClient) throw ScriptError("\"" + step.source + "\": no step of a client");
    if (is_line && reply_goes_on) {
      objects.back().insert(objects.back().size() - 2, "," + Texts(step.pattern.pieces));
    } else if (is_line) {
      objects.push_back(R"({"do":"reply","lines":[)" + Texts(step.pattern.pieces) + "]}");
    } else if (step.kind == StepKind::kSend) {
      objects.push_back(R"({"do":"send","bytes":)" + Text(step.sending.bytes) + R"(,"cuts":)" +
                        Array(step.sending.cuts, Number) + "}");
    } else if (step.kind == StepKind::kClosed) {
      objects.emplace_back(R"({"do":"closed"})");
    } else if (step.kind == StepKind::kReset) {
      objects.emplace_back(R"({"do":"reset"})");
    } else if (step.kind == StepKind::kShutDown) {
      objects.emplace_back(R"({"do":"shut"})");
    } else if (step.kind != StepKind::kWait) {
      throw ScriptError("\"" + step.source + "\": no step for the built program");
    }
    reply_goes_on = is_line && GoesOn(step.pattern);
  }
  return Array(objects, [](const std::string& object) { return object; });
}

std::string File(const HostileFile& file) {
  const Head& head = file.script.head;
  const auto replies = Array(head.replies, [](const auto& command) {
    return "[" + Text(command.first) + "," + Array(command.second, Segments) + "]";
  });
  const auto settings = Array(head.settings, [](const SettingLine& setting) {
    return "[" + Text(setting.section) + "," + Text(setting.key) + "," + Text(setting.value) + "]";
  });
  const auto opening = Array(OpeningOf(file), [](const auto& exchange) {
    return "[" + Text(exchange.first) + "," + Text(exchange.second) + "]";
  });
  return R"({"name":)" + Text(file.name) + R"(,"opening":)" + opening + R"(,"direct":)" +
         Texts(*head.direct) + R"(,"owes":)" + (head.owes ? Text(*head.owes) : "null") + R"(,"settings":)" +
         settings + R"(,"replies":)" + replies + R"(,"steps":)" + Steps(file.script.steps) + "}";
}

}  // namespace
}  // namespace trabex::script

int main(int argc, char** argv) {
  using namespace trabex::script;
  try {
    if (argc != 2) throw std::runtime_error("one argument, the folder");
    std::cout << Array(ReadHostileFiles(argv[1]), File) << "\n";
  } catch (const std::exception& error) {
    std::cerr << "print_scripts: " << error.what() << "\n";
    return 1;
  }
  return std::cout.flush() ? 0 : 1;
}
