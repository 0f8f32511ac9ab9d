#include "report/session_json.h"

#include <gtest/gtest.h>

#include <string>

namespace trabex {
namespace {

using std::chrono::milliseconds;

SessionSnapshot Snapshot() {
  SessionSnapshot session;
  session.id = 0x1234;
  session.client_handle = 7;
  session.client = IPAddress::IPv4(0xC0000201);
  session.state = SessionState::kIdle;
  session.time_in_state = milliseconds(1500);
  session.age = milliseconds(61001);
  return session;
}

std::string Json(const SessionSnapshot& session) {
  std::string out;
  AppendSessionJson(session, out);
  return out;
}

constexpr const char* kBegin =
    R"({"session":"0000000000001234","client":"192.0.2.1","origin":"remote","client_handle":7,)";
constexpr const char* kBytes =
    R"("client_bytes_in":0,"client_bytes_out":0,"server_bytes_in":0,"server_bytes_out":0})";

TEST(SessionJson, WhatIsNotThereIsLeftOut) {
  EXPECT_EQ(Json(Snapshot()), std::string(kBegin) +
                                  R"("client_tls":false,"server_tls":false,"state":"idle",)"
                                  R"("state_seconds":1.500,"duration":61.001,"mail_commands":0,)" +
                                  kBytes + "\n");
}

TEST(SessionJson, TellsAll) {
  AcceptedRecipients recipients;
  for (int i = 0; i < 12; ++i) recipients.Add("u" + std::to_string(i));
  SessionSnapshot session = Snapshot();
  session.server_handle = 8;
  session.is_local = session.client_tls = session.server_tls = true;
  session.name = "host.test";
  session.helo = "client.test";
  session.in_transaction = true;
  session.sender = "";
  session.recipient = "v";
  session.rcpt_commands = 13;
  session.recipients = &recipients;
  session.greylisting = GreylistingResult::kBlacklistedNew;
  session.mail_commands = 3;
  session.last_command = "RCPT";
  session.last_reply = "250 ok";
  session.state = SessionState::kClientName;
  session.client_bytes = {1, 2};
  session.server_bytes = {3, 4000000000};
  EXPECT_EQ(
      Json(session),
      R"({"session":"0000000000001234","client":"192.0.2.1","origin":"local","client_handle":7,)"
      R"("server_handle":8,"client_tls":true,"server_tls":true,"name":"host.test","helo":"client.test",)"
      R"("state":"dns-client","state_seconds":1.500,"duration":61.001,"command":"RCPT","reply":"250 ok",)"
      R"("mail_commands":3,"from":"","to":"v","rcpt_commands":13,"recipients_count":12,)"
      R"("recipients":["u0","u1","u2","u3","u4","u5","u6","u7","u8","u9"],)"
      R"("greylisting":"blacklisted_new","client_bytes_in":1,"client_bytes_out":2,"server_bytes_in":3,)"
      R"("server_bytes_out":4000000000})"
      "\n");
}

TEST(SessionJson, TextsOfClientsAreEscaped) {
  const struct {
    std::string helo;
    std::string json;  // the member, and the next one's quote
  } cases[] = {
      {"a\"b\\c", R"("helo":"a\"b\\c",")"},
      {"a\r\n\x1b[2J\x7f", R"("helo":"a\r\n\u001b[2J\u007f",")"},
      {"gr\xC3\xBC\xC3\x9F \xF0\x9F\x93\xA7", "\"helo\":\"gr\xC3\xBC\xC3\x9F \xF0\x9F\x93\xA7\",\""},
      // Terminals take U+009B for the beginning of a command; U+202E turns the direction; U+E0041 is a tag.
      {"\xC2\x9B"
       "2J",
       R"("helo":"\u009b2J",")"},
      {"a\xE2\x80\xAE\x62\xE2\x80\xA8", R"("helo":"a\u202eb\u2028",")"},
      {"\xF3\xA0\x81\x81", R"("helo":"\udb40\udc41",")"},
      {"a\xFF\x9B", "\"helo\":\"a\xEF\xBF\xBD\xEF\xBF\xBD\",\"helo_hex\":\"61ff9b\",\""},
  };
  for (const auto& c : cases) {
    SessionSnapshot session = Snapshot();
    session.helo = c.helo;
    EXPECT_NE(Json(session).find(c.json), std::string::npos) << Json(session);
  }
}

TEST(SessionJson, IsAppended) {
  std::string out = "\xC2\x9B before\n";
  AppendSessionJson(Snapshot(), out);
  EXPECT_EQ(out, "\xC2\x9B before\n" + Json(Snapshot()));
  SessionSnapshot session = Snapshot();
  const std::string helo = std::string(5000, 'x') + "\xC2\x9B";
  session.helo = helo;
  out = "before\n";
  AppendSessionJson(session, out);
  EXPECT_EQ(out, "before\n" + Json(session));
}

}  // namespace
}  // namespace trabex
