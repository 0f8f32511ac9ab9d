// The reference of settings, the sample file and the table of folders say what there is.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/ip_address.h"
#include "config/configuration_dump.h"
#include "config/early_keys.h"
#include "config/settings_table.h"
#include "config_support.h"
#include "match/ip_range.h"
#include "support/source_documents.h"

namespace trabex {
namespace {

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
      expected.push_back("`" + std::string(setting->key) + "` | " + DefaultText(*setting) + " | " +
                         ValuesText(*setting));
    }
    EXPECT_EQ(tables["Section " + std::string(name)], expected);
  }
  for (std::string_view name : kSectionNames) {
    EXPECT_NE(text.find(name), std::string::npos) << name;
  }
}

// What a setting's values are called in its row, the page says above.
TEST(SettingsReference, ExplainsEveryKindOfValue) {
  std::set<std::string> explained;
  const std::string text = SourceFile("docs/settings.md");
  for (const std::string_view line : Split(text, '\n')) {
    if (line.starts_with("## Section ")) break;
    if (line.starts_with("| ") && Cells(line).size() == 2) explained.insert(Cells(line).front());
  }
  for (const Setting& setting : AllSettings()) {
    const std::string values = ValuesText(setting);
    if (IsDigit(values.front()) || values.starts_with("some of ")) continue;
    const std::string kind = values.substr(0, values.find(", "));
    EXPECT_TRUE(explained.contains(kind)) << setting.key << ": " << kind;
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
    ASSERT_TRUE(keys.contains(name)) << name;
    if (keys[name].commented_out) {
      EXPECT_EQ(keys[name].value, setting.default_text) << name;
    }
    keys.erase(name);
  }
  for (const auto& [name, line] : keys) ADD_FAILURE() << name << " is no setting";
}

constexpr const char* kMakeFiles = "; scripts/make-settings-files writes it out of docs/settings.md";

// What the packaged file says of each setting, by section and name.
struct PackagedSetting {
  std::string values;
  std::string default_text;
  std::string example;
};

std::map<std::string, PackagedSetting> PackagedSettings(const std::string& text) {
  std::map<std::string, PackagedSetting> settings;
  std::string section;
  PackagedSetting current;
  for (std::string_view line : Split(text, '\n')) {
    const auto take = [&](std::string_view begin, std::string& into) {
      if (line.starts_with(begin)) into = line.substr(begin.size());
    };
    if (line.starts_with('[')) section = line.substr(1, line.size() - 2);
    take("; Values: ", current.values);
    take("; Default: ", current.default_text);
    take("; Example: ", current.example);
    if (line.starts_with("; ")) continue;
    if (current.values.empty()) {
      current = {};  // the example of a section
      continue;
    }
    const std::string key = current.example.substr(0, current.example.find('='));
    EXPECT_TRUE(line.starts_with(key + "=") || line.starts_with(";" + key + "=")) << key;
    settings[section + " " + key] = current;
    current = {};
  }
  return settings;
}

TEST(PackagedFile, HasEverySettingWithItsValuesItsDefaultAndAnExample) {
  const std::string text = SourceFile("packaging/sample.ini");
  auto shown = PackagedSettings(text);
  auto keys = SampleKeys(text);
  std::map<std::string, std::string> examples;
  for (const Setting& setting : AllSettings()) {
    const std::string name = std::string(setting.section) + " " + std::string(setting.key);
    ASSERT_TRUE(shown.contains(name) && keys.contains(name)) << name << kMakeFiles;
    const PackagedSetting& said = shown[name];
    EXPECT_EQ(said.values, ValuesText(setting)) << name << kMakeFiles;
    const bool is_folder = setting.kind == SettingKind::kLogFolder;
    const std::string default_text(is_folder ? "Log" : setting.default_text);
    EXPECT_EQ(said.default_text, default_text.empty() ? "(empty)" : default_text) << name << kMakeFiles;
    if (keys[name].commented_out && !is_folder) {
      EXPECT_EQ(keys[name].value, setting.default_text) << name << kMakeFiles;
      EXPECT_NE(said.example, std::string(setting.key) + "=" + keys[name].value) << "is no example";
    }
    examples[std::string(setting.section)] += said.example + "\n";
    shown.erase(name);
  }
  std::string all;
  for (const auto& [section, lines] : examples) all += "[" + section + "]\n" + lines;
  LoadedText loaded(all, false);
  EXPECT_TRUE(loaded.result);
  EXPECT_EQ(loaded.log.Lines(), Lines{});
  for (const auto& [name, said] : shown) ADD_FAILURE() << name << " is no setting" << kMakeFiles;
}

// Loads without a word, and lets nothing take effect that was not checked.
void ExpectToBeCareful(LoadedText& loaded, const std::string& text) {
  EXPECT_TRUE(loaded.result);
  ReadEarlyKeysFromText(text, {}, loaded.configuration, loaded.log);
  EXPECT_EQ(loaded.log.Lines(), Lines{});
  EXPECT_FALSE(loaded.configuration.AutoReload);
  EXPECT_FALSE(loaded.configuration.IgnoreIniErrors);
}

