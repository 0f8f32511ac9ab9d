// Owners of the library's objects, for the files of this folder. The names are the library's own.
#pragma once

#include <memory>
#include <string>

struct bio_st;
struct evp_pkey_st;
struct ssl_ctx_st;
struct ssl_st;
struct x509_st;
struct x509_store_st;

namespace trabex {

struct OpenSslRelease {
  void operator()(bio_st* bio) const;
  void operator()(evp_pkey_st* key) const;
  void operator()(ssl_ctx_st* context) const;
  void operator()(ssl_st* connection) const;
  void operator()(x509_st* certificate) const;
  void operator()(x509_store_st* store) const;
};

template <class Object>
using OpenSslPtr = std::unique_ptr<Object, OpenSslRelease>;

// Why the last calls failed, from the thread's queue of errors, which is empty then.
std::string TakeOpenSslError();

}  // namespace trabex
