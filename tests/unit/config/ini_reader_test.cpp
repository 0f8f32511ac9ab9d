#include "config/ini_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "config_support.h"
#include "platform/files.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

std::vector<std::string> KeyNames(const SectionTable& section) {
  std::vector<std::string> names;
  for (const SectionTable::Entry& entry : section.Entries()) names.emplace_back(entry.key);
  return names;
}

TEST(SectionStore, HasTheseSectionsAndNoOther) {
  SectionStore store;
  EXPECT_EQ(kSectionNames.size(), 10U);
  for (std::string_view name :
       {"Common", "GreyListing", "ResponseChanges", "SenderReplacements.Local", "SenderReplacements.Remote",
        "RecipientReplacements.Local", "RecipientReplacements.Remote", "TLS", "Service", "ListFiles"}) {
    ASSERT_NE(store.Find(name), nullptr) << name;
    EXPECT_EQ(store.Find(name)->Name(), name);
    EXPECT_EQ(&store.Section(name), store.Find(name));
    EXPECT_TRUE(store.Find(name)->Entries().empty());
  }
  EXPECT_EQ(store.Find("greylisting"), store.Find("GREYLISTING"));
  EXPECT_EQ(store.Find("Other"), nullptr);
  EXPECT_EQ(store.Find(""), nullptr);
}

struct LineRow {
  const char* text;
  std::vector<std::string> values;  // of Common's key "a"
  std::vector<std::string> log;
};

TEST(ReadIniText, TakesLines) {
  const std::vector<LineRow> rows = {
      {"[Common]\na=1", {"1"}, {}},
      {"[Common]\n  a  =  1 2  \n", {"1 2"}, {}},
      {"[Common]\na=b=c", {"b=c"}, {}},
      {"[Common]\na=", {""}, {}},
      {"[Common]\na= ", {""}, {}},
      {"[Common]\na=1 ;note", {"1 ;note"}, {}},
      {"[Common]\n  ;a=1", {}, {}},
      {"[Common]\n;a=1\n\n   \na=2", {"2"}, {}},
      {"[common]\nA=1", {"1"}, {}},
      {"  [COMMON]  \na=1", {"1"}, {}},
      {"[Common]\n[GreyListing]\na=2\n[Common]\na=1", {"1"}, {}},
      {"[Common]\n\ta=1", {}, {}},  // the tab belongs to the key
      {"[Common]\na=\t1", {"\t1"}, {}},
      {"[Common]\nnovalue\na=1", {"1"}, {SyntaxErrorLine(2, "Invalid line: \"novalue\".")}},
      {"a=1\n[Common]\na=2", {"2"}, {SyntaxErrorLine(1, "Section name expected: \"a=1\".")}},
      {"novalue", {}, {SyntaxErrorLine(1, "Section name expected: \"novalue\".")}},
      {"[Other]\na=1\n[Common]\na=2",
       {"2"},
       {SyntaxErrorLine(1, "Invalid section name: \"Other\"."),
        SyntaxErrorLine(2, "Section name expected: \"a=1\".")}},
      {"[ Common ]\na=1",
       {},
       {SyntaxErrorLine(1, "Invalid section name: \" Common \"."),
        SyntaxErrorLine(2, "Section name expected: \"a=1\".")}},
      {"[Common", {}, {SyntaxErrorLine(1, "Invalid line: \"[Common\".")}},
      {"[", {}, {SyntaxErrorLine(1, "Invalid line: \"[\".")}},
      {"[]", {}, {SyntaxErrorLine(1, "Invalid section name: \"\".")}},
      {"[Common] ;x", {}, {SyntaxErrorLine(1, "Invalid line: \"[Common] ;x\".")}},
      // What follows a broken header never counts for the section above it.
      {"[Common]\n[GreyListing\na=1",
       {},
       {SyntaxErrorLine(2, "Invalid line: \"[GreyListing\"."),
        SyntaxErrorLine(3, "Section name expected: \"a=1\".")}},
      {"[Common]\r\n\r\n;c\r\na=1\r\na=2\r\nA = 3",
       {"1"},
       {SyntaxErrorLine(5, "Key \"a\"  in section \"Common\" defined more than once."),
        SyntaxErrorLine(6, "Key \"A\"  in section \"Common\" defined more than once.")}},
      {"[cOMMON]\na=1\na=1",
       {"1"},
       {SyntaxErrorLine(3, "Key \"a\"  in section \"cOMMON\" defined more than once.")}},
      {"[Common]\n=1\n=2\na=3",
       {"3"},
       {SyntaxErrorLine(3, "Key \"\"  in section \"Common\" defined more than once.")}},
  };
  for (const LineRow& row : rows) {
    SCOPED_TRACE(row.text);
    ReadText tolerant(row.text, true);
    EXPECT_TRUE(tolerant.result);
    EXPECT_EQ(RawValues(tolerant.store.Section("Common"), "a"), row.values);
    EXPECT_EQ(tolerant.log.Lines(), row.log);

    // Not ignored, the first error ends the reading.
    ReadText strict(row.text, false);
    EXPECT_EQ(strict.result, row.log.empty());
    EXPECT_EQ(strict.log.Lines(), Lines(row.log.begin(), row.log.begin() + (row.log.empty() ? 0 : 1)));
  }
}

