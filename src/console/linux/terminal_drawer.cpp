#define NCURSES_NOMACROS 1
#define NCURSES_WIDECHAR 1

#include "console/linux/terminal_drawer.h"

#include <curses.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <optional>
#include <string>
#include <string_view>

#include "base/text_columns.h"
#include "base/visible_text.h"

namespace trabex {

namespace {

// How long after an ESC the rest of a key's sequence may come.
constexpr std::chrono::milliseconds kEscapeDelay{25};

// Of the names of terminals whose font has hardly more than ASCII: how they begin.
constexpr std::array<std::string_view, 5> kPlainTypes = {"linux", "vt", "ansi", "cons", "sun"};

// NO_COLOR (no-color.org): set and not empty.
bool ColoursAreUnwanted() {
  const char* const unwanted = std::getenv("NO_COLOR");
  return unwanted != nullptr && *unwanted != '\0';
}

bool FontIsPlain() {
  const char* const name = std::getenv("TERM");
  const std::string_view type = name == nullptr ? "" : name;
  return std::any_of(kPlainTypes.begin(), kPlainTypes.end(),
                     [&](std::string_view begin) { return type.starts_with(begin); });
}

short PairOf(Colour colour) {
  return static_cast<short>(colour);
}

void DefineColours() {
  start_color();
  const bool with_default = use_default_colors() == OK;
  const short background = with_default ? short{-1} : short{COLOR_BLACK};
  init_pair(PairOf(Colour::kRed), COLOR_RED, background);
  init_pair(PairOf(Colour::kGreen), COLOR_GREEN, background);
  init_pair(PairOf(Colour::kYellow), COLOR_YELLOW, background);
  init_pair(PairOf(Colour::kCyan), COLOR_CYAN, background);
}

// The text for the terminal. What the system's own tables give another width than ours would move everything behind
// it, and is shown as "?".
std::wstring TerminalText(std::string_view text) {
  std::wstring result;
  while (!text.empty()) {
    const TextPiece piece = FirstPiece(text);
    const std::size_t columns =
        std::max<std::size_t>(piece.is_character ? CharacterColumns(piece.code) : 1, 1);
    const auto character = static_cast<wchar_t>(piece.code);
    const bool fits = piece.is_character && piece.visible &&
                      std::iswprint(static_cast<std::wint_t>(piece.code)) != 0 &&
                      wcwidth(character) == static_cast<int>(columns);
    if (fits) {
      result += character;
    } else {
      result.append(1, L'?').append(columns - 1, L' ');
    }
    text.remove_prefix(piece.size);
  }
  return result;
}

std::optional<Key> KeyOfFunction(wint_t code) {
  switch (code) {
    case KEY_UP:
      return key::kUp;
    case KEY_DOWN:
      return key::kDown;
    case KEY_PPAGE:
      return key::kPageUp;
    case KEY_NPAGE:
      return key::kPageDown;
    case KEY_HOME:
      return key::kHome;
    case KEY_END:
      return key::kEnd;
    case KEY_BACKSPACE:
      return key::kBackspace;
    case KEY_ENTER:
      return key::kEnter;
    default:
      return std::nullopt;
  }
}

Key KeyOfCharacter(wint_t code) {
  switch (code) {
    case '\n':
      return key::kEnter;
    case '\b':
      return key::kBackspace;
    default:
      return static_cast<Key>(code);
  }
}

}  // namespace

bool TerminalDrawer::Begin() {
  // The terminal is taken to be a UTF-8 one, whatever the locale of the environment says.
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) std::setlocale(LC_CTYPE, "");
  if (newterm(nullptr, stdout, stdin) == nullptr) return false;
  raw();  // Ctrl-C and Ctrl-Z are keys
  noecho();
  nonl();
  nodelay(stdscr, TRUE);
  keypad(stdscr, TRUE);
  leaveok(stdscr, TRUE);
  set_escdelay(static_cast<int>(kEscapeDelay.count()));
  curs_set(0);
  colours_ = has_colors() && !ColoursAreUnwanted();
  if (colours_) DefineColours();
  plain_ = FontIsPlain();
  return true;
}

void TerminalDrawer::End() {
  endwin();
}

ViewerSize TerminalDrawer::Size() const {
  return {.columns = static_cast<std::size_t>(std::max(getmaxx(stdscr), 1)),
          .rows = static_cast<std::size_t>(std::max(getmaxy(stdscr), 1)),
          .plain = plain_};
}

void TerminalDrawer::Draw(const Screen& screen) {
  erase();
  const int lines = std::min(static_cast<int>(screen.lines.size()), getmaxy(stdscr));
  for (int line = 0; line < lines; ++line) {
    for (const ScreenPiece& piece : screen.lines[static_cast<std::size_t>(line)]) DrawPiece(line, piece);
  }
  refresh();
}

void TerminalDrawer::DrawPiece(int line, const ScreenPiece& piece) const {
  const int columns = getmaxx(stdscr);
  if (piece.column >= static_cast<std::size_t>(columns)) return;
  attr_t attributes = A_NORMAL;
  if (piece.look.bold) attributes |= A_BOLD;
  if (piece.look.reverse) attributes |= A_REVERSE;
  const std::wstring text = TerminalText(piece.text);
  attr_set(attributes, colours_ ? PairOf(piece.look.colour) : short{0}, nullptr);
  // A line that is cut off here, while a picture for the terminal's new size is under way, would go on in the next one.
  int fit = 0;
  int used = static_cast<int>(piece.column);
  for (const wchar_t character : text) {
    used += wcwidth(character);
    if (used > columns) break;
    ++fit;
  }
  mvaddnwstr(line, static_cast<int>(piece.column), text.data(), fit);
  attr_set(A_NORMAL, 0, nullptr);
}

bool TerminalDrawer::TakeKeys(const std::function<void(Key)>& take) {
  any_key_ = false;
  bool resized = false;
  wint_t code = 0;
  for (int kind = get_wch(&code); kind != ERR; kind = get_wch(&code)) {
    if (kind == KEY_CODE_YES && code == KEY_RESIZE) {
      clearok(curscr, TRUE);
      resized = true;
      continue;
    }
    any_key_ = true;
    if (kind == KEY_CODE_YES) {
      if (const std::optional<Key> function = KeyOfFunction(code)) take(*function);
    } else {
      take(KeyOfCharacter(code));
    }
  }
  return resized;
}

bool TerminalDrawer::TerminalIsOurs() const {
  int unread = 0;
  const bool hung_up = !any_key_ && ioctl(STDIN_FILENO, FIONREAD, &unread) == 0 && unread == 0;
  return !hung_up && tcgetpgrp(STDIN_FILENO) == getpgrp();
}

}  // namespace trabex
