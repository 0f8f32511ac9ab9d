// Whole sessions on the dialogue alone: what a client sends, what a server says, answers about names, and
// ends, in any order and any split. The first record holds letters that set the configuration (see Settings);
// each further one is a letter and its bytes, up to the byte FF:
//
//   c bytes   the client sends them              s bytes   the server says them
//   n         a name has the client's address    m         it has not
//   e         the server closes                  f         its connection fails
//   q         the service stops                  h         the client makes the TLS handshake
//
// Whatever they are, after each record holds (see Peers):
// - no byte reaches the server as a command that the dialogue did not take from the client as that command,
//   by the strictest and by the most lenient reading of what the server gets;
// - the octets of a BDAT are never read as commands, whoever answers it;
// - the content that the server gets is the content that was taken from the client, and the header;
// - no command is sent while the reply to another one is owed;
// - the client gets one reply to its connection, to each line and to content, and each that the server gives
//   unasked: it waits for one at most, and for none where its next line is taken;
// - a transaction is open for the dialogue only if it is for a server that goes by its own replies, and an
//   extension is offered only if that server has offered it;
// - nothing that was said before TLS counts after it, nothing is read between, and STARTTLS never reaches the
//   server; who must use TLS gets no further without it;
// - after its end the dialogue takes and sends nothing;
// and any split of the same bytes gives the same output, but for what the client is told where bytes follow
// its STARTTLS in the clear: they end the session in any split.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "command_checks.h"
#include "filter_dependencies.h"
#include "proxy/dialogue/dialogue.h"
#include "proxy/session_log.h"

namespace {

using namespace trabex;

constexpr char kRecordEnd = '\xFF';
constexpr std::size_t kMaxSteps = 100000;

class Greylisting final : public GreylistCheck {
 public:
  GreylistVerdict ShouldDefer(std::optional<std::string_view>, const IPAddress&, std::string_view,
                              std::string_view) override {
    return true;
  }
};

struct Settings {
  explicit Settings(std::string_view letters) {
    const auto has = [&](char letter) { return letters.find(letter) != std::string_view::npos; };
    SetLists(configuration);
    configuration.MaxBadSeq = has('m') ? 2 : 2000000000;
    configuration.ProcessAddressesWithoutBrackets = has('2') ? 2 : has('1') ? 1 : 0;
    configuration.ValidateHELO = has('h') ? 15 : 0;
    configuration.AddReceived = !has('n');
    configuration.MaxSize = has('s') ? 1000 * kFixedPointOne : 0;
    configuration.GreyListing.Enabled = has('d') || has('b');
    configuration.GreyListing.CallbackSenderAction = has('b') ? 3 : 1;
    configuration.LogLevelRemote = configuration.LogLevelServer = 15;
    facts.local = has('l');
    refused = has('r');
    on_tls_port = has('p') && !refused;
    facts.tls_configured = has('t') || on_tls_port;
    facts.server_tls_active = has('v');
    configuration.TLS.Require = has('R') ? 3 : 0;
    configuration.TLS.RequireForAUTH = has('A') ? 0 : 3;
  }

  Configuration configuration = DefaultConfiguration();
  Facts facts;
  bool refused = false;
  bool on_tls_port = false;
};

// A server as it sees itself: it reads what it gets by RFC 5321 and by its own replies, and knows nothing of
// the proxy.
class Server {
 public:
  // What it is about to read.
  bool ReadsContent() const { return dot_content_ || octets_ > 0; }
  bool OwesReply() const { return owes_reply_; }
  bool TransactionOpen() const { return open_; }
  bool Greeted() const { return greetings_ > 0; }
  // How many EHLO and HELO it has accepted.
  int Greetings() const { return greetings_; }
  void NoteTls() { tls_began_ = true; }
  // Whether the reply to the last greeting that it accepted has the keyword in it.
  bool HasOffered(std::string_view keyword) const { return offered_.find(keyword) != std::string::npos; }
  // Whether the MAIL that opened the transaction has it.
  bool TransactionHas(std::string_view keyword) const { return sender_.find(keyword) != std::string::npos; }

