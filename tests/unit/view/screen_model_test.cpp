#include "view/screen_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "base/text.h"
#include "unit/view/fake_source.h"
#include "unit/view/pictures.h"

namespace trabex {
namespace {

class ScreenModelTest : public ::testing::Test {
 protected:
  void SetSize(std::size_t columns, std::size_t rows, bool plain = false) {
    model_.SetSize({.columns = columns, .rows = rows, .plain = plain});
    Picture();
  }
  void Press(std::string_view text) {
    for (const char c : text) model_.TakeKey(static_cast<unsigned char>(c));
  }
  void PressKey(Key pressed) { model_.TakeKey(pressed); }
  std::vector<std::string> Picture() {
    screen_ = model_.Make();
    return PictureOf(screen_);
  }
  std::string Line(std::size_t index) { return Picture().at(index); }
  // Of the rows of the table, from the latest picture.
  std::vector<int> Handles() {
    std::vector<int> handles;
    const auto lines = Picture();
    for (std::size_t i = 2; i < lines.size(); ++i) {
      if (lines[i].size() > 7 && lines[i].find(" 192.0.2.") != std::string::npos) {
        handles.push_back(std::stoi(lines[i].substr(0, 7)));
      }
    }
    return handles;
  }
  // The handle in the row that is shown as selected.
  std::optional<int> Selected() {
    screen_ = model_.Make();
    for (std::size_t i = 2; i + 1 < screen_.lines.size(); ++i) {
      const ScreenLine& line = screen_.lines[i];
      if (!line.empty() && line.front().look.reverse) return std::stoi(LineText(line).substr(0, 7));
    }
    return std::nullopt;
  }
  std::string Note() {
    const auto lines = Picture();
    return lines.at(lines.size() - 2);
  }

