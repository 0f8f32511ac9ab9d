#include "tls/openssl_handles.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace trabex {

void OpenSslRelease::operator()(bio_st* bio) const {
  BIO_free(bio);
}
void OpenSslRelease::operator()(evp_pkey_st* key) const {
  EVP_PKEY_free(key);
}
void OpenSslRelease::operator()(ssl_ctx_st* context) const {
  SSL_CTX_free(context);
}
void OpenSslRelease::operator()(ssl_st* connection) const {
  SSL_free(connection);
}
void OpenSslRelease::operator()(x509_st* certificate) const {
  X509_free(certificate);
}
void OpenSslRelease::operator()(x509_store_st* store) const {
  X509_STORE_free(store);
}

std::string TakeOpenSslError() {
  // The first is the cause; what follows is where it led. But what the TLS part says tells more than what its
  // tools say.
  unsigned long error = ERR_peek_error();
  if (ERR_GET_LIB(ERR_peek_last_error()) == ERR_LIB_SSL) error = ERR_peek_last_error();
  const char* const reason = ERR_reason_error_string(error);
  ERR_clear_error();
  return reason != nullptr ? reason : "unknown reason";
}

}  // namespace trabex
