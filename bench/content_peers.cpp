// The peers of bench/content and bench/latency: a source of messages, a sink that throws them away, and a probe of
// how long a command takes. They do as little as they can with the bytes, so that the proxy between them has most
// of the work.
//
//   bench_content_peers sink <port>                          listens on loopback until a signal ends it
//   bench_content_peers source <port> [option=number]...     sends, then says "<messages> <octets> <seconds>"
//   bench_content_peers probe <port> [count=number]          one session of `count` NOOPs, then says the median and
//                                                            the 99th percentile of their round trips in microseconds
//
//   sessions=4        at a time, each over a connection of its own that stays
//   count=2           messages of a session
//   size=50000000     octets of a message
//   chunk=0           0: by DATA; otherwise by BDAT (RFC 3030) with chunks of so many octets, each answered before
//                     the next begins; not less than `size`: one chunk
//   pause=0           microseconds that each session waits after each of its messages; the sessions begin within
//                     the first pause, one after the other
//
// The sink's reply to a message has the number of its octets, and the source compares it with what it sent; the proxy
// may put a header before it. Any other reply than the one that belongs there ends the source with status 1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBlock = 1 << 18;
constexpr std::size_t kMaxHeader = 1000;
constexpr std::string_view kContentEnd = "\r\n.\r\n";

[[noreturn]] void FailSystem(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::size_t NumberOf(std::string_view text) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) throw std::runtime_error("no number");
  return number;
}

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A connected socket that waits in its calls.
class Connection {
 public:
  explicit Connection(int descriptor) : descriptor_(descriptor) {
    const int on = 1;
    ::setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  ~Connection() { ::close(descriptor_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count < 0) FailSystem("send");
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }

  // The next line with its end; "" when the peer has closed.
  std::string_view Line() {
    for (;;) {
      const std::string_view there = Unread();
      const std::size_t end = there.find("\r\n");
      if (end != there.npos) {
        begin_ += end + 2;
        return there.substr(0, end + 2);
      }
      if (!Receive()) return {};
    }
  }

  // Throws away `count` octets; false when the peer has closed before.
  bool DropOctets(std::size_t count) {
    for (;;) {
      const std::size_t taken = std::min(count, Unread().size());
      begin_ += taken;
      count -= taken;
      if (count == 0) return true;
      if (!Receive()) return false;
    }
  }

  // Throws content away up to its end, and returns how many octets it had with that. Whoever sends it waits for
  // the reply to it, so only the last bytes of what is there need a look.
  std::size_t DropContent() {
    std::size_t octets = 0;
    std::string last;
    for (;;) {
      const std::string_view there = Unread();
      octets += there.size();
      last.append(there.substr(there.size() - std::min(there.size(), kContentEnd.size())));
      last.erase(0, last.size() - std::min(last.size(), kContentEnd.size()));
      begin_ = end_;
      if (last == kContentEnd) return octets;
      if (!Receive()) return 0;
    }
  }

 private:
  std::string_view Unread() const { return {block_.get() + begin_, end_ - begin_}; }

  // Adds what comes next to what is unread; false: the peer has closed.
  bool Receive() {
    if (begin_ == end_) begin_ = end_ = 0;
    if (end_ == kBlock) throw std::runtime_error("a line is too long");
    const ssize_t count = ::recv(descriptor_, block_.get() + end_, kBlock - end_, 0);
    if (count < 0 && errno != ECONNRESET) FailSystem("recv");
    if (count <= 0) return false;
    end_ += static_cast<std::size_t>(count);
    return true;
  }

  const int descriptor_;
  std::unique_ptr<char[]> block_ = std::make_unique_for_overwrite<char[]>(kBlock);
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// --- the sink

void Serve(Connection& client) {
  client.Send("220 sink.example ESMTP\r\n");
  std::size_t octets = 0;
  for (;;) {
    const std::string line(client.Line());
    if (line.empty()) return;
    const std::string verb = line.substr(0, 4);
    const auto taken = [&] {
      client.Send("250 " + std::to_string(octets) + " octets\r\n");
      octets = 0;
    };
    if (verb == "EHLO") {
      client.Send("250-sink.example\r\n250-SIZE\r\n250 CHUNKING\r\n");
    } else if (verb == "DATA") {
      client.Send("354 Go on\r\n");
      octets = client.DropContent();
      if (octets == 0) return;
      taken();
    } else if (verb == "BDAT") {
      const std::size_t count = NumberOf(std::string_view(line).substr(5, line.find_first_of(" \r", 5) - 5));
      if (!client.DropOctets(count)) return;
      octets += count;
      if (line.find("LAST") != line.npos) {
        taken();
      } else {
        client.Send("250 Go on\r\n");
      }
    } else if (verb == "QUIT") {
      return client.Send("221 Bye\r\n");
    } else {
      client.Send("250 Ok\r\n");
    }
  }
}

void RunSink(std::uint16_t port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) FailSystem("socket");
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = Loopback(port);
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) FailSystem("bind");
  if (::listen(listener, SOMAXCONN) != 0) FailSystem("listen");
  for (;;) {
    const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) FailSystem("accept4");
    std::thread([descriptor] {
      try {
        Connection client(descriptor);
        Serve(client);
      } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_content_peers: %s\n", error.what());
      }
    }).detach();
  }
}

// --- the source

using Options = std::map<std::string, std::size_t, std::less<>>;