  void Gets(std::string_view bytes) {
    while (!bytes.empty()) bytes.remove_prefix(ReadsContent() ? GetsContent(bytes) : GetsByte(bytes));
  }

  // A whole reply with its line ends.
  void Says(std::string_view reply) {
    if (!std::exchange(owes_reply_, false)) return;
    // Greeting, or to content: changes nothing.
    const std::string_view verb = std::exchange(answering_content_, false) ? "" : std::string_view(verb_);
    if (verb == "BDAT" && last_chunk_) open_ = false;
    const std::string_view code = reply.substr(0, 3);
    const bool one_code = HasOneCode(reply, verb == "EHLO");
    if (verb == "AUTH") auth_data_ = LastCode(reply) == "334";
    if (!one_code) return;
    if (code == "250" && (verb == "EHLO" || verb == "HELO")) {
      ++greetings_;
      offered_ = verb == "EHLO" ? ToUpper(reply) : "";
    }
    // A server may keep to the EHLO of before TLS, and refuse the next.
    if (code == "503" && verb == "EHLO" && greetings_ > 0 && std::exchange(tls_began_, false)) ++greetings_;
    if (code == "250" && (verb == "EHLO" || verb == "HELO" || verb == "RSET")) open_ = false;
    const bool opens = verb == "MAIL" || verb == "SEND" || verb == "SOML" || verb == "SAML";
    if (opens && (code == "250" || (code == "355" && verb == "MAIL"))) {
      open_ = true;
      sender_ = ToUpper(commands.back());
    }
    if (code == "354" && verb == "DATA") {
      open_ = false;
      dot_content_ = true;
      content_.clear();
    }
    if (code == "354" && verb == "XEXCH50") octets_ = announced_;
    if (code == "354" && (verb == "XEXCH50" || verb == "DATA")) answering_content_ = owes_reply_ = true;
  }
  // It gives up waiting for authentication data.
  void GivesUpData(std::string_view reply) {
    if (LastCode(reply) != "334") auth_data_ = false;
  }

  // The commands that it has read, whole lines with their ends.
  std::vector<std::string> commands;

 private:
  static std::string_view LastCode(std::string_view reply) {
    reply.remove_suffix(reply.ends_with(kCrLf) ? kCrLf.size() : 0);
    const std::size_t line = reply.rfind(kCrLf);
    return (line == std::string_view::npos ? reply : reply.substr(line + kCrLf.size())).substr(0, 3);
  }
  static bool HasOneCode(std::string_view reply, bool ends_only) {
    const std::string_view code = reply.substr(0, 3);
    if (ends_only) return LastCode(reply) == code;
    while (!reply.empty()) {
      if (reply.substr(0, 3) != code) return false;
      reply.remove_prefix(std::min(reply.find(kCrLf), reply.size() - kCrLf.size()) + kCrLf.size());
    }
    return true;
  }

  // One byte of a command line, read strictly: only CR LF ends it, and no other line end may be in it.
  std::size_t GetsByte(std::string_view bytes) {
    line_ += bytes.front();
    if (!line_.ends_with(kCrLf)) return 1;
    const std::string_view text = std::string_view(line_).substr(0, line_.size() - kCrLf.size());
    // Authentication data goes on as it is, tabs and all.
    std::string shown(text);
    if (auth_data_) std::erase(shown, '\t');
    Require(!HasControlByte(shown));
    Require(!owes_reply_);
    owes_reply_ = true;
    commands.push_back(line_);
    if (!std::exchange(auth_data_, false)) {
      verb_ = ToUpper(FirstWord(text));
      announced_ = 0;
      if (verb_ == "BDAT" || verb_ == "XEXCH50") {
        announced_ = std::stoull(std::string(FirstWord(text.substr(verb_.size() + 1))));
      }
      if (verb_ == "BDAT") {
        octets_ = announced_;
        last_chunk_ = IsLastChunk(text.substr(4));
        Require(open_);
      }
      if (verb_ == "RCPT" || verb_ == "DATA" || verb_ == "XEXCH50") Require(open_);
    }
    line_.clear();
    return 1;
  }

