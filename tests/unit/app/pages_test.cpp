// The pages name settings, sections and keys of replies that there are.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "app/check_response_keys.h"
#include "base/text.h"
#include "config/section_store.h"
#include "config/settings_table.h"
#include "support/source_documents.h"

namespace trabex {
namespace {

// Pages about the sources have names of classes.
const std::set<std::string> kPagesOfDevelopers = {"design.md", "developing.md", "performance.md",
                                                  "greylisting-database.md"};
// Names of systemd.
const std::set<std::string> kOthersNames = {"LimitNOFILE", "WatchdogSec"};

bool IsSection(std::string_view name) {
  return std::any_of(kSectionNames.begin(), kSectionNames.end(), [&](std::string_view section) {
    return section == name || section.starts_with(std::string(name) + ".");
  });
}

bool IsSettingOfAnySection(std::string_view name) {
  const auto settings = AllSettings();
  return std::any_of(settings.begin(), settings.end(),
                     [&](const Setting& setting) { return setting.key == name; });
}

// The texts in backticks outside of blocks, and of the table of sources of errors.
std::vector<std::string> NamesIn(const std::string& page) {
  std::vector<std::string> names;
  bool in_block = false;
  bool in_sources = false;
  for (const std::string_view line : Split(page, '\n')) {
    if (line.starts_with("```")) in_block = !in_block;
    if (line.starts_with("#")) in_sources = line == "### Sources of errors";
    if (in_block || in_sources) continue;
    const auto pieces = Split(line, '`');
    for (std::size_t i = 1; i < pieces.size(); i += 2) names.emplace_back(pieces[i]);
  }
  return names;
}

TEST(Pages, NameSettingsAndKeysThatThereAre) {
  // "MaxSize", "LocalIPs", "TLS.Required", with or without " = value".
  const std::regex name(
      "([A-Z][A-Za-z]*[a-z][A-Z][A-Za-z]*|[A-Z]{2,}[a-z]\\w*|[A-Z]+\\.[A-Z][A-Za-z.]+)( = .*)?");
  int names = 0;
  for (const auto& entry : std::filesystem::directory_iterator(TRABEX_SOURCE_DIR "/docs")) {
    const std::string file = entry.path().filename().string();
    if (!file.ends_with(".md") || kPagesOfDevelopers.contains(file)) continue;
    const std::string page = SourceFile("docs/" + file);
    for (const std::string& text : NamesIn(page)) {
      std::smatch found;
      if (!std::regex_match(text, found, name) || kOthersNames.contains(found[1])) continue;
      ++names;
      EXPECT_TRUE(IsSettingOfAnySection(found[1].str()) || IsSection(found[1].str()) ||
                  IsResponseKey(found[1].str()))
          << file << ": " << text;
    }
  }
  EXPECT_GT(names, 500);
}

}  // namespace
}  // namespace trabex
