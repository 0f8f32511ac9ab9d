#include "app/certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "made_certificate.h"
#include "platform/files.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"
#include "support/temp_folder.h"
#include "tls/tls_context.h"

namespace trabex {
namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::sys_seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

// 15 November 2026, 16:54:24: where the clock of the tests begins.
constexpr sys_seconds kStart{seconds(1794761664)};

// With paths as the system writes them, which is how the log has them.
class NativeFolder : public TempFolder {
 public:
  std::string operator/(std::string_view name) const { return NativePath(TempFolder::operator/(name)); }
};

class CertificatesTest : public testing::Test {
 protected:
  // Writes with a date of its own, since the system's clock may stand still between two writes.
  void Write(const std::string& path, const std::string& text) {
    WriteFile(path, text);
    std::filesystem::last_write_time(path, next_date_ += seconds(10));
  }
  // A file with a new certificate and its key.
  std::string WriteCertificate(const std::string& name, const std::vector<std::string>& names,
                               sys_seconds valid_until = kStart + days(90)) {
    Write(folder_ / name, MakeCertificate(names, valid_until).Both());
    return folder_ / name;
  }
  void Use(std::vector<CertificateFiles> files) {
    Tls().Certificate = std::move(files);
    certificates_.Follow();
  }
  void UseOne(const std::string& file) { Use({{file, file}}); }
  // One look of the watch.
  void PassMinute() { Pass(Certificates::kBetweenLooks); }
  void Pass(Milliseconds span) {
    clock_.Advance(span);
    RunUntilIdle(loop_);
  }
  // Renews the certificate in use, file.pem, in each of these ways, which are called with the end of its validity. However
  // it is done, it takes effect at the second look that sees it.
  void ExpectRenewals(const std::vector<std::pair<const char*, std::function<void(sys_seconds)>>>& ways) {
    EXPECT_EQ(Log().size(), 1U);
    int renewals = 0;
    for (const auto& [name, renew] : ways) {
      SCOPED_TRACE(name);
      const auto before = contexts_.for_clients;
      PassMinute();
      PassMinute();
      EXPECT_EQ(contexts_.for_clients, before) << "no load without a change";
      renew(kStart + days(90 + ++renewals));
      PassMinute();
      EXPECT_EQ(contexts_.for_clients, before);
      EXPECT_THAT(Log(), IsEmpty());
      PassMinute();
      EXPECT_NE(contexts_.for_clients, before);
      EXPECT_THAT(Log(), ElementsAre(MatchesRegex("Certificate \".*file.pem\": a.test; valid until " +
                                                  std::to_string(13 + renewals) + "/02/2027 16:54:24."),
                                     kReloaded));
    }
  }
  TLSSettings& Tls() { return configuration_.TLS; }
  std::vector<std::string> Log() { return log_.Take(); }
  const TlsContext* ForClients() const { return contexts_.for_clients.get(); }
  const TlsContext* ForServer() const { return contexts_.for_server.get(); }
  std::string Unable(const std::string& file, const std::string& reason) const {
    return "Unable to load certificate \"" + file + "\". " + reason + ".";
  }
  static std::string Kept(const std::string& line) { return line + " The one in force stays."; }
  static constexpr const char* kReloaded = "Certificates reloaded.";