TEST(ReadIniText, KeepsTheOrderOfKeysAndOfListValues) {
  ReadText read(
      "[Common]\nTimeout=60\nIPBlackList=1.2.3.4\nBindIP=1.1.1.1\nipblacklist = 5.6.7.8\nIPBlackList=\n"
      "[ResponseChanges]\n250=<a>\n550=<b>\n250=<c>\n[GreyListing]\nIPWhiteList=1\nIPWhiteList=2\nTTL=1\n"
      "[SenderReplacements.Local]\nz=1\na=2\n[SenderReplacements.Local]\nm=3\n",
      false);
  ASSERT_TRUE(read.result) << read.log.Lines().at(0);
  const SectionTable& common = read.store.Section("Common");
  EXPECT_EQ(KeyNames(common), (Lines{"Timeout", "IPBlackList", "BindIP"}));
  EXPECT_EQ(RawValues(common, "IPBLACKLIST"), (Lines{"1.2.3.4", "5.6.7.8", ""}));
  EXPECT_TRUE(common.Find("IPBlackList")->is_list);
  EXPECT_FALSE(common.Find("Timeout")->is_list);
  EXPECT_EQ(RawValues(read.store.Section("ResponseChanges"), "250"), (Lines{"<a>", "<c>"}));
  EXPECT_EQ(RawValues(read.store.Section("GreyListing"), "IPWhiteList"), (Lines{"1", "2"}));
  EXPECT_EQ(KeyNames(read.store.Section("SenderReplacements.Local")), (Lines{"z", "a", "m"}));
}

TEST(ReadIniText, RefusesASecondLineOfWhatIsNoListInItsSection) {
  // The same names are lists elsewhere.
  ReadText read(
      "[GreyListing]\nLocalIPs=1\nLocalIPs=2\n[SenderReplacements.Local]\nIPWhiteList=1\nIPWhiteList=2\n",
      true);
  EXPECT_EQ(
      read.log.Lines(),
      (Lines{SyntaxErrorLine(3, "Key \"LocalIPs\"  in section \"GreyListing\" defined more than once."),
             SyntaxErrorLine(6,
                             "Key \"IPWhiteList\"  in section \"SenderReplacements.Local\" defined more "
                             "than once.")}));
}

TEST(ReadIniText, TakesNulBytesAndLongLinesAsText) {
  const std::string nul("\0", 1);
  const std::string long_value(2'000'000, 'v');
  ReadText read("[Common]\na" + nul + "=b" + nul + "c\n" + nul + "\na=" + long_value + "\n", true);
  EXPECT_EQ(RawValues(read.store.Section("Common"), "a" + nul), (Lines{"b" + nul + "c"}));
  EXPECT_EQ(RawValues(read.store.Section("Common"), "a"), (Lines{long_value}));
  EXPECT_EQ(read.log.Lines(), (Lines{SyntaxErrorLine(3, "Invalid line: \"" + nul + "\".")}));
}

