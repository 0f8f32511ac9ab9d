// A client that sends mail over TLS from the first byte, in many sessions at a time: the source of bench/tls.
//
//   bench_tls_client relay <port> [option=number]...       each session sends a message; its results are one line:
//                                                          "<messages> <handshakes> <resumed ones> <seconds>"
//   bench_tls_client handshake <port> [option=number]...   each session ends with the server's greeting
//   bench_tls_client idle <port> [option=number]...        opens sessions one by one up to the reply to EHLO, says
//                                                          "idle", and keeps them until a signal ends it
//
//   sessions=20     at a time; idle: all of them
//   count=1000      messages, or handshakes
//   size=4096       bytes of a message
//   stay=0          1: a session sends one message after the other
//   resume=0        1: each handshake but the first resumes the session of one before
//   version=13      the highest version of TLS: 12 or 13
//
// Any reply but the one that belongs there ends it with status 1.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

struct SslDeleter {
  void operator()(SSL* connection) const { SSL_free(connection); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
template <class T>
using SslPtr = std::unique_ptr<T, SslDeleter>;

[[noreturn]] void FailTls(const char* what) {
  char reason[256];
  ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
  throw std::runtime_error(std::string(what) + ": " + reason);
}

[[noreturn]] void FailSystem(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

enum class Mode { kRelay, kHandshake, kIdle };

struct Options {
  Mode mode = Mode::kRelay;
  std::map<std::string, std::size_t, std::less<>> numbers = {
      {"sessions", 20}, {"count", 1000}, {"size", 4096}, {"stay", 0}, {"resume", 0}, {"version", 13}};
  std::uint16_t port = 0;

  std::size_t operator[](std::string_view name) const { return numbers.find(name)->second; }
};

std::size_t NumberOf(std::string_view text) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) throw std::runtime_error("no number");
  return number;
}

Options OptionsOf(int argc, char** argv) {
  const std::map<std::string_view, Mode> modes = {
      {"relay", Mode::kRelay}, {"handshake", Mode::kHandshake}, {"idle", Mode::kIdle}};
  Options options;
  const auto mode = argc < 3 ? modes.end() : modes.find(argv[1]);
  if (mode == modes.end()) throw std::runtime_error("wants: relay|handshake|idle <port> [option=number]...");
  options.mode = mode->second;
  options.port = static_cast<std::uint16_t>(NumberOf(argv[2]));
  for (int at = 3; at < argc; ++at) {
    const std::string_view argument = argv[at];
    const std::size_t sign = argument.find('=');
    const auto number = options.numbers.find(argument.substr(0, sign));
    if (sign == argument.npos || number == options.numbers.end()) throw std::runtime_error("no such option");
    number->second = NumberOf(argument.substr(sign + 1));
  }
  return options;
}

// Lines of a message, with its dot.
std::string ContentOf(std::size_t size) {
  std::string content = "Subject: a message of the benchmark\r\n\r\n";
  while (content.size() + 2 < size) {
    content.append(std::min<std::size_t>(76, size - content.size() - 2), 'x');
    content += "\r\n";
  }
  return content + ".\r\n";
}

class Session;

// What all sessions share.
class Load {
 public:
  explicit Load(const Options& wanted);
  ~Load();
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  // Until all sessions have ended; Mode::kIdle: until all of them wait.
  void Run();

  const Options& options;
  const std::string content;
  std::size_t messages_left = 0;
  std::size_t messages = 0;
  std::size_t handshakes = 0;
  std::size_t resumed = 0;
  SslPtr<SSL_CTX> context;
  SslPtr<SSL_SESSION> session;  // of the last ticket
  int epoll = -1;

 private:
  // How many sessions there may be now.
  std::size_t MaxRunning() const;
  void Begin();
  void Step(Session& running);

  std::size_t to_begin_;
  std::size_t idle_ = 0;
  std::map<Session*, std::unique_ptr<Session>> running_;
};

// One connection. Moves on at each notification as far as it can.
class Session {
 public:
  explicit Session(Load& load);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Returns whether it goes on.
  bool Step();
  bool Idle() const { return state_ == State::kIdle; }

