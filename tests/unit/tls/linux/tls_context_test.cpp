// What certificates have to do with pipes, terminals and the system's authorities.
#include "tls/tls_context.h"

#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "unit/tls/tls_client_fixture.h"

namespace trabex {
namespace {

using LinuxTlsContextTest = TlsTest;

// Nobody would ever write to it, and reading would wait.
TEST_F(LinuxTlsContextTest, APipeIsNoCertificate) {
  const std::string pipe = folder / "pipe.pem";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  TlsLoadReport report;
  EXPECT_EQ(TlsContext::ForServer({.certificates = {{pipe, {}}}}, report), nullptr);
  ASSERT_EQ(report.failures.size(), 1U);
  EXPECT_EQ(report.failures[0].file, pipe);
  EXPECT_EQ(report.failures[0].reason, "Not a regular file");
}

// The program would stand still until somebody types the password.
TEST_F(LinuxTlsContextTest, AKeyWithAPasswordAsksNoTerminal) {
  const auto files = Write("locked.pem", {.password = "secret"});
  int terminal = -1;
  const pid_t process = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(process, 0);
  if (process == 0) {
    TlsLoadReport report;
    const bool none = TlsContext::ForServer({.certificates = {files}}, report) == nullptr;
    _exit(none && report.failures.size() == 1 ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  char asked = 0;
  const ssize_t count = read(terminal, &asked, 1);  // an error when the process has gone without a word
  EXPECT_LE(count, 0);
  if (count > 0) kill(process, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(process, &status, 0), process);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS);
  close(terminal);
}

// Whoever the system trusts may vouch only where that was meant.
TEST_F(TlsClientContextTest, TheSystemsAuthoritiesAreNoWayOut) {
  const std::string file = folder / "ca.pem";
  ASSERT_EQ(setenv("SSL_CERT_FILE", file.c_str(), 1), 0);
  const TestCertificateOptions good{.dns_names = {"mx.test"}};
  EXPECT_EQ(Try({.verify = true, .server_name = "mx.test"}, good), "verified");
  EXPECT_NE(Try({.verify = true, .server_name = "mx.test", .server_ca = folder / "none.pem"}, good),
            "verified");
  EXPECT_NE(Try({.verify = true}, good), "verified");
  EXPECT_NE(Try({.verify = false}, good), "verified");
  unsetenv("SSL_CERT_FILE");
}

}  // namespace
}  // namespace trabex
