#include "view/session_row.h"

#include <algorithm>
#include <array>
#include <utility>

#include "view/connection_row.h"

namespace trabex {

namespace {

constexpr std::size_t kStateColumns = 10;
constexpr std::size_t kMinNameColumns = 4;
// What of the room behind the other fields each one gets, of 100.
constexpr std::size_t kNameShare = 30;
constexpr std::size_t kHeloShare = 20;
constexpr std::size_t kSenderShare = 25;

struct GroupRow {
  Look look;
  char sign;
};

constexpr std::array<GroupRow, 5> kGroups = {{{{}, ' '},
                                              {{.colour = Colour::kYellow}, 'D'},
                                              {{.colour = Colour::kCyan}, 'S'},
                                              {{.colour = Colour::kGreen}, 'C'},
                                              {{.colour = Colour::kRed}, 'R'}}};

// From `begin` up to a blank before `next`, and nothing behind `columns`.
void PutField(ScreenLine& line, std::size_t begin, std::size_t next, std::size_t columns,
              std::string_view text, Look look) {
  const std::size_t end = std::min(next, columns + 1);
  if (begin + 1 >= end) return;
  std::string field;
  const std::size_t used = AppendColumns(field, text, end - begin - 1, CutSign::kEllipsis);
  // The whole line is seen to be selected.
  if (look.reverse) field.append(std::min(next, columns) - begin - used, ' ');
  if (!field.empty()) line.push_back({.column = begin, .look = look, .text = std::move(field)});
}

}  // namespace

Look LookOf(SessionStateGroup group) {
  return kGroups[static_cast<std::size_t>(group)].look;
}

char SignOf(SessionStateGroup group) {
  return kGroups[static_cast<std::size_t>(group)].sign;
}

SessionRow MakeSessionRow(std::string row, const SessionSnapshot& snapshot) {
  SessionRow made;
  // The name holds no blank; neither does "Unknown".
  made.name_at = row.rfind(' ') + 1;
  made.row = std::move(row);
  made.state = SessionStateName(snapshot.state);
  made.group = GroupOf(snapshot.state);
  made.helo = snapshot.helo;
  if (snapshot.in_transaction) {
    made.sender = snapshot.sender.empty() ? "<>" : snapshot.sender;
    made.recipient = snapshot.recipient;
  }
  return made;
}

SessionRow EndedSessionRow(SessionId id) {
  SessionRow made;
  made.row = " Session " + FormatSessionId(id) + " has ended.";
  made.name_at = made.row.size();
  return made;
}

RowLayout::RowLayout(std::size_t columns) : columns_(columns), wide_(columns >= kWideColumns) {
  if (!wide_) return;
  const std::size_t name = kConnectionHeader.rfind("Host Name");
  const std::size_t room = columns - name - kStateColumns - 4;
  state_ = name + room * kNameShare / 100 + 1;
  helo_ = state_ + kStateColumns + 1;
  sender_ = helo_ + room * kHeloShare / 100 + 1;
  recipient_ = sender_ + room * kSenderShare / 100 + 1;
}

ScreenLine RowLayout::Header(std::string_view header) const {
  constexpr Look kBold{.bold = true};
  ScreenLine line;
  Put(line, 0, header, columns_, kBold);
  if (!wide_) return line;
  PutField(line, state_, helo_, columns_, "State", kBold);
  PutField(line, helo_, sender_, columns_, "HELO", kBold);
  PutField(line, sender_, recipient_, columns_, "Sender", kBold);
  PutField(line, recipient_, columns_ + 1, columns_, "Recipient", kBold);
  return line;
}

ScreenLine RowLayout::Row(const SessionRow& row, bool selected) const {
  Look look = LookOf(row.group);
  look.reverse = selected;
  ScreenLine line;
  if (!wide_ || row.state.empty()) {
    PutField(line, 0, columns_ - 1, columns_, row.row, look);
    const char sign = SignOf(row.group);
    if (sign != ' ' || selected) Put(line, columns_ - 1, std::string_view(&sign, 1), 1, look);
    return line;
  }
  const std::string_view text = row.row;
  const std::size_t name = Put(line, 0, text.substr(0, row.name_at), columns_, look);
  // A row with wide values moves what follows them to the right.
  const std::size_t least = name + kMinNameColumns + 1;
  const std::size_t shift = least > state_ ? least - state_ : 0;
  PutField(line, name, state_ + shift, columns_, text.substr(row.name_at), look);
  PutField(line, state_ + shift, helo_ + shift, columns_, row.state, look);
  PutField(line, helo_ + shift, sender_ + shift, columns_, row.helo, look);
  PutField(line, sender_ + shift, recipient_ + shift, columns_, row.sender, look);
  PutField(line, recipient_ + shift, columns_ + 1, columns_, row.recipient, look);
  return line;
}

}  // namespace trabex
