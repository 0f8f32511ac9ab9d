#include "tls/certificate_files.h"

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

namespace trabex {

namespace {

constexpr std::uintmax_t kMaxFile = 1 << 20;

// The library's own would ask the terminal, and the program would stand still.
int NoPassword(char* /*space*/, int /*size*/, int /*writing*/, void* /*unused*/) {
  return -1;
}

// The whole of a regular file; a pipe, say, could keep the reader waiting.
std::optional<std::string> ReadFile(const std::string& file, LoadFault& fault) {
  const auto failed = [&](std::string reason) {
    fault = {file, std::move(reason)};
    return std::nullopt;
  };
  std::filesystem::path path;
  try {
    path = std::u8string(file.begin(), file.end());  // narrow characters alone are no UTF-8 everywhere
  } catch (const std::filesystem::filesystem_error& no_path) {
    return failed(no_path.code().message());
  }
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (error) return failed(error.message());
  if (!std::filesystem::is_regular_file(status)) return failed("Not a regular file");
  if (std::filesystem::file_size(path, error) > kMaxFile)
    return failed(error ? error.message() : "Too large");
  errno = 0;
  std::ifstream stream(path, std::ios::binary);
  if (!stream) return failed(std::generic_category().message(errno != 0 ? errno : EIO));
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (stream.bad()) return failed(std::generic_category().message(EIO));
  return text;
}

OpenSslPtr<bio_st> Reader(const std::string& text) {
  return OpenSslPtr<bio_st>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Those of the text in order. Empty, with `fault`, when there is none or one is broken.
std::vector<OpenSslPtr<x509_st>> ReadCertificates(const std::string& file, LoadFault& fault) {
  std::vector<OpenSslPtr<x509_st>> certificates;
  const auto text = ReadFile(file, fault);
  if (!text) return certificates;
  ERR_clear_error();
  const auto reader = Reader(*text);
  while (X509* const certificate = PEM_read_bio_X509(reader.get(), nullptr, NoPassword, nullptr)) {
    certificates.emplace_back(certificate);
  }
  // It always ends with an error: that there is no more, or what is wrong.
  const bool at_end = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  std::string reason = TakeOpenSslError();
  if (!at_end) certificates.clear();
  if (certificates.empty()) fault = {file, at_end ? "No certificate in it" : std::move(reason)};
  return certificates;
}

OpenSslPtr<evp_pkey_st> ReadKey(const std::string& file, LoadFault& fault) {
  const auto text = ReadFile(file, fault);
  if (!text) return nullptr;
  ERR_clear_error();
  OpenSslPtr<evp_pkey_st> key(PEM_read_bio_PrivateKey(Reader(*text).get(), nullptr, NoPassword, nullptr));
  if (key) return key;
  const bool encrypted = text->find("ENCRYPTED") != std::string::npos;
  const bool absent = text->find("PRIVATE KEY-----") == std::string::npos;
  std::string reason = TakeOpenSslError();
  fault = {file, encrypted ? "The key has a password" : absent ? "No private key in it" : std::move(reason)};
  return nullptr;
}

std::string_view TextOf(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          static_cast<std::size_t>(ASN1_STRING_length(text))};
}

std::vector<std::string> NamesOf(const X509& certificate) {
  std::vector<std::string> names;
  const std::unique_ptr<GENERAL_NAMES, void (*)(GENERAL_NAMES*)> alternatives(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)),
      GENERAL_NAMES_free);
  for (int i = 0; alternatives && i < sk_GENERAL_NAME_num(alternatives.get()); ++i) {
    int type = 0;
    const void* const value = GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(alternatives.get(), i), &type);
    if (type != GEN_DNS) continue;
    const std::string_view name = TextOf(static_cast<const ASN1_STRING*>(value));
    if (!name.empty() && name.find('\0') == std::string_view::npos) names.emplace_back(name);
  }
  if (!names.empty()) return names;
  if (std::string name = CommonName(certificate); !name.empty()) names.push_back(std::move(name));
  return names;
}

std::chrono::sys_seconds TimeOf(const ASN1_TIME* time) {
  std::tm parts{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return {};
  using namespace std::chrono;
  const year_month_day day{year(parts.tm_year + 1900), month(static_cast<unsigned>(parts.tm_mon + 1)),
                           std::chrono::day(static_cast<unsigned>(parts.tm_mday))};
  return sys_days(day) + hours(parts.tm_hour) + minutes(parts.tm_min) + seconds(parts.tm_sec);
}

}  // namespace

std::string CommonName(const x509_st& certificate) {
  const X509_NAME* const subject = X509_get_subject_name(&certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0) return {};
  unsigned char* utf8 = nullptr;
  const int size = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  if (size < 0) return {};
  const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owner(
      utf8, [](unsigned char* bytes) { OPENSSL_free(bytes); });
  return {reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(size)};
}

std::shared_ptr<const LoadedCertificate> LoadCertificate(const TlsCertificateFiles& files, LoadFault& fault) {
  auto loaded = std::make_shared<LoadedCertificate>();
  loaded->files = files;
  auto certificates = ReadCertificates(files.chain, fault);
  if (certificates.empty()) return nullptr;
  loaded->leaf = std::move(certificates.front());
  loaded->chain.assign(std::make_move_iterator(certificates.begin() + 1),
                       std::make_move_iterator(certificates.end()));
  const std::string& key_file = files.key.empty() ? files.chain : files.key;
  loaded->key = ReadKey(key_file, fault);
  if (!loaded->key) return nullptr;
  ERR_clear_error();
  if (X509_check_private_key(loaded->leaf.get(), loaded->key.get()) != 1) {
    ERR_clear_error();
    fault = {key_file, "The key does not fit the certificate"};
    return nullptr;
  }
  loaded->key_kind = EVP_PKEY_get_base_id(loaded->key.get());
  loaded->names = NamesOf(*loaded->leaf);
  loaded->valid_until = TimeOf(X509_get0_notAfter(loaded->leaf.get()));
  return loaded;
}

std::shared_ptr<const Authorities> NoAuthorities(const std::string& file) {
  auto authorities = std::make_shared<Authorities>();
  authorities->file = file;
  authorities->store.reset(X509_STORE_new());
  return authorities;
}

std::shared_ptr<const Authorities> LoadAuthorities(const std::string& file, LoadFault& fault) {
  auto authorities = std::make_shared<Authorities>();
  authorities->file = file;
  authorities->certificates = ReadCertificates(file, fault);
  if (authorities->certificates.empty()) return nullptr;
  authorities->store.reset(X509_STORE_new());
  for (const auto& certificate : authorities->certificates) {
    X509_STORE_add_cert(authorities->store.get(), certificate.get());
  }
  // Whoever is named in the file may vouch, whether somebody vouches for it or not.
  X509_STORE_set_flags(authorities->store.get(), X509_V_FLAG_PARTIAL_CHAIN);
  return authorities;
}

}  // namespace trabex
