// What an open session does or waits for, for people who look at it.
#pragma once

#include <cstdint>
#include <string_view>

namespace trabex {

enum class SessionState : std::uint8_t {
  kBalancer,        // a balancer has to say whose connection it is
  kClientTls,       // the TLS handshake with the client
  kClientName,      // waits for DNS: the name of the client
  kServerConnect,   // the connection to the server, with what we and it agree on first
  kServerGreeting,  // waits for the server's greeting
  kIdle,            // waits for the client's next command
  kHeloLookup,      // waits for DNS: the name in HELO or EHLO
  kServerReply,     // waits for the server's reply to a command
  kContent,         // content runs
  kContentReply,    // waits for the server's reply to the content
  kClientTakes,     // the client has not taken all that was said to it
  kRefused,         // the client was refused, and only the proxy talks to it
  kEnding,
};
inline constexpr std::size_t kSessionStates = 13;

// Its name for people and programs: lower case letters and "-", 10 characters at most.
std::string_view SessionStateName(SessionState state);

// What the states have in common for who only glances at them.
enum class SessionStateGroup : std::uint8_t { kOther, kWaitsForDns, kWaitsForServer, kContent, kRefused };
SessionStateGroup GroupOf(SessionState state);

}  // namespace trabex