  FakeSource source_;
  ScreenModel model_{source_, false};
  Screen screen_;
};

TEST_F(ScreenModelTest, BelowItsLeastSizeThereIsTheTableAlone) {
  source_.sessions = {{.id = 1,
                       .handle = 7,
                       .received = 5,
                       .sent = 300,
                       .name = "beta.example",
                       .helo = "h.example",
                       .sender = "s@x.example",
                       .state = SessionState::kContent}};
  for (const auto& [columns, rows] : {std::pair{79, 50}, std::pair{200, 23}}) {
    SetSize(static_cast<std::size_t>(columns), static_cast<std::size_t>(rows));
    // None of the other keys do anything.
    Press("/s r c?");
    PressKey(key::kEnter);
    PressKey(key::kTab);
    PressKey(key::kEscape);
    const auto lines = Picture();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "0.0.0.0:25 --> 127.0.0.1:2525" +
                            std::string(static_cast<std::size_t>(columns) - 29 - 11, ' ') + "v. 3.04.012");
    EXPECT_EQ(lines[1], " Handle Received     Sent Duration         Host IP Host Name");
    EXPECT_EQ(lines[2], "      7        5      300 00:00:00       192.0.2.1 beta.example");
    EXPECT_EQ(screen_.lines[2][0].look, Look{});
    EXPECT_FALSE(screen_.takes_text);
  }
  SetSize(20, 5);
  EXPECT_EQ(Picture(),
            (std::vector<std::string>{"0.0.0.0:25 --> 127.0", " Handle Received", "      7        5"}));
  SetSize(20, 2);
  EXPECT_EQ(Picture().size(), 2U);
  SetSize(1, 1);
  EXPECT_EQ(Picture(), std::vector<std::string>{"0"});
}

TEST_F(ScreenModelTest, At80ColumnsALetterSaysWhatColoursSay) {
  source_.sessions = {
      {.id = 1, .handle = 1, .name = "a.example", .state = SessionState::kClientName},
      {.id = 2, .handle = 2, .name = "b.example", .state = SessionState::kServerReply},
      {.id = 3, .handle = 3, .name = "c.example", .state = SessionState::kContent},
      {.id = 4, .handle = 4, .name = "d.example", .state = SessionState::kRefused},
      {.id = 5, .handle = 5, .name = std::string(40, 'e') + ".example", .state = SessionState::kIdle}};
  source_.totals.peak = 9;
  source_.totals.server = ServerState::kUp;
  SetSize(80, 24);
  const auto lines = Picture();
  ASSERT_EQ(lines.size(), 24U);
  EXPECT_EQ(lines[1], " Handle Received     Sent Duration         Host IP Host Name");
  EXPECT_EQ(lines[2],
            "      1        0        0 00:00:00       192.0.2.1 a.example" + std::string(79 - 60, ' ') + "D");
  EXPECT_EQ(lines[3].back(), 'S');
  EXPECT_EQ(lines[4].back(), 'C');
  EXPECT_EQ(lines[5].back(), 'R');
  EXPECT_EQ(lines[6],
            "      5        0        0 00:00:00       192.0.2.1 " + std::string(26, 'e') + "\u2026");
  EXPECT_EQ(lines[7], "");
  EXPECT_EQ(lines[23], "open 5 peak 9 rows 1-5/5 acc 0 ref 0 del 0 msg 0 in 0 out 0 server up    ?: keys");
  EXPECT_EQ(screen_.lines[2][0].look.colour, Colour::kYellow);
  EXPECT_EQ(screen_.lines[3][0].look.colour, Colour::kCyan);
  EXPECT_EQ(screen_.lines[4][0].look.colour, Colour::kGreen);
  EXPECT_EQ(screen_.lines[5][0].look.colour, Colour::kRed);
  EXPECT_EQ(screen_.lines[6][0].look.colour, Colour::kNone);
}

TEST_F(ScreenModelTest, From100ColumnsOnThereIsMoreBehindTheName) {
  source_.sessions = {{.id = 1,
                       .handle = 7,
                       .received = 5,
                       .sent = 300,
                       .name = "a-long-name.of-a-host.example",
                       .helo = "helo.example",
                       .sender = "sender@x.example",
                       .recipient = "r@y.example",
                       .state = SessionState::kContent},
                      {.id = 2,
                       .handle = 8,
                       .address = "2001:db8:1111:2222:3333:4444:5555:6666",
                       .name = "v6.example",
                       .helo = "helo.example",
                       .state = SessionState::kClientName}};
  SetSize(120, 24);
  auto lines = Picture();
  EXPECT_EQ(lines[1],
            " Handle Received     Sent Duration         Host IP Host Name        State      HELO        "
            "Sender        Recipient");
  EXPECT_EQ(
      lines[2],
      "      7        5      300 00:00:00       192.0.2.1 a-long-name.of-\u2026 content    helo.examp\u2026 "
      "sender@x.exa\u2026 r@y.example");
  EXPECT_TRUE(
      lines[3].starts_with("      8        0        0 00:00:00 2001:db8:1111:2222:3333:4444:5555:6666 "
                           "v6.\u2026 dns-client helo.examp\u2026"))
      << lines[3];
  EXPECT_LE(WidthOf(screen_), 120U);
  // The graph: a line each.
  EXPECT_TRUE(lines[21].starts_with("Messages"));
  EXPECT_TRUE(lines[22].starts_with("Refusals"));
  SetSize(100, 24);
  lines = Picture();
  EXPECT_LE(WidthOf(screen_), 100U);
  EXPECT_NE(lines[1].find("State"), std::string::npos);
  EXPECT_NE(lines[2].find("content"), std::string::npos);
}

TEST_F(ScreenModelTest, WhatAClientSaysStaysInItsColumn) {
  const std::string_view texts[] = {"plain",
                                    "\x1B[2J\x1B]0;x\x07\r\n\t",
                                    "\u4F60\u597D\u4F60\u597D\u4F60\u597D\u4F60\u597D\u4F60\u597D",
                                    "e\u0301\u0302\u0303\u0304\u0305\u0306\u0307\u0308\u0309\u030A",
                                    "\U0001F600\U0001F468\u200D\U0001F469\u200D\U0001F467",
                                    "\u202Egnp.\u202C\u200B",
                                    "\xFF\xC3(\x80\x9B",
                                    "\U000E0041\U000E0042"};
  for (const std::size_t columns : {std::size_t{80}, std::size_t{100}, std::size_t{137}, std::size_t{200}}) {
    SetSize(columns, 24);
    source_.sessions = {
        {.id = 1, .handle = 1, .name = "n.example", .helo = "h", .sender = "s", .recipient = "r"}};
    Picture();
    const ScreenLine plain = screen_.lines[2];
    for (const std::string_view text : texts) {
      std::string long_text;
      for (int i = 0; i < 20; ++i) long_text += text;
      for (const std::string_view shown : {text, std::string_view(long_text)}) {
        FakeSession& session = source_.sessions[0];
        session.helo = session.sender = session.recipient = shown;
        Picture();
        EXPECT_LE(WidthOf(screen_), columns) << shown;
        const ScreenLine& line = screen_.lines[2];
        ASSERT_EQ(line.size(), plain.size());
        for (std::size_t i = 0; i < line.size(); ++i) {
          EXPECT_EQ(line[i].column, plain[i].column) << shown;
          EXPECT_EQ(line[i].text.find('\x1B'), std::string::npos);
        }
        EXPECT_EQ(LineText(line).find('!'), std::string::npos) << shown;
        for (const char pane : {'\r', '\t'}) {
          PressKey(static_cast<Key>(pane));
          Picture();
          EXPECT_LE(WidthOf(screen_), columns) << shown;
          PressKey(key::kEscape);
        }
        PressKey(key::kEscape);
      }
    }
  }
}

TEST_F(ScreenModelTest, NothingIsMadeThatIsNotVisible) {
  source_.AddSessions(9000);
  SetSize(200, 50);
  EXPECT_EQ(source_.rows_made, 36U);
  EXPECT_EQ(source_.looked_at, 36U);
  PressKey(key::kEnd);
  EXPECT_EQ(Handles().back(), 9000);
  EXPECT_EQ(source_.rows_made, 72U);
  Press("m");
  Picture();
  EXPECT_EQ(source_.rows_made, 72U);
}

TEST_F(ScreenModelTest, ScrollsAsFarAsThereAreRowsAndTakesTheSelectionAlong) {
  source_.AddSessions(50);
  SetSize(80, 24);  // 21 rows of the table
  EXPECT_EQ(Selected(), std::nullopt);
  PressKey(key::kDown);
  EXPECT_EQ(Handles().front(), 2);
  EXPECT_EQ(Selected(), 2);
  PressKey(key::kPageDown);
  EXPECT_EQ(Handles().front(), 23);
  EXPECT_EQ(Selected(), 23);
  PressKey(key::kEnd);
  EXPECT_EQ(Handles().front(), 30);
  EXPECT_EQ(Selected(), 50);
  PressKey(key::kUp);
  EXPECT_EQ(Handles().front(), 29);
  EXPECT_EQ(Selected(), 49);
  PressKey(key::kHome);
  EXPECT_EQ(Handles().front(), 1);
  EXPECT_EQ(Selected(), 1);
  PressKey(key::kEscape);
  EXPECT_EQ(Selected(), std::nullopt);
  // Where nothing is to be scrolled the selection alone moves.
  source_.sessions.resize(3);
  Picture();
  for (const int handle : {1, 2, 3, 3}) {
    PressKey(key::kDown);
    EXPECT_EQ(Selected(), handle);
  }
}

TEST_F(ScreenModelTest, TheSelectedSessionStaysSelectedWhileOthersComeAndGo) {
  source_.AddSessions(60);
  SetSize(80, 24);
  PressKey(key::kPageDown);
  PressKey(key::kDown);
  ASSERT_EQ(Selected(), 23);
  const auto row_of_selected = [&] { return Handles(); };
  const auto before = row_of_selected();
  source_.sessions.erase(source_.sessions.begin(), source_.sessions.begin() + 15);
  source_.AddSessions(30, 100);
  EXPECT_EQ(Selected(), 23);
  // And at its place, as long as there are rows above it.
  EXPECT_EQ(row_of_selected().at(1), before.at(1));
  source_.sessions.erase(source_.sessions.begin(), source_.sessions.begin() + 7);
  EXPECT_EQ(source_.sessions.front().handle, 23);
  EXPECT_EQ(Selected(), 23);
  EXPECT_EQ(Handles().front(), 23);
  // When it ends, the next one takes its place.
  source_.sessions.erase(source_.sessions.begin());
  EXPECT_EQ(Selected(), 24);
  source_.sessions.clear();
  EXPECT_EQ(Selected(), std::nullopt);
}

TEST_F(ScreenModelTest, FiltersWhileTheTextIsTyped) {
  source_.AddSessions(30);
  source_.sessions[3].helo = "mail.Example";
  source_.sessions[7].sender = "x@mail.example";
  SetSize(80, 24);
  Press("/");
  EXPECT_EQ(Note(), "Filter: _");
  EXPECT_TRUE(screen_.takes_text);
  Press("MAILq");
  EXPECT_FALSE(model_.Closed());
  EXPECT_EQ(Handles(), std::vector<int>{});
  PressKey(key::kBackspace);
  EXPECT_EQ(Handles(), (std::vector<int>{4, 8}));
  EXPECT_EQ(Note(), "Filter: MAIL_");
  PressKey(key::kEnter);
  EXPECT_EQ(Note(), "Filter: MAIL");
  EXPECT_FALSE(screen_.takes_text);
  EXPECT_NE(Picture().back().find("rows 1-2/2"), std::string::npos);
  PressKey(key::kEscape);
  EXPECT_EQ(Handles().size(), 21U);
  Press("/");
  for (const Key key : {Key{0xE4}, Key{0x4F60}, Key{0x1F600}, Key{key::kUp}}) PressKey(key);
  EXPECT_EQ(Note(), "Filter: \u00E4\u4F60\U0001F600_");
  PressKey(key::kBackspace);
  PressKey(key::kBackspace);
  EXPECT_EQ(Note(), "Filter: \u00E4_");
  PressKey(key::kCtrlU);
  EXPECT_EQ(Note(), "Filter: _");
  PressKey(key::kEscape);
  EXPECT_EQ(Handles().size(), 21U);
  PressKey(key::kCtrlC);
  EXPECT_TRUE(model_.Closed());
}

TEST_F(ScreenModelTest, SortsByTheNextColumnAndTheOtherWayRound) {
  source_.AddSessions(3);
  source_.sessions[0].received = 50;
  source_.sessions[2].received = 70;
  SetSize(80, 24);
  Press("ss");
  EXPECT_EQ(Handles(), (std::vector<int>{2, 1, 3}));
  EXPECT_EQ(Note(), "Sorted by bytes received");
  Press("r");
  EXPECT_EQ(Handles(), (std::vector<int>{3, 1, 2}));
  EXPECT_EQ(Note(), "Sorted by bytes received, reversed");
  for (std::size_t i = 2; i < kSortColumns; ++i) Press("s");
  EXPECT_EQ(Note(), "Sorted by arrival, reversed");
  EXPECT_EQ(Handles(), (std::vector<int>{3, 2, 1}));
  Press("r");
  EXPECT_EQ(Handles(), (std::vector<int>{1, 2, 3}));
}

TEST_F(ScreenModelTest, FrozenItIsTheSamePictureWhateverHappens) {
  source_.AddSessions(30);
  source_.minutes[59].messages = 5;
  SetSize(120, 40);
  Picture();
  Press(" ");
  const auto before = Picture();
  EXPECT_EQ(Note(), "Frozen");
  source_.sessions.erase(source_.sessions.begin(), source_.sessions.begin() + 5);
  source_.AddSessions(10, 100);
  source_.sessions[3].received = 1234;
  source_.totals.messages = 77;
  source_.minutes[59].messages = 9;
  EXPECT_EQ(Picture(), before);
  // What has gone before it was seen is said to have.
  PressKey(key::kEnd);
  EXPECT_EQ(Handles().back(), 30);
  Press(" ");
  EXPECT_NE(Picture(), before);
  EXPECT_EQ(Handles().size(), 30U);
}

TEST_F(ScreenModelTest, EnterShowsAllThatIsKnownOfTheSession) {
  source_.AddSessions(2);
  FakeSession& session = source_.sessions[1];
  session.name = "n.example";
  session.helo = "h.example";
  session.sender = "s@x.example";
  session.recipient = "r2@y.example";
  session.accepted = {"r1@y.example", "r2@y.example"};
  session.state = SessionState::kContent;
  session.received = 1000;
  SetSize(80, 24);
  PressKey(key::kDown);
  PressKey(key::kDown);
  PressKey(key::kEnter);
  const std::vector<std::string> expected = {" Session 0000000000000002",
                                             " Handles       client 2, server none",
                                             " Client        192.0.2.1, remote",
                                             " Name          n.example",
                                             " HELO          h.example",
                                             " State         content for 00:00:12",
                                             " Duration      00:01:15",
                                             " Last command  RCPT",
                                             " Last reply    250 2.1.5 Ok",
                                             " Client bytes  1000 received, 0 sent",
                                             " Server bytes  0 received, 0 sent",
                                             " Greylisting   none",
                                             " Transactions  0",
                                             " Sender        s@x.example",
                                             " Recipients    0 asked for, 2 accepted",
                                             "   latest      r2@y.example",
                                             "   accepted    r1@y.example",
                                             "               r2@y.example"};
  auto lines = Picture();
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 1, lines.begin() + 19), expected);
  // It stays when the session has gone.
  source_.sessions.pop_back();
  lines = Picture();
  EXPECT_EQ(lines[1], " Session 0000000000000002 has ended");
  EXPECT_EQ(lines[4], expected[3]);
  PressKey(key::kEnter);
  EXPECT_EQ(Line(1), " Handle Received     Sent Duration         Host IP Host Name");
}

