// What the system tells of a connection, and what is done where it does not.
#pragma once

#include <cstdint>

#include "platform/windows/win.h"

namespace trabex {

// The system's TCP_INFO_v0, which the headers here do not have yet.
struct TcpInfo {
  int state;
  ULONG segment_size;
  ULONG64 connection_milliseconds;
  BOOLEAN timestamps;
  ULONG round_trip_microseconds;
  ULONG shortest_round_trip_microseconds;
  ULONG bytes_in_flight;
  ULONG congestion_window;
  ULONG send_window;
  ULONG receive_window;
  ULONG receive_buffer;
  ULONG64 bytes_out;  // with those that were sent again
  ULONG64 bytes_in;
  ULONG bytes_reordered;
  ULONG bytes_sent_again;
  ULONG fast_retransmissions;
  ULONG repeated_acknowledgements;
  ULONG timeouts;
  UCHAR starts_sent_again;
};

// Returns 0 or an error of the system: one before Windows 10's version 1703 has no such answer.
int AskTcpInfo(SOCKET socket, TcpInfo& info);

// Of the bytes that were handed over, those that the peer has acknowledged.
std::uint64_t AcknowledgedBytes(const TcpInfo& info);

// For a connection that was made just now. Where the system does not say what the peer has acknowledged, all that shows
// that a slow peer reads is that the system takes more. It takes as much as its buffer holds, so that must be little.
void LetSendsShowProgress(SOCKET socket);

}  // namespace trabex
