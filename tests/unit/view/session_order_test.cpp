#include "view/session_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "unit/view/fake_source.h"

namespace trabex {
namespace {

std::vector<SessionId> Ids(const SessionOrder& order, const ViewSource& source) {
  std::vector<SessionId> ids;
  for (std::size_t i = 0; i < order.Count(); ++i) ids.push_back(order.IdAt(i, source));
  return ids;
}

// Updates until everything was looked at.
void Settle(SessionOrder& order, const ViewSource& source) {
  do order.Update(source);
  while (order.IsUnfinished());
}

FakeSource SomeSessions() {
  FakeSource source;
  source.sessions = {
      {.id = 10,
       .handle = 7,
       .received = 5,
       .sent = 300,
       .address = "192.0.2.20",
       .name = "beta.example",
       .helo = "Zulu",
       .sender = "a@x.example",
       .recipient = "r@local.example",
       .state = SessionState::kContent},
      {.id = 11,
       .handle = 3,
       .received = 900,
       .sent = 20,
       .address = "192.0.2.3",
       .name = "alpha.example",
       .helo = "yankee",
       .sender = "c@x.example",
       .recipient = "q@local.example",
       .state = SessionState::kIdle},
      {.id = 14,
       .handle = 5,
       .received = 17,
       .sent = 20,
       .address = "2001:db8::1",
       .name = "",
       .helo = "XRAY",
       .sender = "b@y.example",
       .recipient = "",
       .state = SessionState::kClientName,
       .accepted = {"first@kept.example"}},
  };
  return source;
}

TEST(SessionOrder, SortsByEveryColumn) {
  struct Row {
    SortColumn column;
    std::vector<SessionId> ids;
  };
  const Row rows[] = {
      {SortColumn::kArrival, {10, 11, 14}},   {SortColumn::kHandle, {11, 14, 10}},
      {SortColumn::kReceived, {10, 14, 11}},  {SortColumn::kSent, {11, 14, 10}},
      {SortColumn::kDuration, {14, 11, 10}},  {SortColumn::kAddress, {11, 10, 14}},
      {SortColumn::kName, {14, 11, 10}},      {SortColumn::kState, {14, 11, 10}},
      {SortColumn::kHelo, {14, 11, 10}},      {SortColumn::kSender, {10, 14, 11}},
      {SortColumn::kRecipient, {14, 11, 10}},
  };
  EXPECT_EQ(std::size(rows), kSortColumns);
  const FakeSource source = SomeSessions();
  for (const Row& row : rows) {
    SessionOrder order;
    order.SetSort(row.column, false);
    Settle(order, source);
    EXPECT_EQ(Ids(order, source), row.ids) << SortColumnName(row.column);
    order.SetSort(row.column, true);
    Settle(order, source);
    EXPECT_EQ(Ids(order, source), std::vector<SessionId>(row.ids.rbegin(), row.ids.rend()))
        << SortColumnName(row.column);
    for (std::size_t i = 0; i < order.Count(); ++i) {
      EXPECT_EQ(order.IndexOf(order.IdAt(i, source), source), i);
      const auto place = order.SourceIndex(i, source);
      ASSERT_TRUE(place.has_value());
      EXPECT_EQ(source.SessionAt(*place), order.IdAt(i, source));
    }
  }
}

TEST(SessionOrder, FindsTextInEveryField) {
  struct Row {
    std::string_view filter;
    std::vector<SessionId> ids;
  };
  const Row rows[] = {
      {"", {10, 11, 14}},      {"192.0.2.2", {10}},      {"2001:DB8", {14}},        {"ALPHA", {11}},
      {"xray", {14}},          {"@X.EXAMPLE", {10, 11}}, {"q@local", {11}},         {"first@kept", {14}},
      {"nothing like it", {}}, {"192.0.2.9", {}},        {"example", {10, 11, 14}}, {"unknown", {}},
  };
  const FakeSource source = SomeSessions();
  for (const Row& row : rows) {
    SessionOrder order;
    order.SetFilter(row.filter);
    Settle(order, source);
    EXPECT_EQ(Ids(order, source), row.ids) << row.filter;
  }
}

TEST(SessionOrder, LooksAtNothingWithoutFilterAndSortKey) {
  FakeSource source;
  source.AddSessions(9000);
  SessionOrder order;
  order.Update(source);
  EXPECT_EQ(order.Count(), 9000U);
  EXPECT_EQ(order.IndexOf(4711, source), 4710U);
  EXPECT_EQ(order.IndexOf(9001, source), std::nullopt);
  order.SetSort(SortColumn::kDuration, false);
  order.Update(source);
  EXPECT_EQ(order.IdAt(0, source), 9000U);
  EXPECT_EQ(source.looked_at, 0U);
  EXPECT_FALSE(order.IsUnfinished());
}

TEST(SessionOrder, LooksAtABoundedNumberOfSessionsAtATime) {
  FakeSource source;
  source.AddSessions(9000);
  SessionOrder order;
  order.SetSort(SortColumn::kReceived, true);
  std::size_t updates = 0;
  do {
    source.looked_at = 0;
    order.Update(source);
    EXPECT_LE(source.looked_at, SessionOrder::kMaxLookedAt);
    ++updates;
  } while (order.IsUnfinished());
  EXPECT_EQ(updates, (9000 + SessionOrder::kMaxLookedAt - 1) / SessionOrder::kMaxLookedAt);
  EXPECT_EQ(order.Count(), 9000U);
  // A change is noticed when its turn has come.
  source.sessions[8500].received = 10;
  for (std::size_t i = 0; i < 9000 / SessionOrder::kMaxLookedAtAgain; ++i) {
    source.looked_at = 0;
    order.Update(source);
    EXPECT_EQ(source.looked_at, SessionOrder::kMaxLookedAtAgain);
  }
  EXPECT_EQ(order.IdAt(0, source), 8501U);
}

TEST(SessionOrder, IsThatOfAFullSortWhileSessionsComeGoAndChange) {
  std::mt19937 random(1411);
  FakeSource source;
  SessionOrder order;
  SessionId next = ~SessionId{0} - 300;  // ids go on from 0
  for (int step = 0; step < 3000; ++step) {
    if (step % 300 == 0) {
      order.SetFilter(step % 600 == 0 ? "" : "7");
      order.SetSort(static_cast<SortColumn>(random() % kSortColumns), random() % 2 == 0);
    }
    const auto change = random() % 3;
    if (change == 0 || source.sessions.empty()) {
      FakeSession& session = source.sessions.emplace_back();
      session.id = next++;
      session.name = std::to_string(random() % 100);
      session.helo = session.name;
    } else if (change == 1) {
      source.sessions.erase(source.sessions.begin() +
                            static_cast<std::ptrdiff_t>(random() % source.sessions.size()));
    } else {
      source.sessions[random() % source.sessions.size()].received = static_cast<std::int64_t>(random() % 50);
    }
    Settle(order, source);
    SessionOrder fresh;
    fresh.SetFilter(order.Filter());
    fresh.SetSort(order.Sort(), order.Reversed());
    Settle(fresh, source);
    ASSERT_EQ(Ids(order, source), Ids(fresh, source)) << "step " << step;
  }
}

TEST(SessionOrder, StandsStillWhileItIsFrozen) {
  FakeSource source = SomeSessions();
  SessionOrder order;
  order.Update(source);
  order.Freeze(true, source);
  source.sessions.erase(source.sessions.begin());
  source.AddSessions(2, 20);
  order.Update(source);
  EXPECT_EQ(Ids(order, source), (std::vector<SessionId>{10, 11, 14}));
  EXPECT_EQ(order.SourceIndex(0, source), std::nullopt);
  EXPECT_EQ(order.SourceIndex(1, source), 0U);
  EXPECT_EQ(order.IndexOf(14, source), 2U);
  EXPECT_EQ(order.IndexOf(20, source), std::nullopt);
  order.Freeze(false, source);
  order.Update(source);
  EXPECT_EQ(Ids(order, source), (std::vector<SessionId>{11, 14, 20, 21}));
}

}  // namespace
}  // namespace trabex