  std::size_t GetsContent(std::string_view bytes) {
    if (octets_ > 0) {
      const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(octets_, bytes.size()));
      octets_ -= taken;
      return taken;
    }
    content_ += bytes.front();
    // The most lenient server ends it at a dot between any two line ends.
    const std::size_t size = content_.size();
    const auto is_end = [](char byte) { return byte == '\r' || byte == '\n' || byte == '\0'; };
    const auto at = [&](std::size_t back) { return content_[size - back]; };
    if (size >= 2 && is_end(at(1)) && at(2) == '.' && (size == 2 || at(3) == '\r' || at(3) == '\n')) {
      // A dot at a line's start, and the CR of the end that is to come.
      Require(at(1) == '\r' && (size == 2 || (size >= 4 && at(3) == '\n' && at(4) == '\r')));
    }
    if (size >= 3 && at(2) == '\r' && at(3) == '.' && (size == 3 || at(4) == '\n')) Require(at(1) == '\n');
    if (content_ == ".\r\n" || content_.ends_with("\r\n.\r\n")) dot_content_ = false;
    return 1;
  }

  std::string line_;
  std::string verb_;
  std::string offered_;
  std::string sender_;
  std::string content_;
  std::uint64_t octets_ = 0;
  std::uint64_t announced_ = 0;
  bool owes_reply_ = true;  // the greeting
  bool answering_content_ = true;
  bool dot_content_ = false;
  bool auth_data_ = false;
  bool last_chunk_ = false;
  int greetings_ = 0;
  bool tls_began_ = false;  // with the client, and no EHLO has come since
  bool open_ = false;
};

// How the bytes of one record come.
enum class Split { kWhole, kBytes, kSevens };

class Peers final : private DialogueActions {
 public:
  Peers(std::string_view letters, Split split) : settings_(letters), split_(split) {
    if (settings_.refused) dialogue_.Say(ReplyKind::kNoPtr, *this);
    if (settings_.on_tls_port) dialogue_.ExpectTls();
  }

  void Play(char kind, std::string_view bytes) {
    if (over_) return;
    switch (kind) {
      case 'c':
        InPieces(bytes, [&](std::string_view piece) {
          unread_.append(piece);
          TakeClientBytes();
          BreakHandshake();
        });
        break;
      case 'h':
        if (AwaitsTls()) Secure();
        break;
      case 's':
        if (dialogue_.phase() == Phase::kTls) break;
        // The client's next line is looked at when all of it has been relayed.
        if (!settings_.refused && server_) {
          InPieces(bytes,
                   [&](std::string_view piece) { dialogue_.OnServerBytes(std::string(piece), *this); });
        }
        break;
      case 'n':
      case 'm':
        if (dialogue_.phase() == Phase::kAsking) {
          const IPAddress client[] = {kClientAddress};
          dialogue_.OnAddresses({kind == 'n', client}, *this);
        }
        break;
      case 'e':
      case 'f':
        if (dialogue_.phase() == Phase::kTls) break;
        if (!settings_.refused && server_) {
          dialogue_.OnServerEnd(kind == 'e' ? Dialogue::ServerEnd::kClosed : Dialogue::ServerEnd::kFailed,
                                *this);
        }
        break;
      case 'q':
        dialogue_.Say(ReplyKind::kShutdown, *this);
        break;
      default:
        return;
    }
    TakeClientBytes();
    BreakHandshake();
    CheckState();
  }

  // All that came out.
  const std::string& ToldClient() const { return to_client_; }
  const std::string& ToldServer() const { return to_server_; }
  Phase LastPhase() const { return dialogue_.phase(); }
  // Whether bytes followed a STARTTLS in the clear.
  bool Injected() const { return injected_; }

 private:
  template <class Take>
  void InPieces(std::string_view bytes, Take take) {
    const std::size_t size = split_ == Split::kWhole ? bytes.size() : split_ == Split::kBytes ? 1 : 7;
    while (!bytes.empty() && !over_) {
      const std::size_t piece = std::min(size, bytes.size());
      take(bytes.substr(0, piece));
      bytes.remove_prefix(piece);
    }
  }

