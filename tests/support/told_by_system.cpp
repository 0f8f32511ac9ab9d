#include "support/told_by_system.h"

#include <chrono>
#include <stdexcept>
#include <string_view>

#include "support/acknowledgements.h"
#include "support/held_port.h"
#include "support/system_socket.h"

namespace trabex {

namespace {

constexpr std::chrono::seconds kLimit{10};

// Two ends of a connection.
struct Connection {
  Connection() {
    if (!ours.Connect({kIPv4Loopback, port.Port()}) || !ours.Connected(kLimit)) {
      throw std::runtime_error("the test cannot connect");
    }
    listener.AwaitReadable(kLimit);
    peer = listener.Accept();
  }

  HeldPort port;
  SystemSocket listener = port.Listen(1);
  SystemSocket ours{Transport::kTcp};
  SystemSocket peer;
};

}  // namespace

bool ResetsAreTold() {
  static const bool told = [] {
    Connection connection;
    connection.peer.Reset();
    connection.ours.AwaitReadable(kLimit);
    char byte = 0;
    std::size_t received = 0;
    return connection.ours.Receive({&byte, 1}, received) == SystemSocket::Outcome::kReset;
  }();
  return told;
}

std::string AsTold(std::string told) {
  constexpr std::string_view kReset = "(10054)";
  const std::size_t at = told.find(kReset);
  if (at != std::string::npos && !ResetsAreTold()) told.erase(at, kReset.size());
  return told;
}

bool AcknowledgementsAreTold() {
  static const bool told = AreAcknowledgementsTold(Connection().ours);
  return told;
}

}  // namespace trabex
