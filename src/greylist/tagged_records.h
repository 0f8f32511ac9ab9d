// Tagged records: named, typed values as one run of bytes, written and read in order.
//
// A record, called a property here since greylisting has records too, is its name (one byte of length,
// then the text), one byte for the type ("i", "d" or "b") and the value: "i" a signed number of 32 bits, "d"
// a date-time as a 64-bit IEEE double, "b" a run of bytes (two bytes of length, then the bytes). After the
// last property comes the CRC-32 of everything before it. All numbers are little-endian.
// docs/greylisting-database.md shows an example.
//
// The reader trusts no byte of the file, which may come from anywhere. It knows how many there are,
// never believes a length beyond that, and needs the same small buffer for every file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/date_time.h"
#include "greylist/crc32.h"

namespace trabex {

// The most that one property's bytes can hold.
inline constexpr std::size_t kMaxTaggedBytes = 65535;

// Takes what was written so far, in pieces. May raise an Error, which leaves the writer's call.
using BytesOut = std::function<void(std::string_view)>;
// Puts up to `size` bytes at `buffer` and returns their number; 0 is the end. May raise an Error, which
// leaves the reader's call.
using BytesIn = std::function<std::size_t(char* buffer, std::size_t size)>;

class TaggedRecordWriter {
 public:
  explicit TaggedRecordWriter(BytesOut out) : out_(std::move(out)) {}

  // `name` has at most 255 bytes, the bytes of a value at most kMaxTaggedBytes (asserted).
  void WriteInteger(std::string_view name, std::int32_t value);
  void WriteDate(std::string_view name, DateTime value);
  void WriteBytes(std::string_view name, std::string_view value);
  // Writes the checksum and hands out all that is left; nothing may be written after it.
  void Finish();

  // The bytes that a property or the end takes.
  static constexpr std::size_t IntegerSize(std::size_t name_size) { return 1 + name_size + 1 + 4; }
  static constexpr std::size_t DateSize(std::size_t name_size) { return 1 + name_size + 1 + 8; }
  static constexpr std::size_t BytesSize(std::size_t name_size, std::size_t value_size) {
    return 1 + name_size + 1 + 2 + value_size;
  }
  static constexpr std::size_t kEndSize = 4;

 private:
  void Begin(std::string_view name, char type);
  void Number(std::uint64_t value, int bytes);
  void HandOut();

  BytesOut out_;
  std::string buffer_;
  Crc32 checksum_;
};

// Every reading function raises 321 "The file is corrupted" (source "TaggedRecords.Read") when the next
// property has another name or type, or the bytes end inside it.
class TaggedRecordReader {
 public:
  // Reads `size` bytes of `in` in all.
  TaggedRecordReader(BytesIn in, std::uint64_t size);

  std::int32_t ReadInteger(std::string_view name);
  DateTime ReadDate(std::string_view name);
  // Valid until the next call.
  std::string_view ReadBytes(std::string_view name);
  // To be called after the last property: raises 321 as well when there are more, or when the checksum
  // differs.
  void Finish();

 private:
  // The next `size` bytes, which then count as read. Valid until the next call.
  std::string_view Take(std::size_t size);
  void Expect(std::string_view name, char type);
  std::uint64_t Number(int bytes);

  BytesIn in_;
  std::uint64_t left_;  // bytes of the content that are not in the buffer yet
  std::string buffer_;
  std::size_t begin_ = 0;  // what is buffered and not read
  std::size_t end_ = 0;
  std::size_t checked_ = 0;  // everything before it is in the checksum
  Crc32 checksum_;
};

// Raises the error above with `source`.
[[noreturn]] void RaiseCorruptedFile(std::string source);

}  // namespace trabex