// Base64 lines of 76, of which no octet is a dot.
std::string ContentOf(std::size_t size) {
  static constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string content = "Subject: a message of the benchmark\r\n\r\n";
  for (std::size_t line = 0; content.size() + 2 < size; ++line) {
    const std::size_t length = std::min<std::size_t>(76, size - content.size() - 2);
    for (std::size_t at = 0; at < length; ++at) content += kDigits[(line * 7 + at * 5) % kDigits.size()];
    content += "\r\n";
  }
  return content;
}

class Source {
 public:
  // Both outlive the source.
  Source(std::uint16_t port, const Options& options, const std::string& content)
      : connection_(Connect(port)), options_(options), content_(content) {}

  void Run() {
    Expect("220");
    Say("EHLO source.example\r\n", "250");
    for (std::size_t message = 0; message < options_.at("count"); ++message) {
      Say("MAIL FROM:<sender@test.example>\r\n", "250");
      Say("RCPT TO:<recipient@test.example>\r\n", "250");
      if (options_.at("chunk") == 0) {
        ByData();
      } else {
        ByChunks(options_.at("chunk"));
      }
      std::this_thread::sleep_for(std::chrono::microseconds(options_.at("pause")));
    }
    Say("QUIT\r\n", "221");
  }

  // The sorted round trips of `count` commands.
  std::vector<Clock::duration> Probe(std::size_t count) {
    Expect("220");
    Say("EHLO probe.example\r\n", "250");
    std::vector<Clock::duration> trips;
    for (std::size_t command = 0; command < count; ++command) {
      const Clock::time_point begun = Clock::now();
      Say("NOOP\r\n", "250");
      trips.push_back(Clock::now() - begun);
    }
    Say("QUIT\r\n", "221");
    std::sort(trips.begin(), trips.end());
    return trips;
  }

 private:
  static int Connect(std::uint16_t port) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) FailSystem("socket");
    const sockaddr_in address = Loopback(port);
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      FailSystem("connect");
    }
    return descriptor;
  }

  void ByData() {
    Say("DATA\r\n", "354");
    connection_.Send(content_);
    connection_.Send(".\r\n");
    ExpectOctets(content_.size() + 3);
  }

  void ByChunks(std::size_t size) {
    for (std::size_t at = 0; at < content_.size(); at += size) {
      const std::string_view chunk = std::string_view(content_).substr(at, size);
      const bool last = at + chunk.size() == content_.size();
      connection_.Send("BDAT " + std::to_string(chunk.size()) + (last ? " LAST\r\n" : "\r\n"));
      connection_.Send(chunk);
      if (!last) Expect("250");
    }
    ExpectOctets(content_.size());
  }

  void Say(std::string_view line, std::string_view reply) {
    connection_.Send(line);
    Expect(reply);
  }

  // Returns what follows the reply's code.
  std::string_view Expect(std::string_view code) {
    std::string_view line;
    do line = connection_.Line();
    while (line.size() > 3 && line[3] == '-');
    if (!line.starts_with(code)) {
      throw std::runtime_error("wants " + std::string(code) + ", got " + std::string(line));
    }
    return line.substr(4);
  }

  void ExpectOctets(std::size_t sent) {
    const std::string_view text = Expect("250");
    const std::size_t came = NumberOf(text.substr(0, text.find(' ')));
    if (came < sent || came - sent > kMaxHeader) {
      throw std::runtime_error(std::to_string(came) + " octets came of " + std::to_string(sent));
    }
  }

  Connection connection_;
  const Options& options_;
  const std::string& content_;
};

void RunSource(std::uint16_t port, const Options& options) {
  const std::string content = ContentOf(options.at("size"));
  const std::size_t sessions = options.at("sessions");
  const Clock::time_point begun = Clock::now();
  std::vector<std::thread> threads;
  for (std::size_t session = 0; session < sessions; ++session) {
    threads.emplace_back([&, session] {
      std::this_thread::sleep_for(std::chrono::microseconds(options.at("pause") * session / sessions));
      try {
        Source(port, options, content).Run();
      } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_content_peers: %s\n", error.what());
        std::_Exit(EXIT_FAILURE);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::chrono::duration<double> seconds = Clock::now() - begun;
  const std::size_t messages = sessions * options.at("count");
  std::printf("%zu %zu %.6f\n", messages, messages * content.size(), seconds.count());
}

void RunProbe(std::uint16_t port, const Options& options) {
  const std::size_t count = options.at("count");
  const std::string no_content;
  const auto trips = Source(port, options, no_content).Probe(count);
  const auto microseconds = [&](std::size_t at) {
    return std::chrono::duration<double, std::micro>(trips.at(at)).count();
  };
  std::printf("%.2f %.2f\n", microseconds(count / 2), microseconds(count * 99 / 100));
}

void RunAs(int argc, char** argv) {
  const std::string_view mode = argc < 3 ? "" : argv[1];
  if (mode != "sink" && mode != "source" && mode != "probe")
    throw std::runtime_error("wants: sink|source|probe <port> [option=number]...");
  const auto port = static_cast<std::uint16_t>(NumberOf(argv[2]));
  Options options = {{"sessions", 4}, {"count", 2}, {"size", 50'000'000}, {"chunk", 0}, {"pause", 0}};
  for (int at = 3; at < argc; ++at) {
    const std::string_view argument = argv[at];
    const std::size_t sign = argument.find('=');
    const auto option = options.find(argument.substr(0, sign));
    if (mode == "sink" || sign == argument.npos || option == options.end()) {
      throw std::runtime_error("no such option");
    }
    option->second = NumberOf(argument.substr(sign + 1));
  }
  if (mode == "sink") return RunSink(port);
  if (mode == "probe") return RunProbe(port, options);
  RunSource(port, options);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    RunAs(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_content_peers: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
