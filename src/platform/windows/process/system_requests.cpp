// What the system asks comes as messages to the loop's window.
#include "platform/system_requests.h"

#include <utility>

#include "platform/windows/loop/event_loop_impl.h"
#include "platform/windows/win.h"

namespace trabex {

namespace {

// What the user reads while the end of the session waits for this program.
constexpr const wchar_t* kReason = L"Trabex is saving its data.";

class WindowRequests final : public SystemRequests {
 public:
  WindowRequests(EventLoop& loop, SystemRequestEvents events) : loop_(loop.GetImpl()) {
    HWND window = loop_.Window();
    loop_.HandleMessage(WM_QUERYENDSESSION, [window](WPARAM, LPARAM) {
      ShutdownBlockReasonCreate(window, kReason);
      return LRESULT{TRUE};
    });
    // The process may be ended as soon as this returns, so what the end has to do is done inside.
    loop_.HandleMessage(WM_ENDSESSION, [window, end = events.end](WPARAM ends, LPARAM) {
      if (ends != 0 && end) end();
      ShutdownBlockReasonDestroy(window);
      return LRESULT{0};
    });
    // What ends a program politely from outside, such as taskkill, closes its windows.
    loop_.HandleMessage(WM_CLOSE, [end = events.end](WPARAM, LPARAM) {
      if (end) end();
      return LRESULT{0};
    });
  }
  ~WindowRequests() override {
    for (const UINT message : {WM_QUERYENDSESSION, WM_ENDSESSION, WM_CLOSE})
      loop_.HandleMessage(message, nullptr);
  }

 private:
  EventLoop::Impl& loop_;
};

}  // namespace

std::unique_ptr<SystemRequests> WatchSystemRequests(EventLoop& loop, SystemRequestEvents events) {
  return std::make_unique<WindowRequests>(loop, std::move(events));
}

bool HangUpIsIgnored() {
  return false;
}

}  // namespace trabex