  bool AwaitsTls() const { return dialogue_.phase() == Phase::kTls || dialogue_.phase() == Phase::kStartTls; }

  // What comes in the clear is no handshake: the connection fails.
  void BreakHandshake() {
    if (over_ || !AwaitsTls() || unread_.empty()) return;
    if (dialogue_.phase() == Phase::kStartTls) injected_ = true;
    over_ = true;
  }

  void Secure() {
    Require(unread_.empty());
    settings_.facts.tls_active = true;
    dialogue_.OnSecured();
    greetings_before_tls_ = model_.Greetings();
    model_.NoteTls();
    const DialogueState& state = dialogue_.State();
    Require(state.transaction == Transaction::kNoGreeting && state.offered.Extensions.Lines().empty());
    Require(state.requested.HeloDomain.empty() && state.requested.Sender.empty() && !state.login.ever);
  }

  void TakeClientBytes() {
    for (std::size_t steps = 0; !over_ && !pausing_ && dialogue_.Expected() != ClientBytes::kWait; ++steps) {
      Require(steps < kMaxSteps);
      const ClientBytes expected = dialogue_.Expected();
      const bool is_line = expected == ClientBytes::kLine;
      const bool is_data = dialogue_.phase() == Phase::kAuthData;
      if (is_line) line_ = unread_.substr(0, unread_.find(kCrLf));
      Require(!is_line || octets_ == 0);
      taken_content_ = expected == ClientBytes::kContent;
      sent_content_.clear();
      const std::int64_t before = dialogue_.State().BytesReceived;
      const std::size_t used = dialogue_.OnClientBytes(unread_, *this);
      Require(used <= unread_.size());
      Require(dialogue_.State().BytesReceived - before == static_cast<std::int64_t>(used));
      if (taken_content_) Require(sent_content_ == std::string_view(unread_).substr(0, used));
      taken_content_ = false;
      if (is_line && !is_data && used > 0) octets_ = AnnouncedBy(line_);
      if (is_line && used > 0) ++replies_due_;
      if (!is_line) octets_ -= std::min<std::uint64_t>(octets_, used);
      unread_.erase(0, used);
      if (used == 0) break;
    }
    if (dialogue_.phase() != Phase::kEnding) return;
    over_ = true;
    Require(dialogue_.OnClientBytes(unread_ + "\r\nNOOP\r\n", *this) == 0);
  }

  // Servers take a tab for a blank.
  static std::string WithBlanks(std::string_view line) { return ReplaceAll(line, "\t", " "); }
  // How many octets follow the client's line, for the most lenient reader of a BDAT.
  static std::uint64_t AnnouncedBy(std::string_view line) {
    const std::string blanks = WithBlanks(line);
    const std::string_view command = Trim(blanks);
    const std::string_view verb = FirstWord(command);
    if (!EqualNoCase(verb, "BDAT")) return 0;
    const std::string_view count = FirstWord(Trim(command.substr(verb.size())));
    return static_cast<std::uint64_t>(ParseFixedPoint(count, 1).value_or(0) / kFixedPointOne);
  }

  void CheckState() {
    const DialogueState& state = dialogue_.State();
    if (state.transaction >= Transaction::kGreeted) Require(model_.Greeted());
    if (!over_ && dialogue_.phase() != Phase::kFarewell) {
      Require((state.transaction >= Transaction::kOpen) == model_.TransactionOpen());
    }
    if (dialogue_.phase() == Phase::kCommand && !settings_.refused) {
      Require(!model_.OwesReply() && !model_.ReadsContent());
    }
    if (dialogue_.phase() == Phase::kReply) Require(model_.OwesReply());
    if (!over_) Require(replies_due_ == (ClientWaits(dialogue_.phase()) ? 1 : 0));
    const ExtensionCollection& offered = state.offered.Extensions;
    const Facts& facts = settings_.facts;
    if (facts.tls_configured) Require(!offered.Has("STARTTLS") || !facts.tls_active);
    if (MustNotLogIn()) Require(!offered.Has("AUTH"));
    Require(!state.offered.SmtpUtf8Offered || model_.HasOffered("SMTPUTF8"));
    for (const char* keyword : {"CHUNKING", "XEXCH50"}) {
      Require(!state.offered.Extensions.Has(keyword) || model_.HasOffered(keyword));
    }
  }

