#include "made_certificate.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <memory>
#include <string>

namespace trabex {

namespace {

struct Release {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
template <class Object>
using Owned = std::unique_ptr<Object, Release>;

Owned<EVP_PKEY> MakeKey() {
  return Owned<EVP_PKEY>(EVP_EC_gen("P-256"));
}

std::string TextOf(BIO* bio) {
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(bio, &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

std::string KeyText(EVP_PKEY* key, const EVP_CIPHER* cipher, char* password) {
  const Owned<BIO> bio(BIO_new(BIO_s_mem()));
  EXPECT_EQ(PEM_write_bio_PKCS8PrivateKey(bio.get(), key, cipher, nullptr, 0, nullptr, password), 1);
  return TextOf(bio.get());
}

// "YYYYMMDDhhmmssZ".
std::string GeneralizedTime(std::chrono::sys_seconds time) {
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss of_day(time - day);
  const auto two_digits = [](auto number) { return std::to_string(100 + number).substr(1); };
  return std::to_string(static_cast<int>(date.year())) + two_digits(static_cast<unsigned>(date.month())) +
         two_digits(static_cast<unsigned>(date.day())) + two_digits(of_day.hours().count()) +
         two_digits(of_day.minutes().count()) + two_digits(of_day.seconds().count()) + "Z";
}

}  // namespace

MadeCertificate MakeCertificate(const std::vector<std::string>& names, std::chrono::sys_seconds valid_until,
                                const std::string& common_name) {
  static long serial = 0;
  const Owned<EVP_PKEY> key = MakeKey();
  const Owned<X509> certificate(X509_new());
  X509* const c = certificate.get();
  X509_set_version(c, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(c), ++serial);
  ASN1_TIME_set(X509_getm_notBefore(c), 0);
  // As text: the C library of Windows has no years beyond 3000.
  EXPECT_EQ(ASN1_TIME_set_string_X509(X509_getm_notAfter(c), GeneralizedTime(valid_until).c_str()), 1);
  X509_NAME* const subject = X509_get_subject_name(c);
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(common_name.data()),
                             static_cast<int>(common_name.size()), -1, 0);
  X509_set_issuer_name(c, subject);
  X509_set_pubkey(c, key.get());
  if (!names.empty()) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "DNS:" : ",DNS:") + name;
    const Owned<X509_EXTENSION> extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, text.c_str()));
    EXPECT_EQ(X509_add_ext(c, extension.get(), -1), 1);
  }
  EXPECT_GT(X509_sign(c, key.get(), EVP_sha256()), 0);
  const Owned<BIO> bio(BIO_new(BIO_s_mem()));
  EXPECT_EQ(PEM_write_bio_X509(bio.get(), c), 1);
  return {TextOf(bio.get()), KeyText(key.get(), nullptr, nullptr)};
}

std::string MakeEncryptedKey() {
  char password[] = "secret";
  return KeyText(MakeKey().get(), EVP_aes_128_cbc(), password);
}

}  // namespace trabex
