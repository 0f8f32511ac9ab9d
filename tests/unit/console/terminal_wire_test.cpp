#include "console/linux/terminal_wire.h"

#include <gtest/gtest.h>

#include <clocale>
#include <optional>
#include <string>

namespace trabex {
namespace {

ViewFrame Frame(std::uint32_t total, std::vector<std::string> rows) {
  return {.total_rows = total,
          .top = 7,
          .status = "0.0.0.0:25 --> 127.0.0.1:25",
          .version = "v. 3.04.012",
          .header = "",
          .rows = std::move(rows)};
}

void ExpectSame(const std::optional<ViewFrame>& got, const ViewFrame& want) {
  ASSERT_TRUE(got.has_value());
  EXPECT_EQ(got->total_rows, want.total_rows);
  EXPECT_EQ(got->top, want.top);
  EXPECT_EQ(got->status, want.status);
  EXPECT_EQ(got->version, want.version);
  EXPECT_EQ(got->header, want.header);
  EXPECT_EQ(got->rows, want.rows);
}

TEST(TerminalWire, FrameArrivesAsItWasSent) {
  for (const ViewFrame& frame : {Frame(0, {}), Frame(100000, {"a", "", std::string("\0\n", 2)})}) {
    std::string bytes;
    AppendFrame(frame, bytes);
    FrameReader reader;
    reader.Append(bytes);
    ExpectSame(reader.TakeLatest(), frame);
    EXPECT_EQ(reader.Taken(), 1U);
    EXPECT_FALSE(reader.TakeLatest());
  }
}

TEST(TerminalWire, FrameIsCompleteWithItsLastByteOnly) {
  const ViewFrame frame = Frame(3, {"one", "two"});
  std::string bytes;
  AppendFrame(frame, bytes);
  FrameReader reader;
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
    reader.Append(bytes.substr(i, 1));
    ASSERT_FALSE(reader.TakeLatest()) << i;
  }
  reader.Append(bytes.substr(bytes.size() - 1));
  ExpectSame(reader.TakeLatest(), frame);
}

TEST(TerminalWire, LatestOfSeveralFramesCounts) {
  const ViewFrame last = Frame(3, {"new"});
  std::string bytes;
  AppendFrame(Frame(1, {"old", "rows"}), bytes);
  AppendFrame(last, bytes);
  const std::size_t complete = bytes.size();
  AppendFrame(Frame(9, {"next"}), bytes);
  FrameReader reader;
  reader.Append(bytes.substr(0, complete + 5));
  ExpectSame(reader.TakeLatest(), last);
  EXPECT_EQ(reader.Taken(), 2U);
  reader.Append(bytes.substr(complete + 5));
  ExpectSame(reader.TakeLatest(), Frame(9, {"next"}));
}

TEST(TerminalWire, TextShowsNoControlCharactersAndEndsWithTheColumns) {
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  struct Row {
    std::string_view text;
    std::size_t columns;
    std::wstring_view shown;
  };
  const Row rows[] = {
      {"plain", 80, L"plain"},
      {"plain", 3, L"pla"},
      {"plain", 0, L""},
      {"a\x1B[31mb\r\n\t\x7F", 80, L"a?[31mb????"},
      {std::string_view("a\0b", 3), 80, L"a?b"},
      {"h\xC3\xA4user", 3, L"h\u00E4u"},
      {"\xC2\x9B"
       "31m",
       80, L"?31m"},  // the control sequence introducer beyond ASCII
      {"bad \xFF\xC3(", 80,
       L"bad ?"
       L"?("},                                     // bytes that are no UTF-8
      {"cut \xE4\xBD", 80, L"cut ??"},             // a character without its end
      {"\xE4\xBD\xA0\xE5\xA5\xBD", 3, L"\u4F60"},  // two columns each
      {"\x80\x9B\xA0", 80, L"???"},
      {"a\u2028b\u2029", 80, L"a?b?"},
      {"\u061C\u200E\u200F\u202A\u202E\u2066\u2069", 80, L"???????"},
      {"a\U000E0000\U000E0041\U000E007Fb", 80, L"a???b"},
      {"\u202E\u202Ex", 2, L"??"},
      {"\u061B\u2027\u2010", 80, L"\u061B\u2027\u2010"},
  };
  for (const Row& row : rows) EXPECT_EQ(PrintableText(row.text, row.columns), row.shown) << row.text;
  EXPECT_EQ(ColumnsOf(PrintableText("a\xE4\xBD\xA0", 80)), 3U);
  std::setlocale(LC_CTYPE, "C");
}

}  // namespace
}  // namespace trabex
