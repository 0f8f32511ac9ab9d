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

int NewListener() {
  return Checked(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
}

// Nothing can be read or written now, but the connection is open.
bool WouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

std::string AddressText(const sockaddr_in& address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
  return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
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

Server::Server(std::uint16_t port, MailFolder& folder, const SessionOptions& options)
    : folder_(folder), options_(options), listener_(NewListener()) {
  const int on = 1;
  Checked(::setsockopt(listener_.Number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "SO_REUSEADDR");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  socklen_t size = sizeof address;
  Checked(::bind(listener_.Number(), reinterpret_cast<sockaddr*>(&address), size), "bind");
  Checked(::listen(listener_.Number(), SOMAXCONN), "listen");
  Checked(::getsockname(listener_.Number(), reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  port_ = ntohs(address.sin_port);
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
  sockaddr_in address{};
  socklen_t size = sizeof address;
  const int number = ::accept4(listener_.Number(), reinterpret_cast<sockaddr*>(&address), &size,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
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
