// What the tests of this library share: loading from a text, and looking into the dump.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "config/configuration.h"
#include "config/configuration_dump.h"
#include "config/ini_reader.h"
#include "config/read_settings.h"
#include "config/settings_table.h"
#include "platform/files.h"
#include "support/recorded_log.h"

namespace trabex {

using Lines = std::vector<std::string>;

// The tests write paths as Linux has them, under the program's directory "/opt/trabex". This gives `text` with those
// paths as this system has them: with a drive, and with its separator behind what is put together.
inline std::string WithPathsOfSystem(std::string_view text) {
  if (IsAbsolutePath("/x")) return std::string(text);
  constexpr std::string_view kProgramDirectory = "/opt/trabex";
  constexpr std::string_view kDatabaseFolder = "/GreyListing";
  std::string written;
  const auto take = [&](std::string_view part) {
    if (!text.starts_with(part)) return false;
    written += part;
    text.remove_prefix(part.size());
    return true;
  };
  const auto take_separator = [&] {
    if (!text.starts_with('/')) return;
    written += kPathSeparator;
    text.remove_prefix(1);
  };
  while (!text.empty()) {
    const bool begins =
        text.front() == '/' &&
        (written.empty() || std::string_view("=,\"' \n").find(written.back()) != std::string_view::npos);
    if (begins) written += "C:";
    if (begins && take(kProgramDirectory)) {
      if (text.starts_with(kDatabaseFolder)) {
        take_separator();
        take(kDatabaseFolder.substr(1));
      }
      take_separator();
    } else {
      take(text.substr(0, 1));
    }
  }
  return written;
}

// A store filled from a text.
struct ReadText {
  ReadText(std::string text, bool ignore_errors)
      : result(mCommon::ReadIniText("x.ini", std::move(text), store, {log, ignore_errors})) {}

  RecordedLog log;
  SectionStore store;
  bool result;
};

// All raw values of a key; none when the key is absent.
inline Lines RawValues(const SectionTable& section, std::string_view key) {
  Lines values;
  if (const SectionTable::Entry* const entry = section.Find(key)) {
    values.emplace_back(entry->first_value);
    for (std::string_view value : entry->further_values) values.emplace_back(value);
  }
  return values;
}

// A configuration loaded from a text with the paths of this system, the early keys left as they are by default.
struct LoadedText {
  explicit LoadedText(const std::string& text, bool ignore_errors = true) {
    configuration.IgnoreIniErrors = ignore_errors;
    Load(text);
  }

  // Once more, into the same configuration.
  void Load(const std::string& text) {
    const SettingContext context{.program_directory = WithPathsOfSystem("/opt/trabex"),
                                 .local_host_name = [] { return std::string("proxy.test"); },
                                 .accepts_ciphers = [](const std::string& list) { return list != "bad"; }};
    const IniErrors errors{log, configuration.IgnoreIniErrors};
    SectionStore store;
    result = mCommon::ReadIniText("x.ini", WithPathsOfSystem(text), store, errors);
    if (!result) return;
    try {
      ReadSettings(store, errors, context, configuration);
    } catch (const Error&) {
      result = false;
    }
  }

  RecordedLog log;
  Configuration configuration = DefaultConfiguration();
  bool result = false;
};

inline Lines DumpLines(const Configuration& configuration) {
  RecordedLog log;
  Lines lines;
  mCommon::LogConfiguration(configuration, "x.ini", log,
                            [&](std::string_view line) { lines.emplace_back(line); });
  EXPECT_EQ(log.Lines(), Lines{});
  return lines;
}

inline std::string Joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

// The lines of one key in the dump; none when its whole section is missing.
inline Lines DumpedLines(const Configuration& configuration, std::string_view section, std::string_view key) {
  const Lines lines = DumpLines(configuration);
  const std::string header = "[" + std::string(section) + "]";
  auto line = std::find(lines.begin(), lines.end(), header);
  Lines found;
  if (line == lines.end()) return found;
  for (++line; line != lines.end() && !line->starts_with('['); ++line) {
    if (line->starts_with(std::string(key) + " =")) found.push_back(*line);
  }
  return found;
}

// The value of a key that has one line; "" for an empty list. A setting that is shown only when it was set
// has its default without a line.
inline std::string DumpedValue(const Configuration& configuration, std::string_view section,
                               std::string_view key) {
  const Lines lines = DumpedLines(configuration, section, key);
  const Setting* const setting = FindSetting(section, key);
  if (lines.empty() && setting && !setting->shown_at_default) return std::string(setting->default_text);
  EXPECT_EQ(lines.size(), 1U) << section << " " << key;
  if (lines.empty()) return "no line";
  const std::size_t value = key.size() + 3;
  return lines[0].size() < value ? "" : lines[0].substr(value);
}

// Lists are compared by this form: patterns of a group joined by "+".
inline Lines Entries(const ExpressionList& list) {
  Lines entries;
  for (std::size_t index = 0; index < list.Count(); ++index) {
    std::string text;
    const ListEntry entry = list.Entry(index);
    EXPECT_EQ(entry.is_group, entry.patterns.size() > 1);
    for (const std::string& pattern : entry.patterns) {
      if (&pattern != &entry.patterns.front()) text += "+";
      text += pattern;
    }
    entries.push_back(text);
  }
  return entries;
}

// The log line about a bad value.
inline std::string ConfigErrorLine(std::string_view section, std::string_view key, int number,
                                   std::string_view description) {
  return "Error parsing initialization file. Section: \"" + std::string(section) + "\", Key name: \"" +
         std::string(key) + "\", Error number: " + std::to_string(number) +
         ", Description: " + std::string(description);
}

// The log line about a bad line of "x.ini".
inline std::string SyntaxErrorLine(int line, std::string_view description) {
  return "Error reading initialization file \"x.ini\", line " + std::to_string(line) +
         ". Error number: 321, Description: " + std::string(description);
}

}  // namespace trabex
