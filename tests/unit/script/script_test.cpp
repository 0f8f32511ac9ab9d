#include "script/script.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temp_folder.h"

namespace trabex::script {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// The only step of a script.
Step OneStep(std::string_view text) {
  const Script script = ReadScript(text);
  EXPECT_EQ(script.steps.size(), 1U) << text;
  return script.steps.empty() ? Step() : script.steps.front();
}

std::string WhyRefused(std::string_view text) {
  try {
    ReadScript(text);
  } catch (const ScriptError& error) {
    return error.what();
  }
  return "it is taken";
}

TEST(Script, WhatIsSent) {
  const struct {
    const char* text;
    Side side;
    std::string bytes;
  } rows[] = {
      {"C: NOOP", Side::kClient, "NOOP\r\n"},
      {"  C: NOOP \t\r", Side::kClient, "NOOP\r\n"},
      {"C:", Side::kClient, "\r\n"},
      {"C:   two", Side::kClient, "  two\r\n"},
      {R"(C: \x20*{2*x}\x20)", Side::kClient, " *xx \r\n"},
      {R"(C+ a\n)", Side::kClient, "a\n"},
      {"S: 220 ready", Side::kServer, "220 ready\r\n"},
      {R"(S+ 22)", Side::kServer, "22"},
  };
  for (const auto& row : rows) {
    const Step step = OneStep(row.text);
    EXPECT_EQ(step.kind, StepKind::kSend) << row.text;
    EXPECT_EQ(step.side, row.side) << row.text;
    EXPECT_EQ(step.sending.bytes, row.bytes) << row.text;
    EXPECT_TRUE(step.sending.cuts.empty()) << row.text;
  }
}

TEST(Script, WhatArrives) {
  const struct {
    const char* text;
    StepKind kind;
    Side side;
    std::vector<std::string> pieces;
  } rows[] = {
      {"-> NOOP", StepKind::kGetLine, Side::kServer, {"NOOP"}},
      {"<- 250*ok", StepKind::kGetLine, Side::kClient, {"250", "ok"}},
      {R"(<- \*a*)", StepKind::kGetLine, Side::kClient, {"*a", ""}},
      {"->", StepKind::kGetLine, Side::kServer, {""}},
      {"->       with", StepKind::kGetLine, Side::kServer, {"      with"}},
      {"-> nothing", StepKind::kGetNothing, Side::kServer, {"nothing"}},
      {"<- nothing", StepKind::kGetNothing, Side::kClient, {"nothing"}},
      {R"(log R: {*\\x0D)", StepKind::kLog, Side::kClient, {"R: {", "\\x0D"}},
  };
  for (const auto& row : rows) {
    const Step step = OneStep(row.text);
    EXPECT_EQ(step.kind, row.kind) << row.text;
    EXPECT_EQ(step.side, row.side) << row.text;
    EXPECT_EQ(step.pattern.pieces, row.pieces) << row.text;
  }
  const Step bytes = OneStep(R"(*> half a\r)");
  EXPECT_EQ(bytes.kind, StepKind::kGetBytes);
  EXPECT_EQ(bytes.side, Side::kServer);
  EXPECT_EQ(bytes.bytes, "half a\r");
}

TEST(Script, EndsAndWords) {
  const struct {
    const char* text;
    StepKind kind;
    Side side;
    const char* bytes;
  } rows[] = {
      {"C closes", StepKind::kClose, Side::kClient, ""},
      {"S resets", StepKind::kReset, Side::kServer, ""},
      {"C shuts", StepKind::kShutDown, Side::kClient, ""},
      {"C starts TLS", StepKind::kStartTls, Side::kClient, ""},
      {"S accepts", StepKind::kAccept, Side::kServer, ""},
      {"closed C", StepKind::kClosed, Side::kClient, ""},
      {"closed S", StepKind::kClosed, Side::kServer, ""},
      {"connect", StepKind::kConnect, Side::kClient, ""},
      {"connect 127.0.0.9", StepKind::kConnect, Side::kClient, "127.0.0.9"},
      {R"(asks name [a\tb])", StepKind::kAskName, Side::kClient, "[a\tb]"},
      {"shutdown", StepKind::kStop, Side::kClient, ""},
  };
  for (const auto& row : rows) {
    const Step step = OneStep(row.text);
    EXPECT_EQ(step.kind, row.kind) << row.text;
    EXPECT_EQ(step.side, row.side) << row.text;
    EXPECT_EQ(step.bytes, row.bytes) << row.text;
  }
  EXPECT_EQ(OneStep("wait 1500").milliseconds, 1500);
  EXPECT_THAT(OneStep("answer 192.0.2.7, 10.0.0.1").answers.addresses, ElementsAre("192.0.2.7", "10.0.0.1"));
  EXPECT_EQ(OneStep("answer error 11001").answers.error, 11001);
  const Step as_set = OneStep("answer");
  EXPECT_FALSE(as_set.answers.error.has_value() || !as_set.answers.addresses.empty());

  const Script both = ReadScript("closed both");
  ASSERT_EQ(both.steps.size(), 2U);
  EXPECT_EQ(both.steps[0].side, Side::kClient);
  EXPECT_EQ(both.steps[1].side, Side::kServer);
}

TEST(Script, StepsKnowTheirLines) {
  const Script script = ReadScript("# remark\n\n   C: one  \n  # another\n<- two");
  ASSERT_EQ(script.steps.size(), 2U);
  EXPECT_EQ(script.steps[0].line, 3U);
  EXPECT_EQ(script.steps[0].source, "C: one");
  EXPECT_EQ(script.steps[1].line, 5U);
}

TEST(Script, WhatIsNotUnderstoodIsNamed) {
  EXPECT_EQ(WhyRefused("C: a\n C> b\n"), R"(line 2: "C> b": no such step)");
  EXPECT_EQ(WhyRefused(R"(S+ \q)"), R"(line 1: "S+ \q": no such escape: \q)");
  for (const char* text : {"C:x",
                           "C!",
                           "S = x",
                           "C sleeps",
                           "C accepts",
                           "closed",
                           "closed X",
                           "wait",
                           "wait 5s",
                           "waits 5",
                           "shutdown now",
                           "answer error x",
                           R"(-> a\<b\>)",
                           R"(<- a\|b)",
                           R"(*> a\|b)",
                           "nothing",
                           ": x",
                           "after: supper",
                           "direct: sendmail",
                           "set: x",
                           "C: a\nafter: rcpt"}) {
    EXPECT_THAT(WhyRefused(text), HasSubstr("line ")) << text;
  }
}

TEST(Script, HeadOfAFile) {
  const Script script = ReadScript(R"(# What it
# is.
after: rcpt
direct: scripted, exim
owes: a reply
set: MaxSize=1=2
set ResponseChanges: .220 = x
on DATA: 354 go\| on\r\n
on DATA: nothing
on greeting: 220 x\r\n

C: DATA
# no part of it
)");
  const Head& head = script.head;
  EXPECT_EQ(head.comment, "What it is. ");
  EXPECT_EQ(head.after, "rcpt");
  EXPECT_THAT(head.direct.value(), ElementsAre("scripted", "exim"));
  EXPECT_EQ(head.owes, "a reply");
  ASSERT_EQ(head.settings.size(), 2U);
  EXPECT_EQ(head.settings[0].section, "Common");
  EXPECT_EQ(head.settings[0].key, "MaxSize");
  EXPECT_EQ(head.settings[0].value, "1=2");
  EXPECT_EQ(head.settings[1].section, "ResponseChanges");
  ASSERT_EQ(head.replies.size(), 2U);
  const std::vector<Sending>& data = head.replies.at("DATA");
  ASSERT_EQ(data.size(), 2U);
  EXPECT_EQ(data[0].bytes, "354 go on\r\n");
  EXPECT_THAT(data[0].segments, ElementsAre(6));
  EXPECT_EQ(data[1].bytes, "");
  EXPECT_EQ(ReadScript("direct: none").head.direct, std::vector<std::string>());
  EXPECT_FALSE(ReadScript("C: a").head.direct.has_value());
}

TEST(Script, SendingsThatStandTogetherBecomeOne) {
  const std::vector<Step> steps = JoinSendings(ReadScript(R"(
    C: a
    C+ b\<cde\>f\|
    C+ \<xyz\>
    S: no
    C: alone
    <- x
    C: after)")
                                                   .steps);
  ASSERT_EQ(steps.size(), 5U);
  EXPECT_EQ(steps[0].sending.bytes, "a\r\nbcdefxyz");
  EXPECT_THAT(steps[0].sending.cuts, ElementsAre(5, 6, 9, 10));
  EXPECT_THAT(steps[0].sending.segments, ElementsAre(8));
  EXPECT_EQ(steps[2].sending.bytes, "alone\r\n");
}

TEST(Pattern, AStarIsAnyText) {
  const struct {
    const char* pattern;
    const char* text;
    bool matches;
  } rows[] = {
      {"250 ok", "250 ok", true},
      {"250 ok", "250 ok!", false},
      {"250 ok", "x250 ok", false},
      {"250*", "250", true},
      {"250*", "250-x", true},
      {"250*", "25", false},
      {"*", "", true},
      {"*", "any", true},
      {"a*c", "ac", true},
      {"a*c", "abcbc", true},
      {"a*c", "abcb", false},
      {"a*a", "a", false},
      {"a*b*c", "a-b-c", true},
      {"a*b*c", "a-c", false},
      {"a*b*c", "abbc", true},
      {R"(\**)", "*x", true},
      {R"(\**)", "x", false},
      {"", "", true},
      {"", "x", false},
      {"a*bc*c", "abc", false},
      {"**x", "yx", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(OneStep("<- " + std::string(row.pattern)).pattern.Matches(row.text), row.matches)
        << row.pattern << " and " << row.text;
  }
}

TEST(ScriptFile, NamesItself) {
  const TempFolder folder;
  const std::string path = folder / "x.session";
  WriteFile(path, "C: a\nnonsense\n");
  try {
    ReadScriptFile(path);
    FAIL() << "it is taken";
  } catch (const ScriptError& error) {
    EXPECT_EQ(error.what(), path + ": line 2: \"nonsense\": no such step");
  }
  EXPECT_THROW(ReadScriptFile(path + ".none"), ScriptError);
}

}  // namespace
}  // namespace trabex::script
