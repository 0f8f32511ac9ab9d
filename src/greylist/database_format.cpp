#include "greylist/database_format.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "greylist/little_endian.h"

namespace trabex {

namespace {

constexpr std::string_view kMagic = "\x3F\xC7\x6A\xA2";
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kMaxReserved = 250'000;
constexpr std::string_view kReadSource = "mGreyListing.LoadGreyListingDatabase";

// The dates that have a text of four-digit years; nothing else comes out of a clock plus the longest
// settings.
constexpr DateTime kEarliestDate = -657434;  // 1 January 100
constexpr DateTime kLatestDate = 2958466;    // 1 January 10000

// The names of one record's properties: its number, then a letter.
class RecordName {
 public:
  explicit RecordName(std::int32_t number) {
    letter_ = std::to_chars(text_.data(), text_.data() + text_.size(), number).ptr;
  }
  std::string_view With(char letter) {
    *letter_ = letter;
    return {text_.data(), Size()};
  }
  std::size_t Size() const { return static_cast<std::size_t>(letter_ - text_.data()) + 1; }

 private:
  std::array<char, 12> text_{};  // "2147483647R"
  char* letter_;
};

constexpr std::size_t kPropertiesOfRecord = 4;

std::size_t RecordSize(std::size_t name_size, std::size_t key_size) {
  using Writer = TaggedRecordWriter;
  return Writer::IntegerSize(name_size) + 2 * Writer::DateSize(name_size) +
         Writer::BytesSize(name_size, key_size);
}

// The length of a payload with `count` records whose keys have `key_bytes` in all.
std::uint64_t PayloadLength(std::uint64_t count, std::uint64_t key_bytes) {
  // The letters; then one digit for the numbers from 1 on, another for those from 10 on, and so forth.
  std::uint64_t names = count;
  for (std::uint64_t from = 1; from <= count; from *= 10) names += count - from + 1;
  return TaggedRecordWriter::IntegerSize(1) + count * RecordSize(0, 0) + names * kPropertiesOfRecord +
         key_bytes + TaggedRecordWriter::kEndSize;
}

// What will be written, and how many of the records that have not expired will not.
struct Extent {
  std::uint64_t count = 0;
  std::uint64_t key_bytes = 0;
  std::size_t pending_left_out = 0;   // the first ones
  std::size_t accepted_left_out = 0;  // likewise

  std::uint64_t Length() const { return PayloadLength(count, key_bytes); }
};

// Counts out the first records, of the pending or of the accepted ones, until the others fit. Returns how
// many.
std::size_t LeaveOut(const GreyListingDatabase& database, DateTime now, bool pending,
                     std::uint64_t max_payload, Extent& extent) {
  std::size_t left_out = 0;
  for (const cGreyListingData& record : database.All()) {
    if (extent.Length() <= max_payload) break;
    if (now >= record.ExpireAt() || record.Pending() != pending) continue;
    --extent.count;
    extent.key_bytes -= record.Key().size();
    ++left_out;
  }
  return left_out;
}

Extent Measure(const GreyListingDatabase& database, DateTime now, std::uint64_t max_payload) {
  Extent extent;
  for (const cGreyListingData& record : database.All()) {
    if (now >= record.ExpireAt()) continue;
    ++extent.count;
    extent.key_bytes += record.Key().size();
  }
  if (extent.Length() <= max_payload) return extent;
  extent.pending_left_out = LeaveOut(database, now, true, max_payload, extent);
  extent.accepted_left_out = LeaveOut(database, now, false, max_payload, extent);
  return extent;
}

DateTime ReadDateOf(TaggedRecordReader& reader, std::string_view name) {
  const DateTime date = reader.ReadDate(name);
  if (!(date >= kEarliestDate && date < kLatestDate)) RaiseCorruptedFile(std::string(kReadSource));
  return date;
}

// The payload's length; raises 321 when the header is not ours or does not fit a content of `size` bytes.
std::uint64_t ReadHeader(const BytesIn& in, std::uint64_t size) {
  std::array<char, kHeaderSize> header{};
  std::size_t got = 0;
  while (got < header.size()) {
    const std::size_t more = in(header.data() + got, header.size() - got);
    if (more == 0) RaiseCorruptedFile(std::string(kReadSource));
    got += more;
  }
  if (std::string_view(header.data(), kMagic.size()) != kMagic) RaiseCorruptedFile(std::string(kReadSource));
  const std::uint64_t length = FromLittleEndian({header.data() + kMagic.size(), kHeaderSize - kMagic.size()});
  if (size != kHeaderSize + length) RaiseCorruptedFile(std::string(kReadSource));
  return length;
}

}  // namespace

std::size_t WriteDatabase(const GreyListingDatabase& database, DateTime now, const BytesOut& out,
                          std::uint64_t max_payload) {
  const Extent extent = Measure(database, now, max_payload);
  std::string header(kMagic);
  AppendLittleEndian(header, extent.Length(), 4);
  out(header);

  TaggedRecordWriter writer(out);
  writer.WriteInteger("C", static_cast<std::int32_t>(extent.count));
  std::size_t pending_to_pass = extent.pending_left_out;
  std::size_t accepted_to_pass = extent.accepted_left_out;
  std::int32_t number = 0;
  for (const cGreyListingData& record : database.All()) {
    if (now >= record.ExpireAt()) continue;
    if (std::size_t& to_pass = record.Pending() ? pending_to_pass : accepted_to_pass; to_pass > 0) {
      --to_pass;
      continue;
    }
    RecordName name(++number);
    writer.WriteInteger(name.With('R'), record.Count());
    writer.WriteDate(name.With('D'), record.DelayedUntil());
    writer.WriteDate(name.With('X'), record.ExpireAt());
    writer.WriteBytes(name.With('K'), record.Key());
  }
  writer.Finish();
  return extent.pending_left_out + extent.accepted_left_out;
}

GreyListingDatabase ReadDatabase(BytesIn in, std::uint64_t size, const PendingLimits& limits) {
  const std::uint64_t length = ReadHeader(in, size);
  TaggedRecordReader reader(std::move(in), length);
  const std::int32_t count = reader.ReadInteger("C");
  // Could the file hold that many records at all?
  if (count < 0 || static_cast<std::uint64_t>(count) * RecordSize(2, 0) > length) {
    RaiseCorruptedFile(std::string(kReadSource));
  }
  GreyListingDatabase database;
  database.SetLimits(limits);
  // A file with holes in it may be as long as its count needs and have nothing of it on the disk, so no room
  // is made for more than a few megabytes; beyond that the index grows with what is read.
  database.Reserve(std::min(static_cast<std::size_t>(count), kMaxReserved));
  for (std::int32_t number = 1; number <= count; ++number) {
    RecordName name(number);
    const std::int32_t attempts = reader.ReadInteger(name.With('R'));
    const DateTime delayed_until = ReadDateOf(reader, name.With('D'));
    const DateTime expire_at = ReadDateOf(reader, name.With('X'));
    database.Add({std::string(reader.ReadBytes(name.With('K'))), expire_at, delayed_until, attempts});
  }
  reader.Finish();
  return database;
}

}  // namespace trabex
