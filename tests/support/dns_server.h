// A DNS server on loopback whose behaviour a test sets, name by name. It lives on the test's own loop.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "platform/fd_watcher.h"

namespace trabex {

// A question as it arrived, and the pieces of which answers are made.
struct DnsQuestion {
  std::string name;    // in lower case, without a dot at its end
  int type = 0;        // 1: A, 12: PTR
  std::string packet;  // the whole message
  bool over_tcp = false;
};

namespace dns {

inline constexpr int kA = 1;
inline constexpr int kCname = 5;
inline constexpr int kPtr = 12;

enum class Rcode { kNone = 0, kFormat = 1, kServer = 2, kNoSuchName = 3, kNotImplemented = 4, kRefused = 5 };

inline std::string Number16(std::size_t number) {
  return {static_cast<char>(number >> 8 & 0xFF), static_cast<char>(number & 0xFF)};
}
inline std::string EncodedName(std::string_view name) {
  std::string encoded;
  if (!name.empty()) {
    for (const std::string_view label : Split(name, '.')) {
      encoded += static_cast<char>(label.size());
      encoded += label;
    }
  }
  return encoded + '\0';
}
inline std::string Record(const std::string& encoded_owner, int type, const std::string& data) {
  return encoded_owner + Number16(static_cast<std::size_t>(type)) + Number16(1) +
         std::string("\0\0\0\x3C", 4) + Number16(data.size()) + data;
}
inline std::string AddressData(std::uint32_t address) {
  return Number16(address >> 16) + Number16(address & 0xFFFF);
}
// The question's own name, by reference.
inline const std::string kOwnName = "\xC0\x0C";

// An answer to `question` with `records` of the answer section. `extra_flags` are those of the header's first
// flag byte (2: truncated).
inline std::string Answer(const DnsQuestion& question, const std::vector<std::string>& records,
                          Rcode code = Rcode::kNone, int extra_flags = 0) {
  std::string message = question.packet.substr(0, 2);
  message += static_cast<char>(0x81 | extra_flags);
  message += static_cast<char>(0x80 | static_cast<int>(code));
  message += Number16(1) + Number16(records.size()) + Number16(0) + Number16(0);
  message += question.packet.substr(12);
  for (const auto& record : records) message += record;
  return message;
}
inline std::string AddressAnswer(const DnsQuestion& question, const std::vector<std::uint32_t>& addresses) {
  std::vector<std::string> records;
  for (const std::uint32_t address : addresses) records.push_back(Record(kOwnName, kA, AddressData(address)));
  return Answer(question, records);
}
inline std::string NameAnswer(const DnsQuestion& question, const std::vector<std::string>& names) {
  std::vector<std::string> records;
  for (const auto& name : names) records.push_back(Record(kOwnName, kPtr, EncodedName(name)));
  return Answer(question, records);
}

}  // namespace dns

class DnsServer {
 public:
  // For a second server on the same port.
  static constexpr const char* kOtherHost = "127.0.0.2";

  // The messages to send back, in this order; none: silence.
  using Rule = std::function<std::vector<std::string>(const DnsQuestion&)>;

  // `loop` outlives the server.
  explicit DnsServer(EventLoop& loop) : DnsServer(loop, "127.0.0.1", FreePort()) {}
  // `host` is 127.0.0.1 or kOtherHost.
  DnsServer(EventLoop& loop, std::string host, std::uint16_t port)
      : loop_(loop),
        host_(std::move(host)),
        udp_(BoundSocket(SOCK_DGRAM, host_, port)),
        listener_(BoundSocket(SOCK_STREAM, host_, port)),
        udp_watch_(loop, udp_, [this](FdReadiness) { ReadQuestions(); }),
        listener_watch_(loop, listener_, [this](FdReadiness) { AcceptConnection(); }) {
    EXPECT_GE(udp_, 0) << "no port for the DNS server";
    EXPECT_EQ(listen(listener_, 16), 0);
    udp_watch_.SetInterest({.readable = true});
    listener_watch_.SetInterest({.readable = true});
  }
  ~DnsServer() {
    udp_watch_.SetInterest({});
    listener_watch_.SetInterest({});
    close(udp_);
    close(listener_);
  }
  DnsServer(const DnsServer&) = delete;
  DnsServer& operator=(const DnsServer&) = delete;

  // "127.0.0.1:port", and the parts.
  std::string Address() const { return host_ + ":" + std::to_string(Port()); }
  const std::string& Host() const { return host_; }
  std::uint16_t Port() const { return PortOf(udp_); }

  // What happens for `name`; for anything else "no such name" is answered.
  void Set(std::string_view name, Rule rule) { rules_[ToLower(name)] = std::move(rule); }
  void SetAddresses(std::string_view name, std::vector<std::uint32_t> addresses) {
    Set(name, [addresses = std::move(addresses)](const DnsQuestion& question) {
      return std::vector{dns::AddressAnswer(question, addresses)};
    });
  }
  void SetNames(std::string_view reverse_name, std::vector<std::string> names) {
    Set(reverse_name, [names = std::move(names)](const DnsQuestion& question) {
      return std::vector{dns::NameAnswer(question, names)};
    });
  }
  void SetFailure(std::string_view name, dns::Rcode code) {
    Set(name, [code](const DnsQuestion& question) { return std::vector{dns::Answer(question, {}, code)}; });
  }
  void SetSilent(std::string_view name) {
    Set(name, [](const DnsQuestion&) { return std::vector<std::string>{}; });
  }
  // Anything that is not set.
  void SetDefault(Rule rule) { default_ = std::move(rule); }

