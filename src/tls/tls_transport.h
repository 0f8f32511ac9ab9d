// The raw bytes under a TLS connection.
#pragma once

#include <cstddef>
#include <span>

namespace trabex {

// Both return 0 or an error number, as sockets have them; 10035: nothing can be done now.
class TlsTransport {
 public:
  static constexpr int kWouldBlock = 10035;

  virtual ~TlsTransport() = default;
  // `received` 0 with result 0 is the end of what the peer sends (`space` is not empty).
  virtual int Receive(std::span<char> space, std::size_t& received) = 0;
  // Whether the last Receive is known to have taken everything, and what comes next is announced.
  virtual bool Drained() const { return false; }
  // `sent` is how much of `bytes` (not empty) was taken: at least one byte when 0 is returned.
  virtual int Send(std::span<const char> bytes, std::size_t& sent) = 0;
};

}  // namespace trabex
