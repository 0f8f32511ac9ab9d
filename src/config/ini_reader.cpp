#include "config/ini_reader.h"

#include <algorithm>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "config/ini_lines.h"
#include "config/settings_table.h"
#include "platform/files.h"

namespace trabex {

namespace {

constexpr const char* kSource = "mCommon.ReadIniFile";

[[noreturn]] void RaiseBadContent(std::string description) {
  throw Error(error_number::kBadFileContent, kSource, std::move(description));
}

// Whether a line that begins with "[" is complete as a header; its name is the text between the brackets.
bool IsHeader(std::string_view line) {
  return line.size() >= 2 && line.front() == '[' && line.back() == ']';
}

std::string_view HeaderName(std::string_view line) {
  return line.substr(1, line.size() - 2);
}

// Takes line by line. An Error leaves out the line it is about and nothing else.
class LineTaker {
 public:
  explicit LineTaker(SectionStore& store) : store_(store) {}

  // Where the line stands that was taken last; "" for none.
  std::string_view Section() const { return section_ == nullptr ? std::string_view() : section_->Name(); }
  std::string_view Key() const { return key_; }

  void Take(std::string_view line) {
    key_ = {};
    if (line.empty() || line.front() == ';') return;
    if (line.front() == '[') {
      TakeHeader(line);
    } else {
      TakeKey(line);
    }
  }

 private:
  void TakeHeader(std::string_view line) {
    // First of all, so that the keys below a bad header never get into the section above it.
    section_ = nullptr;
    if (!IsHeader(line)) RaiseBadContent("Invalid line: " + Quoted(line) + ".");
    written_name_ = HeaderName(line);
    section_ = store_.Find(written_name_);
    if (section_ == nullptr) RaiseBadContent("Invalid section name: " + Quoted(written_name_) + ".");
  }

  void TakeKey(std::string_view line) {
    if (section_ == nullptr) RaiseBadContent("Section name expected: " + Quoted(line) + ".");
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) RaiseBadContent("Invalid line: " + Quoted(line) + ".");
    const std::string_view key = Trim(line.substr(0, equals));
    const std::string_view value = Trim(line.substr(equals + 1));
    key_ = key;
    SectionTable::Entry* const entry = section_->Find(key);
    if (entry == nullptr) {
      section_->AddKey(key, value, mCommon::IsListKey(section_->Name(), key));
    } else if (entry->is_list) {
      entry->further_values.push_back(value);
    } else {
      RaiseBadContent("Key " + Quoted(key) + "  in section " + Quoted(written_name_) +
                      " defined more than once.");
    }
  }

  SectionStore& store_;
  SectionTable* section_ = nullptr;
  std::string_view written_name_;
  std::string_view key_;
};

}  // namespace

namespace mCommon {

bool ReadIniText(std::string_view path, std::string text, SectionStore& store, const IniErrors& errors) {
  IniLines lines(store.KeepText(std::move(text)));
  LineTaker taker(store);
  for (std::string_view line; lines.Next(line);) {
    try {
      taker.Take(line);
    } catch (const Error& error) {
      if (errors.observer != nullptr) {
        errors.observer->BadLine(taker.Section(), taker.Key(), line, error);
        if (!errors.ignore) return false;
        continue;
      }
      errors.log.LogProblem(
          "Error reading initialization file " + Quoted(path) + ", line " + std::to_string(lines.Number()) +
              ". Error number: " + std::to_string(error.Number()) + ", Description: " + error.Description(),
          errors.ignore ? "The line is left out." : "");
      if (!errors.ignore) return false;
    }
  }
  return true;
}

std::string UnreadableIniFileText(std::string_view path, const Error& error) {
  return "Error reading initialization file " + Quoted(path) +
         ". Error number: " + std::to_string(error.Number()) + ", Description: " + error.Description();
}

void LogUnreadableIniFile(Log& log, std::string_view path, const Error& error, std::string_view consequence) {
  log.LogProblem(UnreadableIniFileText(path, error), consequence);
}

IniText TakeIniFile(std::string_view path) {
  const std::string native_path = NativePath(path);
  const std::int64_t stamp = FileModificationStamp(native_path, kSource);
  return {ReadWholeFile(native_path, kSource), stamp};
}

bool HasSection(std::string_view text) {
  IniLines lines(text);
  for (std::string_view line; lines.Next(line);) {
    if (!IsHeader(line)) continue;
    const auto is_its_name = [name = HeaderName(line)](std::string_view known) {
      return EqualNoCase(known, name);
    };
    if (std::any_of(kSectionNames.begin(), kSectionNames.end(), is_its_name)) return true;
  }
  return false;
}

IniReadResult ReadIniFile(InitializationFile& file, SectionStore& store, const IniErrors& errors) {
  IniText ini;
  try {
    ini = TakeIniFile(file.path);
  } catch (const Error& error) {
    LogUnreadableIniFile(errors.log, file.path, error,
                         errors.ignore ? "All settings have their defaults." : "");
    return IniReadResult::kUnreadable;
  }
  if (!ReadIniText(file.path, std::move(ini.text), store, errors)) return IniReadResult::kAbandoned;
  file.stamp = ini.stamp;
  return IniReadResult::kRead;
}

}  // namespace mCommon
}  // namespace trabex