  // Answers wait from now on until Release.
  void Hold() { hold_ = true; }
  // Sends the first `most` of the answers that wait.
  void Release(std::size_t most = SIZE_MAX) {
    while (!held_.empty() && most-- > 0) {
      SendTo(held_.front().first, held_.front().second);
      held_.pop_front();
    }
  }
  std::size_t Held() const { return held_.size(); }

  // How often something was asked for, tries counted one by one.
  std::size_t Questions() const { return questions_; }
  std::size_t Questions(std::string_view name) const {
    const auto found = asked_.find(ToLower(name));
    return found == asked_.end() ? 0 : found->second;
  }
  // The port from which the last question came.
  std::uint16_t LastPort() const { return last_port_; }

 private:
  struct Connection {
    Connection(EventLoop& loop, int number, DnsServer& server)
        : socket(number),
          watch(loop, number, [this, &server](FdReadiness) { server.ReadConnection(*this); }) {
      watch.SetInterest({.readable = true});
    }
    ~Connection() {
      watch.SetInterest({});
      close(socket);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int socket;
    std::string received;
    FdWatcher watch;
  };

  // -1 when the port is taken.
  static int BoundSocket(int type, const std::string& host, std::uint16_t port) {
    const int number = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    address.sin_port = htons(port);
    if (bind(number, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return number;
    close(number);
    return -1;
  }
  static std::uint16_t PortOf(int number) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(number, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
  }
  // A port that nobody has, on either host and with either transport.
  static std::uint16_t FreePort() {
    for (int attempt = 0; attempt < 100; ++attempt) {
      const int udp = BoundSocket(SOCK_DGRAM, "127.0.0.1", 0);
      const std::uint16_t port = PortOf(udp);
      const std::array<int, 3> others{BoundSocket(SOCK_STREAM, "127.0.0.1", port),
                                      BoundSocket(SOCK_DGRAM, kOtherHost, port),
                                      BoundSocket(SOCK_STREAM, kOtherHost, port)};
      bool free = true;
      for (const int number : others) {
        if (number < 0) free = false;
        close(number);
      }
      close(udp);
      if (free) return port;
    }
    return 0;
  }

  static DnsQuestion Parsed(std::string packet, bool over_tcp) {
    DnsQuestion question;
    std::size_t at = 12;
    while (at < packet.size() && packet[at] != 0) {
      const auto length = static_cast<std::size_t>(packet[at]);
      if (!question.name.empty()) question.name += '.';
      question.name += packet.substr(at + 1, length);
      at += length + 1;
    }
    if (at + 2 < packet.size()) question.type = packet[at + 2];
    question.name = ToLower(question.name);
    question.packet = std::move(packet);
    question.over_tcp = over_tcp;
    return question;
  }

  std::vector<std::string> Answers(const DnsQuestion& question) {
    ++questions_;
    ++asked_[question.name];
    const auto rule = rules_.find(question.name);
    return rule != rules_.end() ? rule->second(question) : default_(question);
  }

  void ReadQuestions() {
    std::array<char, 2048> room;
    for (;;) {
      sockaddr_in from{};
      socklen_t length = sizeof from;
      const ssize_t size =
          recvfrom(udp_, room.data(), room.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
      if (size < 0) return;
      last_port_ = ntohs(from.sin_port);
      const auto question = Parsed(std::string(room.data(), static_cast<std::size_t>(size)), false);
      for (const auto& message : Answers(question)) {
        if (hold_) {
          held_.emplace_back(from, message);
        } else {
          SendTo(from, message);
        }
      }
    }
  }
  void SendTo(const sockaddr_in& to, const std::string& message) const {
    sendto(udp_, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }

  void AcceptConnection() {
    const int number = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (number >= 0) connections_.push_back(std::make_unique<Connection>(loop_, number, *this));
  }
  // A message over TCP has its length in front.
  void ReadConnection(Connection& connection) {
    std::array<char, 2048> room;
    const ssize_t size = recv(connection.socket, room.data(), room.size(), 0);
    if (size <= 0) {
      connection.watch.SetInterest({});
      return;
    }
    std::string& received = connection.received;
    received.append(room.data(), static_cast<std::size_t>(size));
    while (received.size() >= 2) {
      const std::size_t length =
          static_cast<unsigned char>(received[0]) * 256U + static_cast<unsigned char>(received[1]);
      if (received.size() < length + 2) return;
      const auto question = Parsed(received.substr(2, length), true);
      received.erase(0, length + 2);
      for (const auto& message : Answers(question)) {
        const std::string framed = dns::Number16(message.size()) + message;
        EXPECT_EQ(send(connection.socket, framed.data(), framed.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(framed.size()));
      }
    }
  }

  EventLoop& loop_;
  const std::string host_;
  int udp_;
  int listener_;
  FdWatcher udp_watch_;
  FdWatcher listener_watch_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::map<std::string, Rule> rules_;
  Rule default_ = [](const DnsQuestion& question) {
    return std::vector{dns::Answer(question, {}, dns::Rcode::kNoSuchName)};
  };
  bool hold_ = false;
  std::deque<std::pair<sockaddr_in, std::string>> held_;
  std::size_t questions_ = 0;
  std::map<std::string, std::size_t> asked_;
  std::uint16_t last_port_ = 0;
};

}  // namespace trabex
