// Reads the initialization file into the section store: "[section]", "key = value" and ";" comment lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config/ini_errors.h"
#include "config/section_store.h"

namespace trabex {

// The initialization file of the program.
struct InitializationFile {
  std::string path;
  // When it was last changed, as of the last successful read (FileModificationStamp); nothing when the file
  // was missing then.
  std::optional<std::int64_t> stamp;
};

// The file as it was at one moment.
struct IniText {
  std::string text;
  std::int64_t stamp = 0;  // FileModificationStamp
};

enum class IniReadResult {
  kRead,        // the store is filled; bad lines were left out if errors are ignored
  kUnreadable,  // the file is missing or cannot be read; the store is empty, one line is logged
  kAbandoned,   // a bad line, and errors are not ignored
};

namespace mCommon {

// The file at `path`. The stamp is taken before the text, so that a change while reading shows later. Raises
// what ReadWholeFile raises.
IniText TakeIniFile(std::string_view path);

// Whether `text` has the header of any section that there is. One without is empty, cut off, or no
// initialization file at all.
bool HasSection(std::string_view text);

// Fills the empty `store` from the file and, if that succeeds, records its stamp. Errors are written to the
// log; raises no Error.
IniReadResult ReadIniFile(InitializationFile& file, SectionStore& store, const IniErrors& errors);

// The same from a text; `path` is for messages. False: abandoned.
bool ReadIniText(std::string_view path, std::string text, SectionStore& store, const IniErrors& errors);

// What is said of a file that is missing or cannot be read.
std::string UnreadableIniFileText(std::string_view path, const Error& error);
// Writes it as a line of the log. `consequence` as in ReportConfigError.
void LogUnreadableIniFile(Log& log, std::string_view path, const Error& error, std::string_view consequence);

}  // namespace mCommon
}  // namespace trabex
