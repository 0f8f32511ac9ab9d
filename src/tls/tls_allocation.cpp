#include "tls/tls_allocation.h"

#include <openssl/crypto.h>

#include <cstdlib>

namespace trabex {

bool LetTlsUseReserve() {
  return CRYPTO_set_mem_functions(AllocateForTls, ReallocateForTls, FreeForTls) == 1;
}

void* AllocateForTls(std::size_t size, const char* /*file*/, int /*line*/) {
  if (size == 0) return nullptr;
  return InsistOnMemory([size] { return std::malloc(size); });
}

void* ReallocateForTls(void* memory, std::size_t size, const char* file, int line) {
  if (memory == nullptr) return AllocateForTls(size, file, line);
  if (size == 0) {
    std::free(memory);
    return nullptr;
  }
  return InsistOnMemory([memory, size] { return std::realloc(memory, size); });
}

void FreeForTls(void* memory, const char* /*file*/, int /*line*/) {
  std::free(memory);
}

}  // namespace trabex
