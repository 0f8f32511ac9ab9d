// Certificates and keys for tests, made when they run.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace trabex {

// PEM texts.
struct TestCertificate {
  std::string certificate;
  std::string key;
};

enum class TestKey { kEc, kP521, kRsa };

struct TestCertificateOptions {
  TestKey key = TestKey::kEc;
  std::string common_name = "test";
  std::vector<std::string> dns_names{};
  std::vector<std::string> addresses{};   // IPv4, or IPv6 without brackets
  std::chrono::hours valid_for{24 * 30};  // from now; negative: it has expired so long ago
  bool authority = false;                 // may vouch for others
  std::string password{};                 // of the key in PEM; empty: none
};

// Vouched for by `issuer`; nullptr: by itself. RSA keys are all the same one, since making one takes long.
TestCertificate MakeTestCertificate(const TestCertificateOptions& options,
                                    const TestCertificate* issuer = nullptr);

}  // namespace trabex
