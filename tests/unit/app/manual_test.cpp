// The manual pages and the completion of the shell say what there is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "app/command_line.h"
#include "app/greylist_tool.h"
#include "base/text.h"
#include "support/source_documents.h"

namespace trabex {
namespace {

using Names = std::set<std::string>;

// The words of a line of a manual page, without what only the formatter needs.
std::vector<std::string> Words(std::string_view line) {
  std::vector<std::string> words;
  for (std::string_view word : Split(line, ' ')) {
    if (word.starts_with("\\&")) word.remove_prefix(2);
    if (!word.empty()) words.emplace_back(word);
  }
  return words;
}

TEST(ManualPage, OfTheProgramHasEverySwitch) {
  Names described;
  const std::string text = SourceFile("docs/man/trabex.8");
  for (std::string_view line : Split(text, '\n')) {
    if (!line.starts_with(".It Fl ")) continue;
    for (std::string word : Words(line.substr(7))) {
      if (word == "Ar" || word == "Op") break;
      if (word.starts_with('-')) word.erase(0, 1);
      if (word != ",") described.insert(ToUpper(word));
    }
  }
  Names expected;
  for (std::string_view name : SwitchNames()) expected.emplace(name);
  EXPECT_EQ(described, expected) << "docs/man/trabex.8";
}

TEST(ManualPage, OfGreylistingHasEveryCommandAndOption) {
  const std::string text = SourceFile("docs/man/trabex-greylist.8");
  // Once each in the synopsis, where a command has lines of its own, and where they are described.
  std::map<std::string, Names> synopsis;
  std::map<std::string, Names> described;
  std::string command;
  for (std::string_view line : Split(text, '\n')) {
    const bool is_item = line.starts_with(".It Cm ");
    if (line.starts_with(".Nm trabex Fl -greylist Cm ")) command = line.substr(27);
    if (is_item) command = Words(line.substr(7)).front();
    if (line.starts_with(".Sh DESCRIPTION") || line.starts_with(".El")) command.clear();
    if (command.empty() || (!is_item && !line.starts_with(".Op Fl ") && !line.starts_with(".Nm "))) continue;
    Names& options = (is_item ? described : synopsis)[command];
    for (const std::string& word : Words(line)) {
      if (word.starts_with('-') && word != "-greylist") options.insert("-" + word);
    }
  }
  std::map<std::string, Names> expected;
  for (const GreyListCommandForm& form : GreyListCommandForms()) {
    expected[std::string(form.name)] = Names(form.options.begin(), form.options.end());
  }
  EXPECT_EQ(synopsis, expected);
  EXPECT_EQ(described, expected);
}

// The words of a variable of the shell, in quotes.
Names WordsOf(const std::string& script, const std::string& variable) {
  const std::size_t begin = script.find(variable + "=\"") + variable.size() + 2;
  std::string value = script.substr(begin, script.find('"', begin) - begin);
  std::replace(value.begin(), value.end(), '\n', ' ');
  Names words;
  for (const std::string& word : Words(value)) words.insert(word);
  return words;
}

TEST(Completion, HasEveryLongSwitchAndEveryCommandOfGreylisting) {
  const std::string script = SourceFile("packaging/bash-completion/trabex");
  Names switches;
  for (std::string_view name : SwitchNames()) {
    if (name.size() > 2) switches.insert("--" + ToLower(name));
  }
  EXPECT_EQ(WordsOf(script, "switches"), switches);
  Names commands;
  for (const GreyListCommandForm& form : GreyListCommandForms()) {
    commands.emplace(form.name);
    for (std::string_view option : form.options) {
      EXPECT_NE(script.find(option), std::string::npos) << option;
    }
  }
  EXPECT_EQ(WordsOf(script, "commands"), commands);
}

}  // namespace
}  // namespace trabex
