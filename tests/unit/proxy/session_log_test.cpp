#include "proxy/session_log.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

TEST(SessionLog, TheLineHasItsFieldsInTheirWidths) {
  const struct {
    const char* tag;
    std::int32_t handle;
    const char* address;
    const char* text;
    const char* line;
  } rows[] = {
      {"S: ", 7, "127.0.0.1", "> NOOP", "S: {     7} [      127.0.0.1] > NOOP"},
      {"R: ", 123456, "192.168.100.200", "Connected.", "R: {123456} [192.168.100.200] Connected."},
      {"R: ", 0, "1.2.3.4", "", "R: {     0} [        1.2.3.4] "},
      {"R: ", 12345678, "1.2.3.4", "x", "R: {12345678} [        1.2.3.4] x"},
      // A longer address is not cut.
      {"R: ", 7, "::1", "Connected.", "R: {     7} [            ::1] Connected."},
      {"R: ", 7, "2001:db8:1:2:3:4:5:6", "Connected.", "R: {     7} [2001:db8:1:2:3:4:5:6] Connected."},
      {"S: ", -1, "", "Error 10061. Connection is forcefully rejected.",
       "S: {    -1} [   Undefined   ] Error 10061. Connection is forcefully rejected."},
  };
  for (const auto& row : rows) {
    const IPAddress address = ParseIPAddress(row.address).value_or(IPAddress());
    EXPECT_EQ(FormatSessionLine(row.tag, row.handle, address, row.text), row.line);
  }
}

TlsFacts FactsOf(std::string server_name, std::string peer_name = {}, bool verified = false) {
  TlsFacts facts;
  facts.version = "TLSv1.3";
  facts.cipher = "C";
  facts.server_name = std::move(server_name);
  facts.has_peer_certificate = !peer_name.empty();
  facts.peer_name = std::move(peer_name);
  facts.peer_verified = verified;
  if (facts.has_peer_certificate && !verified) facts.peer_failure = "self-signed certificate";
  return facts;
}

TEST(SessionLog, WhatTlsHasAgreedOn) {
  TlsFacts resumed = FactsOf("mx.example.org");
  resumed.resumed = true;
  const struct {
    TlsFacts facts;
    bool of_client;
    const char* line;
  } rows[] = {
      {FactsOf(""), true, "TLS: TLSv1.3, C."},
      {resumed, true, "TLS: TLSv1.3, C, name mx.example.org, resumed."},
      {FactsOf("a_b-1.example", "cn", true), true,
       "TLS: TLSv1.3, C, name a_b-1.example, client certificate \"cn\" verified."},
      {FactsOf("", "Fred O'Neil, Ltd."), true,
       "TLS: TLSv1.3, C, client certificate \"Fred O'Neil, Ltd.\" not verified: self-signed certificate."},
      {FactsOf("", "cn", true), false, "TLS: TLSv1.3, C, certificate verified."},
      {FactsOf("", "cn"), false, "TLS: TLSv1.3, C, certificate not verified."},
      // Names that would say more than a name.
      {FactsOf("x, resumed, client certificate \"boss\" verified"), true,
       "TLS: TLSv1.3, C, name x??resumed??client?certificate??boss??verified."},
      {FactsOf("", "boss\" verified"), true,
       "TLS: TLSv1.3, C, client certificate \"boss? verified\" not verified: self-signed certificate."},
  };
  for (const auto& row : rows) EXPECT_EQ(DescribeTls(row.facts, row.of_client), row.line);
}

std::string Shown(std::string_view text) {
  const std::string line = FormatSessionLine("R: ", 1, IPAddress(), text);
  return line.substr(std::string("R: {     1} [   Undefined   ] ").size());
}

TEST(SessionLog, NoByteOfAPeerLeavesTheLine) {
  const struct {
    const char* text;
    const char* shown;
  } rows[] = {
      {R"(< 250-a\r\n250-b\r\n250 c\r\n)", "< 250-a\u00B6250-b\u00B6250 c\u00B6"},
      {R"(\r\n)", "\u00B6"},
      {R"(\r\n\r\n)", "\u00B6\u00B6"},
      {R"(a\rb)", R"(a\x0Db)"},
      {R"(a\nb)", R"(a\x0Ab)"},
      {R"(a\n\rb)", R"(a\x0A\x0Db)"},
      {R"(a\r\r\n)", "a\\x0D\u00B6"},
      {R"(a\r)", R"(a\x0D)"},
      {R"(\0a\tb)", R"(\x00a\x09b)"},
      {R"(\x1B[2J\x07)", R"(\x1B[2J\x07)"},
      {R"(\x7F)", R"(\x7F)"},
      // Control characters of a terminal that are written with two bytes.
      {R"(\xC2\x9B2J)", R"(\xC2\x9B2J)"},
      {R"(a\xC2\x80\xC2\x85\xC2\x9F)", R"(a\xC2\x80\xC2\x85\xC2\x9F)"},
      // The same as single bytes, wherever they are part of no character.
      {R"(a\x80\x85\x9Bb)", R"(a\x80\x85\x9Bb)"},
      {R"(\x9B)", R"(\x9B)"},
      {"\xC2\xA0\xA0\x9B", "\xC2\xA0\xA0\\x9B"},
      {"\xE2\x82", "\xE2\\x82"},
      {"\xE2\x82x", "\xE2\\x82x"},
      {"\xC0\x9B", "\xC0\\x9B"},
      {"\xED\xA0\x80", "\xED\xA0\\x80"},
      {"\xF4\x90\x80\x80", "\xF4\\x90\\x80\\x80"},
      {"\xF0\x9F\x93\r\n", "\xF0\\x9F\\x93\u00B6"},
      // Line ends, directions of writing, tags.
      {"a\u2028b\u2029c", R"(a\xE2\x80\xA8b\xE2\x80\xA9c)"},
      {"\u061Ca\u200Eb\u200Fc", R"(\xD8\x9Ca\xE2\x80\x8Eb\xE2\x80\x8Fc)"},
      {"\u202Aa\u202Eb\u2066c\u2069", R"(\xE2\x80\xAAa\xE2\x80\xAEb\xE2\x81\xA6c\xE2\x81\xA9)"},
      {"\U000E0000a\U000E0041b\U000E007F", R"(\xF3\xA0\x80\x80a\xF3\xA0\x81\x81b\xF3\xA0\x81\xBF)"},
  };
  for (const auto& row : rows) EXPECT_EQ(Shown(Unescape(row.text)), row.shown) << row.text;
  // What is text stays text.
  for (const char* text :
       {"", "plain \\x41", "\xC3\xA4\xC3\xB6\xC3\xBC", "\xC2\xA0\xC2\xB6", "\xE2\x82\xAC", "\xE2\x80\x9B",
        "\xC2", "\xA0\xC2", "\xFF\xFE", "\u061B\u061D\u200D\u2010\u2027\u202F\u2065\u206A",
        "\U000DFFFF\U000E0080\U0001F4E7"}) {
    EXPECT_EQ(Shown(text), text);
  }
}

TEST(SessionLog, NoTextMakesASecondLine) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  for (const std::string& text : {all, std::string(all.rbegin(), all.rend())}) {
    for (const char byte : Shown(text)) {
      EXPECT_GE(static_cast<unsigned char>(byte), 32u);
      EXPECT_NE(byte, 127);
    }
  }
}

}  // namespace
}  // namespace trabex
