#include "dns_server.h"

#include <gtest/gtest.h>

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

// Not open when the port is taken.
SystemSocket BoundSocket(Transport transport, std::string_view host, std::uint16_t port) {
  SystemSocket socket(transport);
  if (!socket.Bind({ParseIPAddress(host).value(), port})) socket.Close();
  return socket;
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
  Connection(EventLoop& loop, SystemSocket accepted, DnsServer& server)
      : socket(std::move(accepted)),
        watch(loop, socket.Native(), [this, &server](FdReadiness) { server.ReadConnection(*this); }) {
    watch.SetInterest({.readable = true});
  }
  ~Connection() { watch.SetInterest({}); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  SystemSocket socket;
  std::string received;
  FdWatcher watch;
};

DnsServer::DnsServer(EventLoop& loop, std::string host, std::uint16_t port)
    : loop_(loop),
      host_(std::move(host)),
      udp_(BoundSocket(Transport::kUdp, host_, port)),
      listener_(BoundSocket(Transport::kTcp, host_, port)),
      udp_watch_(loop, udp_.Native(), [this](FdReadiness) { ReadQuestions(); }),
      listener_watch_(loop, listener_.Native(), [this](FdReadiness) { AcceptConnection(); }) {
  EXPECT_TRUE(udp_.IsOpen()) << "no port for the DNS server";
  EXPECT_TRUE(listener_.Listen(16));
  udp_watch_.SetInterest({.readable = true});
  listener_watch_.SetInterest({.readable = true});
}

DnsServer::~DnsServer() {
  udp_watch_.SetInterest({});
  listener_watch_.SetInterest({});
}

std::uint16_t DnsServer::FreePort() {
  const auto is_free = [](std::string_view host, std::uint16_t port) {
    return BoundSocket(Transport::kUdp, host, port).IsOpen() &&
           BoundSocket(Transport::kTcp, host, port).IsOpen();
  };
  std::uint16_t port = 0;
  for (int attempt = 0; attempt < 100; ++attempt) {
    port = BoundSocket(Transport::kUdp, "127.0.0.1", 0).Local().port;
    if (is_free("127.0.0.1", port) && is_free(kOtherHost, port)) return port;
  }
  // Wine takes one host's port for the other's too.
  return is_free("127.0.0.1", port) ? port : std::uint16_t{0};
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
    udp_.SendTo(held_.front().second, held_.front().first);
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
  std::size_t size = 0;
  Endpoint from;
  while (udp_.ReceiveFrom(buffer, size, from)) {
    last_port_ = from.port;
    const auto question = Parsed(std::string(buffer.data(), size), false);
    for (const auto& message : Answers(question)) {
      if (hold_) {
        held_.emplace_back(from, message);
      } else {
        udp_.SendTo(message, from);
      }
    }
  }
}

void DnsServer::AcceptConnection() {
  SystemSocket accepted = listener_.Accept();
  if (accepted.IsOpen()) {
    connections_.push_back(std::make_unique<Connection>(loop_, std::move(accepted), *this));
  }
}

// A message over TCP has its length in front.
void DnsServer::ReadConnection(Connection& connection) {
  std::array<char, 2048> buffer;
  std::size_t size = 0;
  if (connection.socket.Receive(buffer, size) != SystemSocket::Outcome::kData) {
    connection.watch.SetInterest({});
    return;
  }
  std::string& received = connection.received;
  received.append(buffer.data(), size);
  while (received.size() >= 2) {
    const std::size_t length =
        static_cast<unsigned char>(received[0]) * 256U + static_cast<unsigned char>(received[1]);
    if (received.size() < length + 2) return;
    const auto question = Parsed(received.substr(2, length), true);
    received.erase(0, length + 2);
    for (const auto& message : Answers(question)) {
      const std::string framed = dns::Number16(message.size()) + message;
      EXPECT_EQ(connection.socket.Send(framed), framed.size());
    }
  }
}

}  // namespace trabex