  bool MustNotLogIn() const {
    const Facts& facts = settings_.facts;
    return facts.tls_configured && !facts.tls_active && settings_.configuration.TLS.RequireForAUTH != 0;
  }
  // What TLS lets the client say; `verb` is that of a command that goes to the server.
  void CheckTls(std::string_view verb) const {
    const bool before_greeting = FindCommand(verb).before_greeting;
    Require(model_.Greetings() > greetings_before_tls_ || before_greeting);
    Require(verb != "AUTH" || !MustNotLogIn());
    if (settings_.configuration.TLS.Require == 0 || settings_.facts.tls_active) return;
    Require(verb == "EHLO" || verb == "NOOP" || verb == "QUIT");
  }

  // Whether a reply to the client is to come in the phase: to its connection, a command or content.
  static bool ClientWaits(Phase phase) {
    switch (phase) {
      case Phase::kTls:
      case Phase::kServerGreeting:
      case Phase::kAsking:
      case Phase::kReply:
      case Phase::kDotContent:
      case Phase::kChunk:
      case Phase::kOctets:
      case Phase::kContentReply:
        return true;
      default:
        return false;
    }
  }

  // Whether the line, with its end, is the last one of a reply.
  static bool IsLastLine(std::string_view line) { return line.size() < 6 || line[3] != '-'; }

  void ToServer(std::string_view bytes, bool) override {
    Require(!over_ && !AwaitsTls() && server_ && !settings_.refused && !said_farewell_);
    to_server_.append(bytes);
    const std::size_t commands = model_.commands.size();
    const bool content = model_.ReadsContent();
    model_.Gets(bytes);
    if (taken_content_) {
      // Nothing of it was read as a command.
      Require(content && model_.commands.size() == commands);
      sent_content_.append(bytes);
      return;
    }
    // The header opens the content; everything else is one command, with the header after a BDAT.
    if (content) {
      Require(bytes.starts_with("Received: from ") && model_.commands.size() == commands);
      return;
    }
    Require(model_.commands.size() == commands + 1);
    if (dialogue_.phase() == Phase::kReply || dialogue_.phase() == Phase::kChunk) {
      CheckCommand(bytes);
    }
    was_auth_data_ = false;
  }
  void CheckCommand(std::string_view sent) {
    if (was_auth_data_) return Require(sent.substr(0, sent.size() - kCrLf.size()) == line_);
    checks_.Check(sent, dialogue_.State());
    const std::string_view text = sent.substr(0, sent.find(kCrLf));
    const std::string verb = ToUpper(FirstWord(text));
    CheckTls(verb);
    const std::string line = WithBlanks(line_);
    const std::string_view read = Trim(line);
    Require(verb == ToUpper(FirstWord(read)));
    if (verb == "RCPT") {
      Require(!dialogue_.State().requested.SmtpUtf8 || model_.TransactionHas("SMTPUTF8"));
    }
    // What no check rewrites goes as it came, but for the blanks around the verb.
    for (const char* rewritten : {"MAIL", "SEND", "SOML", "SAML", "RCPT", "BDAT", "XEXCH50"}) {
      if (verb == rewritten) return;
    }
    Require(Trim(text.substr(verb.size())) == Trim(read.substr(verb.size())));
  }
  void ToClient(std::string_view reply) override {
    Require(!over_ && dialogue_.phase() != Phase::kTls && reply.ends_with(kCrLf));
    if (reply.starts_with("554 5.5.0 Data behind STARTTLS.")) injected_ = true;
    to_client_.append(reply);
    while (!reply.empty()) {
      const std::string_view line = reply.substr(0, reply.find(kCrLf) + kCrLf.size());
      if (IsLastLine(line)) --replies_due_;
      reply.remove_prefix(line.size());
    }
  }
  void StartTls(std::string_view last_words) override {
    const Facts& facts = settings_.facts;
    Require(!over_ && facts.tls_configured && !facts.tls_active && !model_.TransactionOpen());
    Require(EqualNoCase(Trim(WithBlanks(line_)), "STARTTLS") &&
            unread_.size() == line_.size() + kCrLf.size());
    ToClient(last_words);
  }
  void AskForAddresses(std::string_view host_name) override { Require(!host_name.empty()); }
  void ClientIs(const std::optional<ProxiedConnection>&) override { Require(false); }
  void StartServerTls() override { Require(false); }
  void AskForClientNames() override { Require(false); }
  void GoOnWithoutServer() override { Require(false); }
  void CloseServer() override { server_ = false; }
  void EndAfterPause() override { pausing_ = true; }
  void Log(Side side, std::int32_t level, std::string_view text) override {
    Require(!HasControlByte(FormatSessionLine("R: ", 1, kClientAddress, text)));
    if (side == Side::kServer && level == log_level::kReceived) return HearReply(text);
    if (side == Side::kClient && level == log_level::kReceived) {
      was_auth_data_ = dialogue_.phase() == Phase::kAuthData;
      if (was_auth_data_) Require(text == "***\r\n" || text == "***...");
    }
  }
  void LogFailure(const Error&) override {}

