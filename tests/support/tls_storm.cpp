// tls_storm: clients that give a TLS port more to do than any client needs, for the system tests.
//
//   tls_storm handshakes ADDRESS PORT RATE SECONDS
//     so many connections a second; each ends when its handshake is done
//   tls_storm key-updates ADDRESS PORT CLIENTS RATE SECONDS
//     so many clients at a time, each with so many key updates a second; one that is cut off comes again
//
// In the end it prints "<handshakes> <key updates> <clients that were cut off> <milliseconds that it took>". On
// a busy machine handshakes come more slowly than they should, but no fewer.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "base/ip_address.h"
#include "support/system_socket.h"
#include "support/tls_peer.h"

namespace trabex {
namespace {

using Clock = std::chrono::steady_clock;

// Unfinished ones at a time.
constexpr std::size_t kMaxHandshakes = 100;

struct Totals {
  std::size_t handshakes = 0;
  std::size_t updates = 0;
  std::size_t cut_off = 0;
  std::size_t milliseconds = 0;
};

// How many of something that comes `rate` times a second are due since `begin`.
std::size_t Due(Clock::time_point begin, std::size_t rate) {
  const std::chrono::duration<double> since = Clock::now() - begin;
  return static_cast<std::size_t>(since.count() * static_cast<double>(rate));
}

class Client {
 public:
  explicit Client(const Endpoint& server)
      : socket_(Transport::kTcp, server.address.IsIPv6() ? AddressFamily::kIPv6 : AddressFamily::kIPv4) {
    if (!socket_.Connect(server) || !socket_.Connected(std::chrono::seconds(5))) {
      throw std::runtime_error("cannot connect");
    }
  }

  // Takes what has come and sends what is to be sent. False when the connection is over.
  bool Step() {
    std::array<char, 16384> space;
    std::size_t received = 0;
    SystemSocket::Outcome outcome = socket_.Receive(space, received);
    for (; outcome == SystemSocket::Outcome::kData; outcome = socket_.Receive(space, received)) {
      tls_.Feed({space.data(), received});
      tls_.Text().clear();
    }
    unsent_ += tls_.Output();
    unsent_.erase(0, socket_.Send(unsent_));
    return outcome == SystemSocket::Outcome::kNothingYet && tls_.Error().empty() && !tls_.Ended();
  }
  bool Secured() const { return tls_.Established() && unsent_.empty(); }
  // Makes the key updates that are due at `rate` a second; returns how many. What was missed for long is
  // missed, so that they never come faster than that.
  std::size_t UpdateKeys(std::size_t rate) {
    if (!Secured()) return 0;
    if (!secured_at_) secured_at_ = Clock::now();
    const std::size_t due = Due(*secured_at_, rate);
    const std::size_t made = std::min(due - updates_, std::max<std::size_t>(1, rate / 100));
    for (std::size_t at = 0; at < made; ++at) tls_.UpdateKeys(false);
    updates_ = due;
    return made;
  }

 private:
  SystemSocket socket_;
  TlsPeer tls_{{}};
  std::string unsent_;
  std::size_t updates_ = 0;
  std::optional<Clock::time_point> secured_at_;
};

// One turn of all `clients`: those that are done or over are taken out.
void StepHandshakes(std::list<Client>& clients, Totals& totals) {
  for (auto client = clients.begin(); client != clients.end();) {
    const bool goes_on = client->Step();
    const bool done = client->Secured();
    totals.handshakes += done ? 1 : 0;
    totals.cut_off += done || goes_on ? 0 : 1;
    client = done || !goes_on ? clients.erase(client) : std::next(client);
  }
}

void StepKeyUpdates(std::list<Client>& clients, std::size_t rate, Totals& totals) {
  for (auto client = clients.begin(); client != clients.end();) {
    const bool was_secured = client->Secured();
    const bool goes_on = client->Step();
    totals.handshakes += !was_secured && client->Secured() ? 1 : 0;
    totals.cut_off += goes_on ? 0 : 1;
    if (goes_on) totals.updates += client->UpdateKeys(rate);
    client = goes_on ? std::next(client) : clients.erase(client);
  }
}

std::size_t NumberOf(const char* text) {
  return std::stoul(text);
}

Totals Run(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (!(mode == "handshakes" && argc == 6) && !(mode == "key-updates" && argc == 7)) {
    throw std::runtime_error(
        "wants: handshakes ADDRESS PORT RATE SECONDS | key-updates ADDRESS PORT CLIENTS RATE SECONDS");
  }
  const std::optional<IPAddress> address = ParseIPAddress(argv[2]);
  if (!address) throw std::runtime_error("no address: " + std::string(argv[2]));
  const Endpoint server{*address, static_cast<std::uint16_t>(NumberOf(argv[3]))};
  const std::size_t rate = NumberOf(argv[argc - 2]);
  const Clock::time_point begin = Clock::now();
  const Clock::time_point end = begin + std::chrono::seconds(NumberOf(argv[argc - 1]));
  std::list<Client> clients;
  Totals totals;
  std::size_t begun = 0;
  const std::size_t wanted = mode == "handshakes" ? rate * NumberOf(argv[argc - 1]) : 0;
  while (mode == "handshakes" ? begun < wanted || !clients.empty() : Clock::now() < end) {
    if (mode == "handshakes") {
      for (; begun < std::min(wanted, Due(begin, rate)) && clients.size() < kMaxHandshakes; ++begun) {
        clients.emplace_back(server);
      }
      StepHandshakes(clients, totals);
    } else {
      if (clients.size() < NumberOf(argv[4])) clients.emplace_back(server);
      StepKeyUpdates(clients, rate, totals);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  totals.milliseconds = static_cast<std::size_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
  return totals;
}

}  // namespace
}  // namespace trabex

int main(int argc, char** argv) {
  try {
    const trabex::Totals totals = trabex::Run(argc, argv);
    std::printf("%zu %zu %zu %zu\n", totals.handshakes, totals.updates, totals.cut_off, totals.milliseconds);
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tls_storm: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
