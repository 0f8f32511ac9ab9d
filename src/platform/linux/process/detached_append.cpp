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
      if (send(channel_, answer_.data(), answer_.size(), MSG_NOSIGNAL) < 0) _exit(EXIT_SUCCESS);
    }
  }

 private:
  void Take(std::string_view packet) {
    const std::size_t end = std::min(packet.find('\0'), packet.size());
    const std::string path(packet.substr(0, end));
    const std::string_view lines = packet.substr(std::min(end + 1, packet.size()));
    if (lines.empty() || path != path_) file_.Close();
    path_ = path;
    const std::uint64_t lost = lines.empty() ? 0 : CountLines(lines.substr(Write(lines)));
    answer_.assign(reinterpret_cast<const char*>(&lost), sizeof lost);
    if (!lines.empty() && !file_.IsOpen()) answer_.append(file_.WhyNotOpened(), 0, kMaxAnswer - sizeof lost);
  }

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

struct Packet {
  std::string bytes;
  std::uint64_t lines = 0;
};

}  // namespace

struct DetachedAppend::State {
  State(EventLoop& the_loop, Kind the_kind, Events the_events)
      : loop(the_loop), kind(the_kind), events(std::move(the_events)), silence(the_loop, kSilence, [this] {
          silence.Disable();
          events.silent();
        }) {}

  EventLoop& loop;
  Kind kind;
  Events events;
  std::string path;  // of the latest packet
  std::deque<Packet> waiting;
  std::size_t waiting_bytes = 0;
  std::uint64_t dropped = 0;
  bool is_under_way = false;  // the first of the waiting ones
  pid_t process = -1;         // -1: none
  Descriptor channel;
  std::optional<FdWatcher> watch;
  std::chrono::steady_clock::time_point sent_at;  // the one under way
  Timer silence;

  void Add(std::string_view lines) {
    // What is not on its way yet takes more of the same file.
    if (waiting.size() > (is_under_way ? 1U : 0U) && waiting.back().lines > 0 &&
        waiting.back().bytes.size() + lines.size() <= kMaxLines && waiting.back().bytes.starts_with(path) &&
        waiting.back().bytes[path.size()] == '\0') {
      waiting.back().bytes.append(lines);
    } else {
      waiting.push_back({.bytes = path + '\0' + std::string(lines), .lines = 0});
    }
    waiting.back().lines += CountLines(lines);
    waiting_bytes += lines.size();
  }

  void Take(std::string_view lines) {
    while (!lines.empty()) {
      std::size_t size = lines.size();
      if (size > kMaxLines) {
        const std::size_t end = lines.rfind('\n', kMaxLines - 1);
        size = (end != std::string_view::npos ? end : lines.find('\n')) + 1;
      }
      Add(lines.substr(0, size));
      lines.remove_prefix(size);
    }
  }

  // Sends the first packet that waits, unless one is under way.
  void Send() {
    while (!is_under_way && !waiting.empty()) {
      if (process < 0 && !Start()) {
        Conclude({.lost_lines = waiting.front().lines, .why_not_opened = "No process for it"});
        continue;
      }
      const std::string& bytes = waiting.front().bytes;
      if (bytes.size() > kMaxPacket) {
        Conclude({.lost_lines = waiting.front().lines, .why_not_opened = {}});
      } else if (send(channel.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
        is_under_way = true;
        sent_at = std::chrono::steady_clock::now();
        silence.Enable();
      } else {
        Reap();
        Conclude({.lost_lines = waiting.front().lines, .why_not_opened = {}});
      }
    }
  }

  bool Start() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
    channel = Descriptor(ends[0]);
    Descriptor other(ends[1]);
    const int size = kMaxPacket;
    setsockopt(channel.Get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    const pid_t program = getpid();
    {
      const BlockedSignals blocked(AllSignals());
      process = fork();
      if (process == 0) Run(program, other.Get());
    }
    try {
      if (process < 0) throw Error(error_number::kDeviceIo, "DetachedAppend", "Device I/O error");
      watch.emplace(loop, channel.Get(), [this](FdReadiness) { Read(); });
      watch->SetInterest({.readable = true});
      return true;
    } catch (const Error&) {
      End();
      return false;
    }
  }

  [[noreturn]] void Run(pid_t program, int other) const noexcept {
    BeginForkedCopy(program, other);
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
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
    const bool was_under_way = std::exchange(is_under_way, false);
    silence.Disable();
    Answer answer;
    if (got >= static_cast<ssize_t>(sizeof answer.lost_lines)) {
      std::memcpy(&answer.lost_lines, buffer.data(), sizeof answer.lost_lines);
      answer.why_not_opened.assign(buffer.data() + sizeof answer.lost_lines,
                                   static_cast<std::size_t>(got) - sizeof answer.lost_lines);
    } else {
      // Somebody has ended it. What it was writing is not written again, since it may be there.
      if (was_under_way) answer.lost_lines = waiting.front().lines;
      Reap();
    }
    if (was_under_way) Conclude(answer);
    Send();
  }

  // The same of one that writes nothing: it ends now, if it has not.
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

  void Conclude(const Answer& answer) {
    const Packet& packet = waiting.front();
    waiting_bytes -= packet.bytes.size() - packet.bytes.find('\0') - 1;
    waiting.pop_front();
    events.answered(answer);
    if (dropped > 0 && waiting_bytes <= kMaxWaiting / 2) events.dropped(std::exchange(dropped, 0));
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
  state.path = path;
  state.Take(lines);
  state.Send();
}

void DetachedAppend::CloseFile() {
  State& state = *state_;
  if (state.process < 0 && state.waiting.empty()) return;
  state.waiting.push_back({.bytes = state.path + '\0', .lines = 0});
  state.Send();
}

std::uint64_t DetachedAppend::Finish(Milliseconds bound) {
  using std::chrono::steady_clock;
  State& state = *state_;
  // What the disk was given before counts.
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
