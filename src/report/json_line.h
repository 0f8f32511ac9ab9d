// One JSON object on one line (RFC 8259), written to the end of a text that its owner uses again and again, so
// that no line needs memory of its own.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace trabex {

// Writes the members in the order of the calls. Names of members are short and plain ASCII. A line is put
// together in a room of its own, so the text has all of it only behind End.
class JsonLine {
 public:
  // `out` outlives it.
  explicit JsonLine(std::string& out) : out_(out) {}
  JsonLine(const JsonLine&) = delete;
  JsonLine& operator=(const JsonLine&) = delete;

  // Begins an object. Of one that an exception has kept from its end nothing stays here; what of it is in the text
  // already, its owner takes back.
  void Begin() {
    end_ = room_.data();
    Put('{');
    first_ = true;
  }

  // Bytes that are no UTF-8 become U+FFFD each; then the value follows once more, whole and in hexadecimal, as
  // `name`_hex.
  void Text(std::string_view name, std::string_view value) {
    Name(name);
    if (!Quoted(value)) HexMember(name, value);
  }
  // An array. `values` has size() and gives by [] what is a std::string_view.
  template <class Values>
  void Texts(std::string_view name, const Values& values);
  void Number(std::string_view name, std::int64_t value) {
    Name(name);
    PutNumber(value);
  }
  // Thousandths of a whole, as in "1.250".
  void Thousandths(std::string_view name, std::int64_t value);
  void Truth(std::string_view name, bool value) {
    Name(name);
    PutPlain(value ? "true" : "false");
  }
  // The members of an object that is written already; `line` is all of its line.
  void Members(std::string_view line);
  // Ends the object and the line.
  void End() {
    PutPlain("}\n");
    Spill();
  }

  // A member that is an object, or a list of such: what is written until it is closed belongs to it.
  void OpenObject(std::string_view name) {
    Name(name);
    Open('{');
  }
  void OpenList(std::string_view name) {
    Name(name);
    Open('[');
  }
  // One object of the list.
  void OpenElement() {
    if (!first_) Put(',');
    Open('{');
  }
  void CloseObject() { Close('}'); }
  void CloseList() { Close(']'); }

 private:
  // More than nearly every line takes.
  static constexpr std::size_t kRoom = 2048;
  static constexpr std::size_t kMaxName = 64;
  static constexpr std::size_t kMaxDigits = 20;

  std::size_t Free() const { return static_cast<std::size_t>(room_.data() + room_.size() - end_); }
  void MakeFree(std::size_t bytes) {
    if (Free() < bytes) Spill();
  }
  void Spill();
  void Put(char c) {
    MakeFree(1);
    *end_++ = c;
  }
  // At most kMaxName bytes that need no escaping.
  void PutPlain(std::string_view text) {
    MakeFree(kMaxName);
    end_ = std::copy_n(text.data(), text.size(), end_);
  }
  void PutNumber(std::int64_t value) {
    MakeFree(kMaxDigits);
    end_ = std::to_chars(end_, end_ + kMaxDigits, value).ptr;
  }
  void Name(std::string_view name, std::string_view suffix = {}) {
    MakeFree(2 * kMaxName);
    if (!first_) *end_++ = ',';
    first_ = false;
    *end_++ = '"';
    end_ = std::copy_n(name.data(), name.size(), end_);
    end_ = std::copy_n(suffix.data(), suffix.size(), end_);
    *end_++ = '"';
    *end_++ = ':';
  }
  // Both with their quotes; false when not all of `text` is UTF-8.
  bool Quoted(std::string_view text);
  void Open(char bracket) {
    Put(bracket);
    first_ = true;
  }
  void Close(char bracket) {
    Put(bracket);
    first_ = false;
  }
  void Hex(std::string_view bytes);
  void HexMember(std::string_view name, std::string_view bytes);

  std::string& out_;
  std::array<char, kRoom> room_;
  char* end_ = room_.data();  // of what is in room_
  bool first_ = true;
};

template <class Values>
void JsonLine::Texts(std::string_view name, const Values& values) {
  Name(name);
  bool well_formed = true;
  Put('[');
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) Put(',');
    well_formed &= Quoted(values[i]);
  }
  Put(']');
  if (well_formed) return;
  Name(name, "_hex");
  Put('[');
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) Put(',');
    Hex(values[i]);
  }
  Put(']');
}

// A point in time, in milliseconds since 1 January 1970 (universal), as RFC 3339 has it:
// "2026-11-15T13:54:24.123Z". Before the year 0 and behind 9999 it is their beginning or end. The text of a
// second is kept for the next calls.
class JsonTime {
 public:
  // Valid until the next call.
  std::string_view Format(std::int64_t milliseconds);

 private:
  void FormatSecond(std::int64_t second);

  std::int64_t second_ = 0;  // that text_ has
  std::array<char, 24> text_ = {'1', '9', '7', '0', '-', '0', '1', '-', '0', '1', 'T', '0',
                                '0', ':', '0', '0', ':', '0', '0', '.', '0', '0', '0', 'Z'};
};

}  // namespace trabex
