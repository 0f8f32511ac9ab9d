// Certificates that sign themselves, made while the tests run.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace trabex {

// PEM texts; the key is of the kind EC.
struct MadeCertificate {
  std::string certificate;
  std::string key;
  std::string Both() const { return certificate + key; }
};

// `names` are the DNS names.
MadeCertificate MakeCertificate(const std::vector<std::string>& names, std::chrono::sys_seconds valid_until,
                                const std::string& common_name = "nameless");

// A key that a password protects.
std::string MakeEncryptedKey();

}  // namespace trabex
