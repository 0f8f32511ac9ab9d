#include "dns_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "base/text.h"

namespace trabex {

namespace dns {

std::string Number16(std::size_t number) {
  return {static_cast<char>(number >> 8 & 0xFF), static_cast<char>(number & 0xFF)};
}

std::string EncodedName(std::string_view name) {
  std::string encoded;
  if (!name.empty()) {
    for (const std::string_view label : Split(name, '.')) {
      encoded += static_cast<char>(label.size());
      encoded += label;
    }
  }
  return encoded + '\0';
}

std::string Record(const std::string& encoded_owner, int type, const std::string& data) {
  return encoded_owner + Number16(static_cast<std::size_t>(type)) + Number16(1) +
         std::string("\0\0\0\x3C", 4) + Number16(data.size()) + data;
}

std::string AddressData(const IPAddress& address) {
  const auto bytes = address.Bytes();
  return {bytes.begin(), bytes.end()};
}

std::string Answer(const DnsQuestion& question, const std::vector<std::string>& records, Rcode code,
                   int extra_flags) {
  std::string message = question.packet.substr(0, 2);
  message += static_cast<char>(0x81 | extra_flags);
  message += static_cast<char>(0x80 | static_cast<int>(code));
  message += Number16(1) + Number16(records.size()) + Number16(0) + Number16(0);
  message += question.packet.substr(12);
  for (const auto& record : records) message += record;
  return message;
}

std::string AddressAnswer(const DnsQuestion& question, const std::vector<IPAddress>& addresses) {
  std::vector<std::string> records;
  for (const IPAddress& address : addresses) {
    const int type = address.IsIPv6() ? kAaaa : kA;
    if (type == question.type) records.push_back(Record(kOwnName, type, AddressData(address)));
  }
  return Answer(question, records);
}

std::string NameAnswer(const DnsQuestion& question, const std::vector<std::string>& names) {
  std::vector<std::string> records;
  for (const auto& name : names) records.push_back(Record(kOwnName, kPtr, EncodedName(name)));
  return Answer(question, records);
}

}  // namespace dns

namespace {

// -1 when the port is taken.
int BoundSocket(int type, const std::string& host, std::uint16_t port) {
  const int number = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  address.sin_port = htons(port);
  if (bind(number, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return number;
  close(number);
  return -1;
}

std::uint16_t PortOf(int number) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(number, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

DnsQuestion Parsed(std::string packet, bool over_tcp) {
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

}  // namespace

struct DnsServer::Connection {
  Connection(EventLoop& loop, int number, DnsServer& server)
      : socket(number), watch(loop, number, [this, &server](FdReadiness) { server.ReadConnection(*this); }) {
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

DnsServer::DnsServer(EventLoop& loop, std::string host, std::uint16_t port)
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

DnsServer::~DnsServer() {
  udp_watch_.SetInterest({});
  listener_watch_.SetInterest({});
  close(udp_);
  close(listener_);
}

std::uint16_t DnsServer::FreePort() {
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

std::uint16_t DnsServer::Port() const {
  return PortOf(udp_);
}

void DnsServer::SetAddresses(std::string_view name, std::vector<IPAddress> addresses) {
  Set(name, [addresses = std::move(addresses)](const DnsQuestion& question) {
    return std::vector{dns::AddressAnswer(question, addresses)};
  });
}

void DnsServer::SetNames(std::string_view reverse_name, std::vector<std::string> names) {
  Set(reverse_name, [names = std::move(names)](const DnsQuestion& question) {
    return std::vector{dns::NameAnswer(question, names)};
  });
}

void DnsServer::SetFailure(std::string_view name, dns::Rcode code) {
  Set(name, [code](const DnsQuestion& question) { return std::vector{dns::Answer(question, {}, code)}; });
}

void DnsServer::SetSilent(std::string_view name) {
  Set(name, [](const DnsQuestion&) { return std::vector<std::string>{}; });
}

void DnsServer::Release(std::size_t max_replies) {
  while (!held_.empty() && max_replies-- > 0) {
    SendTo(held_.front().first, held_.front().second);
    held_.pop_front();
  }
}

std::size_t DnsServer::Questions(std::string_view name) const {
  const auto found = asked_.find(ToLower(name));
  return found == asked_.end() ? 0 : found->second.size();
}

std::vector<int> DnsServer::AskedTypes(std::string_view name) const {
  const auto found = asked_.find(ToLower(name));
  return found == asked_.end() ? std::vector<int>() : found->second;
}

std::vector<std::string> DnsServer::Answers(const DnsQuestion& question) {
  ++questions_;
  asked_[question.name].push_back(question.type);
  const auto rule = rules_.find(question.name);
  return rule != rules_.end() ? rule->second(question) : default_(question);
}

void DnsServer::ReadQuestions() {
  std::array<char, 2048> buffer;
  for (;;) {
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t size =
        recvfrom(udp_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (size < 0) return;
    last_port_ = ntohs(from.sin_port);
    const auto question = Parsed(std::string(buffer.data(), static_cast<std::size_t>(size)), false);
    for (const auto& message : Answers(question)) {
      if (hold_) {
        held_.emplace_back(from, message);
      } else {
        SendTo(from, message);
      }
    }
  }
}

void DnsServer::SendTo(const sockaddr_in& to, const std::string& message) const {
  sendto(udp_, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

void DnsServer::AcceptConnection() {
  const int number = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (number >= 0) connections_.push_back(std::make_unique<Connection>(loop_, number, *this));
}

// A message over TCP has its length in front.
void DnsServer::ReadConnection(Connection& connection) {
  std::array<char, 2048> buffer;
  const ssize_t size = recv(connection.socket, buffer.data(), buffer.size(), 0);
  if (size <= 0) {
    connection.watch.SetInterest({});
    return;
  }
  std::string& received = connection.received;
  received.append(buffer.data(), static_cast<std::size_t>(size));
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

}  // namespace trabex
