#include "platform/detached_append.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <exception>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "base/error.h"
#include "platform/fd_watcher.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/process/forked_copy.h"
#include "platform/linux/process/signals.h"

namespace trabex {

namespace {

// Of the lines in one packet, which is a path, a zero and lines; a single line may be longer. Without lines: the file is
// closed.
constexpr std::size_t kMaxLines = std::size_t{64} * 1024;
// What a packet can have at most, as the system's usual limit for a socket allows it.
constexpr std::size_t kMaxPacket = std::size_t{200} * 1024;
// The answer: a number and, where the file was not opened, the reason.
constexpr std::size_t kMaxAnswer = 4096;
// How long the process may take to end when it has nothing to write, in milliseconds.
constexpr int kMaxEnding = 1000;

std::uint64_t CountLines(std::string_view text) {
  return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

// The work of the process.
class Writer {
 public:
  Writer(int channel, DetachedAppend::Kind kind) : channel_(channel), kind_(kind) {}

  [[noreturn]] void Run() {
    std::vector<char> buffer(kMaxPacket);
    for (;;) {
      const ssize_t got = recv(channel_, buffer.data(), buffer.size(), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) _exit(EXIT_SUCCESS);  // the program has ended the channel, or itself
      Take({buffer.data(), static_cast<std::size_t>(got)});
      // Also when nobody is there any more: what is still in the channel is written.
      static_cast<void>(send(channel_, answer_.data(), answer_.size(), MSG_NOSIGNAL));
    }
  }

 private:
  void Take(std::string_view packet) {
    const std::size_t end = std::min(packet.find('\0'), packet.size());
    const std::string_view lines = packet.substr(std::min(end + 1, packet.size()));
    SetAnswer(CountLines(lines));
    try {
      const std::string path(packet.substr(0, end));
      if (lines.empty() || path != path_) file_.Close();
      path_ = path;
      if (lines.empty()) return;
      SetAnswer(CountLines(lines.substr(Write(lines))));
      if (!file_.IsOpen()) answer_.append(file_.WhyNotOpened(), 0, kMaxAnswer - answer_.size());
    } catch (const std::bad_alloc&) {
      // The answer says how many lines are lost by now.
    }
  }

  // Needs no memory.
  void SetAnswer(std::uint64_t lost) { answer_.assign(reinterpret_cast<const char*>(&lost), sizeof lost); }

  std::size_t Write(std::string_view lines) {
    if (!file_.IsOpen()) {
      if (kind_.make_folder) CreateFolder(FolderOf(path_));
      if (!file_.Open(path_, kind_.readers)) return 0;
    }
    // A line that was cut off stays so, but it does not take the next one with it.
    if (file_.EndsInsideLine() && !file_.Write(kind_.line_end)) return 0;
    return file_.WriteSome(lines);
  }

  int channel_;
  DetachedAppend::Kind kind_;
  std::string path_;
  AppendFile file_;
  std::string answer_;
};

// Without lines: the file is to be closed.
struct Packet {
  std::string bytes;
  std::uint64_t lines = 0;
};

}  // namespace

// No function here raises anything: it is about a log, which often has the last word about a memory that is used up.
struct DetachedAppend::State {
  State(EventLoop& the_loop, Kind the_kind, Events the_events)
      : loop(the_loop), kind(the_kind), events(std::move(the_events)), silence(the_loop, kSilence, [this] {
          silence.Disable();
          Tell(events.silent);
        }) {}

  EventLoop& loop;
  Kind kind;
  Events events;
  std::string path;  // of the latest packet
  std::deque<Packet> waiting;
  std::size_t waiting_bytes = 0;
  std::uint64_t dropped = 0;
  bool close_is_due = false;  // before the next lines
  bool is_under_way = false;  // the first of the waiting ones
  bool is_second_try =
      false;           // of the same: the process to which it was given first had ended before it took it
  pid_t process = -1;  // -1: none
  Descriptor channel;
  std::optional<FdWatcher> watch;
  std::chrono::steady_clock::time_point sent_at;  // the one under way
  Timer silence;

