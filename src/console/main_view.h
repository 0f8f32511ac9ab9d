// The main window as people see it: status line, header, one row per connection. Where and how it is shown is
// the platform's business.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "console/view_screen.h"
#include "platform/event_loop.h"

namespace trabex {

// What the view shows. It pulls: a text is asked for only while it is visible.
class ViewContent {
 public:
  virtual ~ViewContent() = default;
  virtual std::string Status() const = 0;
  virtual std::string Version() const = 0;
  virtual std::string Header() const = 0;
  virtual std::size_t RowCount() const = 0;
  // Row `index` (0 is the first) as it shall be shown; UTF-8, characters that are not visible
  // (base/visible_text.h) are shown as "?".
  virtual std::string RowText(std::size_t index) const = 0;
  // For a view that is drawn as a screen of text: the whole of it, folded to its status line if `folded`. The content
  // outlives the screen. nullptr: there is none, and no such view can be opened.
  virtual std::unique_ptr<ViewScreen> MakeScreen(bool /*folded*/) const { return nullptr; }
};

// The view never holds up the loop: what a slow screen cannot show in time is left out.
class MainView {
 public:
  // Gives the screen back as it was; waits half a second at most for that.
  virtual ~MainView() = default;
  // Shows the content anew as soon as the screen can take it; cheap to call often.
  virtual void Refresh() = 0;
};

// What the user, or the screen, does to the view. A handler may destroy the view; an empty one is skipped.
struct MainViewEvents {
  std::function<void()> closed;             // the user closed the window
  std::function<void(bool folded)> folded;  // the user folded it to the status line, or unfolded it
  std::function<void()> lost;               // nothing is shown any more, though the screen is still there
  std::function<void()> screen_gone;        // nothing is shown any more because the screen itself has gone
};

// Why there is no view.
struct NoView {
  enum class Kind {
    kNoScreen,    // there is no screen, on which a view or the reason for none could be seen
    kUnusable,    // there is a screen, but no view can be shown on it
    kScreenGone,  // the screen went while the view was opened
  };
  Kind kind;
  std::string text;  // the reason, for people: one sentence
};

// Prepares the process (platform/process.h). To be called first in main: a view may be drawn by a process of
// this same executable, and in that process this function draws and does not return.
void PrepareProcess(int argc, char* const* argv);

// Nothing when a view is possible now. Shows and changes nothing.
std::optional<NoView> WhyNoView();

// Opens the view, folded to its status line if `folded`, or says why it cannot be had; raises nothing. `loop`
// and `content` outlive the view; the events come from the loop, never from inside this call. While the view
// is open, its screen cannot be used to stop the program, because that would stop the mail. One view at a
// time.
std::variant<std::unique_ptr<MainView>, NoView> OpenView(EventLoop& loop, const ViewContent& content,
                                                         bool folded, MainViewEvents events);

// What has happened to a view that is lost or whose screen has gone, for people: a sentence without its full
// stop.
std::string_view LostViewText();

}  // namespace trabex
