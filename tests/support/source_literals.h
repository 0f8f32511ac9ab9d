// The texts in the sources of the program, as the test reads them that holds the page of messages against them.
#pragma once

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "support/source_documents.h"

namespace trabex {

// A string literal; those that stand side by side are one.
struct SourceLiteral {
  std::string file;  // below the source tree
  std::string text;  // without its escapes
};

// Reads C++: skips comments, characters and includes.
class LiteralReader {
 public:
  LiteralReader(std::string file, std::string_view source) : file_(std::move(file)), source_(source) {}

  std::vector<SourceLiteral> Read() {
    while (at_ < source_.size()) {
      if (Skip("//", "\n") || Skip("/*", "*/") || SkipInclude()) continue;
      if (At("R\"")) {
        TakeRaw();
      } else if (At("\"")) {
        TakeLiteral();
      } else {
        if (!IsSpace(source_[at_])) is_open_ = false;
        if (At("'") && !FollowsDigit()) SkipCharacter();
        ++at_;
      }
    }
    return std::move(literals_);
  }

 private:
  static bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
  bool At(std::string_view text) const { return source_.substr(at_, text.size()) == text; }
  // 1'000 has no character in it.
  bool FollowsDigit() const {
    return at_ > 0 && std::isxdigit(static_cast<unsigned char>(source_[at_ - 1])) != 0;
  }

  bool Skip(std::string_view begin, std::string_view end) {
    if (!At(begin)) return false;
    at_ = std::min(source_.find(end, at_ + begin.size()), source_.size() - end.size()) + end.size();
    return true;
  }
  bool SkipInclude() { return Skip("#include", "\n"); }

  // Leaves the place at the quote behind it.
  void SkipCharacter() {
    for (++at_; at_ < source_.size() && source_[at_] != '\''; ++at_) {
      if (source_[at_] == '\\') ++at_;
    }
  }

  void TakeRaw() {
    const std::size_t open = source_.find('(', at_);
    const std::string end = ")" + std::string(source_.substr(at_ + 2, open - at_ - 2)) + "\"";
    const std::size_t close = source_.find(end, open);
    Add(std::string(source_.substr(open + 1, close - open - 1)));
    at_ = close + end.size();
  }

  void TakeLiteral() {
    std::string text;
    for (++at_; at_ < source_.size() && source_[at_] != '"'; ++at_) {
      char c = source_[at_];
      if (c == '\\') {
        c = source_[++at_];
        if (c == 'n' || c == 'r' || c == 't') c = ' ';
      }
      text += c;
    }
    ++at_;
    Add(std::move(text));
  }

  void Add(std::string text) {
    if (is_open_) {
      literals_.back().text += text;
    } else {
      literals_.push_back({file_, std::move(text)});
    }
    is_open_ = true;
  }

  std::string file_;
  std::string_view source_;
  std::size_t at_ = 0;
  bool is_open_ = false;  // nothing has come behind the last literal
  std::vector<SourceLiteral> literals_;
};

inline std::vector<SourceLiteral> ReadSourceLiterals() {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(TRABEX_SOURCE_DIR "/src")) {
    const std::string extension = entry.path().extension().string();
    if (extension != ".cpp" && extension != ".h") continue;
    files.push_back(entry.path().lexically_relative(TRABEX_SOURCE_DIR).generic_string());
  }
  std::sort(files.begin(), files.end());
  std::vector<SourceLiteral> literals;
  for (const std::string& file : files) {
    const std::string source = SourceFile(file);
    for (SourceLiteral& literal : LiteralReader(file, source).Read()) literals.push_back(std::move(literal));
  }
  return literals;
}

// Those of all files of src.
inline const std::vector<SourceLiteral>& SourceLiterals() {
  static const std::vector<SourceLiteral> literals = ReadSourceLiterals();
  return literals;
}

}  // namespace trabex
