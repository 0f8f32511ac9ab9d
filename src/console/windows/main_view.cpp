// The program's side of the window: it makes the texts of the rows that can be seen and hands them to the
// window's thread (window_link.h).
#include "console/main_view.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "console/windows/main_window.h"
#include "console/windows/window_link.h"
#include "platform/process.h"
#include "platform/windows/loop/thread_posts.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

// How long the end of a view waits for its window to go.
constexpr std::chrono::milliseconds kEndLimit{500};

class WindowView final : public MainView {
 public:
  WindowView(EventLoop& loop, const ViewContent& content, MainViewEvents events)
      : content_(content), events_(std::move(events)), link_(MakeLink(loop)) {}
  ~WindowView() override {
    link_->End();
    link_->WaitForEnd(kEndLimit);
  }
  WindowView(const WindowView&) = delete;
  WindowView& operator=(const WindowView&) = delete;

  const std::shared_ptr<WindowLink>& Link() const { return link_; }

  void Refresh() override {
    const RowRange visible = link_->VisibleRows();
    WindowFrame frame{.status = content_.Status(),
                      .version = content_.Version(),
                      .header = content_.Header(),
                      .total_rows = content_.RowCount(),
                      .first_row = visible.first,
                      .rows = {}};
    // Rows may have gone since the window told what it shows.
    const std::size_t end = std::min(visible.first + visible.count, frame.total_rows);
    for (std::size_t row = visible.first; row < end; ++row) frame.rows.push_back(content_.RowText(row));
    link_->Show(std::move(frame));
  }

 private:
  // Each event becomes a call from the loop, and none once this object has gone.
  std::shared_ptr<WindowLink> MakeLink(EventLoop& loop) {
    const auto on_loop = [posts = ThreadPostsOf(loop), here = std::weak_ptr<char>(here_)](auto action) {
      posts->Post([here, action = std::move(action)] {
        if (!here.expired()) action();
      });
    };
    return std::make_shared<WindowLink>(
        WindowEvents{.scrolled = [this, on_loop] { on_loop([this] { Refresh(); }); },
                     .closed = [this, on_loop] { on_loop([this] { Raise(events_.closed); }); },
                     .folded =
                         [this, on_loop](bool folded) {
                           on_loop([this, folded] {
                             if (const auto handler = events_.folded) handler(folded);
                           });
                         },
                     .lost = [this, on_loop] { on_loop([this] { Raise(events_.lost); }); }});
  }

  // The handler may destroy this object, and with it the one that is called.
  static void Raise(std::function<void()> handler) {
    if (handler) handler();
  }

  const ViewContent& content_;
  const MainViewEvents events_;
  const std::shared_ptr<char> here_ = std::make_shared<char>();
  const std::shared_ptr<WindowLink> link_;
};

// A service's, or that of a task that runs whether its user is logged on or not, cannot be seen.
bool IsDesktopVisible() {
  USEROBJECTFLAGS flags{};
  return GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof flags, nullptr) !=
             FALSE &&
         (flags.dwFlags & WSF_VISIBLE) != 0;
}

}  // namespace

// The window is drawn by this process.
void PrepareProcess(int, char* const*) {
  PrepareStreamsAndRequests();
}

std::optional<NoView> WhyNoView() {
  if (IsDesktopVisible()) return std::nullopt;
  return NoView{NoView::Kind::kNoScreen, "The program runs on a desktop that nobody sees."};
}

std::variant<std::unique_ptr<MainView>, NoView> OpenView(EventLoop& loop, const ViewContent& content,
                                                         bool folded, MainViewEvents events) {
  if (std::optional<NoView> why_not = WhyNoView()) return *std::move(why_not);
  auto view = std::make_unique<WindowView>(loop, content, std::move(events));
  view->Refresh();
  if (!StartMainWindow(view->Link(), folded)) {
    return NoView{NoView::Kind::kUnusable, "There is no thread for the window."};
  }
  return view;
}

std::string_view LostViewText() {
  return "The window could not be made, or has gone";
}

}  // namespace trabex
