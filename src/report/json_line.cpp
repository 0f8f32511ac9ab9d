#include "report/json_line.h"

#include <chrono>
#include <cstring>

#include "base/utf8.h"

namespace trabex {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kHexDigits = "0123456789abcdef";
// "\u0000"; no character takes more for one of its bytes.
constexpr std::size_t kMaxEscape = 6;

using Word = std::uint64_t;

constexpr Word InEachByte(unsigned char byte) {
  return Word{0x0101010101010101} * byte;
}

// Whether all eight bytes stand for themselves: ASCII, and none of control, '"' or '\'. A byte that does not
// sets its upper bit in one of the terms; a borrow or carry comes only from such a byte.
constexpr bool ArePlain(Word bytes) {
  const Word others = bytes | (bytes + InEachByte(1)) | (bytes - InEachByte(' ')) |
                      ((bytes ^ InEachByte('"')) - InEachByte(1)) |
                      ((bytes ^ InEachByte('\\')) - InEachByte(1));
  return (others & InEachByte(0x80)) == 0;
}

constexpr bool IsPlain(char c) {
  return c >= ' ' && c <= '~' && c != '"' && c != '\\';
}

char* Append(char* to, std::string_view text) {
  return std::copy_n(text.data(), text.size(), to);
}

char* AppendEscaped(char* to, char c) {
  switch (c) {
    case '"':
      return Append(to, "\\\"");
    case '\\':
      return Append(to, "\\\\");
    case '\n':
      return Append(to, "\\n");
    case '\r':
      return Append(to, "\\r");
    case '\t':
      return Append(to, "\\t");
    default:
      break;
  }
  const auto byte = static_cast<unsigned char>(c);
  to = Append(to, "\\u00");
  *to++ = kHexDigits[byte >> 4];
  *to++ = kHexDigits[byte & 15];
  return to;
}

// A text on its way into a JSON string.
struct Escaping {
  const char* from;
  const char* end;  // of the text
  char* to;
  bool well_formed = true;

  void Character() {
    if (IsPlain(*from)) {
      *to++ = *from++;
    } else if (static_cast<unsigned char>(*from) < 0x80) {
      to = AppendEscaped(to, *from++);
    } else {
      const std::string_view rest(from, static_cast<std::size_t>(end - from));
      const std::size_t size = FirstUtf8Character(rest).size;
      to = Append(to, size == 0 ? kReplacement : rest.substr(0, size));
      from += size == 0 ? 1 : size;
      well_formed = well_formed && size != 0;
    }
  }
  // Up to `stop`, or the end of the character there.
  void UpTo(const char* stop) {
    while (stop - from >= static_cast<std::ptrdiff_t>(sizeof(Word))) {
      Word bytes = 0;
      std::memcpy(&bytes, from, sizeof bytes);
      if (ArePlain(bytes)) {
        std::memcpy(to, &bytes, sizeof bytes);
        from += sizeof bytes;
        to += sizeof bytes;
      } else {
        for (const char* const behind = from + sizeof bytes; from < behind;) Character();
      }
    }
    while (from < stop) Character();
  }
};

// In milliseconds since 1970.
constexpr std::int64_t FirstOfYear(int year) {
  using namespace std::chrono;
  return duration_cast<milliseconds>(sys_days(std::chrono::year(year) / 1 / 1).time_since_epoch()).count();
}

void PutDigits(char* to, int count, unsigned value) {
  for (to += count; count > 0; --count, value /= 10) *--to = static_cast<char>('0' + value % 10);
}

}  // namespace

void JsonLine::Spill() {
  out_.append(room_.data(), static_cast<std::size_t>(end_ - room_.data()));
  end_ = room_.data();
}

bool JsonLine::Quoted(std::string_view text) {
  MakeFree(kMaxEscape + 2);
  *end_++ = '"';
  Escaping escaping{.from = text.data(), .end = text.data() + text.size(), .to = end_};
  while (escaping.from < escaping.end) {
    const std::size_t fits = Free() / kMaxEscape;
    if (fits == 0) {
      Spill();
      escaping.to = end_;
      continue;
    }
    const auto left = static_cast<std::size_t>(escaping.end - escaping.from);
    escaping.UpTo(escaping.from + std::min(left, fits));
    end_ = escaping.to;
  }
  Put('"');
  return escaping.well_formed;
}

void JsonLine::Hex(std::string_view bytes) {
  Put('"');
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    MakeFree(2);
    *end_++ = kHexDigits[byte >> 4];
    *end_++ = kHexDigits[byte & 15];
  }
  Put('"');
}

void JsonLine::HexMember(std::string_view name, std::string_view bytes) {
  Name(name, "_hex");
  Hex(bytes);
}

void JsonLine::Thousandths(std::string_view name, std::int64_t value) {
  Name(name);
  if (value < 0) Put('-');
  const std::int64_t magnitude = value < 0 ? -value : value;
  PutNumber(magnitude / 1000);
  MakeFree(4);
  *end_++ = '.';
  PutDigits(end_, 3, static_cast<unsigned>(magnitude % 1000));
  end_ += 3;
}

void JsonLine::Members(std::string_view line) {
  constexpr std::size_t kFrame = sizeof "{}\n" - 1;
  const std::string_view members = line.substr(1, line.size() - kFrame);
  if (members.empty()) return;
  if (!first_) Put(',');
  first_ = false;
  if (Free() < members.size()) {
    Spill();
    out_.append(members);
  } else {
    end_ = Append(end_, members);
  }
}

void JsonTime::FormatSecond(std::int64_t second) {
  using namespace std::chrono;
  second_ = second;
  const sys_seconds moment{seconds(second)};
  const auto day = floor<days>(moment);
  const year_month_day date(day);
  const auto of_day = static_cast<unsigned>((moment - day).count());
  char* const text = text_.data();
  PutDigits(text, 4, static_cast<unsigned>(static_cast<int>(date.year())));
  PutDigits(text + 5, 2, static_cast<unsigned>(date.month()));
  PutDigits(text + 8, 2, static_cast<unsigned>(date.day()));
  PutDigits(text + 11, 2, of_day / 3600);
  PutDigits(text + 14, 2, of_day / 60 % 60);
  PutDigits(text + 17, 2, of_day % 60);
}

std::string_view JsonTime::Format(std::int64_t milliseconds) {
  constexpr std::int64_t kFirst = FirstOfYear(0);
  constexpr std::int64_t kLast = FirstOfYear(10000) - 1;
  milliseconds = std::clamp(milliseconds, kFirst, kLast);
  const std::int64_t second = milliseconds >= 0 ? milliseconds / 1000 : (milliseconds - 999) / 1000;
  if (second != second_) FormatSecond(second);
  constexpr std::size_t kFraction = 20;
  PutDigits(text_.data() + kFraction, 3, static_cast<unsigned>(milliseconds - second * 1000));
  return {text_.data(), text_.size()};
}

}  // namespace trabex