  NativeFolder folder_;
  std::filesystem::file_time_type next_date_ = std::filesystem::file_time_type::clock::now();
  Configuration configuration_ = DefaultConfiguration();
  RecordedLog log_;
  FakeClock clock_;
  EventLoop loop_{clock_};
  TlsContexts contexts_;
  Certificates certificates_{configuration_, log_, clock_, loop_, contexts_};
};

TEST_F(CertificatesTest, NothingIsDoneWithoutSettings) {
  certificates_.Follow();
  Pass(hours(48));
  EXPECT_EQ(ForClients(), nullptr);
  EXPECT_EQ(ForServer(), nullptr);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(CertificatesTest, EachIsLoggedOnce) {
  clock_.SetBias(-180);
  const std::string a = WriteCertificate("a.pem", {"mx.example.org", "*.example.net"}, kStart + days(15));
  const std::string b = WriteCertificate("b.pem", {}, sys_seconds(seconds(253402300799)));
  Use({{a, a}, {b, b}});
  EXPECT_THAT(Log(), ElementsAre("Certificate \"" + a +
                                     "\": mx.example.org, *.example.net; valid until 30/11/2026 19:54:24.",
                                 StartsWith("Certificate \"" + b + "\": nameless; valid until ")));
  EXPECT_NE(ForClients(), nullptr);
  EXPECT_EQ(ForServer(), nullptr);

  const auto before = contexts_.for_clients;
  certificates_.Follow();
  EXPECT_EQ(contexts_.for_clients, before) << "nothing has changed";
  Tls().SessionTickets = false;
  certificates_.Follow();
  EXPECT_NE(contexts_.for_clients, before);
  EXPECT_THAT(Log(), IsEmpty()) << "the same certificates";
  Use({{b, b}});
  EXPECT_THAT(Log(), IsEmpty());
  Use({{a, a}, {b, b}});
  EXPECT_THAT(Log(), ElementsAre(StartsWith("Certificate \"" + a))) << "in use again";
  Use({});
  EXPECT_EQ(ForClients(), nullptr);
}

TEST_F(CertificatesTest, NamesForgeNoLineOfTheLog) {
  Write(folder_ / "a.pem", MakeCertificate({}, kStart + days(90), "a\r\n15/11/26 16:54:24 b").Both());
  UseOne(folder_ / "a.pem");
  EXPECT_THAT(Log(), ElementsAre(StartsWith("Certificate \"" + (folder_ / "a.pem") +
                                            "\": a??15/11/26 16:54:24 b; valid until ")));
}

TEST_F(CertificatesTest, WhatCannotBeUsedIsReportedWithItsFile) {
  const MadeCertificate good = MakeCertificate({"a.test"}, kStart + days(90));
  const MadeCertificate other = MakeCertificate({"a.test"}, kStart + days(90));
  Write(folder_ / "chain", good.certificate);
  Write(folder_ / "key", good.key);
  Write(folder_ / "other", other.key);
  Write(folder_ / "encrypted", MakeEncryptedKey());
  Write(folder_ / "empty", "");
  const struct {
    const char* chain;
    const char* key;
    const char* file;
    const char* reason;
  } rows[] = {
      {"none", "none", "none", "No such file or directory"},
      {"chain", "none", "none", "No such file or directory"},
      {".", "key", ".", "Not a regular file"},
      {"empty", "key", "empty", "No certificate in it"},
      {"key", "key", "key", "No certificate in it"},
      {"chain", "chain", "chain", "No private key in it"},
      {"chain", "other", "other", "The key does not fit the certificate"},
      {"chain", "encrypted", "encrypted", "The key has a password"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    Use({{folder_ / row.chain, folder_ / row.key}});
    EXPECT_THAT(Log(), ElementsAre(Unable(folder_ / row.file, row.reason)));
    EXPECT_EQ(ForClients(), nullptr);
  }
  // The others are used.
  Use({{folder_ / "none", folder_ / "none"}, {folder_ / "chain", folder_ / "key"}});
  EXPECT_THAT(Log(), ElementsAre(Unable(folder_ / "none", "No such file or directory"),
                                 StartsWith("Certificate \"" + (folder_ / "chain"))));
  EXPECT_NE(ForClients(), nullptr);
}

TEST_F(CertificatesTest, TheServersSideFollowsItsSettings) {
  configuration_.ServerIP = "192.0.2.1";
  Tls().Server = server_tls::kIfOffered;
  certificates_.Follow();
  const auto first = contexts_.for_server;
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->Role(), TlsRole::kClient);
  EXPECT_EQ(ForClients(), nullptr);
  configuration_.ServerIP = "192.0.2.2";
  certificates_.Follow();
  EXPECT_NE(contexts_.for_server, first) << "the certificate has to be good for another server";
  Tls().ServerName = "mx.test";
  certificates_.Follow();
  const auto named = contexts_.for_server;
  configuration_.ServerIP = "192.0.2.3";
  certificates_.Follow();
  EXPECT_EQ(contexts_.for_server, named);
  Tls().Server = server_tls::kNone;
  certificates_.Follow();
  EXPECT_EQ(ForServer(), nullptr);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(CertificatesTest, AuthoritiesThatCannotBeReadAreReported) {
  const std::string a = WriteCertificate("a.pem", {"a.test"});
  Tls().ClientCertificates = client_certificates::kRequired;
  Tls().ClientCA = folder_ / "clients";
  Tls().Server = server_tls::kStartTls;
  Tls().ServerCA = folder_ / "servers";
  UseOne(a);
  EXPECT_THAT(
      Log(),
      ElementsAre("Unable to load ClientCA \"" + (folder_ / "clients") + "\". No such file or directory.",
                  "Unable to load ServerCA \"" + (folder_ / "servers") + "\". No such file or directory.",
                  StartsWith("Certificate \"" + a)));
  EXPECT_NE(ForClients(), nullptr);
  EXPECT_NE(ForServer(), nullptr);

  // Their files are watched as well.
  Write(folder_ / "clients", MakeCertificate({}, kStart + days(900)).certificate);
  Write(folder_ / "servers", MakeCertificate({}, kStart + days(900)).certificate);
  PassMinute();
  EXPECT_THAT(Log(), IsEmpty());
  PassMinute();
  EXPECT_THAT(Log(), ElementsAre(kReloaded));
  std::filesystem::remove(folder_ / "servers");
  PassMinute();
  PassMinute();
  EXPECT_THAT(Log(), ElementsAre("Unable to load ServerCA \"" + (folder_ / "servers") +
                                 "\". No such file or directory. The one in force stays."));
}

TEST_F(CertificatesTest, RenewalsAreFound) {
  const std::string file = WriteCertificate("file.pem", {"a.test"});
  UseOne(file);
  ExpectRenewals({{"rewritten", [&](sys_seconds until) { WriteCertificate("file.pem", {"a.test"}, until); }},
                  {"renamed over", [&](sys_seconds until) {
                     std::filesystem::rename(WriteCertificate("2.pem", {"a.test"}, until), file);
                   }}});
}

TEST_F(CertificatesTest, RenewalsBehindALinkAreFound) {
  const std::string link = folder_ / "file.pem";
  std::filesystem::create_symlink(WriteCertificate("1.pem", {"a.test"}), link);
  UseOne(link);
  ExpectRenewals({{"rewritten", [&](sys_seconds until) { WriteCertificate("1.pem", {"a.test"}, until); }},
                  {"renamed over",
                   [&](sys_seconds until) {
                     std::filesystem::rename(WriteCertificate("2.pem", {"a.test"}, until), folder_ / "1.pem");
                   }},
                  {"another target", [&](sys_seconds until) {
                     const std::string target = WriteCertificate("3.pem", {"a.test"}, until);
                     std::filesystem::remove(link);
                     std::filesystem::create_symlink(target, link);
                   }}});
}

TEST_F(CertificatesTest, ARenewalThatIsUnderWayIsWaitedFor) {
  const MadeCertificate before = MakeCertificate({"a.test"}, kStart + days(90));
  const MadeCertificate after = MakeCertificate({"a.test"}, kStart + days(180));
  Write(folder_ / "chain", before.certificate);
  Write(folder_ / "key", before.key);
  Use({{folder_ / "chain", folder_ / "key"}});
  Log();
  Write(folder_ / "chain", after.certificate);
  PassMinute();
  Write(folder_ / "key", after.key);
  PassMinute();
  EXPECT_THAT(Log(), IsEmpty());
  PassMinute();
  EXPECT_THAT(Log(), ElementsAre(StartsWith("Certificate \"" + (folder_ / "chain")), kReloaded));
}

TEST_F(CertificatesTest, ABrokenRenewalLeavesTheOneInForce) {
  const std::string a = WriteCertificate("a.pem", {"a.test"});
  const std::string b = WriteCertificate("b.pem", {"b.test"});
  Use({{a, a}, {b, b}});
  Log();
  const std::vector<std::pair<std::string, std::function<void()>>> faults = {
      {"No certificate in it", [&] { Write(a, "nothing"); }},
      {"The key does not fit the certificate",
       [&] { Write(a, MakeCertificate({"a.test"}, kStart).certificate + MakeCertificate({}, kStart).key); }},
      {"No such file or directory", [&] { std::filesystem::remove(a); }}};
  for (const auto& [reason, damage] : faults) {
    SCOPED_TRACE(reason);
    damage();
    PassMinute();
    EXPECT_THAT(Log(), IsEmpty());
    PassMinute();
    EXPECT_THAT(Log(), ElementsAre(Kept(Unable(a, reason))));
    EXPECT_NE(ForClients(), nullptr);
    for (int i = 0; i < 5; ++i) PassMinute();
    EXPECT_THAT(Log(), IsEmpty()) << "it is said once";
  }
  // A reload of the settings keeps it as well, another name for the file does not.
  Tls().HandshakeTimeout = 5;
  certificates_.Follow();
  EXPECT_THAT(Log(), ElementsAre(Kept(Unable(a, "No such file or directory"))));
  WriteCertificate("a.pem", {"a.test"}, kStart + days(180));
  PassMinute();
  PassMinute();
  EXPECT_THAT(Log(), ElementsAre(StartsWith("Certificate \"" + a), kReloaded));
  UseOne(folder_ / "c.pem");
  EXPECT_THAT(Log(), ElementsAre(Unable(folder_ / "c.pem", "No such file or directory")));
  EXPECT_EQ(ForClients(), nullptr);
  WriteCertificate("c.pem", {"c.test"});
  PassMinute();
  PassMinute();
  EXPECT_THAT(Log(), ElementsAre(StartsWith("Certificate \"" + (folder_ / "c.pem")), kReloaded));
  EXPECT_NE(ForClients(), nullptr);
}

TEST_F(CertificatesTest, TheEndOfACertificateIsToldDaily) {
  const std::string a = WriteCertificate("a.pem", {"a.test"}, kStart + days(14) + minutes(270));
  const std::string b = WriteCertificate("b.pem", {"b.test"}, kStart + days(3));
  const std::string a_line = "Certificate \"" + a + "\" expires at 29/11/2026 21:24:24.";
  const std::string b_line = "Certificate \"" + b + "\" expires at 18/11/2026 16:54:24.";
  Use({{a, a}, {b, b}});
  EXPECT_THAT(Log(), ElementsAre(StartsWith("Certificate"), StartsWith("Certificate"), b_line));
  const auto pass_hours = [&](int count) {
    for (int minute = 0; minute < count * 60; ++minute) PassMinute();
  };
  pass_hours(4);
  EXPECT_THAT(Log(), IsEmpty());
  pass_hours(1);
  EXPECT_THAT(Log(), ElementsAre(a_line)) << "14 days before";
  pass_hours(24);
  EXPECT_THAT(Log(), ElementsAre(b_line, a_line));
  pass_hours(3 * 24);
  EXPECT_EQ(Log().size(), 6U);
  EXPECT_NE(ForClients(), nullptr) << "an expired one is used";
  // A clock that is set back does not end it.
  clock_.SetNow(clock_.Now() - 2);
  PassMinute();
  EXPECT_THAT(Log(), ElementsAre(a_line, b_line));
  // A new one has its own time.
  WriteCertificate("b.pem", {"b.test"});
  PassMinute();
  PassMinute();
  EXPECT_THAT(Log(), ElementsAre(StartsWith("Certificate \"" + b + "\": b.test"), kReloaded));
  pass_hours(24);
  EXPECT_THAT(Log(), ElementsAre(a_line));
}

}  // namespace
}  // namespace trabex