  // What there is no memory for is not told; each listener counts before it says something.
  template <class Event, class... What>
  static void Tell(const Event& event, const What&... what) {
    try {
      event(what...);
    } catch (const std::bad_alloc&) {
    }
  }

  void TellAnswer(std::uint64_t lost, std::string_view why_not_opened) {
    Answer answer{.lost_lines = lost, .why_not_opened = {}};
    try {
      answer.why_not_opened = why_not_opened;
    } catch (const std::bad_alloc&) {
    }
    Tell(events.answered, answer);
  }

  // Raises std::bad_alloc, as the two below: then nothing has changed.
  void Push(Packet packet) {
    const std::size_t size = packet.bytes.size();
    waiting.push_back(std::move(packet));
    waiting_bytes += size;
  }

  void PushClose() {
    close_is_due = true;
    if (waiting.empty() || waiting.back().lines > 0) Push({.bytes = path + '\0', .lines = 0});
    close_is_due = false;
  }

  void Add(std::string_view lines) {
    const std::uint64_t count = CountLines(lines);
    // What is not on its way yet takes more of the same file.
    if (waiting.size() > (is_under_way ? 1U : 0U) && waiting.back().lines > 0 &&
        waiting.back().bytes.size() + lines.size() <= kMaxLines && waiting.back().bytes.starts_with(path) &&
        waiting.back().bytes[path.size()] == '\0') {
      waiting.back().bytes.append(lines);
      waiting.back().lines += count;
      waiting_bytes += lines.size();
    } else {
      std::string bytes;
      bytes.reserve(path.size() + 1 + lines.size());
      bytes.append(path).append(1, '\0').append(lines);
      Push({.bytes = std::move(bytes), .lines = count});
    }
  }

  // Returns what there was no memory for.
  std::string_view Take(const std::string& the_path, std::string_view lines) {
    try {
      if (close_is_due) PushClose();
      path = the_path;
      while (!lines.empty()) {
        std::size_t size = lines.size();
        if (size > kMaxLines) {
          const std::size_t end = lines.rfind('\n', kMaxLines - 1);
          size = (end != std::string_view::npos ? end : lines.find('\n')) + 1;
        }
        Add(lines.substr(0, size));
        lines.remove_prefix(size);
      }
    } catch (const std::bad_alloc&) {
    }
    return lines;
  }

