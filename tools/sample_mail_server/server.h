// The sample mail server's sockets: one thread, one poll loop, loopback only. Nothing waits for a client, and
// what is kept for one is bounded: a client that does not read its replies is not read from either.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <string>

#include "mail_folder.h"
#include "smtp_session.h"

namespace sample {

// A descriptor that is closed with its owner.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Number() const { return number_; }

 private:
  int number_;
};

// The address that it listens on: 127.0.0.1 or ::1.
enum class Loopback { kIPv4, kIPv6 };

class Server {
 public:
  // Listens on `port` (0: any free port). Throws std::system_error when it cannot. `folder` and `options`
  // outlive the server.
  Server(Loopback loopback, std::uint16_t port, MailFolder& folder, const SessionOptions& options);

  std::uint16_t Port() const { return port_; }
  // Serves until `end_descriptor` can be read; then every client gets a 421, as far as it can take it at
  // once.
  void Run(int end_descriptor);

 private:
  struct Client {
    Client(int socket_number, SmtpSession new_session);

    Descriptor socket;
    SmtpSession session;
    std::string output;  // not sent yet
    std::chrono::steady_clock::time_point last_activity;
  };

  void Accept();
  // Both return false when the connection has ended.
  bool Read(Client& client);
  bool Write(Client& client);

  MailFolder& folder_;
  const SessionOptions& options_;
  Descriptor listener_;
  std::uint16_t port_ = 0;
  std::list<Client> clients_;
};

}  // namespace sample
