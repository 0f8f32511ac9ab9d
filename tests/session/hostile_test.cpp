// The hostile files in front of a scripted server: their client gets the replies that they name, and nothing
// that is to be refused reaches the server.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/ini_reader.h"
#include "config/read_settings.h"
#include "script/hostile_files.h"
#include "session/session_fixture.h"
#include "support/dialogue_player.h"
#include "support/scripted_server.h"
#include "support/seeds.h"

namespace trabex {
namespace {

// The settings that all of them are played with, and those that the file names.
Configuration SettingsFor(const script::Head& head) {
  std::string ini =
      "[Common]\nBindIP=127.0.0.1\nServerIP=127.0.0.1\nLocalIPs=127.0.0.9\nLocalDomains=local.test\n"
      "SendersBlackList=*@black.test\nRecipientsBlackListRemote=black-*@local.test\nValidateHELO=8\n"
      "HELOBlackList=black-*\nMaxSize=50000\n";
  for (const script::SettingLine& line : head.settings) {
    ini += "[" + line.section + "]\n" + line.key + "=" + line.value + "\n";
  }
  RecordedLog log;
  const IniErrors errors{log, false};
  const SettingContext context{.program_directory = "/",
                               .local_host_name = [] { return std::string("proxy.example"); }};
  SectionStore store;
  Configuration settings = DefaultConfiguration();
  EXPECT_TRUE(mCommon::ReadIniText("x.ini", ini, store, errors)) << ini;
  ReadSettings(store, errors, context, settings);
  return settings;
}

// One way to play a file: `cut` is a place in the sending that is the step `cut_step`; none when that is no
// step.
struct Play {
  Delivery delivery = Delivery::kWhole;
  std::size_t cut_step = static_cast<std::size_t>(-1);
  std::size_t cut = 0;
  bool after_starttls = false;
};

std::vector<Play> PlaysOf(const script::HostileFile& file) {
  std::vector<Play> plays = {{Delivery::kWhole}, {Delivery::kByteByByte}};
  for (std::size_t step = 0; step < file.script.steps.size(); ++step) {
    for (const std::size_t cut : file.script.steps[step].sending.cuts) {
      plays.push_back({Delivery::kWhole, step, cut});
    }
  }
  return plays;
}

// Plays the ordinary dialogue and then the trick; `send` sends what its client says. Returns what went wrong,
// "" for nothing.
template <class Player, class Send>
std::string PlaySteps(Player& player, Send send, const script::HostileFile& file, const Play& play) {
  for (const auto& [line, code] : script::OpeningOf(file)) {
    // There is no second greeting.
    if (line.empty() && play.after_starttls) continue;
    if (!line.empty()) send(line + "\r\n");
    const std::string reply = player.NextReply();
    if (!reply.starts_with(code)) return "before the trick, to \"" + line + "\": " + reply;
  }
  std::vector<script::Step> steps = file.script.steps;
  if (play.cut_step < steps.size()) steps[play.cut_step].sending.segments.push_back(play.cut);
  return player.Play(steps);
}

std::string Violations(const ScriptedServer& server) {
  std::string all;
  for (const std::string& violation : server.Violations()) all += "\n" + violation;
  return all;
}

// Ends the client, and tells what is wrong then.
std::string EndSession(SessionFixture& fixture, const script::HostileFile& file,
                       const ScriptedServer& server) {
  // The client ends in order, and breaks off where that is not noticed because of what it sent ahead.
  fixture.ClientPeer().ShutDownSending();
  fixture.Settle();
  fixture.ClientPeer().Reset();
  const bool ended = fixture.Until([&] {
    fixture.Time.Advance(Milliseconds(100));
    return fixture.Sessions().Count() == 0 || file.script.head.owes;
  });
  return (ended ? "" : "\nthe session stays when the client is gone") + Violations(server);
}

void PrepareSession(SessionFixture& fixture, const script::HostileFile& file, ScriptedServer& server) {
  const std::int32_t port = fixture.Settings.ServerPort;
  fixture.Settings = SettingsFor(file.script.head);
  fixture.Settings.ServerPort = port;
  fixture.Names.SetName(kIPv4Loopback, "localhost");
  fixture.Attend(server);
}

std::string PlayOverLoopback(const script::HostileFile& file, const Play& play, Security security) {
  ScriptedServer server(file.script.head.replies);
  SessionFixture fixture(play.delivery);
  fixture.ClientSecurity = security;
  PrepareSession(fixture, file, server);
  fixture.Start();
  const std::string failure = PlaySteps(
      fixture, [&](std::string_view bytes) { fixture.ClientPeer().Send(bytes); }, file, play);
  return failure + EndSession(fixture, file, server);
}

std::string PlayOnDialogue(const script::HostileFile& file, const Play& play) {
  const Configuration settings = SettingsFor(file.script.head);
  ScriptedServer server(file.script.head.replies);
  FakeClock clock;
  DialoguePlayer player(settings, clock, {.host_name = "localhost", .is_local = false});
  player.SetDelivery(play.delivery);
  player.Attend(server);
  std::string failure = PlaySteps(
      player, [&](std::string_view bytes) { player.ClientSends(bytes); }, file, play);
  player.EndClient();
  if (!player.IsOver() && !file.script.head.owes) failure += "\nthe session stays when the client is gone";
  return failure + Violations(server);
}

// Those that are played over connections: all, unless that takes long.
std::vector<script::HostileFile> FilesForConnections() {
  std::vector<script::HostileFile> files =
      script::ReadHostileFiles(TRABEX_SOURCE_DIR "/tests/system/hostile");
  std::size_t number = 0;
  std::erase_if(files, [&](const script::HostileFile&) { return number++ % SeedDivisor() != 0; });
  return files;
}

// Plays every one of the files in every way.
void PlayAll(const std::vector<script::HostileFile>& files,
             std::string (*play_one)(const script::HostileFile&, const Play&)) {
  std::size_t plays = 0;
  for (const script::HostileFile& file : files) {
    for (const Play& play : PlaysOf(file)) {
      SCOPED_TRACE(file.name + (play.delivery == Delivery::kByteByByte ? ", byte by byte" : "") +
                   (play.cut > 0 ? ", cut at " + std::to_string(play.cut) : ""));
      EXPECT_EQ(play_one(file, play), "");
      ++plays;
    }
  }
  EXPECT_GT(plays, 2 * files.size());
}

TEST(HostileFiles, NothingGetsThroughASession) {
  PlayAll(FilesForConnections(), [](const script::HostileFile& file, const Play& play) {
    return PlayOverLoopback(file, play, Security::kPlain);
  });
}

TEST(HostileFiles, NothingGetsThroughASessionUnderTls) {
  for (const script::HostileFile& file : FilesForConnections()) {
    EXPECT_EQ(PlayOverLoopback(file, {}, Security::kTlsPort), "") << file.name;
  }
}

// Whether it begins behind a greeting and an EHLO, which are the same when they have been there before.
bool MayFollowStarttls(const script::HostileFile& file) {
  const auto& replies = file.script.head.replies;
  return !script::OpeningOf(file).empty() && !replies.contains("greeting") && !replies.contains("EHLO");
}

// The client's first words, and the handshake; "" or what went wrong.
std::string SecureByStarttls(SessionFixture& fixture) {
  const auto exchange = [&](std::string_view line, std::string_view code) {
    if (!line.empty()) fixture.ClientPeer().Send(line);
    return fixture.NextReply().starts_with(code);
  };
  if (!exchange("", "220") || !exchange("EHLO client.test\r\n", "250") || !exchange("STARTTLS\r\n", "220")) {
    return "STARTTLS is not taken";
  }
  return fixture.MakeHandshake() ? "" : "no handshake";
}

// Each byte in a record of its own, that comes by itself; of a very long sending the middle comes at once.
script::HostileFile ByteByByte(script::HostileFile file) {
  constexpr std::size_t kEnds = 200;
  for (script::Step& step : file.script.steps) {
    const std::size_t size = step.sending.bytes.size();
    step.sending.segments.clear();
    for (std::size_t end = 1; end < size; ++end) {
      if (end < kEnds || end + kEnds > size) step.sending.segments.push_back(end);
    }
  }
  return file;
}

// What the client sends under TLS comes in pieces of `wire_piece` bytes.
std::string PlayAfterStarttls(const script::HostileFile& file, std::size_t wire_piece) {
  ScriptedServer server(file.script.head.replies);
  SessionFixture fixture;
  PrepareSession(fixture, file, server);
  fixture.OfferTls();
  fixture.Start();
  fixture.ClientPeer().CutWire(wire_piece);
  std::string failure = SecureByStarttls(fixture);
  if (failure.empty()) {
    failure = PlaySteps(fixture, [&](std::string_view bytes) { fixture.ClientPeer().Send(bytes); }, file,
                        {.after_starttls = true});
  }
  return failure + EndSession(fixture, file, server);
}

// Byte by byte, and with the records cut anywhere on the wire.
TEST(HostileFiles, NothingGetsThroughASessionAfterStarttls) {
  std::size_t plays = 0;
  const auto files = FilesForConnections();
  for (const script::HostileFile& file : files) {
    if (!MayFollowStarttls(file)) continue;
    const std::size_t wire_piece = 1 + plays % 41;
    EXPECT_EQ(PlayAfterStarttls(ByteByByte(file), std::string::npos), "") << file.name << ", byte by byte";
    EXPECT_EQ(PlayAfterStarttls(file, wire_piece), "") << file.name << ", cut into " << wire_piece;
    plays += 2;
  }
  EXPECT_GT(plays, files.size());
}

TEST(HostileFiles, NothingGetsThroughADialogueAlone) {
  const auto files = script::ReadHostileFiles(TRABEX_SOURCE_DIR "/tests/system/hostile");
  EXPECT_GT(files.size(), 500U);
  PlayAll(files, PlayOnDialogue);
}

// The same without the proxy: the check sees what the files say that reaches a scripted server.
TEST(HostileFiles, ReachAServerWithoutTheProxy) {
  for (const script::HostileFile& file :
       script::ReadHostileFiles(TRABEX_SOURCE_DIR "/tests/system/hostile")) {
    const auto& direct = *file.script.head.direct;
    if (std::find(direct.begin(), direct.end(), "scripted") == direct.end()) continue;
    ScriptedServer server(file.script.head.replies);
    for (const auto& [line, code] : script::OpeningOf(file)) {
      if (!line.empty()) server.Take(line + "\r\n");
    }
    for (const script::Step& step : file.script.steps) server.Take(step.sending.bytes);
    server.Take("\r\nRCPT TO:<good@local.test>\r\nDATA\r\n.\r\n");
    server.TakeEnd();
    EXPECT_FALSE(server.Violations().empty()) << file.name;
  }
}

}  // namespace
}  // namespace trabex