  // The dialogue logs each whole reply before it acts on it; of one that breaks off it relays whole lines.
  void HearReply(std::string_view reply) {
    if (dialogue_.phase() == Phase::kAuthData) model_.GivesUpData(reply);
    const std::size_t last = reply.rfind(kCrLf, reply.size() - kCrLf.size() - 1);
    const std::string_view line = last == std::string_view::npos ? reply : reply.substr(last + kCrLf.size());
    if (IsLastLine(line)) {
      if (!model_.OwesReply()) ++replies_due_;
      model_.Says(reply);
      if (model_.OwesReply()) ++replies_due_;  // to the content that it asks for
    }
    if (dialogue_.phase() == Phase::kFarewell) said_farewell_ = true;
  }

  Settings settings_;
  Split split_;
  StandingClock clock_;
  Greylisting greylisting_;
  Dialogue dialogue_{settings_.configuration, clock_, settings_.facts, &greylisting_};
  CommandChecks checks_{settings_.configuration, settings_.facts};
  Server model_;
  std::string unread_;
  std::string line_;          // that is taken, or was taken last
  std::uint64_t octets_ = 0;  // of a BDAT of the client's, not taken yet
  std::string to_client_;
  std::string to_server_;
  std::string sent_content_;
  int replies_due_ = 1;  // to the client, which begins with waiting for a greeting
  bool taken_content_ = false;
  bool was_auth_data_ = false;
  bool said_farewell_ = false;
  bool server_ = true;
  bool pausing_ = false;
  bool over_ = false;
  int greetings_before_tls_ = 0;
  bool injected_ = false;
};

struct Outcome {
  std::string to_client;
  std::string to_server;
  Phase phase;
  bool injected;

  bool Matches(const Outcome& other) const {
    if (injected != other.injected || to_server != other.to_server) return false;
    return injected || (to_client == other.to_client && phase == other.phase);
  }
};

Outcome Run(std::string_view input, Split split) {
  const std::size_t end = std::min(input.find(kRecordEnd), input.size());
  Peers peers(input.substr(0, end), split);
  input.remove_prefix(std::min(end + 1, input.size()));
  while (!input.empty()) {
    const std::string_view record = input.substr(0, input.find(kRecordEnd));
    if (!record.empty()) peers.Play(record.front(), record.substr(1));
    input.remove_prefix(std::min(record.size() + 1, input.size()));
  }
  return {peers.ToldClient(), peers.ToldServer(), peers.LastPhase(), peers.Injected()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const Outcome whole = Run(input, Split::kWhole);
  Require(Run(input, Split::kBytes).Matches(whole));
  Require(Run(input, Split::kSevens).Matches(whole));
  return 0;
}
