// What several tests of this folder need: databases to compare.
#pragma once

#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "base/error.h"
#include "greylist/database_format.h"
#include "greylist/greylisting_database.h"
#include "support/heap.h"

namespace trabex {

// A record as plain values: key, expires, delayed until, count.
using PlainRecord = std::tuple<std::string, DateTime, DateTime, std::int32_t>;

inline std::vector<PlainRecord> Plain(const GreyListingDatabase& database) {
  std::vector<PlainRecord> records;
  for (const cGreyListingData& record : database.All()) {
    records.emplace_back(record.Key(), record.ExpireAt(), record.DelayedUntil(), record.Count());
  }
  return records;
}

inline void AddAll(GreyListingDatabase& database, const std::vector<PlainRecord>& records) {
  for (const auto& [key, expire_at, delayed_until, count] : records) {
    database.Add({key, expire_at, delayed_until, count});
  }
}

// Some moment; records with a later date have not expired at it.
inline constexpr DateTime kSomeNow = 46000.5;

// `count` records that differ by `mark`, none of them expired at kSomeNow.
inline std::vector<PlainRecord> SomeRecords(const std::string& mark, int count) {
  std::vector<PlainRecord> records;
  for (int i = 1; i <= count; ++i) {
    records.emplace_back("192.0.2 " + mark + std::to_string(i) + "@a.test r@b.test", kSomeNow + i, kSomeNow,
                         -i);
  }
  return records;
}

inline std::vector<std::string> KeysOf(const GreyListingDatabase& database) {
  std::vector<std::string> keys;
  for (const cGreyListingData& record : database.All()) keys.push_back(record.Key());
  return keys;
}

// The content of a file with these records.
inline std::string ContentOf(const GreyListingDatabase& database, DateTime now = kSomeNow) {
  std::string content;
  WriteDatabase(database, now, [&content](std::string_view bytes) { content.append(bytes); });
  return content;
}
inline std::string ContentOf(const std::vector<PlainRecord>& records) {
  GreyListingDatabase database;
  AddAll(database, records);
  return ContentOf(database);
}

inline GreyListingDatabase DatabaseOf(std::string_view content, const PendingLimits& limits = {}) {
  return ReadDatabase(
      [rest = content](char* buffer, std::size_t size) mutable {
        const std::size_t got = rest.copy(buffer, size);
        rest.remove_prefix(got);
        return got;
      },
      content.size(), limits);
}

// "<number> <description>" of the Error that `action` raises, "" when there is none.
inline std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
    return "";
  } catch (const Error& error) {
    return std::to_string(error.Number()) + " " + error.Description();
  }
}

// A sanitizer's allocator counts nothing there, and keeps what was given back; another system may count nothing either.
inline bool CountsMemory() {
  const std::size_t before = HeapInUse();
  const std::vector<char> some(10000);
  return HeapInUse() >= before + some.size();
}

}  // namespace trabex
