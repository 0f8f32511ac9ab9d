// Certificates as a start and a reload of the whole program use them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "made_certificate.h"
#include "platform/files.h"
#include "reload_fixture.h"

namespace trabex {
namespace {

using std::chrono::days;
using std::chrono::floor;
using std::chrono::seconds;
using std::chrono::system_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class ReloadCertificatesTest : public AutoReloadTest {
 protected:
  std::string WriteCertificate(const std::string& name) {
    const auto valid_until = floor<seconds>(system_clock::now()) + days(3650);
    Write(folder_ / name, MakeCertificate({"mx.test"}, valid_until).Both());
    return folder_ / name;
  }
};

TEST_F(ReloadCertificatesTest, TheSettingsAreFollowed) {
  Start();
  EXPECT_EQ(program_->tls.for_clients, nullptr);
  // Its name is resolved against the folder of the program, as that of every file is.
  WriteCertificate("c.pem");
  WriteIni("[TLS]\nCertificate=c.pem\n");
  Pass(60);
  EXPECT_THAT(log_, ElementsAre(kReloaded,
                                StartsWith("Certificate \"" + NativePath(folder_ / "c.pem") + "\": mx.test;"),
                                StartsWith("Listen on: ")));
  const auto loaded = program_->tls.for_clients;
  EXPECT_NE(loaded, nullptr);

  log_.clear();
  WriteIni("Timeout=50\n[TLS]\nCertificate=c.pem\n");
  Pass(60);
  EXPECT_THAT(log_, ElementsAre(kReloaded, StartsWith("Listen on: ")));
  EXPECT_EQ(program_->tls.for_clients, loaded) << "another section has changed";

  WriteIni("[TLS]\nCertificate=none.pem\n");
  Pass(60);
  EXPECT_THAT(
      log_, Contains(StartsWith("Unable to load certificate \"" + NativePath(folder_ / "none.pem") + "\".")));
  EXPECT_EQ(program_->tls.for_clients, nullptr);
  EXPECT_FALSE(Settings().TLS.Certificate.empty()) << "TLS is wanted all the same";
  EXPECT_FALSE(Window().Unloaded());
}

TEST_F(ReloadCertificatesTest, AStartLoadsThem) {
  const std::string file = WriteCertificate("c.pem");
  WriteIni("[TLS]\nCertificate=" + file + ", none.pem\n");
  Start();
  EXPECT_NE(program_->tls.for_clients, nullptr);
}

TEST_F(ReloadCertificatesTest, CiphersAreCheckedByTheLibrary) {
  Start();
  WriteIni("[TLS]\nCiphers=NO-SUCH-CIPHER\n");
  Pass(60);
  EXPECT_THAT(log_, Contains(HasSubstr("Key name: \"Ciphers\", Error number: 380, Description: Inadmissible "
                                       "string: \"NO-SUCH-CIPHER\".")));
  EXPECT_EQ(Settings().TLS.Ciphers, "");
  WriteIni("[TLS]\nCiphers=ECDHE+AESGCM:@SECLEVEL=0\n");
  Pass(60);
  EXPECT_EQ(Settings().TLS.Ciphers, "ECDHE+AESGCM:@SECLEVEL=0");
}

}  // namespace
}  // namespace trabex
