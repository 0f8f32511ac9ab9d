#include "proxy/dialogue/received_header.h"

#include <gtest/gtest.h>

#include "support/ip_address.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

TEST(ReceivedHeader, NamesAnIPv6ClientByItsLiteral) {
  TestDialogue d;
  d.clock.SetBias(-180);
  d.facts.ip = IP("2001:DB8:0::7");
  d.facts.host = "";
  d.state.requested.HeloDomain = "[IPv6:2001:db8::7]";
  EXPECT_EQ(GenerateReceivedHeader(d.configuration, d.clock, d.facts, d.state.requested, d.state.login),
            "Received: from [IPv6:2001:db8::7] (Unknown [IPv6:2001:db8::7]) by proxy.test\r\n"
            "      with SMTP; Sun, 15 Nov 2026 16:54:24 +0300");
}

TEST(ReceivedHeader, SaysWhoSentTheMessageAndHow) {
  const struct {
    bool ehlo;
    const char* helo;
    const char* host;
    const char* header;
  } rows[] = {
      {true, "client.test", "mail.client.test",
       "Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test\r\n"
       "      with ESMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
      {false, "client.test", "mail.client.test",
       "Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test\r\n"
       "      with SMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
      {true, "[192.0.2.7]", "",
       "Received: from [192.0.2.7] (Unknown [192.0.2.7]) by proxy.test\r\n"
       "      with ESMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
      {false, "", "",
       "Received: from  (Unknown [192.0.2.7]) by proxy.test\r\n"
       "      with SMTP; Sun, 15 Nov 2026 16:54:24 +0300"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.clock.SetBias(-180);
    d.facts.host = row.host;
    d.state.requested.HeloDomain = row.helo;
    d.state.requested.EhloUsed = row.ehlo;
    EXPECT_EQ(GenerateReceivedHeader(d.configuration, d.clock, d.facts, d.state.requested, d.state.login),
              row.header);
  }
}

TEST(ReceivedHeader, NamesTlsAndItsCipher) {
  const struct {
    bool ehlo;
    LoginState login;
    const char* protocol;
  } rows[] = {
      {true, {}, "ESMTPS tls TLS_AES_256_GCM_SHA384"},
      {true, {.ever = true, .latest = true}, "ESMTPSA tls TLS_AES_256_GCM_SHA384"},
      // The latest AUTH was refused.
      {true, {.ever = true, .latest = false}, "ESMTPS tls TLS_AES_256_GCM_SHA384"},
      {false, {}, "SMTP tls TLS_AES_256_GCM_SHA384"},
      {false, {.ever = true, .latest = true}, "SMTP tls TLS_AES_256_GCM_SHA384"},
  };
  for (const auto& row : rows) {
    TestDialogue d;
    d.OfferTls();
    d.facts.tls_active = true;
    d.clock.SetBias(-180);
    d.state.requested.HeloDomain = "client.test";
    d.state.requested.EhloUsed = row.ehlo;
    EXPECT_EQ(GenerateReceivedHeader(d.configuration, d.clock, d.facts, d.state.requested, row.login),
              "Received: from client.test (mail.client.test [192.0.2.7]) by proxy.test\r\n      with " +
                  std::string(row.protocol) + "; Sun, 15 Nov 2026 16:54:24 +0300");
  }
}

}  // namespace
}  // namespace trabex