  // Sends the first packet that waits, unless one is under way.
  void Send() {
    while (!is_under_way && !waiting.empty()) {
      if (process < 0 && !Start()) {
        Conclude(waiting.front().lines, "No process for it");
        continue;
      }
      const std::string& bytes = waiting.front().bytes;
      if (bytes.size() > kMaxPacket) {
        Conclude(waiting.front().lines, {});
      } else if (send(channel.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
        is_under_way = true;
        sent_at = std::chrono::steady_clock::now();
        AwaitSilence();
      } else {
        LoseUntaken();
      }
    }
  }

  void AwaitSilence() {
    try {
      silence.Enable();
    } catch (const std::bad_alloc&) {
      // Nobody is told of this one.
    }
  }

  // The process has ended before it took the first packet: another one is given it, but no third one.
  void LoseUntaken() {
    Reap();
    if (!std::exchange(is_second_try, true)) return;
    Conclude(waiting.front().lines, {});
  }

  bool Start() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
    channel = Descriptor(ends[0]);
    Descriptor other(ends[1]);
    const int size = kMaxPacket;
    setsockopt(channel.Get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    {
      const BlockedSignals blocked(AllSignals());
      process = fork();
      if (process == 0) Run(other.Get());
    }
    try {
      if (process < 0) throw Error(error_number::kDeviceIo, "DetachedAppend", "Device I/O error");
      watch.emplace(loop, channel.Get(), [this](FdReadiness) { Read(); });
      watch->SetInterest({.readable = true});
      return true;
    } catch (const std::exception&) {
      Reap();
      return false;
    }
  }

  // The program may be killed at any moment; its lines that are in the channel are written all the same, and then the
  // channel ends.
  [[noreturn]] void Run(int other) const noexcept {
    CloseAllButOne(other);
    try {
      Writer(other, kind).Run();
    } catch (...) {
      _exit(EXIT_FAILURE);
    }
  }

  // Ends the channel, at whose end the process ends as soon as its disk lets it.
  void End() {
    watch.reset();
    channel.Close();
    if (process > 0) waitpid(process, nullptr, WNOHANG);
    process = -1;
    is_under_way = false;
    silence.Disable();
  }

  void Read() {
    std::array<char, kMaxAnswer> buffer;
    const ssize_t got = recv(channel.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    const int error = got < 0 ? errno : 0;
    if (error == EINTR || error == EAGAIN) return;
    const bool was_under_way = std::exchange(is_under_way, false);
    silence.Disable();
    std::uint64_t lost = 0;
    if (got >= static_cast<ssize_t>(sizeof lost)) {
      std::memcpy(&lost, buffer.data(), sizeof lost);
      const auto size = static_cast<std::size_t>(got) - sizeof lost;
      if (was_under_way) Conclude(lost, {buffer.data() + sizeof lost, size});
    } else if (error == ECONNRESET && was_under_way) {
      LoseUntaken();  // the system says this when something in the channel was not read
    } else {
      // Somebody has ended it. What it was writing is not written again, since it may be there.
      Reap();
      if (was_under_way) Conclude(waiting.front().lines, {});
    }
    Send();
  }

  // Ends the channel of a process that has nothing to write, and waits for its end.
  void Reap() {
    const pid_t ending = std::exchange(process, -1);
    End();
    if (ending < 0) return;
    for (int i = 0; i < kMaxEnding && waitpid(ending, nullptr, WNOHANG) == 0; ++i) poll(nullptr, 0, 1);
  }

  void EndOrReap() {
    if (is_under_way) {
      End();
    } else {
      Reap();
    }
  }

  // Takes the first packet away and tells what became of it.
  void Conclude(std::uint64_t lost, std::string_view why_not_opened) {
    const bool has_lines = waiting.front().lines > 0;
    waiting_bytes -= waiting.front().bytes.size();
    waiting.pop_front();
    is_second_try = false;
    if (has_lines) TellAnswer(lost, why_not_opened);
    if (dropped > 0 && waiting_bytes <= kMaxWaiting / 2) Tell(events.dropped, std::exchange(dropped, 0));
  }
};

DetachedAppend::DetachedAppend(EventLoop& loop, Kind kind, Events events)
    : state_(std::make_unique<State>(loop, kind, std::move(events))) {}

DetachedAppend::~DetachedAppend() {
  state_->EndOrReap();
}

void DetachedAppend::Append(const std::string& path, std::string_view lines) {
  State& state = *state_;
  if (lines.empty()) return;
  if (state.dropped > 0 || state.waiting_bytes + lines.size() > kMaxWaiting) {
    state.dropped += CountLines(lines);
    return;
  }
  const std::string_view untaken = state.Take(path, lines);
  if (!untaken.empty()) state.TellAnswer(CountLines(untaken), {});
  state.Send();
}

void DetachedAppend::CloseFile() {
  State& state = *state_;
  if (state.process < 0 && state.waiting.empty()) return;
  try {
    state.PushClose();
  } catch (const std::bad_alloc&) {
    // It stays due.
  }
  state.Send();
}

std::uint64_t DetachedAppend::Finish(Milliseconds bound) {
  using std::chrono::steady_clock;
  State& state = *state_;
  // A packet that the disk has had for some time already has only the rest of the bound.
  const auto end = (state.is_under_way ? state.sent_at : steady_clock::now()) + bound;
  while (state.is_under_way) {
    const auto left = std::chrono::ceil<Milliseconds>(end - steady_clock::now());
    if (left <= Milliseconds{0}) break;
    pollfd answer{state.channel.Get(), POLLIN, 0};
    if (poll(&answer, 1, static_cast<int>(left.count())) > 0) state.Read();
  }
  state.EndOrReap();
  std::uint64_t lost = std::exchange(state.dropped, 0);
  for (const Packet& packet : state.waiting) lost += packet.lines;
  state.waiting.clear();
  state.waiting_bytes = 0;
  return lost;
}

}  // namespace trabex