 private:
  enum class State { kGreeting, kHello, kSender, kRecipient, kData, kContent, kQuit, kIdle };

  bool Handshake();
  bool Write();
  // Takes one reply; returns whether there was a whole one.
  bool Read();
  bool Blocked(int result, const char* what);
  // What follows the reply in `state_`; returns whether the session goes on.
  bool Proceed();
  void Say(State state, std::string_view text);

  Load& load_;
  SslPtr<SSL> connection_;
  int socket_ = -1;
  bool secured_ = false;
  State state_ = State::kGreeting;
  std::string_view unsent_;
  std::string reply_;
};

Session::Session(Load& load) : load_(load), connection_(SSL_new(load.context.get())) {
  socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket_ < 0) FailSystem("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(load.options.port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // On loopback it is connected at once.
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    FailSystem("connect");
  const int on = 1;
  ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::fcntl(socket_, F_SETFL, O_NONBLOCK);
  epoll_event event{};
  event.events = EPOLLIN | EPOLLOUT | EPOLLET;
  event.data.ptr = this;
  if (::epoll_ctl(load.epoll, EPOLL_CTL_ADD, socket_, &event) != 0) FailSystem("epoll_ctl");
  SSL_set_fd(connection_.get(), socket_);
  SSL_set_connect_state(connection_.get());
  if (load.options["resume"] == 0 || !load.session) return;
  // The library takes a session out of use when a connection that resumed it gets another ticket.
  const SslPtr<SSL_SESSION> own(SSL_SESSION_dup(load.session.get()));
  SSL_set_session(connection_.get(), own.get());
}

Session::~Session() {
  if (secured_) SSL_shutdown(connection_.get());
  ::close(socket_);
}

bool Session::Blocked(int result, const char* what) {
  const int error = SSL_get_error(connection_.get(), result);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return true;
  FailTls(what);
}

bool Session::Handshake() {
  if (secured_) return true;
  const int result = SSL_do_handshake(connection_.get());
  if (result != 1) return !Blocked(result, "handshake");
  secured_ = true;
  ++load_.handshakes;
  if (SSL_session_reused(connection_.get()) == 1) ++load_.resumed;
  return true;
}

bool Session::Write() {
  while (!unsent_.empty()) {
    std::size_t written = 0;
    const int result = SSL_write_ex(connection_.get(), unsent_.data(), unsent_.size(), &written);
    if (result != 1) return !Blocked(result, "write");
    unsent_.remove_prefix(written);
  }
  return true;
}

bool Session::Read() {
  // Nothing is sent ahead, so what comes in is at most one reply.
  std::array<char, 4096> space;
  std::size_t received = 0;
  const int result = SSL_read_ex(connection_.get(), space.data(), space.size(), &received);
  if (result != 1) return !Blocked(result, "read");
  reply_.append(space.data(), received);
  if (!reply_.ends_with("\r\n")) return Read();
  const std::size_t before_last = reply_.rfind('\n', reply_.size() - 2);
  const std::size_t last = before_last == reply_.npos ? 0 : before_last + 1;
  return reply_.size() < last + 4 || reply_[last + 3] != '-' || Read();
}

void Session::Say(State state, std::string_view text) {
  state_ = state;
  unsent_ = text;
}

bool Session::Proceed() {
  static constexpr std::array<char, 7> kExpected = {'2', '2', '2', '2', '3', '2', '2'};
  if (reply_.front() != kExpected[static_cast<std::size_t>(state_)]) throw std::runtime_error(reply_);
  reply_.clear();
  const auto begin_message = [this] {
    if (load_.messages_left == 0) return Say(State::kQuit, "QUIT\r\n");
    --load_.messages_left;
    Say(State::kSender, "MAIL FROM:<sender@test.example>\r\n");
  };
  switch (state_) {
    case State::kGreeting:
      if (load_.options.mode == Mode::kHandshake) return false;
      Say(State::kHello, "EHLO localhost\r\n");
      break;
    case State::kHello:
      if (load_.options.mode == Mode::kIdle) {
        state_ = State::kIdle;
      } else {
        begin_message();
      }
      break;
    case State::kSender:
      Say(State::kRecipient, "RCPT TO:<recipient@test.example>\r\n");
      break;
    case State::kRecipient:
      Say(State::kData, "DATA\r\n");
      break;
    case State::kData:
      Say(State::kContent, load_.content);
      break;
    case State::kContent:
      ++load_.messages;
      if (load_.options["stay"] != 0) {
        begin_message();
      } else {
        Say(State::kQuit, "QUIT\r\n");
      }
      break;
    case State::kQuit:
      return false;
    case State::kIdle:
      break;
  }
  return true;
}

bool Session::Step() {
  if (!Handshake()) return true;
  while (!Idle()) {
    if (!Write() || !Read()) return true;
    if (!Proceed()) return false;
  }
  return true;
}

Load* the_load = nullptr;  // for the library's call back

Load::Load(const Options& wanted)
    : options(wanted), content(ContentOf(wanted["size"])), context(SSL_CTX_new(TLS_client_method())) {
  if (!context) FailTls("context");
  SSL_CTX* const c = context.get();
  SSL_CTX_set_mode(c, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_options(c, SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_read_ahead(c, 1);
  SSL_CTX_set_max_proto_version(c, options["version"] == 12 ? TLS1_2_VERSION : TLS1_3_VERSION);
  if (options["resume"] != 0) {
    SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    the_load = this;
    SSL_CTX_sess_set_new_cb(c, [](SSL*, SSL_SESSION* fresh) {
      the_load->session.reset(SSL_SESSION_dup(fresh));
      return 0;
    });
  } else {
    SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_OFF);
  }
  epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) FailSystem("epoll_create1");
  if (options.mode == Mode::kRelay) messages_left = options["count"];
  const bool one_each =
      options.mode == Mode::kHandshake || (options.mode == Mode::kRelay && options["stay"] == 0);
  to_begin_ = options[one_each ? "count" : "sessions"];
}

Load::~Load() {
  running_.clear();
  ::close(epoll);
}

std::size_t Load::MaxRunning() const {
  if (options.mode == Mode::kIdle) return idle_ + 1;
  // The first brings the ticket that the others use.
  return options["resume"] != 0 && !session ? 1 : options["sessions"];
}

void Load::Step(Session& running) {
  if (!running.Step()) {
    running_.erase(&running);
  } else if (running.Idle()) {
    ++idle_;
  }
}

void Load::Begin() {
  --to_begin_;
  auto session_object = std::make_unique<Session>(*this);
  Session& begun = *session_object;
  running_.emplace(&begun, std::move(session_object));
  Step(begun);
}

void Load::Run() {
  std::array<epoll_event, 64> events;
  for (;;) {
    while (to_begin_ > 0 && running_.size() < MaxRunning()) Begin();
    if (running_.size() == idle_) return;
    const int count = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
    if (count < 0 && errno != EINTR) FailSystem("epoll_wait");
    for (int at = 0; at < count; ++at) {
      Session& notified = *static_cast<Session*>(events[static_cast<std::size_t>(at)].data.ptr);
      if (!notified.Idle()) Step(notified);
    }
  }
}

void RunAs(const Options& options) {
  Load load(options);
  const Clock::time_point begun = Clock::now();
  load.Run();
  const std::chrono::duration<double> seconds = Clock::now() - begun;
  if (options.mode != Mode::kIdle) {
    std::printf("%zu %zu %zu %.6f\n", load.messages, load.handshakes, load.resumed, seconds.count());
    return;
  }
  std::puts("idle");
  std::fflush(stdout);
  ::pause();
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    RunAs(OptionsOf(argc, argv));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_tls_client: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