TEST_F(ScreenModelTest, ClosesTheSelectedSessionAfterAYOnly) {
  source_.AddSessions(3);
  SetSize(80, 24);
  PressKey(key::kDown);
  PressKey(key::kDown);
  Press("c");
  EXPECT_EQ(Note(), "Close session 0000000000000002 of 192.0.2.1? y: yes, any other key: no");
  Press("n");
  EXPECT_EQ(source_.sessions.size(), 3U);
  Press("c");
  Picture();
  EXPECT_TRUE(screen_.takes_text);
  Press("q");
  EXPECT_FALSE(model_.Closed());
  EXPECT_EQ(source_.sessions.size(), 3U);
  // The one that was asked about, not the one that is there by then.
  Press("c");
  Picture();
  source_.sessions.erase(source_.sessions.begin() + 1);
  Press("y");
  EXPECT_EQ(source_.sessions.size(), 2U);
  EXPECT_EQ(Note(), "Session 0000000000000002 has ended.");
  Press("c");
  Picture();
  Press("y");
  EXPECT_EQ(source_.sessions.size(), 1U);
  EXPECT_EQ(Note(), "Session 0000000000000003 is closed.");
  source_.sessions.clear();
  Press("c");
  Picture();
  Press("y");
  EXPECT_NE(Note(), "Session 0000000000000001 is closed.");
}

