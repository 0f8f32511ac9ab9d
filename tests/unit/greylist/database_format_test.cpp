#include "greylist/database_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "greylist/crc32.h"
#include "unit/greylist/greylist_support.h"

namespace trabex {
namespace {

using namespace std::string_literals;

const std::string kCorrupted = "321 The file is corrupted";

std::string Number(std::uint64_t value, int bytes) {
  std::string text;
  for (; bytes > 0; --bytes, value >>= 8) text += static_cast<char>(value & 0xFF);
  return text;
}

// A file around these properties, with the right length and checksum.
std::string FileOf(const std::string& properties) {
  Crc32 crc;
  crc.Add(properties);
  const std::string payload = properties + Number(crc.Value(), 4);
  return "\x3F\xC7\x6A\xA2"s + Number(payload.size(), 4) + payload;
}

std::string Property(const std::string& name, char type, const std::string& value) {
  return Number(name.size(), 1) + name + type + value;
}
std::string Integer(const std::string& name, std::uint32_t value) {
  return Property(name, 'i', Number(value, 4));
}
// 1.0 is 3FF0000000000000, 2.0 is 4000000000000000.
std::string Date(const std::string& name, std::uint64_t bits) {
  return Property(name, 'd', Number(bits, 8));
}
std::string Bytes(const std::string& name, const std::string& value) {
  return Property(name, 'b', Number(value.size(), 2) + value);
}
constexpr std::uint64_t kOne = 0x3FF0000000000000;
constexpr std::uint64_t kTwo = 0x4000000000000000;

std::string Record(const std::string& number, const std::string& key) {
  return Integer(number + "R", 0xFFFFFFFF) + Date(number + "D", kOne) + Date(number + "X", kTwo) +
         Bytes(number + "K", key);
}

TEST(DatabaseFormat, IsAsDocumented) {
  GreyListingDatabase database;
  database.Add({"k\xE9y", 2, 1, -1});
  // The example of docs/greylisting-database.md.
  const std::string expected =
      "\x3F\xC7\x6A\xA2"s
      "\x34\x00\x00\x00"s
      "\x01"s
      "C"s
      "i"s
      "\x01\x00\x00\x00"s
      "\x02"s
      "1R"s
      "i"s
      "\xFF\xFF\xFF\xFF"s
      "\x02"s
      "1D"s
      "d"s
      "\x00\x00\x00\x00\x00\x00\xF0\x3F"s
      "\x02"s
      "1X"s
      "d"s
      "\x00\x00\x00\x00\x00\x00\x00\x40"s
      "\x02"s
      "1K"s
      "b"s
      "\x03\x00"s
      "k\xE9y"s;
  const std::string content = ContentOf(database, 0);
  ASSERT_EQ(content.size(), expected.size() + 4);
  EXPECT_EQ(content.substr(0, expected.size()), expected);
  EXPECT_EQ(content, FileOf(expected.substr(8)));
  EXPECT_EQ(content, FileOf(Integer("C", 1) + Record("1", "k\xE9y")));
}

// A file written before there were IPv6 clients is read, and such records only add to it.
TEST(DatabaseFormat, RecordsOfBothFamiliesStandBesideEachOther) {
  const std::string ipv4_key = "192.0.2 s@a.test r@b.test";
  const std::string ipv6_key = "2001:db8:0:1::/64 s@a.test r@b.test";
  GreyListingDatabase database = DatabaseOf(FileOf(Integer("C", 1) + Record("1", ipv4_key)));
  EXPECT_EQ(Plain(database), (std::vector<PlainRecord>{{ipv4_key, 2, 1, -1}}));
  EXPECT_EQ(ContentOf(database, 0), FileOf(Integer("C", 1) + Record("1", ipv4_key)));
  database.Add({ipv6_key, 2, 1, -1});
  const std::string content = ContentOf(database, 0);
  EXPECT_EQ(content, FileOf(Integer("C", 2) + Record("1", ipv4_key) + Record("2", ipv6_key)));
  EXPECT_EQ(KeysOf(DatabaseOf(content)), (std::vector<std::string>{ipv4_key, ipv6_key}));
}

TEST(DatabaseFormat, HoldsOnlyWhatHasNotExpired) {
  GreyListingDatabase database;
  AddAll(database, {{"a", 9, 1, -1}, {"b", 10.5, 1, -1}, {"c", 10, 1, -1}, {"d", 11, 1, -1}});
  EXPECT_EQ(Plain(DatabaseOf(ContentOf(database, 10))),
            (std::vector<PlainRecord>{{"b", 10.5, 1, -1}, {"d", 11, 1, -1}}));
  // Writing changes nothing in memory.
  EXPECT_EQ(database.Count(), 4U);
}

TEST(DatabaseFormat, ExpiredRecordsAreRead) {
  EXPECT_EQ(Plain(DatabaseOf(FileOf(Integer("C", 1) + Record("1", "old")))),
            (std::vector<PlainRecord>{{"old", 2, 1, -1}}));
}

TEST(DatabaseFormat, AnEmptyDatabaseComesBack) {
  const std::string content = ContentOf(GreyListingDatabase());
  EXPECT_EQ(content, FileOf(Integer("C", 0)));
  EXPECT_EQ(DatabaseOf(content).Count(), 0U);
}

TEST(DatabaseFormat, EveryByteInAKeyComesBack) {
  std::string key;
  for (int byte = 0; byte < 256; ++byte) key += static_cast<char>(byte);
  const std::vector<PlainRecord> records = {{key, kSomeNow + 1, kSomeNow, -1}};
  EXPECT_EQ(Plain(DatabaseOf(ContentOf(records))), records);
}

TEST(DatabaseFormat, LimitsComeBack) {
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
  constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
  const std::vector<PlainRecord> records = {
      {"", 2958465.9, -657434, kMax},
      {std::string(kMaxTaggedBytes, 'k'), std::nextafter(kSomeNow, 1e9), 0, kMin},
      {"z", kSomeNow + 1, std::numeric_limits<double>::denorm_min(), 0},
  };
  EXPECT_EQ(Plain(DatabaseOf(ContentOf(records))), records);
}

struct BadFile {
  const char* what;
  std::string content;
  std::string error = kCorrupted;
};

TEST(DatabaseFormat, WhatIsNoDatabaseIsRefused) {
  const std::string good = FileOf(Integer("C", 1) + Record("1", "key"));
  ASSERT_EQ(DatabaseOf(good).Count(), 1U);
  const std::string nan = Date("1X", 0x7FF8000000000000);
  const std::string infinite = Date("1X", 0x7FF0000000000000);
  const std::string far_away = Date("1X", 0x7FEFFFFFFFFFFFFF);
  const std::string start = Integer("C", 1) + Integer("1R", 1) + Date("1D", kOne);
  const BadFile cases[] = {
      {"nothing", ""},
      {"half a header", good.substr(0, 5)},
      {"a header alone", good.substr(0, 8)},
      {"a header of no payload", "\x3F\xC7\x6A\xA2\0\0\0\0"s},
      {"another magic", "\x40" + good.substr(1)},
      {"the magic reversed", "\xA2\x6A\xC7\x3F" + good.substr(4)},
      {"a length of 4 GB in a file of 20 bytes", "\x3F\xC7\x6A\xA2\xFF\xFF\xFF\xFF"s + good.substr(8, 12)},
      {"a length too long by one", "\x3F\xC7\x6A\xA2"s + Number(good.size() - 7, 4) + good.substr(8)},
      {"a length too short by one", "\x3F\xC7\x6A\xA2"s + Number(good.size() - 9, 4) + good.substr(8)},
      {"a byte behind the payload", good + '\0'},
      {"a byte less", good.substr(0, good.size() - 1)},
      {"a checksum of zeros", good.substr(0, good.size() - 4) + "\0\0\0\0"s},
      {"no properties", FileOf("")},
      {"no C", FileOf(Record("1", "key"))},
      {"C of another type", FileOf(Date("C", kOne))},
      {"C in lower case", FileOf(Integer("c", 0))},
      {"a negative C", FileOf(Integer("C", 0xFFFFFFFF))},
      {"the lowest C", FileOf(Integer("C", 0x80000000))},
      {"the highest C", FileOf(Integer("C", 0x7FFFFFFF) + Record("1", "key"))},
      {"C too high by one", FileOf(Integer("C", 2) + Record("1", "key"))},
      {"C too low by one", FileOf(Integer("C", 1) + Record("1", "a") + Record("2", "b"))},
      {"C twice", FileOf(Integer("C", 0) + Integer("C", 0))},
      {"a record without R", FileOf(Integer("C", 1) + Record("1", "a").substr(8))},
      {"a record numbered from 0", FileOf(Integer("C", 1) + Record("0", "a"))},
      {"a padded number", FileOf(Integer("C", 1) + Record("01", "a"))},
      {"the same number twice", FileOf(Integer("C", 2) + Record("1", "a") + Record("1", "b"))},
      {"properties in another order",
       FileOf(Integer("C", 1) + Date("1D", kOne) + Integer("1R", 1) + Date("1X", kTwo) + Bytes("1K", "k"))},
      {"an unknown type", FileOf(Property("C", 'x', Number(0, 4)))},
      {"R as a date",
       FileOf(Integer("C", 1) + Date("1R", kOne) + Date("1D", kOne) + Date("1X", kTwo) + Bytes("1K", "k"))},
      {"a key longer than the file", FileOf(start + Date("1X", kTwo) + Property("1K", 'b', "\xFF\xFFk"s))},
      {"a date that is no number", FileOf(start + nan + Bytes("1K", "k"))},
      {"an infinite date", FileOf(start + infinite + Bytes("1K", "k"))},
      {"a date beyond all calendars", FileOf(start + far_away + Bytes("1K", "k"))},
      {"a key twice", FileOf(Integer("C", 2) + Record("1", "key") + Record("2", "key")),
       "457 This key is already associated with an element of this collection"},
  };
  for (const BadFile& file : cases) {
    EXPECT_EQ(ErrorOf([&] { DatabaseOf(file.content); }), file.error) << file.what;
  }
}

TEST(DatabaseFormat, EveryTruncationIsRefused) {
  const std::string content = ContentOf(SomeRecords("s", 3));
  for (std::size_t size = 0; size < content.size(); ++size) {
    const std::string part = content.substr(0, size);
    ASSERT_EQ(ErrorOf([&] { DatabaseOf(part); }), kCorrupted) << size;
    if (size < 8) continue;
    // Also with a header that knows of it.
    const std::string fitting = part.substr(0, 4) + Number(size - 8, 4) + part.substr(8);
    ASSERT_EQ(ErrorOf([&] { DatabaseOf(fitting); }), kCorrupted) << size;
  }
}

TEST(DatabaseFormat, EveryChangedBitIsFound) {
  const std::string content = ContentOf(SomeRecords("s", 2));
  for (std::size_t bit = 0; bit < content.size() * 8; ++bit) {
    std::string damaged = content;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
    ASSERT_EQ(ErrorOf([&] { DatabaseOf(damaged); }), kCorrupted) << bit;
  }
}

// A file that gets shorter while it is read.
TEST(DatabaseFormat, AnEndBeforeTheSizeIsRefused) {
  const std::string content = ContentOf(SomeRecords("s", 3));
  for (std::size_t size = 0; size < content.size(); ++size) {
    std::string_view rest = std::string_view(content).substr(0, size);
    const auto in = [&rest](char* buffer, std::size_t room) {
      const std::size_t got = rest.copy(buffer, room);
      rest.remove_prefix(got);
      return got;
    };
    ASSERT_EQ(ErrorOf([&] { ReadDatabase(in, content.size()); }), kCorrupted) << size;
  }
}

TEST(DatabaseFormat, ComesInAnyPieces) {
  const std::vector<PlainRecord> records = SomeRecords("s", 20);
  const std::string content = ContentOf(records);
  for (const std::size_t piece : {1U, 2U, 3U, 7U, 100U}) {
    std::string_view rest = content;
    const auto in = [&rest, piece](char* buffer, std::size_t room) {
      const std::size_t got = rest.copy(buffer, std::min(room, piece));
      rest.remove_prefix(got);
      return got;
    };
    EXPECT_EQ(Plain(ReadDatabase(in, content.size())), records) << piece;
  }
}

// A content with a payload of `max_payload` bytes at most, and how many records it lacks.
struct Shortened {
  std::string content;
  std::size_t left_out = 0;
};
Shortened ShortenedTo(std::uint64_t max_payload, const GreyListingDatabase& database,
                      DateTime now = kSomeNow) {
  Shortened result;
  const auto out = [&result](std::string_view bytes) { result.content.append(bytes); };
  result.left_out = WriteDatabase(database, now, out, max_payload);
  return result;
}

TEST(DatabaseFormat, WhatFitsIsNeverLeftOut) {
  for (const int count : {0, 1, 9, 10, 99, 100, 1234}) {
    GreyListingDatabase database;
    AddAll(database, SomeRecords("s", count));
    const std::uint64_t whole = ContentOf(database).size() - 8;
    EXPECT_EQ(ShortenedTo(whole, database).left_out, 0U) << count;
    EXPECT_EQ(ShortenedTo(whole, database).content, ContentOf(database)) << count;
    EXPECT_EQ(ShortenedTo(whole - 1, database).left_out, count > 0 ? 1U : 0U) << count;
  }
}

TEST(DatabaseFormat, ThePendingOnesAddedFirstAreLeftOut) {
  GreyListingDatabase database;
  AddAll(database, {{"expired", 9, 1, -1},
                    {"accepted", 90, 1, 5},
                    {"a", 95, 90, -1},
                    {"b", 90, 1, -1},
                    {"accepted later", 90, 1, 1},
                    {"c", 90, 1, -7}});
  const std::vector<std::string> cases[] = {
      {"accepted", "a", "b", "accepted later", "c"},
      {"accepted", "b", "accepted later", "c"},
      {"accepted", "accepted later", "c"},
      {"accepted", "accepted later"},
      // Only then those.
      {"accepted later"},
      {},
  };
  std::uint64_t max_payload = std::numeric_limits<std::uint32_t>::max();
  std::size_t left_out = 0;
  for (const std::vector<std::string>& keys : cases) {
    const Shortened shortened = ShortenedTo(max_payload, database, 10);
    EXPECT_EQ(KeysOf(DatabaseOf(shortened.content)), keys);
    EXPECT_EQ(shortened.left_out, left_out++);
    max_payload = shortened.content.size() - 8 - 1;
  }
  EXPECT_EQ(database.Count(), 6U);
}

// Whatever is permitted: it is kept to, nothing more is left out than has to be, and the file is good.
TEST(DatabaseFormat, LeavesOutNoMoreThanItHasTo) {
  GreyListingDatabase database;
  std::mt19937 random(4);
  std::size_t accepted = 0;
  for (int i = 0; i < 30; ++i) {
    const std::int32_t count = random() % 3 == 0 ? 1 : -1;
    accepted += count > 0 ? 1 : 0;
    database.Add({std::string(random() % 40, 'k') + std::to_string(i), kSomeNow + 1, kSomeNow, count});
  }
  const std::uint64_t whole = ContentOf(database).size() - 8;
  std::size_t left_out_before = 0;
  std::uint64_t room_wanted = whole;  // for one more than were left out last
  for (std::uint64_t max_payload = whole; max_payload > 11; --max_payload) {
    const Shortened shortened = ShortenedTo(max_payload, database);
    ASSERT_LE(shortened.content.size() - 8, max_payload);
    const std::vector<PlainRecord> kept = Plain(DatabaseOf(shortened.content));
    ASSERT_EQ(kept.size() + shortened.left_out, 30U);
    if (shortened.left_out > left_out_before) {
      // The length before was just enough for those.
      ASSERT_EQ(max_payload + 1, room_wanted);
      ASSERT_EQ(shortened.left_out, left_out_before + 1);
      left_out_before = shortened.left_out;
      room_wanted = shortened.content.size() - 8;
    }
    const auto kept_accepted = static_cast<std::size_t>(std::count_if(
        kept.begin(), kept.end(), [](const PlainRecord& record) { return std::get<3>(record) > 0; }));
    ASSERT_EQ(kept_accepted, std::min(accepted, kept.size())) << max_payload;
  }
}

TEST(DatabaseFormat, OfThePendingOnesTheLastAreRead) {
  GreyListingDatabase database;
  AddAll(database, {{"1.1.1 a", 90, 1, -1},
                    {"1.1.1 b", 90, 1, 3},
                    {"1.1.2 a", 90, 1, -1},
                    {"1.1.1 c", 80, 1, -1},
                    {"1.1.1 d", 70, 1, -1},
                    {"1.1.3 a", 90, 1, -1}});
  const std::string content = ContentOf(database, 10);
  GreyListingDatabase read = DatabaseOf(content, {.in_all = 3, .per_network = 2});
  EXPECT_EQ(KeysOf(read), (std::vector<std::string>{"1.1.1 b", "1.1.1 c", "1.1.1 d", "1.1.3 a"}));
  EXPECT_EQ(read.PendingCount(), 3U);
  const DroppedPending dropped = read.TakeDropped();
  EXPECT_EQ(dropped.by_limit_in_all, 1U);
  EXPECT_EQ(dropped.by_limit_per_network, 1U);
  // They belong to their networks as new ones do.
  read.Add({"1.1.1 e", 90, 1, -1});
  EXPECT_EQ(read.Find("1.1.1 c"), nullptr);
}

TEST(DatabaseFormat, RandomBytesAreRefused) {
  std::mt19937_64 random(20261115);
  for (int round = 0; round < 20000; ++round) {
    std::string content(random() % 300, '\0');
    for (char& byte : content) byte = static_cast<char>(random());
    // Most of them get as far as a header can get them.
    if (round % 4 != 0 && content.size() >= 8) {
      content.replace(0, 8, "\x3F\xC7\x6A\xA2"s + Number(content.size() - 8, 4));
    }
    if (round % 4 == 2 && content.size() >= 15)
      content.replace(8, 3,
                      "\x01"s
                      "Ci");
    ASSERT_EQ(ErrorOf([&] { DatabaseOf(content); }), kCorrupted) << round;
  }
}

TEST(DatabaseFormat, RandomDatabasesComeBack) {
  std::mt19937_64 random(15112026);
  for (int round = 0; round < 40; ++round) {
    GreyListingDatabase database;
    const std::size_t count = random() % 600;
    while (database.Count() < count) {
      std::string key(random() % 10 == 0 ? random() % 5000 : random() % 120, '\0');
      for (char& byte : key) byte = static_cast<char>(random());
      if (database.Find(key) != nullptr) continue;
      const auto date = [&random] { return 46000 + static_cast<double>(random() % 1000000) / 1e4; };
      const DateTime expire_at = date();
      database.Add({key, expire_at, date(), static_cast<std::int32_t>(random())});
    }
    GreyListingDatabase read = DatabaseOf(ContentOf(database, 46050));
    database.RemoveExpired(46050);
    ASSERT_EQ(Plain(read), Plain(database)) << round;
    EXPECT_FALSE(read.Changed());
  }
}

}  // namespace
}  // namespace trabex
