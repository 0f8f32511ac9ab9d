#include "tls/tls_allocation.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <new>

namespace trabex {

namespace {

// `allocate` again and again, as long as the handler finds something to give back.
template <class Allocate>
void* Insist(Allocate allocate) {
  for (;;) {
    if (void* const memory = allocate()) return memory;
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) return nullptr;
    try {
      handler();
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
}

}  // namespace

bool LetTlsUseReserve() {
  return CRYPTO_set_mem_functions(AllocateForTls, ReallocateForTls, FreeForTls) == 1;
}

void* AllocateForTls(std::size_t size, const char* /*file*/, int /*line*/) {
  if (size == 0) return nullptr;
  return Insist([size] { return std::malloc(size); });
}

void* ReallocateForTls(void* memory, std::size_t size, const char* file, int line) {
  if (memory == nullptr) return AllocateForTls(size, file, line);
  if (size == 0) {
    std::free(memory);
    return nullptr;
  }
  return Insist([memory, size] { return std::realloc(memory, size); });
}

void FreeForTls(void* memory, const char* /*file*/, int /*line*/) {
  std::free(memory);
}

}  // namespace trabex