TEST(PackagedFile, LoadsAndTakesNothingUnchecked) {
  const std::string text = SourceFile("packaging/sample.ini");
  LoadedText loaded(text, false);
  ExpectToBeCareful(loaded, text);
  EXPECT_EQ(loaded.configuration.Service.ServerTimeout, 300);
}

TEST(ContainersFile, LoadsAndTakesNoGatewayForALocalClient) {
  const std::string text = SourceFile("packaging/container/trabex.ini");
  LoadedText loaded(text, false);
  ExpectToBeCareful(loaded, text);
  for (const char* gateway : {"172.17.0.1", "10.0.2.2", "192.168.127.1", "169.254.1.2"}) {
    EXPECT_FALSE(mCommon::IPInRangeList(*ParseIPAddress(gateway), loaded.configuration.LocalIPs)) << gateway;
  }
}

TEST(ManualPage, ListsEverySettingInTheOrderOfTheDump) {
  const std::string text = SourceFile("docs/man/trabex.ini.5");
  std::map<std::string, std::vector<std::string>> items;
  std::string section;
  for (std::string_view line : Split(text, '\n')) {
    if (line.starts_with(".Ss Section ")) section = line.substr(12);
    if (line.starts_with(".It Va ")) items[section].emplace_back(line.substr(7));
  }
  for (const char* name : {"Common", "GreyListing", "TLS", "Service"}) {
    std::vector<std::string> expected;
    for (const Setting* setting : SettingsInDumpOrder(name)) expected.emplace_back(setting->key);
    EXPECT_EQ(items[name], expected) << kMakeFiles;
  }
}

// The rows of the table of docs/lists.md whose head begins with `first`: the texts in backticks of each cell.
std::vector<std::vector<Lines>> ExamplesOfLists(std::string_view first) {
  std::vector<std::vector<Lines>> rows;
  bool is_wanted = false;
  const std::string page = SourceFile("docs/lists.md");
  for (const std::string_view line : Split(page, '\n')) {
    if (!line.starts_with("| ")) {
      is_wanted = is_wanted && line.starts_with("|--");
      continue;
    }
    const auto cells = Cells(line);
    if (cells.front() == first) {
      is_wanted = true;
    } else if (is_wanted) {
      std::vector<Lines>& row = rows.emplace_back();
      for (const std::string& cell : cells) {
        const auto pieces = Split(cell, '`');
        Lines& texts = row.emplace_back();
        for (std::size_t i = 1; i < pieces.size(); i += 2) texts.emplace_back(pieces[i]);
      }
    }
  }
  return rows;
}

TEST(ListsPage, ItsPatternsMatchWhatItSays) {
  const auto rows = ExamplesOfLists("entry");
  EXPECT_GT(rows.size(), 10U);
  for (const auto& row : rows) {
    ASSERT_EQ(row.size(), 3U);
    ASSERT_FALSE(row[1].empty() || row[2].empty()) << row[0].front();
    LoadedText loaded("[Common]\nSendersBlackList=" + row[0].front() + "\n", false);
    ASSERT_TRUE(loaded.result) << row[0].front();
    const ExpressionList& list = loaded.configuration.SendersBlackList;
    for (const std::string& text : row[1]) EXPECT_TRUE(list.Contains(text)) << row[0].front() << ": " << text;
    for (const std::string& text : row[2])
      EXPECT_FALSE(list.Contains(text)) << row[0].front() << ": " << text;
  }
}

TEST(ListsPage, ItsRangesHoldWhatItSays) {
  const auto rows = ExamplesOfLists("range");
  EXPECT_GT(rows.size(), 4U);
  for (const auto& row : rows) {
    ASSERT_EQ(row.size(), 3U);
    ASSERT_FALSE(row[1].empty() || row[2].empty()) << row[0].front();
    LoadedText loaded("[Common]\nIPBlackList=" + row[0].front() + "\n", false);
    ASSERT_TRUE(loaded.result) << row[0].front();
    const auto holds = [&](const std::string& text) {
      return mCommon::IPInRangeList(*ParseIPAddress(text), loaded.configuration.IPBlackList);
    };
    for (const std::string& text : row[1]) EXPECT_TRUE(holds(text)) << row[0].front() << ": " << text;
    for (const std::string& text : row[2]) EXPECT_FALSE(holds(text)) << row[0].front() << ": " << text;
  }
}

TEST(Readme, NamesEveryFolder) {
  const std::string text = SourceFile("README.md");
  for (const char* parent : {"", "src", "tests"}) {
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(TRABEX_SOURCE_DIR "/") + parent)) {
      const std::string name = entry.path().lexically_relative(TRABEX_SOURCE_DIR).generic_string();
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
