#include "proxy/session_collection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "config/configuration.h"
#include "net/modSocketMaster.h"
#include "platform/event_loop.h"
#include "platform/sockets.h"
#include "proxy/cProxy.h"
#include "proxy/session_dependencies.h"
#include "proxy/tls_contexts.h"
#include "support/counted_allocations.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/recorded_log.h"

namespace trabex {
namespace {

class SessionCollectionTest : public testing::Test {
 protected:
  std::string Add() { return sessions.Add(std::make_unique<cProxy>(dependencies)).Key(); }

  const Configuration settings = DefaultConfiguration();
  FakeClock time;
  EventLoop loop{time};
  FakeNameLookup names{loop};
  RecordedLog log;
  Sockets sockets{loop};
  modSocketMaster module{sockets, names, log};
  TlsContexts tls;
  SessionCollection sessions;
  SessionDependencies dependencies{settings, log, time, loop, module, names, sessions, tls};
  std::vector<std::string> keys;
};

TEST_F(SessionCollectionTest, GivesTheRowsInOrderWhileSessionsComeAndGo) {
  std::mt19937 random(8000);
  std::size_t top = 0;
  for (int step = 0; step < 4000; ++step) {
    if (keys.empty() || random() % 100 < (step % 1000 < 500 ? 60U : 40U)) {
      keys.push_back(Add());
    } else {
      const std::size_t removed = random() % keys.size();
      ASSERT_NE(sessions.Remove(keys[removed]), nullptr);
      ASSERT_EQ(sessions.Remove(keys[removed]), nullptr);
      keys.erase(keys.begin() + static_cast<std::ptrdiff_t>(removed));
    }
    ASSERT_EQ(sessions.Count(), keys.size());
    // A screen of rows, which is scrolled now and then.
    if (random() % 8 == 0) top = random() % (keys.size() + 1);
    for (std::size_t row = top; row < top + 5 && row < keys.size(); ++row) {
      ASSERT_EQ(sessions.At(row).Key(), keys[row]) << "row " << row << " in step " << step;
      ASSERT_EQ(sessions.IdAt(row), sessions.At(row).Id());
    }
  }
  for (const std::string& key : keys) EXPECT_NE(sessions.Remove(key), nullptr);
}

// What an action does to a session that is still to be visited.
TEST_F(SessionCollectionTest, VisitsEachOnceWhateverComesAndGoesMeanwhile) {
  std::mt19937 random(9000);
  for (int round = 0; round < 200; ++round) {
    while (keys.size() < 100) keys.push_back(Add());
    const std::vector<std::string> before = keys;
    std::vector<std::string> visited;
    std::vector<std::string> removed;
    sessions.ForEach([&](cProxy& session) {
      visited.push_back(session.Key());
      switch (random() % 4) {
        case 0:
          keys.push_back(Add());
          break;
        case 1: {
          const auto place = keys.begin() + static_cast<std::ptrdiff_t>(random() % keys.size());
          // The one that is visited is needed until the action returns.
          if (*place == session.Key()) break;
          removed.push_back(*place);
          EXPECT_NE(sessions.Remove(*place), nullptr);
          keys.erase(place);
          break;
        }
        case 2:
          // The rows move together.
          EXPECT_EQ(sessions.At(keys.size() - 1).Key(), keys.back());
          break;
        default:
          break;
      }
    });
    std::vector<std::string> expected;
    for (const std::string& key : before) {
      const bool was_visited = std::find(visited.begin(), visited.end(), key) != visited.end();
      const bool was_removed = std::find(removed.begin(), removed.end(), key) != removed.end();
      if (was_visited || !was_removed) expected.push_back(key);
    }
    EXPECT_EQ(visited, expected) << "round " << round;
    while (keys.size() > 20) {
      EXPECT_NE(sessions.Remove(keys.front()), nullptr);
      keys.erase(keys.begin());
    }
  }
  sessions.ForEach([&](cProxy& session) { EXPECT_EQ(sessions.Remove(session.Key()).get(), &session); });
  EXPECT_EQ(sessions.Count(), 0U);
  sessions.ForEach([](cProxy&) { ADD_FAILURE() << "there is none"; });
}

// Whoever ends has no memory, perhaps.
TEST_F(SessionCollectionTest, VisitsWithoutMemory) {
  for (int i = 0; i < 100; ++i) keys.push_back(Add());
  std::size_t visits = 0;
  const std::function<void(cProxy&)> visit = [&](cProxy&) { ++visits; };
  {
    const FailedAllocation failure(0, FailedAllocation::kAll);
    sessions.ForEach(visit);
    EXPECT_FALSE(failure.HasFailed());
  }
  EXPECT_EQ(visits, keys.size());
}

}  // namespace
}  // namespace trabex
