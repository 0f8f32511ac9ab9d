// What a peer says after the handshake, and what befalls it on the way. The first byte chooses the version; each
// byte behind it is a step, most with a number in the next one. However the network splits and stops, nothing is
// read that the peer did not say in TLS, in its order; and unless somebody interfered, both ends get all.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "support/memory_transport.h"
#include "support/test_certificates.h"
#include "support/tls_peer.h"
#include "tls/tls_stream.h"

namespace {

using namespace trabex;

void Require(bool holds) {
  if (!holds) __builtin_trap();
}

// Beyond these in one run the connection may end for their number.
constexpr int kMaxKeyUpdates = 50;

std::shared_ptr<const TlsContext> MakeContext() {
  const TestCertificate made = MakeTestCertificate({});
  const std::string file = std::filesystem::temp_directory_path() /
                           ("fuzz_tls_stream" + std::to_string(std::hash<std::string>{}(made.key)));
  std::ofstream(file) << made.certificate << made.key;
  TlsLoadReport report;
  auto context = TlsContext::ForServer({.certificates = {{file, {}}}}, report);
  std::filesystem::remove(file);
  return context;
}

const std::shared_ptr<const TlsContext>& Context() {
  static const std::shared_ptr<const TlsContext> context = MakeContext();
  return context;
}

class Run {
 public:
  explicit Run(bool old) : stream_(Context()), peer_({.max_version = old ? "1.2" : "1.3"}), old_(old) {
    while (stream_.Handshake(network_) != TlsResult::kDone) Carry();
    Carry();
  }

  void Play(std::string_view steps) {
    for (std::size_t at = 0; at < steps.size();) {
      const auto step = static_cast<unsigned char>(steps[at++]);
      const std::size_t number = at < steps.size() ? static_cast<unsigned char>(steps[at++]) : 0;
      const std::size_t rest = steps.size() - at;
      switch (step % 10) {
        case 0:
          Say(std::string(number * number + 1, static_cast<char>('a' + number % 26)));
          break;
        case 1:  // somebody else's bytes
          interfered_ = true;
          network_.input += steps.substr(at, number);
          at += std::min(number, rest);
          break;
        case 2:
          UpdateKeys(number % 2 == 0);
          break;
        case 3:
          if (PeerSpeaks()) peer_.SayGoodbye();
          said_goodbye_ = true;
          break;
        case 4:
          if (network_.input.empty()) break;
          interfered_ = true;
          network_.input[number % network_.input.size()] ^= static_cast<char>(1 << number % 8);
          break;
        case 5:
          network_.portion = number + 1;
          break;
        case 6:
          network_.refuse_receive = EachSoManieth(number % 4);
          network_.refuse_send = EachSoManieth(number / 4 % 4);
          break;
        case 7:
          network_.full = number % 2 == 0;
          break;
        case 8:
          queue_ += std::string(number * number + 1, static_cast<char>('A' + number % 26));
          Send();
          break;
        case 9:
          Read(number + 1);
          break;
      }
      network_.input += peer_.Output();
    }
  }

  void Finish() {
    network_.portion = 100000;
    network_.refuse_receive = 0;
    network_.refuse_send = 0;
    network_.full = false;
    while (Read(1000)) {
    }
    Send();
    Carry();
    while (Read(1000)) {
    }
    Require(std::string_view(said_).starts_with(got_));
    if (interfered_ || updates_ > kMaxKeyUpdates) return;
    Require(got_ == said_);
    Require(stream_.Ended() == said_goodbye_);
    Require(queue_.empty());
    Require(peer_.Text() == sent_);
    Require(peer_.Error().empty());
  }

 private:
  // Not each one: nothing would move any more.
  static int EachSoManieth(std::size_t number) { return number < 2 ? 0 : static_cast<int>(number); }
  bool PeerSpeaks() const { return peer_.Error().empty() && !said_goodbye_; }

  void Carry() {
    network_.input += peer_.Output();
    if (!network_.output.empty()) peer_.Feed(network_.output);
    network_.output.clear();
    network_.input += peer_.Output();
  }
  void Say(const std::string& text) {
    if (!PeerSpeaks()) return;
    peer_.Write(text);
    said_ += text;
  }
  void UpdateKeys(bool answered) {
    if (old_ || !PeerSpeaks()) return;
    ++updates_;
    peer_.UpdateKeys(answered);
  }
  void Send() {
    while (!queue_.empty()) {
      std::size_t written = 0;
      const TlsResult result = stream_.Write(network_, queue_, written);
      Require(written <= queue_.size());
      sent_ += queue_.substr(0, written);
      queue_.erase(0, written);
      if (result == TlsResult::kFailed) return queue_.clear();
      if (network_.full && result == TlsResult::kWantsWrite) return;
    }
  }
  // Whether it is worth while to go on.
  bool Read(std::size_t portion) {
    std::string space(portion, '\0');
    std::size_t received = 0;
    const TlsResult result = stream_.Read(network_, space, received);
    Require(result != TlsResult::kWantsWrite);
    Require((result == TlsResult::kDone) == (received > 0));
    got_.append(space, 0, received);
    return result == TlsResult::kDone || (result == TlsResult::kWantsRead && !stream_.Drained());
  }

  TlsStream stream_;
  TlsPeer peer_;
  MemoryTransport network_;
  bool old_;
  bool interfered_ = false;
  bool said_goodbye_ = false;
  int updates_ = 0;
  std::string said_;   // by the peer
  std::string got_;    // by us
  std::string queue_;  // to the peer
  std::string sent_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  Run run(data[0] % 2 == 0);
  run.Play({reinterpret_cast<const char*>(data) + 1, size - 1});
  run.Finish();
  return 0;
}