TEST_F(ScreenModelTest, ClosesNoSessionThatNobodyHasSeenToBeTheOne) {
  source_.AddSessions(3);
  SetSize(80, 24);
  PressKey(key::kDown);
  PressKey(key::kDown);
  Picture();
  // It ends between the picture and the key.
  source_.sessions.erase(source_.sessions.begin() + 1);
  Press("c");
  EXPECT_EQ(Note(), "Session 0000000000000002 has ended.");
  Press("y");
  EXPECT_EQ(source_.sessions.size(), 2U);
  // A "y" that was typed before the question could be read is no answer to it.
  Press("cy");
  EXPECT_EQ(source_.sessions.size(), 2U);
  EXPECT_EQ(Note(), "Close session 0000000000000003 of 192.0.2.1? y: yes, any other key: no");
  Press("y");
  EXPECT_EQ(Note(), "Session 0000000000000003 is closed.");
  // Neither does anything happen behind the end of the view.
  Press("c");
  Picture();
  Press("n");
  Press("qc");
  Picture();
  Press("y");
  EXPECT_EQ(source_.sessions.size(), 1U);
}

TEST_F(ScreenModelTest, FreezesWhenAllSessionsHaveBeenLookedAt) {
  source_.AddSessions(2000);
  SetSize(80, 24);
  Press("s ");
  Picture();
  for (int pictures = 0; model_.IsUnfinished(); ++pictures) {
    ASSERT_LT(pictures, 10);
    Picture();
  }
  EXPECT_EQ(Note(), "Frozen | Sorted by handle");
  EXPECT_NE(Picture().back().find("/2000 "), std::string::npos);
  // Sessions that come later leave nothing to be finished.
  source_.AddSessions(1000, 5000);
  Picture();
  EXPECT_FALSE(model_.IsUnfinished());
  EXPECT_NE(Picture().back().find("/2000 "), std::string::npos);
  Press("  ");
  for (int i = 0; i < 10; ++i) Picture();
  EXPECT_NE(Picture().back().find("/3000 "), std::string::npos);
  EXPECT_EQ(Note(), "Frozen | Sorted by handle");
  // Taken back before it has come to it.
  Press(" s  ");
  for (int i = 0; i < 10; ++i) Picture();
  EXPECT_EQ(Note(), "Sorted by bytes received");
}

