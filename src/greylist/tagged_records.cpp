#include "greylist/tagged_records.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <utility>

#include "base/error.h"
#include "greylist/little_endian.h"

namespace trabex {

namespace {

constexpr char kInteger = 'i';
constexpr char kDate = 'd';
constexpr char kBytes = 'b';

constexpr std::size_t kBufferSize = 128 * 1024;
static_assert(kBufferSize > kMaxTaggedBytes);

}  // namespace

void RaiseCorruptedFile(std::string source) {
  throw Error(error_number::kBadFileContent, std::move(source), "The file is corrupted");
}

void TaggedRecordWriter::WriteInteger(std::string_view name, std::int32_t value) {
  Begin(name, kInteger);
  Number(static_cast<std::uint32_t>(value), 4);
}

void TaggedRecordWriter::WriteDate(std::string_view name, DateTime value) {
  Begin(name, kDate);
  Number(std::bit_cast<std::uint64_t>(value), 8);
}

void TaggedRecordWriter::WriteBytes(std::string_view name, std::string_view value) {
  assert(value.size() <= kMaxTaggedBytes);
  Begin(name, kBytes);
  Number(value.size(), 2);
  buffer_.append(value);
}

void TaggedRecordWriter::Finish() {
  checksum_.Add(buffer_);
  const std::uint32_t sum = checksum_.Value();
  out_(buffer_);
  buffer_.clear();
  Number(sum, 4);
  out_(buffer_);
  buffer_.clear();
}

void TaggedRecordWriter::Begin(std::string_view name, char type) {
  assert(name.size() <= 255);
  if (buffer_.size() >= kBufferSize) HandOut();
  buffer_ += static_cast<char>(name.size());
  buffer_.append(name);
  buffer_ += type;
}

void TaggedRecordWriter::Number(std::uint64_t value, int bytes) {
  AppendLittleEndian(buffer_, value, bytes);
}

void TaggedRecordWriter::HandOut() {
  checksum_.Add(buffer_);
  out_(buffer_);
  buffer_.clear();
}

TaggedRecordReader::TaggedRecordReader(BytesIn in, std::uint64_t size)
    : in_(std::move(in)),
      left_(size),
      buffer_(static_cast<std::size_t>(std::min<std::uint64_t>(size, kBufferSize)), '\0') {}

std::int32_t TaggedRecordReader::ReadInteger(std::string_view name) {
  Expect(name, kInteger);
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(Number(4)));
}

DateTime TaggedRecordReader::ReadDate(std::string_view name) {
  Expect(name, kDate);
  return std::bit_cast<DateTime>(Number(8));
}

std::string_view TaggedRecordReader::ReadBytes(std::string_view name) {
  Expect(name, kBytes);
  return Take(static_cast<std::size_t>(Number(2)));
}

void TaggedRecordReader::Finish() {
  checksum_.Add({buffer_.data() + checked_, begin_ - checked_});
  checked_ = begin_;
  const std::uint32_t expected = checksum_.Value();
  if (Number(TaggedRecordWriter::kEndSize) != expected || begin_ != end_ || left_ != 0) {
    RaiseCorruptedFile("TaggedRecords.Read");
  }
}

std::string_view TaggedRecordReader::Take(std::size_t size) {
  if (end_ - begin_ < size) {
    // What was read goes into the checksum and makes room.
    checksum_.Add({buffer_.data() + checked_, begin_ - checked_});
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = checked_ = 0;
    while (end_ < size) {
      const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left_, buffer_.size() - end_));
      const std::size_t got = wanted > 0 ? in_(buffer_.data() + end_, wanted) : 0;
      if (got == 0) RaiseCorruptedFile("TaggedRecords.Read");
      end_ += got;
      left_ -= got;
    }
  }
  begin_ += size;
  return {buffer_.data() + begin_ - size, size};
}

void TaggedRecordReader::Expect(std::string_view name, char type) {
  const auto length = static_cast<std::size_t>(Number(1));
  if (length != name.size() || Take(length) != name || Take(1)[0] != type) {
    RaiseCorruptedFile("TaggedRecords.Read");
  }
}

std::uint64_t TaggedRecordReader::Number(int bytes) {
  return FromLittleEndian(Take(static_cast<std::size_t>(bytes)));
}

}  // namespace trabex
