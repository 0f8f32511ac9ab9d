// The greylisting database file: the input as a whole file, and as the properties of a file with the right
// header and checksum, so that what follows those is reached too. There is one file for a database: what
// is read gives, when it is written, the same bytes again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/error.h"
#include "greylist/crc32.h"
#include "greylist/database_format.h"
#include "greylist/little_endian.h"

namespace {

using namespace trabex;

void Require(bool condition) {
  if (!condition) std::abort();
}

// In pieces of `piece` bytes, so that values lie across them.
void CheckFile(const std::string& content, std::size_t piece) {
  std::string_view rest = content;
  const auto in = [&rest, piece](char* buffer, std::size_t size) {
    const std::size_t got = rest.copy(buffer, std::min(size, piece));
    rest.remove_prefix(got);
    return got;
  };
  try {
    const GreyListingDatabase database = ReadDatabase(in, content.size());
    std::string written;
    constexpr DateTime kBeforeAll = -1e9;
    WriteDatabase(database, kBeforeAll, [&written](std::string_view bytes) { written.append(bytes); });
    Require(written == content);
  } catch (const Error& error) {
    Require(error.Number() == error_number::kBadFileContent || error.Number() == error_number::kDuplicateKey);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  CheckFile(input, input.size() + 1);

  Crc32 checksum;
  checksum.Add(input);
  std::string file = "\x3F\xC7\x6A\xA2";
  AppendLittleEndian(file, input.size() + TaggedRecordWriter::kEndSize, 4);
  file += input;
  AppendLittleEndian(file, checksum.Value(), 4);
  CheckFile(file, 1 + size % 16);
  return 0;
}