TEST_F(ScreenModelTest, TheSelectedSessionStaysSelectedWhileThousandsAreLookedAt) {
  source_.AddSessions(3000);
  source_.sessions[1].helo = "looked-for.example";
  SetSize(80, 24);
  PressKey(key::kDown);
  const auto finish = [this](std::string_view what) {
    do EXPECT_TRUE(Selected() == 2 || model_.IsUnfinished()) << what;
    while (model_.IsUnfinished());
    EXPECT_EQ(Selected(), 2) << what;
  };
  finish("arrival");
  // Nobody else is shown as selected in the meantime.
  Press("ss");
  const std::optional<int> meanwhile = Selected();
  EXPECT_TRUE(model_.IsUnfinished());
  EXPECT_EQ(meanwhile, std::nullopt);
  finish("sorted");
  Press("/looked");
  EXPECT_EQ(Selected(), std::nullopt);
  finish("filtered");
  PressKey(key::kEscape);
  finish("all again");
  // One that is not among those that are looked for gives its place away when that is known.
  PressKey(key::kHome);
  ASSERT_EQ(Selected(), 1);
  Press("/looked");
  EXPECT_EQ(Selected(), std::nullopt);
  while (model_.IsUnfinished()) Picture();
  EXPECT_EQ(Selected(), 2);
}

