// One end of a connection that is only in memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>

#include "tls/tls_transport.h"

namespace trabex {

// What one end sends and receives. It can give and take little at a time, and refuse to take.
class MemoryTransport final : public TlsTransport {
 public:
  int Receive(std::span<char> space, std::size_t& received) override {
    received = 0;
    ++receives;
    if (input.empty()) return ended ? receive_error : kWouldBlock;
    if (Refused(receive_calls_, refuse_receive)) return kWouldBlock;
    received = input.copy(space.data(), std::min(space.size(), portion));
    input.erase(0, received);
    taken += received;
    return 0;
  }
  bool Drained() const override { return announces && input.empty(); }
  int Send(std::span<const char> bytes, std::size_t& sent) override {
    sent = 0;
    ++sends;
    if (send_error != 0) return send_error;
    if (full || Refused(send_calls_, refuse_send)) return kWouldBlock;
    sent = std::min(bytes.size(), portion);
    output.append(bytes.data(), sent);
    return 0;
  }

  std::string input;
  std::string output;
  std::size_t portion = static_cast<std::size_t>(-1);  // at most at a time
  int refuse_receive = 0;                              // each so manieth call; 0: none
  int refuse_send = 0;
  bool full = false;
  bool ended = false;  // no more input follows
  int receive_error = 0;
  int send_error = 0;
  bool announces = false;  // it says when it has been drained
  int receives = 0;
  int sends = 0;
  std::size_t taken = 0;

 private:
  static bool Refused(int& calls, int each) { return each != 0 && ++calls % each == 0; }

  int receive_calls_ = 0;
  int send_calls_ = 0;
};

}  // namespace trabex
