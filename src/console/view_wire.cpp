#include "console/view_wire.h"

#include <algorithm>
#include <utility>

namespace trabex {

namespace {

constexpr std::size_t kMessageBytes = 8;
constexpr std::size_t kLengthBytes = 4;
// A picture is never larger than this, whatever a viewer says of its terminal.
constexpr std::size_t kMaxColumns = 1000;
constexpr std::size_t kMaxRows = 500;

constexpr std::uint8_t kColourBits = 0x07;
constexpr std::uint8_t kBoldBit = 0x08;
constexpr std::uint8_t kReverseBit = 0x10;
constexpr std::uint8_t kLastColour = static_cast<std::uint8_t>(Colour::kCyan);

void AppendNumber(std::uint64_t number, std::size_t size, std::string& bytes) {
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(number >> (8 * i) & 0xFF);
}

std::uint8_t ByteOf(const Look& look) {
  return static_cast<std::uint8_t>(static_cast<unsigned>(look.colour) | (look.bold ? kBoldBit : 0U) |
                                   (look.reverse ? kReverseBit : 0U));
}

Look LookOf(std::uint8_t byte) {
  const auto colour = static_cast<std::uint8_t>(byte & kColourBits);
  return {.colour = colour <= kLastColour ? static_cast<Colour>(colour) : Colour::kNone,
          .bold = (byte & kBoldBit) != 0,
          .reverse = (byte & kReverseBit) != 0};
}

// Reads numbers and texts as long as there are any; behind the end everything is 0 and empty.
class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : bytes_(bytes) {}

  std::uint32_t Number(std::size_t size) {
    const std::string_view field = Text(size);
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < field.size(); ++i) {
      number |= static_cast<std::uint32_t>(static_cast<unsigned char>(field[i])) << (8 * i);
    }
    return number;
  }
  std::string_view Text(std::size_t size) {
    if (bytes_.size() < size) {
      failed_ = true;
      bytes_ = {};
      return {};
    }
    const std::string_view text = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return text;
  }
  bool Failed() const { return failed_; }
  bool AtEnd() const { return bytes_.empty(); }

 private:
  std::string_view bytes_;
  bool failed_ = false;
};

std::optional<Screen> ReadScreen(std::string_view bytes) {
  FieldReader fields(bytes);
  Screen screen;
  screen.takes_text = fields.Number(1) != 0;
  for (std::uint32_t lines = fields.Number(2); lines > 0 && !fields.Failed(); --lines) {
    ScreenLine& line = screen.lines.emplace_back();
    for (std::uint32_t pieces = fields.Number(2); pieces > 0 && !fields.Failed(); --pieces) {
      ScreenPiece& piece = line.emplace_back();
      piece.column = fields.Number(2);
      piece.look = LookOf(static_cast<std::uint8_t>(fields.Number(1)));
      piece.text = fields.Text(fields.Number(2));
    }
  }
  if (fields.Failed() || !fields.AtEnd()) return std::nullopt;
  return screen;
}

}  // namespace

void AppendMessage(const ViewerMessage& message, std::string& bytes) {
  const bool is_size = message.kind == ViewerMessage::Kind::kSize;
  AppendNumber(static_cast<std::uint64_t>(message.kind), 1, bytes);
  AppendNumber(message.size.plain ? 1 : 0, 1, bytes);
  AppendNumber(std::min(message.size.columns, kMaxColumns), 2, bytes);
  AppendNumber(is_size ? std::min(message.size.rows, kMaxRows) : message.key, 4, bytes);
}

void MessageReader::Append(std::string_view bytes) {
  bytes_.erase(0, taken_);
  taken_ = 0;
  bytes_ += bytes;
}

std::optional<ViewerMessage> MessageReader::Take() {
  while (bytes_.size() - taken_ >= kMessageBytes) {
    FieldReader fields(std::string_view(bytes_).substr(taken_));
    ViewerMessage message;
    const std::uint32_t kind = fields.Number(1);
    message.size.plain = fields.Number(1) != 0;
    message.size.columns = std::min<std::size_t>(fields.Number(2), kMaxColumns);
    message.key = fields.Number(4);
    message.size.rows = std::min<std::size_t>(message.key, kMaxRows);
    taken_ += kMessageBytes;
    if (kind < static_cast<std::uint32_t>(ViewerMessage::Kind::kSize) ||
        kind > static_cast<std::uint32_t>(ViewerMessage::Kind::kRestored)) {
      continue;
    }
    message.kind = static_cast<ViewerMessage::Kind>(kind);
    if (message.kind != ViewerMessage::Kind::kSize) message.size = {};
    if (message.kind != ViewerMessage::Kind::kKey) message.key = 0;
    return message;
  }
  return std::nullopt;
}

void AppendFrame(const Screen& screen, std::string& bytes) {
  const std::size_t start = bytes.size();
  AppendNumber(0, kLengthBytes, bytes);
  AppendNumber(screen.takes_text ? 1 : 0, 1, bytes);
  AppendNumber(screen.lines.size(), 2, bytes);
  for (const ScreenLine& line : screen.lines) {
    AppendNumber(line.size(), 2, bytes);
    for (const ScreenPiece& piece : line) {
      AppendNumber(piece.column, 2, bytes);
      AppendNumber(ByteOf(piece.look), 1, bytes);
      AppendNumber(piece.text.size(), 2, bytes);
      bytes += piece.text;
    }
  }
  std::string length;
  AppendNumber(bytes.size() - start - kLengthBytes, kLengthBytes, length);
  bytes.replace(start, kLengthBytes, length);
}

std::optional<Screen> FrameReader::Take() {
  if (broken_ || bytes_.size() < kLengthBytes) return std::nullopt;
  const std::size_t length = FieldReader(bytes_).Number(kLengthBytes);
  broken_ = length > kMaxFrameBytes;
  if (broken_ || bytes_.size() - kLengthBytes < length) return std::nullopt;
  std::optional<Screen> screen = ReadScreen(std::string_view(bytes_).substr(kLengthBytes, length));
  broken_ = !screen;
  bytes_.erase(0, kLengthBytes + length);
  return screen;
}

}  // namespace trabex
