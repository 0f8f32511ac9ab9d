#include "config/early_keys.h"

#include <algorithm>
#include <cassert>
#include <optional>
#include <string_view>
#include <vector>

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

// A setting that is read early, and the value that the file has for it.
struct EarlyKey {
  const Setting* setting;
  std::optional<std::string_view> text;
};

// All of them are of section Common.
std::vector<EarlyKey> EarlyKeys() {
  std::vector<EarlyKey> keys;
  for (const Setting& setting : AllSettings()) {
    if (setting.is_early) keys.push_back({&setting, std::nullopt});
  }
  return keys;
}

// The value of a line as profile strings are read.
std::string_view ProfileValue(std::string_view value) {
  constexpr std::size_t kMaxLength = 255;
  value = Trim(value);
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
    value = value.substr(1, value.size() - 2);
  }
  return value.substr(0, kMaxLength);
}

// The early keys, each with its first occurrence in section Common.
std::vector<EarlyKey> FindEarlyKeys(std::string_view text) {
  std::vector<EarlyKey> keys = EarlyKeys();
  std::size_t missing = keys.size();
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
    const std::string_view name = Trim(line.substr(0, equals));
    for (EarlyKey& key : keys) {
      if (key.text || !EqualNoCase(name, key.setting->key)) continue;
      key.text = ProfileValue(line.substr(equals + 1));
      --missing;
    }
  }
  return keys;
}

// That of `field`, which is a field of an early setting.
const EarlyKey& KeyOf(const std::vector<EarlyKey>& keys, SettingField field) {
  const auto key = std::find_if(keys.begin(), keys.end(),
                                [&](const EarlyKey& one) { return one.setting->field == field; });
  assert(key != keys.end());
  return *key;
}

std::int32_t EarlyInteger(const IniErrors& errors, const EarlyKey& key) {
  const Setting& setting = *key.setting;
  const std::int32_t default_value = *ParseInteger(setting.default_text);
  if (!key.text) return default_value;
  return mCommon::ConvertInteger(errors, setting.section, setting.key, *key.text, default_value, setting.min,
                                 setting.max);
}

}  // namespace

void ReadEarlyKeysFromText(std::string_view text, const EarlyKeyInputs& inputs, Configuration& configuration,
                           Log& log) {
  using C = Configuration;
  const std::vector<EarlyKey> keys = FindEarlyKeys(text);
  configuration.IgnoreIniErrors = false;
  configuration.IgnoreIniErrors =
      EarlyInteger({log, inputs.observer != nullptr, inputs.observer}, KeyOf(keys, &C::IgnoreIniErrors)) != 0;

  const IniErrors errors{log, configuration.IgnoreIniErrors || inputs.observer != nullptr, inputs.observer};
  configuration.Log = EarlyInteger(errors, KeyOf(keys, &C::Log));
  if (inputs.log_path_given) {
    configuration.Log = log_mode::kOn;
  } else if (configuration.LogPath.empty()) {
    configuration.LogPath = KeyOf(keys, &C::LogPath).text.value_or("");
    if (configuration.LogPath.empty()) {
      configuration.LogPath = mCommon::JoinPath(inputs.program_directory, "Log");
    }
  }
  if (!inputs.port_given) configuration.BindPort = EarlyInteger(errors, KeyOf(keys, &C::BindPort));
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
