// What the program and the renderer, the process that draws, send each other over their socket pair. Both are
// the same executable, so plain structs in the machine's own form do.
//
// The renderer reports its state whenever that changes and after each frame it has drawn. The program sends
// the next frame only when the one before it is drawn: so a terminal that does not read holds one frame,
// however long it is blocked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace trabex {

// The renderer's whole state; the latest report counts.
struct RendererReport {
  std::uint32_t frames_drawn = 0;
  std::uint32_t columns = 0;       // of the terminal
  std::uint32_t visible_rows = 0;  // table rows that fit on it; 0 while folded
  std::uint32_t top = 0;           // the first row that the user wants to see
  std::uint32_t folded = 0;        // 0 or 1, as the next two
  std::uint32_t closed = 0;        // the user closed the window
  std::uint32_t restored = 0;      // the terminal is as it was; the renderer ends
};

// What is drawn at one time.
struct ViewFrame {
  std::uint32_t total_rows = 0;
  std::uint32_t top = 0;  // index of rows[0]
  std::string status;
  std::string version;
  std::string header;
  std::vector<std::string> rows;
};

// Appends the frame as bytes: its length, then its fields, each text after its own length.
void AppendFrame(const ViewFrame& frame, std::string& out);

// Takes frames out of a stream of bytes.
class FrameReader {
 public:
  void Append(std::string_view bytes) { bytes_ += bytes; }
  // The latest complete frame; those before it are skipped.
  std::optional<ViewFrame> TakeLatest();
  // How many frames TakeLatest has taken out, the skipped ones included.
  std::uint32_t Taken() const { return taken_; }

 private:
  std::string bytes_;
  std::uint32_t taken_ = 0;
};

// `text` for a terminal of `columns`: bytes that are no UTF-8, and characters that are not visible
// (base/visible_text.h) or not printable, as "?"; cut where the columns end. Needs a UTF-8 locale.
std::wstring PrintableText(std::string_view text, std::size_t columns);
// The columns that `text` takes.
std::size_t ColumnsOf(const std::wstring& text);

}  // namespace trabex
