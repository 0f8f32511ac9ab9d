// Where the TLS library's memory comes from.
#pragma once

#include <cstddef>
#include <new>

namespace trabex {

// Has the library ask for memory as operator new does: where there is none, the program's handler may give some back
// (base/memory_reserve). So a connection that is there goes on like any other session. To be called before anything else
// of this folder; returns whether it was.
bool LetTlsUseReserve();

// Calls `allocate` until it gives memory, or the handler of operator new has nothing more to give back: then nullptr.
template <class Allocate>
void* InsistOnMemory(Allocate allocate) {
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

// What the library calls, nullptr where there is no memory. A size of 0 gives nullptr, and frees what there was.
void* AllocateForTls(std::size_t size, const char* file, int line);
void* ReallocateForTls(void* memory, std::size_t size, const char* file, int line);
void FreeForTls(void* memory, const char* file, int line);

}  // namespace trabex