TEST_F(ScreenModelTest, TheLatestRefusalsAreOnTopAlsoWhenFrozen) {
  SetSize(80, 24);
  for (int i = 0; i < 40; ++i) source_.refusals.Add(false).client = IP("192.0.2." + std::to_string(i));
  Press(" ");
  PressKey(key::kTab);
  EXPECT_EQ(Line(2).substr(19, 10), "192.0.2.39");
  // From then on nothing moves.
  source_.refusals.Add(false).client = IP("198.51.100.1");
  EXPECT_EQ(Line(2).substr(19, 10), "192.0.2.39");
}

TEST_F(ScreenModelTest, TabShowsTheLatestRefusals) {
  SetSize(80, 24);
  for (int i = 0; i < 40; ++i) {
    RefusalRecord& refusal = source_.refusals.Add(i % 2 == 1);
    refusal.time = 1795362864000 + i * 1000;  // 22 November 2026, 15:54:24, universal
    refusal.client = IP("192.0.2." + std::to_string(i));
    refusal.key = i % 2 == 1 ? "GreyListed" : "IPBlackList";
    refusal.has_from = true;
    refusal.from = i == 39 ? "" : "sender@x.example";
    refusal.to = "a-recipient@local.example";
  }
  PressKey(key::kTab);
  auto lines = Picture();
  EXPECT_EQ(lines[1], " Time              Client          Key                From         To");
  EXPECT_EQ(lines[2],
            " 22/11/26 18:55:03 192.0.2.39      GreyListed         <>           a-recipient@\u2026");
  EXPECT_EQ(lines[3],
            " 22/11/26 18:55:02 192.0.2.38      IPBlackList        sender@x.ex\u2026 a-recipient@\u2026");
  EXPECT_EQ(lines[22].substr(19, 10), "192.0.2.19");
  // What is looked at stays while new ones come.
  PressKey(key::kDown);
  EXPECT_EQ(Line(2).substr(19, 10), "192.0.2.38");
  source_.refusals.Add(false).client = IP("198.51.100.1");
  EXPECT_EQ(Line(2).substr(19, 10), "192.0.2.38");
  PressKey(key::kHome);
  EXPECT_EQ(Line(2).substr(19, 12), "198.51.100.1");
  Press("/198.51");
  EXPECT_EQ(Line(2).substr(19, 12), "198.51.100.1");
  EXPECT_EQ(Line(3), "");
  PressKey(key::kEnter);
  PressKey(key::kTab);
  EXPECT_EQ(Line(1), " Handle Received     Sent Duration         Host IP Host Name");
  SetSize(200, 24);
  PressKey(key::kTab);
  Picture();
  EXPECT_LE(WidthOf(screen_), 200U);
}

