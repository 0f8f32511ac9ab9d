#include "console/linux/terminal_wire.h"

#include <cstring>
#include <cwchar>
#include <cwctype>
#include <utility>

#include "base/visible_text.h"

namespace trabex {

namespace {

void AppendNumber(std::uint32_t number, std::string& out) {
  char bytes[sizeof number];
  std::memcpy(bytes, &number, sizeof number);
  out.append(bytes, sizeof number);
}

void AppendText(std::string_view text, std::string& out) {
  AppendNumber(static_cast<std::uint32_t>(text.size()), out);
  out += text;
}

// Reads what the two above wrote; the writer is this same program, so nothing is checked but the end.
class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : bytes_(bytes) {}

  std::uint32_t Number() {
    std::uint32_t number = 0;
    if (bytes_.size() < sizeof number) return 0;
    std::memcpy(&number, bytes_.data(), sizeof number);
    bytes_.remove_prefix(sizeof number);
    return number;
  }
  std::string Text() {
    const std::uint32_t length = Number();
    std::string text(bytes_.substr(0, length));
    bytes_.remove_prefix(text.size());
    return text;
  }

 private:
  std::string_view bytes_;
};

}  // namespace

void AppendFrame(const ViewFrame& frame, std::string& out) {
  const std::size_t start = out.size();
  AppendNumber(0, out);
  AppendNumber(frame.total_rows, out);
  AppendNumber(frame.top, out);
  AppendText(frame.status, out);
  AppendText(frame.version, out);
  AppendText(frame.header, out);
  AppendNumber(static_cast<std::uint32_t>(frame.rows.size()), out);
  for (const std::string& row : frame.rows) AppendText(row, out);
  const auto length = static_cast<std::uint32_t>(out.size() - start - sizeof(std::uint32_t));
  std::memcpy(out.data() + start, &length, sizeof length);
}

std::optional<ViewFrame> FrameReader::TakeLatest() {
  std::size_t begin = 0;
  std::string_view latest;
  for (;;) {
    const std::string_view rest = std::string_view(bytes_).substr(begin);
    const std::uint32_t length = FieldReader(rest).Number();
    if (rest.size() < sizeof length || rest.size() - sizeof length < length) break;
    latest = rest.substr(sizeof length, length);
    begin += sizeof length + length;
    ++taken_;
  }
  if (begin == 0) return std::nullopt;
  FieldReader fields(latest);
  ViewFrame frame;
  frame.total_rows = fields.Number();
  frame.top = fields.Number();
  frame.status = fields.Text();
  frame.version = fields.Text();
  frame.header = fields.Text();
  frame.rows.resize(fields.Number());
  for (std::string& row : frame.rows) row = fields.Text();
  bytes_.erase(0, begin);
  return frame;
}

std::wstring PrintableText(std::string_view text, std::size_t columns) {
  std::wstring result;
  std::size_t used = 0;
  while (!text.empty()) {
    const TextPiece piece = FirstPiece(text);
    const bool printable =
        piece.is_character && piece.visible && std::iswprint(static_cast<std::wint_t>(piece.code)) != 0;
    const wchar_t character = printable ? static_cast<wchar_t>(piece.code) : L'?';
    const int width = wcwidth(character);
    used += width < 0 ? 0 : static_cast<std::size_t>(width);
    if (used > columns) break;
    result += character;
    text.remove_prefix(piece.size);
  }
  return result;
}

std::size_t ColumnsOf(const std::wstring& text) {
  const int width = wcswidth(text.data(), text.size());
  return width < 0 ? 0 : static_cast<std::size_t>(width);
}

}  // namespace trabex
