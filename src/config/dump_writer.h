// What the parts of a dump write with.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "base/text_counts.h"

namespace trabex {

// Writes lines; several for a list, each of them beginning with its key.
class DumpWriter {
 public:
  using WriteLine = std::function<void(std::string_view)>;

  // Where the lines go from now on; it outlives them.
  void SetTarget(const WriteLine& write_line) { write_line_ = &write_line; }

  void Line(std::string_view line) {
    if (const std::string section = std::exchange(awaited_section_, {}); !section.empty()) {
      Separator('-');
      Header(section);
    }
    (*write_line_)(line);
  }
  void Separator(char c) { Line(";" + std::string(74, c)); }
  void Header(std::string_view section) { Line("[" + std::string(section) + "]"); }
  // A section that is there only when it has a line.
  void AwaitSection(std::string_view section) { awaited_section_ = section; }
  void Scalar(std::string_view key, std::string_view value) {
    Line(std::string(key).append(" = ").append(value));
  }

  void BeginList(std::string_view key) {
    key_ = key;
    line_.clear();
  }
  void Entry(std::string_view entry) {
    constexpr std::size_t kMaxLength = 100;
    constexpr std::string_view kComma = ", ";
    if (!line_.empty() && line_.size() + kComma.size() + entry.size() <= kMaxLength) {
      line_.append(kComma).append(entry);
      return;
    }
    if (!line_.empty()) Line(line_);
    line_.assign(key_).append(" = ").append(entry);
  }
  void EndList() {
    if (line_.empty()) line_.assign(key_).append(" =");
    Line(line_);
  }

 private:
  const WriteLine* write_line_ = nullptr;
  std::string awaited_section_;
  std::string_view key_;
  std::string line_;
};

// How much of the dump may still be made in this call.
class DumpBudget {
 public:
  explicit DumpBudget(std::size_t entries) : left_(entries) {}
  // Whether one more entry may be; it is made then.
  bool Take() { return left_ > 0 && left_-- > 0; }

 private:
  std::size_t left_;
};

// Texts, of which the same may come again.
class SeenTexts {
 public:
  // Whether `text` is new, without regard to case.
  bool Add(std::string_view text) { return texts_.Of(HashNoCase{}(text), ToLower(text))++ == 0; }

 private:
  TextCounts texts_;
};

}  // namespace trabex