TEST_F(ScreenModelTest, FoldsToTheStatusLine) {
  source_.AddSessions(3);
  SetSize(80, 24);
  Press("m");
  EXPECT_TRUE(model_.Folded());
  EXPECT_EQ(Picture().size(), 1U);
  Press("/?s");
  EXPECT_EQ(Picture().size(), 1U);
  Press("m");
  EXPECT_EQ(Picture().size(), 24U);
  EXPECT_EQ(Handles().size(), 3U);
  ScreenModel folded(source_, true);
  EXPECT_TRUE(folded.Folded());
}

TEST_F(ScreenModelTest, ListsItsKeys) {
  SetSize(80, 24);
  Press("?");
  auto lines = Picture();
  EXPECT_EQ(lines[1], " Keys");
  EXPECT_LE(WidthOf(screen_), 80U);
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  for (const std::string_view key : {" Up Down PgUp PgDn Home End ", " / ", " s ", " r ", " Space ",
                                     " Enter ", " Tab ", " c ", " Esc ", " m ", " q ", " ? "}) {
    EXPECT_NE(all.find(key), std::string::npos) << key;
  }
  Press("?");
  EXPECT_EQ(Line(1), " Handle Received     Sent Duration         Host IP Host Name");
}

TEST_F(ScreenModelTest, FillsEverySizeAndNoMore) {
  source_.AddSessions(200);
  for (std::size_t columns = 1; columns <= 210; columns += 11) {
    for (std::size_t rows = 1; rows <= 60; rows += 3) {
      for (const bool plain : {false, true}) {
        SetSize(columns, rows, plain);
        const auto lines = Picture();
        EXPECT_LE(lines.size(), rows) << columns;
        EXPECT_LE(WidthOf(screen_), columns) << rows;
        for (const std::string& line : lines) EXPECT_EQ(line.find('!'), std::string::npos) << line;
      }
    }
  }
}

// Whatever is pressed, however large the screen becomes, and whoever comes and goes: the picture has room, one row at
// most is selected, and no session is closed but the one that the latest picture asks about.
TEST_F(ScreenModelTest, WithstandsAnyKeysAndSizes) {
  std::minstd_rand random(12345);
  const auto below = [&random](std::size_t limit) { return static_cast<std::size_t>(random()) % limit; };
  constexpr std::array<Key, 12> kNamedKeys = {key::kTab,  key::kEnter, key::kEscape, key::kBackspace,
                                              key::kUp,   key::kDown,  key::kPageUp, key::kPageDown,
                                              key::kHome, key::kEnd,   Key{0xE9},    Key{0x4F60}};
  constexpr std::string_view kCommands = "/srr  ?cccyyynm12.e";
  constexpr std::array<std::pair<std::size_t, std::size_t>, 9> kSizes = {
      {{80, 24}, {79, 24}, {80, 23}, {99, 29}, {100, 24}, {80, 30}, {200, 50}, {1, 1}, {300, 45}}};
  SessionId next = 1;
  std::size_t columns = 80;
  std::size_t rows = 24;
  int closed = 0;
  SetSize(columns, rows);
  for (int step = 0; step < 2500; ++step) {
    const std::size_t what = below(20);
    if (what == 0) std::tie(columns, rows) = kSizes.at(below(kSizes.size()));
    if (what == 0) model_.SetSize({.columns = columns, .rows = rows, .plain = below(2) == 0});
    if (what == 1) {
      const std::size_t come = below(step % 500 == 0 ? 900 : 40);
      source_.AddSessions(come, next);
      next += come;
      if (come > 0) source_.sessions.back().helo = "\u4F60 12.example";
    }
    if (what == 2 || what == 3) {
      std::erase_if(source_.sessions, [&](const FakeSession&) { return below(12) == 0; });
    }
    if (what == 4) source_.refusals.Add(below(2) == 0).client = IP("192.0.2.12");
    if (what > 4) {
      const auto before = source_.sessions;
      const Screen seen = screen_;
      const std::string note =
          seen.lines.size() < 24 ? std::string() : LineText(seen.lines[seen.lines.size() - 2]);
      if (note.ends_with("? y: yes, any other key: no") && below(2) == 0) {
        Press("y");
      } else if (what < 12) {
        PressKey(kNamedKeys.at(below(kNamedKeys.size())));
      } else {
        Press(kCommands.substr(below(kCommands.size()), 1));
      }
      for (std::size_t i = 0; i < before.size() && source_.sessions.size() < before.size(); ++i) {
        if (i < source_.sessions.size() && source_.sessions[i].id == before[i].id) continue;
        EXPECT_NE(note.find("Close session " + FormatSessionId(before[i].id)), std::string::npos);
        ++closed;
        break;
      }
    }
    if (below(3) == 0) continue;  // several keys before the next picture
    const auto lines = Picture();
    ASSERT_LE(lines.size(), std::max<std::size_t>(rows, 1)) << step;
    ASSERT_LE(WidthOf(screen_), columns) << step;
    std::size_t selected = 0;
    for (std::size_t i = 1; i + 1 < lines.size(); ++i) {
      ASSERT_EQ(lines[i].find('!'), std::string::npos) << lines[i];
      if (!screen_.lines[i].empty() && screen_.lines[i].front().look.reverse) ++selected;
    }
    ASSERT_LE(selected, 1U) << step;
  }
  EXPECT_GT(closed, 0);
}

