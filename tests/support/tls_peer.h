// The other end of a TLS connection, as a test holds it: the library itself, so that the program's own layer
// is not tested against itself. It has no socket; the test carries the bytes.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/test_certificates.h"

namespace trabex {

struct TlsPeerOptions {
  bool server = false;
  TestCertificate certificate{};         // its own; empty: none
  std::string server_name{};             // that it asks for
  std::vector<std::string> protocols{};  // that it offers (ALPN)
  std::string min_version{};             // "1.2"; empty: whatever the library has
  std::string max_version{};
  std::string ciphers{};            // for 1.2 and older; empty: all but those without a certificate
  std::string groups{};             // empty: the library's
  std::string authority{};          // PEM; empty: it verifies nothing
  std::shared_ptr<void> session{};  // to be resumed, from Session
  std::size_t padding = 0;          // 1.3: records are filled up to a multiple of it
};

class TlsPeer {
 public:
  explicit TlsPeer(const TlsPeerOptions& options);
  ~TlsPeer();
  TlsPeer(const TlsPeer&) = delete;
  TlsPeer& operator=(const TlsPeer&) = delete;

  // Takes what came from the network.
  void Feed(std::string_view bytes);
  // Takes what is to be sent; a client has its hello there from the beginning.
  std::string Output();

  bool Established() const;
  // What was said to it so far and not taken yet.
  std::string& Text() { return text_; }
  // The other end has said that nothing more comes.
  bool Ended() const { return ended_; }
  // What went wrong, as the library calls it; empty: nothing.
  const std::string& Error() const { return error_; }

  // Only once the handshake is done.
  void Write(std::string_view text);
  void SayGoodbye();
  // New keys for what it sends; `answered`: the other end is asked for the same.
  void UpdateKeys(bool answered);
  // Asks for a new handshake (1.2).
  void Renegotiate();

  std::string Version() const;
  std::string Cipher() const;
  std::string Group() const;
  std::string Protocol() const;  // that was chosen
  std::string PeerName() const;  // the common name of the other end
  std::size_t PeerChainLength() const;
  bool PeerHasRsaKey() const;
  bool WasAskedForCertificate() const;
  bool Resumed() const;
  // For a later connection; empty while there is nothing that could be resumed.
  std::shared_ptr<void> Session() const;
  // How many tickets it was given.
  int Tickets() const { return tickets_; }

 private:
  struct Impl;
  void Proceed();
  void Note(int result);

  std::unique_ptr<Impl> impl_;
  std::string text_;
  std::string error_;
  bool ended_ = false;
  int tickets_ = 0;
};

}  // namespace trabex
