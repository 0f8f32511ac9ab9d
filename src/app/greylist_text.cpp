#include "app/greylist_text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>

#include "app/json_object.h"
#include "app/printable.h"
#include "base/error.h"
#include "base/text.h"
#include "greylist/tagged_records.h"
#include "greylist/triple_key.h"
#include "report/json_line.h"

namespace trabex {

namespace {

[[noreturn]] void RaiseBadRecord(std::string description) {
  throw Error(error_number::kBadFileContent, "GreyListText.ParseExported", std::move(description));
}

void AppendParts(const TripleParts& parts, JsonLine& json) {
  json.Text("network", parts.network);
  json.Text("sender", parts.sender);
  json.Text("recipient", parts.recipient);
}

void AppendTimes(const cGreyListingData& record, JsonLine& json) {
  json.Number("attempts", record.Attempts());
  json.Text("delayed_until", FormatISODate(record.DelayedUntil()));
  json.Text("expires", FormatISODate(record.ExpireAt()));
  json.End();
}

// The members of an exported record. A text that was no UTF-8 comes a second time as its bytes.
std::string TextMember(const JsonObject& object, std::string_view name) {
  if (const JsonValue* const hex = object.Find(std::string(name) + "_hex")) {
    const auto bytes = hex->kind == JsonValue::Kind::kText ? BytesOfHex(hex->text) : std::nullopt;
    if (!bytes) RaiseBadRecord("\"" + std::string(name) + "_hex\" is no run of bytes.");
    return *bytes;
  }
  const JsonValue* const value = object.Find(name);
  if (value == nullptr || value->kind != JsonValue::Kind::kText) {
    RaiseBadRecord("The text \"" + std::string(name) + "\" is missing.");
  }
  return value->text;
}

DateTime TimeMember(const JsonObject& object, std::string_view name) {
  const auto time = ParseISODate(TextMember(object, name));
  if (!time) RaiseBadRecord("\"" + std::string(name) + "\" is no time such as 2026-11-15T13:54:24Z.");
  return *time;
}

void RefuseOtherMembers(const JsonObject& object) {
  constexpr std::array<std::string_view, 9> kNames = {"network",  "sender",      "recipient",
                                                      "accepted", "attempts",    "delayed_until",
                                                      "expires",  "network_hex", "sender_hex"};
  for (const auto& [name, value] : object.Members()) {
    if (name != "recipient_hex" && std::find(kNames.begin(), kNames.end(), name) == kNames.end()) {
      RaiseBadRecord("\"" + name + "\" is not known.");
    }
  }
}

}  // namespace

GreyListState StateOf(const cGreyListingData& record, DateTime now) {
  if (now > record.ExpireAt()) return GreyListState::kExpired;
  return record.Pending() ? GreyListState::kWaiting : GreyListState::kAccepted;
}

std::string_view StateText(GreyListState state) {
  constexpr std::array<std::string_view, 3> kTexts = {"accepted", "waiting", "expired"};
  return kTexts[static_cast<std::size_t>(state)];
}

std::string FormatISODate(DateTime time) {
  const CalendarTime at = ToCalendar(time);
  return ZeroPadded(at.year, 4) + "-" + ZeroPadded(at.month, 2) + "-" + ZeroPadded(at.day, 2) + "T" +
         ZeroPadded(at.hour, 2) + ":" + ZeroPadded(at.minute, 2) + ":" + ZeroPadded(at.second, 2) + "Z";
}

std::optional<DateTime> ParseISODate(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
  if (text.size() != kForm.size()) return std::nullopt;
  std::array<unsigned, 6> fields{};
  std::size_t field = 0;
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    if (kForm[i] != '0') {
      if (text[i] != kForm[i]) return std::nullopt;
      ++field;
    } else if (IsDigit(text[i])) {
      fields[field] = fields[field] * 10 + static_cast<unsigned>(text[i] - '0');
    } else {
      return std::nullopt;
    }
  }
  const std::chrono::year_month_day day(std::chrono::year(static_cast<int>(fields[0])),
                                        std::chrono::month(fields[1]), std::chrono::day(fields[2]));
  if (!day.ok() || fields[0] < 100 || fields[3] > 23 || fields[4] > 59 || fields[5] > 59) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(day).time_since_epoch().count();
  return FromUnix(days * 86400 + fields[3] * 3600 + fields[4] * 60 + fields[5], 0);
}

void AppendRow(const cGreyListingData& record, DateTime now, std::string& out) {
  const TripleParts parts = PartsOf(record.Key());
  out += Printable(parts.network) + "\t";
  out += (parts.sender.empty() ? "<>" : Printable(parts.sender)) + "\t";
  out += Printable(parts.recipient) + "\t";
  out.append(StateText(StateOf(record, now))).append("\t");
  out += std::to_string(record.Attempts()) + "\t" + FormatISODate(record.DelayedUntil()) + "\t" +
         FormatISODate(record.ExpireAt()) + "\n";
}

void AppendListed(const cGreyListingData& record, DateTime now, std::string& out) {
  JsonLine json(out);
  json.Begin();
  AppendParts(PartsOf(record.Key()), json);
  json.Text("state", StateText(StateOf(record, now)));
  AppendTimes(record, json);
}

void AppendExported(const cGreyListingData& record, std::string& out) {
  JsonLine json(out);
  json.Begin();
  AppendParts(PartsOf(record.Key()), json);
  json.Truth("accepted", !record.Pending());
  AppendTimes(record, json);
}

cGreyListingData ParseExported(std::string_view line) {
  const auto object = ParseJsonObject(line);
  if (!object) RaiseBadRecord("This is no JSON object of texts, whole numbers and truth values.");
  RefuseOtherMembers(*object);
  const std::string network = TextMember(*object, "network");
  const std::string sender = TextMember(*object, "sender");
  const std::string recipient = TextMember(*object, "recipient");
  const JsonValue* const accepted = object->Find("accepted");
  if (accepted == nullptr || accepted->kind != JsonValue::Kind::kTruth) {
    RaiseBadRecord("The truth value \"accepted\" is missing.");
  }
  const JsonValue* const attempts = object->Find("attempts");
  if (attempts == nullptr || attempts->kind != JsonValue::Kind::kNumber ||
      attempts->number < (accepted->truth ? 1 : 0) ||
      attempts->number > std::numeric_limits<std::int32_t>::max()) {
    RaiseBadRecord("The number \"attempts\" is missing or out of range.");
  }
  if (network.size() + sender.size() + recipient.size() + 2 > kMaxTaggedBytes)
    RaiseBadRecord("It is too long.");
  const std::string text = network + " " + sender + " " + recipient;
  const TripleParts parts = PartsOf(text);
  if (network.empty() || recipient.empty() || parts.network != network || parts.sender != sender ||
      parts.recipient != recipient) {
    RaiseBadRecord("Network, sender and recipient cannot be told apart.");
  }
  const auto count = static_cast<std::int32_t>(attempts->number);
  return {TripleKey(network, sender, recipient), TimeMember(*object, "expires"),
          TimeMember(*object, "delayed_until"), accepted->truth ? count : -count};
}

}  // namespace trabex