TEST_F(ScreenModelTest, APictureOfTheWholeScreen) {
  source_.sessions = {{.id = 1,
                       .handle = 12,
                       .received = 1042,
                       .sent = 311,
                       .name = "mail.example.org",
                       .helo = "mail.example.org",
                       .sender = "ann@example.org",
                       .recipient = "bob@local.example",
                       .state = SessionState::kContent},
                      {.id = 2, .handle = 14, .received = 30, .sent = 90, .address = "198.51.100.7"}};
  source_.totals.peak = 4;
  source_.totals.accepted = 20;
  source_.totals.refused = 5;
  source_.totals.messages = 18;
  source_.totals.bytes = {{{123456, 4321}, {0, 0}}};
  source_.totals.server = ServerState::kUp;
  source_.minutes[57] = {.messages = 4, .refusals = 0};
  source_.minutes[58] = {.messages = 8, .refusals = 1};
  source_.minutes[59] = {.messages = 2, .refusals = 2};
  SetSize(110, 30, true);
  const std::vector<std::string> lines = Picture();
  const std::string bars(57, ' ');
  const std::vector<std::string> top(lines.begin(), lines.begin() + 5);
  EXPECT_EQ(top, (std::vector<std::string>{
                     "0.0.0.0:25 --> 127.0.0.1:2525" + std::string(110 - 29 - 11, ' ') + "v. 3.04.012",
                     " Handle Received     Sent Duration         Host IP Host Name     State      HELO      "
                     "Sender      Recipient",
                     "     12     1042      311 00:00:00       192.0.2.1 mail.example\u2026 content    "
                     "mail.exa\u2026 ann@exampl\u2026 "
                     "bob@local.e\u2026",
                     "     14       30       90 00:00:00    198.51.100.7 Unknown       idle", ""}));
  const std::vector<std::string> foot(lines.end() - 8, lines.end());
  EXPECT_EQ(foot, (std::vector<std::string>{
                      "Messages  " + bars + " #  max 8", "a minute  " + bars + ":#",
                      "          " + bars + "##| now 2", "Refusals  " + bars + "  # max 2",
                      "a minute  " + bars + " :#", "          " + bars + " ## now 2",
                      "          60 min ago     45             30             15          now",
                      "open 2 peak 4 rows 1-2/2 acc 20 ref 5 del 0 msg 18 in 123k out 4321 server up" +
                          std::string(110 - 77 - 7, ' ') + "?: keys"}));
}

}  // namespace
}  // namespace trabex