TEST(IniText, HasASectionOnlyWithACompleteHeaderOfOneThatThereIs) {
  struct Row {
    std::string text;
    bool has;
  };
  const Row rows[] = {
      {"", false},
      {"\xEF\xBB\xBF", false},
      {" \n\r\n\t\r", false},
      {std::string(4096, '\0'), false},
      {"; [Common]\n;[Common]\n", false},
      {"Timeout=60\nBindPort=25\n", false},
      {"x=[Common]\n", false},
      {"[", false},
      {"[]", false},
      {"[]\n", false},
      {"[Comm", false},
      {"[Common", false},
      {"[Common\nTimeout=60\n", false},
      {"[Common] x\n", false},
      {"[Other]\nTimeout=60\n", false},
      {std::string("[\0C\0o\0m\0", 8), false},
      {"[Common]", true},
      {"\xEF\xBB\xBF[Common]\n", true},
      {"  [cOMMON]  \r\nTimeout=60", true},
      {"x=1\n; text\n[Other]\n[GreyListing]\n", true},
      {"[SenderReplacements.Local]\r", true},
  };
  for (const Row& row : rows) EXPECT_EQ(mCommon::HasSection(row.text), row.has) << row.text;
  for (const std::string_view name : kSectionNames) {
    EXPECT_TRUE(mCommon::HasSection("[" + std::string(name) + "]\n")) << name;
  }
}

TEST(ReadIniFile, RecordsWhenTheFileWasChanged) {
  TempFolder folder;
  InitializationFile file{folder / "x.ini", std::nullopt};
  WriteFile(file.path, "\xEF\xBB\xBF[Common]\nTimeout=60");
  RecordedLog log;
  SectionStore store;
  EXPECT_EQ(mCommon::ReadIniFile(file, store, {log, false}), IniReadResult::kRead);
  EXPECT_EQ(RawValues(store.Section("Common"), "Timeout"), (Lines{"60"}));
  EXPECT_EQ(file.stamp, FileModificationStamp(file.path, "test"));
  EXPECT_EQ(log.Lines(), Lines{});
}

TEST(ReadIniFile, RecordsNothingWhenReadingWasAbandoned) {
  TempFolder folder;
  InitializationFile file{folder / "x.ini", 4711};
  WriteFile(file.path, "[Common]\nTimeout=60\nnovalue\n");
  RecordedLog log;
  SectionStore store;
  EXPECT_EQ(mCommon::ReadIniFile(file, store, {log, false}), IniReadResult::kAbandoned);
  EXPECT_EQ(file.stamp, 4711);
  EXPECT_EQ(log.Lines(), (Lines{"Error reading initialization file \"" + file.path +
                                "\", line 3. Error number: 321, Description: Invalid line: \"novalue\"."}));
}

TEST(ReadIniFile, TakesBothSeparatorsInThePath) {
  TempFolder folder;
  WriteFile(folder / "x.ini", "[Common]\nTimeout=60\n");
  InitializationFile file{folder.Path() + "\\x.ini", std::nullopt};
  RecordedLog log;
  SectionStore store;
  EXPECT_EQ(mCommon::ReadIniFile(file, store, {log, false}), IniReadResult::kRead);
}

TEST(ReadIniFile, ReportsAFileThatCannotBeRead) {
  TempFolder folder;
  std::filesystem::create_directory(folder / "directory");
  const struct {
    const char* name;
    const char* error;
  } rows[] = {{"missing.ini", "53, Description: File not found"},
              {"no folder/x.ini", "76, Description: Path not found"},
              {"directory", "75, Description: Path/File access error"}};
  for (const auto& row : rows) {
    for (const bool ignore : {false, true}) {
      InitializationFile file{folder / row.name, 4711};
      RecordedLog log;
      SectionStore store;
      EXPECT_EQ(mCommon::ReadIniFile(file, store, {log, ignore}), IniReadResult::kUnreadable);
      EXPECT_EQ(log.Lines(), (Lines{"Error reading initialization file \"" + file.path +
                                    "\". Error number: " + row.error}));
      EXPECT_EQ(file.stamp, 4711);
    }
  }
}

}  // namespace
}  // namespace trabex
