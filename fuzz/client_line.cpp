// What a client sends, in any state of the session. The first line holds letters that set the state and the
// configuration (see ClientSession), the rest is the client's bytes: lines, and content where a BDAT
// announces some; the server accepts whatever it gets. No byte reaches it as a command that was not read as
// that command.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/ip_address.h"
#include "base/text.h"
#include "command_checks.h"
#include "filter_dependencies.h"
#include "proxy/dialogue/dialogue.h"
#include "proxy/session_log.h"

namespace {

using namespace trabex;

class Greylisting final : public GreylistCheck {
 public:
  GreylistVerdict ShouldDefer(std::optional<std::string_view>, const IPAddress&, std::string_view,
                              std::string_view) override {
    return defers;
  }

  bool defers = false;
};

class ClientSession final : private DialogueActions {
 public:
  explicit ClientSession(std::string_view letters) {
    const auto has = [&](char letter) { return letters.find(letter) != std::string_view::npos; };
    SetLists(configuration_);
    configuration_.MaxBadSeq = 2000000000;
    configuration_.ProcessAddressesWithoutBrackets = has('2') ? 2 : has('1') ? 1 : 0;
    configuration_.ValidateHELO = has('h') ? 15 : 0;
    configuration_.AddReceived = !has('n');
    configuration_.GreyListing.Enabled = has('d');
    configuration_.GreyListing.CallbackSenderAction = has('b') ? 3 : 1;
    greylisting_.defers = has('d');
    facts_.local = has('l');
    DialogueState state;
    state.phase = has('a') ? Phase::kAuthData : Phase::kCommand;
    state.transaction = has('r')   ? Transaction::kRefused
                        : has('c') ? Transaction::kChunks
                        : has('t') ? Transaction::kOpen
                        : has('g') ? Transaction::kGreeted
                                   : Transaction::kNoGreeting;
    state.requested.RecipientCount = has('t');
    state.requested.SmtpUtf8 = has('u');
    state.offered.SmtpUtf8Offered = has('u');
    state.offered.SizeLimit = has('s') ? 1000 * kFixedPointOne : 0;
    if (!has('x')) {
      state.offered.Extensions.AddExtension("CHUNKING");
      state.offered.Extensions.AddExtension("XEXCH50");
    }
    dialogue_.emplace(configuration_, clock_, facts_, &greylisting_, std::move(state));
  }

  void Takes(std::string_view bytes) {
    while (!bytes.empty()) {
      is_line_ = dialogue_->Expected() == ClientBytes::kLine;
      line_ = bytes.substr(0, bytes.find(kCrLf));
      authentication_data_ = dialogue_->phase() == Phase::kAuthData;
      refused_ = dialogue_->State().transaction == Transaction::kRefused;
      const std::size_t used = dialogue_->OnClientBytes(bytes, *this);
      Require(used <= bytes.size());
      bytes.remove_prefix(used);
      if (dialogue_->phase() == Phase::kAsking) {
        const IPAddress client[] = {kClientAddress};
        dialogue_->OnAddresses({true, client}, *this);
      } else if (used == 0) {
        return;
      }
      if (dialogue_->phase() == Phase::kReply) dialogue_->OnServerBytes("250 ok\r\n", *this);
    }
  }

 private:
  void ToServer(std::string_view bytes, bool) override {
    Require(!refused_ || authentication_data_);
    if (!is_line_) return;
    if (authentication_data_) {
      Require(bytes.substr(0, bytes.size() - kCrLf.size()) == line_);
    } else {
      checks_.Check(bytes, dialogue_->State());
    }
  }
  void ToClient(std::string_view reply) override { Require(reply.size() > 4 && reply.ends_with(kCrLf)); }
  void StartTls(std::string_view) override { Require(false); }
  void ClientIs(const std::optional<ProxiedConnection>&) override { Require(false); }
  void StartServerTls() override { Require(false); }
  void AskForClientNames() override { Require(false); }
  void GoOnWithoutServer() override { Require(false); }
  void AskForAddresses(std::string_view host_name) override { Require(!host_name.empty()); }
  void CloseServer() override {}
  void EndAfterPause() override {}
  void Log(Side side, std::int32_t level, std::string_view text) override {
    Require(!HasControlByte(FormatSessionLine("R: ", 1, kClientAddress, text)));
    if (authentication_data_ && level == log_level::kReceived && side == Side::kClient) {
      Require(text.find("***") != std::string_view::npos);
    }
  }
  void LogFailure(const Error&) override {}

  Configuration configuration_ = DefaultConfiguration();
  StandingClock clock_;
  Facts facts_;
  Greylisting greylisting_;
  CommandChecks checks_{configuration_, facts_};
  std::optional<Dialogue> dialogue_;
  bool is_line_ = false;   // what is taken is a line
  std::string_view line_;  // that line, without its end
  bool authentication_data_ = false;
  bool refused_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  ClientSession session(input.substr(0, end));
  session.Takes(input.substr(std::min(end + 1, input.size())));
  return 0;
}
