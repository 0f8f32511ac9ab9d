#include "console/main_view.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "support/child_process.h"

namespace trabex {
namespace {

class NoContent final : public ViewContent {
 public:
  std::string Status() const override { return {}; }
  std::string Version() const override { return {}; }
  std::string Header() const override { return {}; }
  std::size_t RowCount() const override { return 0; }
  std::string RowText(std::size_t) const override { return {}; }
};

// Whether both ways to ask give this reason. In a process of its own, with `output` as its standard output.
int ExitStatusForReason(int output, NoView::Kind kind, const std::string& text) {
  ChildProcess child([&] {
    if (dup2(output, STDOUT_FILENO) < 0) return 1;
    const std::optional<NoView> asked = WhyNoView();
    if (!asked || asked->kind != kind || asked->text != text) return 2;
    const SystemClock clock;
    EventLoop loop(clock);
    const NoContent content;
    const auto opened = OpenView(loop, content, false, {});
    const NoView* const refused = std::get_if<NoView>(&opened);
    return refused != nullptr && refused->kind == kind && refused->text == text ? 0 : 3;
  });
  return child.Wait();
}

struct Terminal {
  Terminal() { EXPECT_EQ(openpty(&controller, &side, nullptr, nullptr, nullptr), 0); }
  ~Terminal() {
    if (controller >= 0) close(controller);
    close(side);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void HangUp() { close(std::exchange(controller, -1)); }

  int controller = -1;
  int side = -1;
};

TEST(MainView, HasNoScreenWhereThereIsNoTerminal) {
  const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(ExitStatusForReason(nothing, NoView::Kind::kNoScreen, "Standard output is no terminal."), 0);
  close(nothing);
}

TEST(MainView, AScreenThatHasGoneDoesNotCount) {
  Terminal terminal;
  terminal.HangUp();
  EXPECT_EQ(ExitStatusForReason(terminal.side, NoView::Kind::kNoScreen, "Standard output is no terminal."),
            0);
}

TEST(MainView, ATerminalOfAnotherProcessIsNotUsable) {
  const Terminal terminal;
  EXPECT_EQ(ExitStatusForReason(terminal.side, NoView::Kind::kUnusable,
                                "The terminal is not the one that controls the program."),
            0);
}

}  // namespace
}  // namespace trabex
