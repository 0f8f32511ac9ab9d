// What one viewer looks at and works with: takes sizes and keys, gives pictures.
#pragma once

#include <cstddef>
#include <cstdint>

#include "console/screen.h"

namespace trabex {

// A key: the code point of what it writes, or one of these.
using Key = std::uint32_t;
namespace key {
inline constexpr Key kTab = 9;
inline constexpr Key kEnter = 13;
inline constexpr Key kEscape = 27;
inline constexpr Key kBackspace = 127;
inline constexpr Key kCtrlC = 3;
inline constexpr Key kCtrlU = 21;
inline constexpr Key kUp = 0x110000;  // beyond all code points
inline constexpr Key kDown = 0x110001;
inline constexpr Key kPageUp = 0x110002;
inline constexpr Key kPageDown = 0x110003;
inline constexpr Key kHome = 0x110004;
inline constexpr Key kEnd = 0x110005;
}  // namespace key

struct ViewerSize {
  std::size_t columns = 0;
  std::size_t rows = 0;
  bool plain = false;  // the terminal's font has hardly more than ASCII

  friend bool operator==(const ViewerSize&, const ViewerSize&) = default;
};

class ViewScreen {
 public:
  virtual ~ViewScreen() = default;
  virtual void SetSize(const ViewerSize& size) = 0;
  virtual void TakeKey(Key key) = 0;
  // The picture of now, as large as the size at most.
  virtual Screen Make() = 0;
  // Whether the latest picture lacks something that is still being worked out: another one is worth making soon.
  virtual bool IsUnfinished() const = 0;
  // Whether the user has closed the view.
  virtual bool Closed() const = 0;
  // Whether it is folded to its status line.
  virtual bool Folded() const = 0;
};

}  // namespace trabex
