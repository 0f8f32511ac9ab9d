#include "config/early_keys.h"

#include <array>
#include <cassert>
#include <optional>
#include <string_view>

#include "base/error.h"
#include "base/numbers.h"
#include "base/text.h"
#include "config/ini_errors.h"
#include "config/ini_lines.h"
#include "config/ini_paths.h"
#include "config/ini_reader.h"
#include "config/section_store.h"
#include "config/settings_table.h"
#include "config/typed_readers.h"
#include "platform/files.h"

namespace trabex {

namespace {

enum EarlyKey { kIgnoreIniErrors, kLog, kLogPath, kBindPort };
constexpr std::array<std::string_view, 4> kEarlyKeys = {"IgnoreIniErrors", "Log", "LogPath", "BindPort"};
using EarlyTexts = std::array<std::optional<std::string_view>, kEarlyKeys.size()>;

// The value of a line as profile strings are read.
std::string_view ProfileValue(std::string_view value) {
  constexpr std::size_t kMaxLength = 255;
  value = Trim(value);
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
    value = value.substr(1, value.size() - 2);
  }
  return value.substr(0, kMaxLength);
}

// The first occurrence of each key in section Common.
EarlyTexts FindEarlyTexts(std::string_view text) {
  EarlyTexts found;
  std::size_t missing = found.size();
  bool in_section = false;
  IniLines lines(text);
  for (std::string_view line; missing > 0 && lines.Next(line);) {
    if (line.starts_with(';')) continue;
    if (line.starts_with('[')) {
      // What follows the last bracket does not count here.
      const std::size_t end = line.find_last_of(']');
      in_section =
          end != std::string_view::npos && EqualNoCase(line.substr(1, end - 1), section_name::kCommon);
      continue;
    }
    const std::size_t equals = line.find('=');
    if (!in_section || equals == std::string_view::npos) continue;
    const std::string_view key = Trim(line.substr(0, equals));
    for (std::size_t index = 0; index < found.size(); ++index) {
      if (found[index] || !EqualNoCase(key, kEarlyKeys[index])) continue;
      found[index] = ProfileValue(line.substr(equals + 1));
      --missing;
    }
  }
  return found;
}

std::int32_t EarlyInteger(const IniErrors& errors, const EarlyTexts& texts, EarlyKey key) {
  const Setting* const setting = FindSetting(section_name::kCommon, kEarlyKeys[key]);
  assert(setting != nullptr);
  const std::int32_t default_value = *ParseInteger(setting->default_text);
  if (!texts[key]) return default_value;
  return mCommon::ConvertInteger(errors, setting->section, setting->key, *texts[key], default_value,
                                 setting->min, setting->max);
}

}  // namespace

void ReadEarlyKeysFromText(std::string_view text, const EarlyKeyInputs& inputs, Configuration& configuration,
                           Log& log) {
  const EarlyTexts texts = FindEarlyTexts(text);
  configuration.IgnoreIniErrors = false;
  configuration.IgnoreIniErrors = EarlyInteger({log, false}, texts, kIgnoreIniErrors) != 0;

  const IniErrors errors{log, configuration.IgnoreIniErrors};
  configuration.Log = EarlyInteger(errors, texts, kLog);
  if (inputs.log_path_given) {
    configuration.Log = log_mode::kOn;
  } else if (configuration.LogPath.empty()) {
    configuration.LogPath = texts[kLogPath].value_or("");
    if (configuration.LogPath.empty()) {
      configuration.LogPath = mCommon::JoinPath(inputs.program_directory, "Log");
    }
  }
  if (!inputs.port_given) configuration.BindPort = EarlyInteger(errors, texts, kBindPort);
}

EarlyKeysResult ReadEarlyKeysAgain(std::string_view text, const EarlyKeyInputs& inputs,
                                   Configuration& configuration, Log& log) {
  try {
    ReadEarlyKeysFromText(text, inputs, configuration, log);
  } catch (const Error&) {
    return EarlyKeysResult::kFailed;  // reported where it was found
  }
  return EarlyKeysResult::kRead;
}

EarlyKeysResult ReadEarlyKeys(const EarlyKeyInputs& inputs, Configuration& configuration, Log& log) {
  std::string text;
  try {
    text = ReadWholeFile(NativePath(inputs.ini_path), "mCommon.ReadEarlyKeys");
  } catch (const Error&) {
    // The load of all settings, which comes next, reports it.
  }
  return ReadEarlyKeysAgain(text, inputs, configuration, log);
}

}  // namespace trabex
