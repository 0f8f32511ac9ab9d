// The event loop on a window's messages.
#include "platform/event_loop.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <utility>

#include "platform/common/call_handler.h"
#include "platform/device_error.h"
#include "platform/windows/loop/event_loop_impl.h"

namespace trabex {

namespace {

using std::chrono::steady_clock;

constexpr Milliseconds kAskAnewInterval{1000};
// A timer that is so late tells of a standstill. The messages of what happened in one may come some time behind it: they are
// sent by a thread of the system's libraries.
constexpr Milliseconds kStandstill{1000};
// Of the window itself, so that it is none of a socket's numbers.
constexpr UINT kWakeMessage = WM_USER + 1;
constexpr wchar_t kWindowClass[] = L"TrabexLoop";

}  // namespace

EventLoop::Impl::Impl(const Clock& the_clock) : clock(the_clock), asked_anew_(steady_clock::now()) {
  WSADATA data{};
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) RaiseDeviceError("EventLoop.EventLoop");
  WNDCLASSEXW window_class{};
  window_class.cbSize = sizeof window_class;
  window_class.lpfnWndProc = &WindowProcedure;
  window_class.hInstance = GetModuleHandleW(nullptr);
  window_class.lpszClassName = kWindowClass;
  RegisterClassExW(&window_class);  // a second loop finds it registered
  window_ = CreateWindowExW(0, kWindowClass, L"Trabex", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr,
                            window_class.hInstance, nullptr);
  if (window_ == nullptr) {
    WSACleanup();
    RaiseDeviceError("EventLoop.EventLoop");
  }
  SetWindowLongPtrW(window_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  thread_posts = std::make_shared<ThreadPosts>(window_, kWakeMessage);
  AddSource(watched_fds);
}

EventLoop::Impl::~Impl() {
  thread_posts->Close();
  SetWindowLongPtrW(window_, GWLP_USERDATA, 0);
  DestroyWindow(window_);
  WSACleanup();
}

LRESULT CALLBACK EventLoop::Impl::WindowProcedure(HWND window, UINT message, WPARAM w, LPARAM l) {
  auto* const loop = reinterpret_cast<Impl*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  return loop != nullptr ? loop->OnWindowMessage(message, w, l) : DefWindowProcW(window, message, w, l);
}

LRESULT EventLoop::Impl::OnWindowMessage(UINT message, WPARAM w, LPARAM l) {
  if (const auto handler = handlers_.find(message); handler != handlers_.end()) {
    ++message_calls_;
    LRESULT result = 0;
    const auto handle = handler->second;  // it may be replaced in the call
    CallHandler([&] { result = (*handle)(w, l); });
    return result;
  }
  if (const MessageTarget* const target = numbers_.Find(message, static_cast<SOCKET>(w))) {
    EventSource* const source = target->source;
    bool called = false;
    // The system's code is above, through which no exception may pass.
    CallHandler([&] {
      called =
          source->OnMessage(target->index, target->generation, WSAGETSELECTEVENT(l), WSAGETSELECTERROR(l));
    });
    if (called) ++message_calls_;
    return 0;
  }
  // Otherwise the system would destroy the window.
  if (message == WM_CLOSE) return 0;
  return DefWindowProcW(window_, message, w, l);
}

void EventLoop::Impl::HandleMessage(UINT message, MessageHandler handler) {
  if (handler) {
    handlers_.insert_or_assign(message, std::make_shared<const MessageHandler>(std::move(handler)));
  } else {
    handlers_.erase(message);
  }
}

void EventLoop::Impl::AddSource(EventSource& source) {
  sources_.push_back(&source);
}

void EventLoop::Impl::RemoveSource(EventSource& source) {
  numbers_.Forget(source);
  // It may be called from one of the sources, so the others keep their places.
  std::replace(sources_.begin(), sources_.end(), &source, static_cast<EventSource*>(nullptr));
}

int EventLoop::Impl::Select(const MessageTarget& target, long events, UINT& number) {
  number = numbers_.Take(target);
  if (number == 0) return WSAENOBUFS;
  if (WSAAsyncSelect(target.socket, window_, number, events) == 0) return 0;
  const int error = WSAGetLastError();
  numbers_.GiveBack(std::exchange(number, 0));
  return error;
}

void EventLoop::Impl::Deselect(SOCKET socket, UINT number, bool open) {
  if (number == 0) return;
  if (open) WSAAsyncSelect(socket, window_, 0, 0);
  numbers_.GiveBack(number);
}

std::optional<Milliseconds> EventLoop::Impl::WaitLimit(Milliseconds wait) const {
  if (work.Waiting()) return Milliseconds{0};
  std::optional<Milliseconds> limit;
  if (wait >= Milliseconds{0}) limit = wait;
  if (const auto deadline = timers.NextDeadline()) {
    // Rounded up: an iteration that wakes just before its timer would find nothing to do.
    const auto until =
        std::max(Milliseconds{0}, std::chrono::ceil<Milliseconds>(*deadline - clock.Monotonic()));
    limit = limit ? std::min(*limit, until) : until;
  }
  return limit;
}

bool EventLoop::Impl::IsAnyDue() const {
  return std::any_of(sources_.begin(), sources_.end(),
                     [](const EventSource* source) { return source != nullptr && source->IsDue(); });
}

void EventLoop::Impl::AwaitMessages(std::optional<Milliseconds> limit) const {
  const Milliseconds longest = IsAnyDue() ? Milliseconds{0} : kAskAnewInterval;
  const auto wait = static_cast<DWORD>(std::min(limit.value_or(longest), longest).count());
  MsgWaitForMultipleObjectsEx(0, nullptr, wait, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
}

std::size_t EventLoop::Impl::DispatchMessages() {
  message_calls_ = 0;
  MSG message{};
  int count = 0;
  for (; count < kMaxMessagesPerIteration && PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) != 0; ++count) {
    DispatchMessageW(&message);
  }
  partial_iterations_ = count < kMaxMessagesPerIteration ? 0 : partial_iterations_ + 1;
  return message_calls_;
}

std::size_t EventLoop::Impl::CallDueAndTimers(MonotonicTime asked) {
  const bool are_timers_next = partial_iterations_ == 0 || partial_iterations_ > kMaxPartialIterations;
  const auto deadline = timers.NextDeadline();
  if (are_timers_next && deadline && *deadline + kStandstill <= asked) {
    for (EventSource* const source : sources_) {
      if (source != nullptr) source->AskAll();
    }
  }
  std::size_t calls = 0;
  for (std::size_t i = 0; i < sources_.size(); ++i) {
    if (sources_[i] != nullptr) calls += sources_[i]->CallDue();
  }
  if (!are_timers_next) return calls;
  partial_iterations_ = 0;
  return calls + timers.CallDue(asked);
}

void EventLoop::Impl::AskAnewIfDue() {
  const auto now = steady_clock::now();
  if (now - asked_anew_ < kAskAnewInterval) return;
  asked_anew_ = now;
  for (EventSource* const source : sources_) {
    if (source != nullptr) source->AskAnew();
  }
}

std::size_t EventLoop::Impl::WorkOnce() {
  ++iteration;
  const MonotonicTime asked = clock.Monotonic();
  std::size_t calls = work.CallPosts();
  calls += thread_posts->CallAll();
  calls += DispatchMessages();
  calls += CallDueAndTimers(asked);
  AskAnewIfDue();
  calls += work.EndIteration();
  std::erase(sources_, nullptr);
  return calls;
}

bool EventLoop::Impl::Iterate(Milliseconds wait) {
  assert(!in_iteration);  // it was run from inside one of its calls
  if (in_iteration) return false;
  in_iteration = true;
  const std::optional<Milliseconds> limit = WaitLimit(wait);
  const auto end = steady_clock::now() + limit.value_or(Milliseconds{0});
  std::size_t calls = 0;
  // A message that reaches nobody, or a look at what was silent, is no reason to end.
  for (std::optional<Milliseconds> left = limit;;) {
    AwaitMessages(left);
    const bool observed = static_cast<bool>(turn_observer);
    const MonotonicTime began = observed ? clock.Monotonic() : MonotonicTime();
    calls = WorkOnce();
    if (observed && turn_observer) turn_observer(clock.Monotonic() - began);
    if (calls > 0) break;
    if (!limit || IsAnyDue()) continue;
    const auto now = steady_clock::now();
    const bool messages_left = partial_iterations_ > 0;
    if (now >= end && !messages_left) break;
    left = messages_left ? Milliseconds{0} : std::chrono::ceil<Milliseconds>(end - now);
  }
  in_iteration = false;
  return calls > 0;
}

}  // namespace trabex
