#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>
#include <vector>

namespace sample {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

// A client takes up to two descriptors, and 1024 is the usual limit of a process.
constexpr std::size_t kMaxClients = 400;
constexpr std::size_t kReadBytes = 64 * 1024;
// RFC 5321, 4.5.3.2.7: a server waits at least this long for the next command.
constexpr std::chrono::minutes kIdleTime{5};
constexpr std::chrono::milliseconds kIdleCheck{5000};

int Checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

int NewListener(Loopback loopback) {
  const int family = loopback == Loopback::kIPv6 ? AF_INET6 : AF_INET;
  return Checked(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
}

// An address and port of either family.
struct SocketAddress {
  sockaddr* Pointer() { return reinterpret_cast<sockaddr*>(&storage); }
  sockaddr_in& IPv4() { return reinterpret_cast<sockaddr_in&>(storage); }
  sockaddr_in6& IPv6() { return reinterpret_cast<sockaddr_in6&>(storage); }
  // The ports of both stand in the same place.
  std::uint16_t Port() { return ntohs(IPv4().sin_port); }

  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
};

SocketAddress AddressOf(Loopback loopback, std::uint16_t port) {
  SocketAddress address;
  if (loopback == Loopback::kIPv6) {
    address.IPv6().sin6_family = AF_INET6;
    address.IPv6().sin6_addr = in6addr_loopback;
    address.IPv6().sin6_port = htons(port);
    address.size = sizeof(sockaddr_in6);
  } else {
    address.IPv4().sin_family = AF_INET;
    address.IPv4().sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.IPv4().sin_port = htons(port);
    address.size = sizeof(sockaddr_in);
  }
  return address;
}

// Nothing can be read or written now, but the connection is open.
bool WouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

std::string AddressText(SocketAddress& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const std::string port = ":" + std::to_string(address.Port());
  if (address.storage.ss_family == AF_INET6) {
    ::inet_ntop(AF_INET6, &address.IPv6().sin6_addr, text.data(), text.size());
    return "[" + std::string(text.data()) + "]" + port;
  }
  ::inet_ntop(AF_INET, &address.IPv4().sin_addr, text.data(), text.size());
  return text.data() + port;
}

// Reads away what has arrived: a connection that is closed with unread input is reset, and what was said last
// would not reach the client. Stops after a while, for a client that never stops.
void DropInput(int socket_number) {
  std::array<char, kReadBytes> buffer;
  for (int i = 0; i < 16 && ::recv(socket_number, buffer.data(), buffer.size(), 0) > 0; ++i) {
  }
}

}  // namespace

Descriptor::~Descriptor() {
  ::close(number_);
}

Server::Client::Client(int socket_number, SmtpSession new_session)
    : socket(socket_number),
      session(std::move(new_session)),
      output(SmtpSession::Greeting()),
      last_activity(std::chrono::steady_clock::now()) {}

Server::Server(Loopback loopback, std::uint16_t port, MailFolder& folder, const SessionOptions& options)
    : folder_(folder), options_(options), listener_(NewListener(loopback)) {
  const int on = 1;
  Checked(::setsockopt(listener_.Number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "SO_REUSEADDR");
  SocketAddress address = AddressOf(loopback, port);
  Checked(::bind(listener_.Number(), address.Pointer(), address.size), "bind");
  Checked(::listen(listener_.Number(), SOMAXCONN), "listen");
  Checked(::getsockname(listener_.Number(), address.Pointer(), &address.size), "getsockname");
  port_ = address.Port();
}

void Server::Run(int end_descriptor) {
  std::vector<pollfd> polled;
  for (;;) {
    polled.clear();
    polled.push_back({end_descriptor, POLLIN, 0});
    polled.push_back({clients_.size() < kMaxClients ? listener_.Number() : -1, POLLIN, 0});
    for (const Client& client : clients_) {
      const bool writing = !client.output.empty();
      polled.push_back({client.socket.Number(), static_cast<short>(writing ? POLLOUT : POLLIN), 0});
    }
    if (::poll(polled.data(), polled.size(), static_cast<int>(kIdleCheck.count())) < 0 && errno != EINTR) {
      Checked(-1, "poll");
    }
    if (polled[0].revents != 0) break;

    const SteadyTime now = std::chrono::steady_clock::now();
    std::size_t index = 2;
    for (auto client = clients_.begin(); client != clients_.end(); ++index) {
      bool open = now - client->last_activity < kIdleTime;
      if (polled[index].revents != 0) {
        client->last_activity = now;
        open = client->output.empty() ? Read(*client) : Write(*client);
      }
      client = open ? std::next(client) : clients_.erase(client);
    }
    if (polled[1].revents != 0) Accept();
  }
  for (Client& client : clients_) {
    client.output.append("421 4.3.2 sample.example is shutting down\r\n");
    Write(client);
    DropInput(client.socket.Number());
  }
  clients_.clear();
}

void Server::Accept() {
  SocketAddress address;
  const int number =
      ::accept4(listener_.Number(), address.Pointer(), &address.size, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (number < 0) return;
  const int on = 1;
  ::setsockopt(number, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  clients_.emplace_back(number, SmtpSession(folder_, options_, AddressText(address)));
  if (!Write(clients_.back())) clients_.pop_back();
}

bool Server::Read(Client& client) {
  std::array<char, kReadBytes> buffer;
  const ssize_t count = ::recv(client.socket.Number(), buffer.data(), buffer.size(), 0);
  if (count < 0) return WouldBlock();
  if (count == 0) return false;
  client.session.Take({buffer.data(), static_cast<std::size_t>(count)}, client.output);
  return Write(client);
}

bool Server::Write(Client& client) {
  while (!client.output.empty()) {
    const ssize_t count =
        ::send(client.socket.Number(), client.output.data(), client.output.size(), MSG_NOSIGNAL);
    if (count < 0) return WouldBlock();
    client.output.erase(0, static_cast<std::size_t>(count));
  }
  if (!client.session.Ended()) return true;
  DropInput(client.socket.Number());
  return false;
}

}  // namespace sample
