#include "view/totals_line.h"

#include <array>
#include <string_view>

namespace trabex {

namespace {

struct Words {
  std::string_view open;
  std::string_view peak;
  std::string_view rows;
  std::string_view of;
  std::string_view accepted;
  std::string_view refused;
  std::string_view delayed;
  std::string_view messages;
  std::string_view in;
  std::string_view out;
  std::string_view server;
};

constexpr std::array<Words, 3> kForms = {
    {{"open ", ", peak ", " | rows ", " of ", " | accepted ", ", refused ", ", delayed ", " | messages ",
      " | in ", ", out ", " | server "},
     {"open ", " peak ", " rows ", "/", " acc ", " ref ", " del ", " msg ", " in ", " out ", " server "},
     {"open ", "/", " ", "/", " acc ", " ref ", " del ", " msg ", " ", "/", " "}}};

std::string_view ServerWord(ServerState state) {
  switch (state) {
    case ServerState::kUnknown:
      return "?";
    case ServerState::kUp:
      return "up";
    case ServerState::kDown:
      return "DOWN";
  }
  return "?";
}

std::string Line(const Totals& totals, const ShownRows& shown, const Words& words) {
  std::string line(words.open);
  const auto add = [&line](std::string_view word, const std::string& value) {
    line.append(word).append(value);
  };
  line += ShortNumber(totals.open);
  add(words.peak, ShortNumber(totals.peak));
  add(words.rows, std::to_string(shown.first) + "-" + std::to_string(shown.last));
  add(words.of, std::to_string(shown.all));
  add(words.accepted, ShortNumber(totals.accepted));
  add(words.refused, ShortNumber(totals.refused));
  add(words.delayed, ShortNumber(totals.delayed));
  add(words.messages, ShortNumber(totals.messages));
  add(words.in, ShortNumber(totals.bytes[0][0]));
  add(words.out, ShortNumber(totals.bytes[0][1]));
  line.append(words.server).append(ServerWord(totals.server));
  return line;
}

}  // namespace

std::string ShortNumber(std::uint64_t number) {
  if (number < 10000) return std::to_string(number);
  std::uint64_t tenths = number / 100;  // of the unit
  for (const char unit : std::string_view("kMGTP")) {
    if (tenths < 100) return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + unit;
    if (tenths < 10000) return std::to_string(tenths / 10) + unit;
    tenths /= 1000;
  }
  return "lots";
}

std::string TotalsLine(const Totals& totals, const ShownRows& shown, std::size_t columns) {
  std::string line;
  for (const Words& words : kForms) {
    line = Line(totals, shown, words);
    if (line.size() <= columns) break;
  }
  return line;
}

}  // namespace trabex
