#include "support/test_certificates.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>
#include <random>
#include <stdexcept>

namespace trabex {

namespace {

template <class Object>
using Owner = std::unique_ptr<Object, void (*)(Object*)>;

// A call of the library that must not fail.
void Must(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string("test certificate: ") + what);
}

Owner<BIO> Memory() {
  return {BIO_new(BIO_s_mem()), BIO_free_all};
}

Owner<BIO> Reader(const std::string& text) {
  return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free_all};
}

std::string TextOf(BIO* memory) {
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(memory, &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

EVP_PKEY* MakeKey(TestKey kind) {
  if (kind == TestKey::kEc) return EVP_EC_gen("P-256");
  if (kind == TestKey::kP521) return EVP_EC_gen("P-521");
  static const Owner<EVP_PKEY> rsa{EVP_RSA_gen(2048), EVP_PKEY_free};
  Must(rsa != nullptr && EVP_PKEY_up_ref(rsa.get()) == 1, "RSA key");
  return rsa.get();
}

std::string AlternativeNames(const TestCertificateOptions& options) {
  std::string names;
  const auto add = [&](const char* kind, const std::string& value) {
    names += (names.empty() ? "" : ",") + std::string(kind) + value;
  };
  for (const std::string& name : options.dns_names) add("DNS:", name);
  for (const std::string& address : options.addresses) add("IP:", address);
  return names;
}

void AddExtension(X509* certificate, X509V3_CTX& context, int kind, const std::string& value) {
  const Owner<X509_EXTENSION> extension{X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()),
                                        X509_EXTENSION_free};
  Must(extension && X509_add_ext(certificate, extension.get(), -1) == 1, value.c_str());
}

}  // namespace

TestCertificate MakeTestCertificate(const TestCertificateOptions& options, const TestCertificate* issuer) {
  const Owner<EVP_PKEY> key{MakeKey(options.key), EVP_PKEY_free};
  Must(key != nullptr, "key");
  const Owner<X509> certificate{X509_new(), X509_free};
  X509* const c = certificate.get();
  X509_set_version(c, X509_VERSION_3);
  static std::mt19937 random{std::random_device{}()};
  ASN1_INTEGER_set(X509_get_serialNumber(c), static_cast<long>(random() >> 1));
  const auto seconds = [](std::chrono::hours hours) {
    return static_cast<long>(std::chrono::seconds(hours).count());
  };
  const std::chrono::hours before{options.valid_for < std::chrono::hours{0} ? 24 * 365 : 1};
  X509_gmtime_adj(X509_getm_notBefore(c), -seconds(before));
  X509_gmtime_adj(X509_getm_notAfter(c), seconds(options.valid_for));
  X509_set_pubkey(c, key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(options.common_name.data()),
                             static_cast<int>(options.common_name.size()), -1, 0);
  Owner<X509> vouching{nullptr, X509_free};
  Owner<EVP_PKEY> vouching_key{nullptr, EVP_PKEY_free};
  if (issuer != nullptr) {
    vouching.reset(PEM_read_bio_X509(Reader(issuer->certificate).get(), nullptr, nullptr, nullptr));
    vouching_key.reset(PEM_read_bio_PrivateKey(Reader(issuer->key).get(), nullptr, nullptr, nullptr));
    Must(vouching && vouching_key, "issuer");
  }
  X509* const by = vouching ? vouching.get() : c;
  X509_set_issuer_name(c, X509_get_subject_name(by));
  X509V3_CTX context;
  X509V3_set_ctx(&context, by, c, nullptr, nullptr, 0);
  if (options.authority) AddExtension(c, context, NID_basic_constraints, "critical,CA:TRUE");
  if (const std::string names = AlternativeNames(options); !names.empty()) {
    AddExtension(c, context, NID_subject_alt_name, names);
  }
  Must(X509_sign(c, vouching_key ? vouching_key.get() : key.get(), EVP_sha256()) > 0, "signature");

  const auto certificate_text = Memory();
  Must(PEM_write_bio_X509(certificate_text.get(), c) == 1, "writing");
  const auto key_text = Memory();
  const bool locked = !options.password.empty();
  Must(PEM_write_bio_PrivateKey(key_text.get(), key.get(), locked ? EVP_aes_128_cbc() : nullptr,
                                reinterpret_cast<const unsigned char*>(options.password.data()),
                                static_cast<int>(options.password.size()), nullptr, nullptr) == 1,
       "writing");
  return {TextOf(certificate_text.get()), TextOf(key_text.get())};
}

}  // namespace trabex
