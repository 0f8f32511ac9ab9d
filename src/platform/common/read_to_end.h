// Reading a whole file into memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>

#include "base/error.h"
#include "platform/files.h"

namespace trabex {

// What is left of an open file of about `size` bytes. `read(buffer, size)` puts up to so many bytes at the buffer,
// returns their number, 0 at the end, and raises its own errors. Raises 7 "Out of memory" as ReadWholeFile does.
template <class Read>
std::string ReadToEnd(Read read, std::uint64_t size, const std::string& source) {
  try {
    if (size > kMaxWholeFileBytes) throw std::bad_alloc();
    // One byte more than the size, so that the end of a file that does not grow is seen without growing
    // the text.
    std::string content(static_cast<std::size_t>(size) + 1, '\0');
    std::size_t length = 0;
    while (const std::size_t got = read(content.data() + length, content.size() - length)) {
      length += got;
      if (length > kMaxWholeFileBytes) throw std::bad_alloc();
      if (length == content.size()) content.resize(content.size() * 2 + 4096);
    }
    content.resize(length);
    return content;
  } catch (const std::bad_alloc&) {
    throw Error(error_number::kOutOfMemory, source, "Out of memory");
  }
}

}  // namespace trabex
