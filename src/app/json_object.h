// Reads one JSON object of a line (RFC 8259) whose values are texts, whole numbers and truth values.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace trabex {

struct JsonValue {
  enum class Kind { kText, kNumber, kTruth };
  Kind kind = Kind::kText;
  std::string text;
  std::int64_t number = 0;
  bool truth = false;
};

class JsonObject {
 public:
  // nullptr when there is none of that name.
  const JsonValue* Find(std::string_view name) const {
    const auto found = members_.find(name);
    return found == members_.end() ? nullptr : &found->second;
  }
  const std::map<std::string, JsonValue, std::less<>>& Members() const { return members_; }
  // False when there is one of that name already.
  bool Add(std::string name, JsonValue value) {
    return members_.emplace(std::move(name), std::move(value)).second;
  }

 private:
  std::map<std::string, JsonValue, std::less<>> members_;
};

// Nothing for what is no such object, has a name twice, is no UTF-8, or has anything but blanks around it.
std::optional<JsonObject> ParseJsonObject(std::string_view line);

// The bytes that pairs of hexadecimal digits stand for; nothing for anything else.
std::optional<std::string> BytesOfHex(std::string_view digits);

}  // namespace trabex
