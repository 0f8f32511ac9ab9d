// The reference of settings, the sample file and the table of folders say what there is.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "config/configuration_dump.h"
#include "config/early_keys.h"
#include "config/settings_table.h"
#include "config_support.h"
#include "support/source_documents.h"

namespace trabex {
namespace {

// Settings that are read, and that nothing goes by yet.
bool IsWithoutEffect(const Setting& setting) {
  return setting.section == section_name::kService &&
         (setting.key == "ServerTimeout" || setting.key == "EnforceMaxSize");
}

std::string ValuesText(const Setting& setting) {
  const std::string range = std::to_string(setting.min) + " to " + std::to_string(setting.max);
  switch (setting.kind) {
    case SettingKind::kIPAddresses:
      return "addresses";
    case SettingKind::kChoice: {
      std::string texts;
      for (std::string_view choice : setting.choices)
        texts += (texts.empty() ? "" : ", ") + std::string(choice);
      return texts;
    }
    case SettingKind::kFile:
    case SettingKind::kOutput:
    case SettingKind::kDatabase:
      return "file";
    case SettingKind::kLogFolder:
      return "folder";
    case SettingKind::kInteger:
    case SettingKind::kTLSPort:
      return range;
    case SettingKind::kBoolean:
      return "0 or 1";
    case SettingKind::kMinutes:
      return "minutes, " + range;
    case SettingKind::kLifetime:
      return "minutes, more than both delays, to " + std::to_string(setting.max);
    case SettingKind::kSize:
      return "size, " + range;
    case SettingKind::kAddressList:
      return "pattern list";
    case SettingKind::kPlainList:
      return "plain list";
    case SettingKind::kExtensionList:
      return "extension list";
    case SettingKind::kRangeList:
    case SettingKind::kPartialRangeList:
      return "address ranges";
    case SettingKind::kCertificateList:
      return "certificate list";
    case SettingKind::kEndpoint:
      return "address and port";
    case SettingKind::kNameList: {
      std::string texts;
      for (std::string_view choice : setting.choices)
        texts += (texts.empty() ? "some of " : ", ") + std::string(choice);
      return texts;
    }
    default:
      return "text";
  }
}

std::string DefaultText(const Setting& setting) {
  if (setting.kind == SettingKind::kLogFolder) return "`Log`";
  return setting.default_text.empty() ? "" : "`" + std::string(setting.default_text) + "`";
}

TEST(SettingsReference, ListsEverySettingInTheOrderOfTheDump) {
  const std::string text = SourceFile("docs/settings.md");
  std::map<std::string, std::vector<std::string>> tables;  // the rows without their meaning
  std::string section;
  for (std::string_view line : Split(text, '\n')) {
    if (line.starts_with("## ")) section = line.substr(3);
    if (!line.starts_with("| `")) continue;
    const auto cells = Cells(line);
    if (cells.size() != 4) continue;
    EXPECT_FALSE(cells[3].empty()) << line;
    tables[section].push_back(cells[0] + " | " + cells[1] + " | " + cells[2]);
  }
  for (const char* name : {"Common", "GreyListing", "TLS", "Service"}) {
    std::vector<std::string> expected;
    for (const Setting* setting : SettingsInDumpOrder(name)) {
      if (IsWithoutEffect(*setting)) continue;
      expected.push_back("`" + std::string(setting->key) + "` | " + DefaultText(*setting) + " | " +
                         ValuesText(*setting));
    }
    EXPECT_EQ(tables["Section " + std::string(name)], expected);
  }
  for (std::string_view name : kSectionNames) {
    EXPECT_NE(text.find(name), std::string::npos) << name;
  }
}

struct SampleLine {
  bool commented_out = false;
  std::string value;
};

// The keys of the sample by section and name, those in comments ("Key=value" right after the ";") too.
std::map<std::string, SampleLine> SampleKeys(const std::string& text) {
  std::map<std::string, SampleLine> keys;
  std::string section;
  for (std::string_view line : Split(text, '\n')) {
    if (line.starts_with('[')) section = line.substr(1, line.size() - 2);
    const bool commented_out = line.starts_with(';');
    if (commented_out) line.remove_prefix(1);
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.starts_with(' ')) continue;
    const std::string name = section + " " + std::string(line.substr(0, equals));
    EXPECT_FALSE(keys.contains(name)) << name << " stands twice";
    keys[name] = {commented_out, std::string(line.substr(equals + 1))};
  }
  return keys;
}

TEST(SampleFile, ShowsEverySettingAndTheDefaultOfWhatIsCommentedOut) {
  auto keys = SampleKeys(SourceFile("sample/Trabex.ini"));
  for (const Setting& setting : AllSettings()) {
    const std::string name = std::string(setting.section) + " " + std::string(setting.key);
    if (IsWithoutEffect(setting)) continue;
    ASSERT_TRUE(keys.contains(name)) << name;
    if (keys[name].commented_out) {
      EXPECT_EQ(keys[name].value, setting.default_text) << name;
    }
    keys.erase(name);
  }
  for (const auto& [name, line] : keys) ADD_FAILURE() << name << " is no setting";
}

TEST(Readme, NamesEveryFolder) {
  const std::string text = SourceFile("README.md");
  for (const char* parent : {"", "src", "tests"}) {
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(TRABEX_SOURCE_DIR "/") + parent)) {
      const std::string name = entry.path().lexically_relative(TRABEX_SOURCE_DIR);
      // What is hidden or built is no part of the sources; some of the others stand with what they hold.
      if (!entry.is_directory() || name.starts_with('.') || name == "build" || name == "cmake") continue;
      const bool named = text.find("`" + name + "`") != std::string::npos ||
                         text.find("`" + name + "/") != std::string::npos;
      EXPECT_TRUE(named) << name;
    }
  }
}

TEST(SampleFile, LoadsWithoutAnyError) {
  const std::string text = SourceFile("sample/Trabex.ini");
  LoadedText loaded(text, false);
  EXPECT_TRUE(loaded.result);
  ReadEarlyKeysFromText(text, {}, loaded.configuration, loaded.log);
  EXPECT_EQ(loaded.log.Lines(), Lines{});
}

}  // namespace
}  // namespace trabex
