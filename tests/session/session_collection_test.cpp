#include "proxy/session_collection.h"

#include <gtest/gtest.h>

#include <cstddef>
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
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/recorded_log.h"

namespace trabex {
namespace {

TEST(SessionCollection, GivesTheRowsInOrderWhileSessionsComeAndGo) {
  const Configuration settings = DefaultConfiguration();
  const FakeClock time;
  EventLoop loop(time);
  FakeNameLookup names(loop);
  RecordedLog log;
  Sockets sockets(loop);
  modSocketMaster module(sockets, names, log);
  TlsContexts tls;
  SessionCollection sessions;
  SessionDependencies dependencies{settings, log, time, loop, module, names, sessions, tls};
  std::vector<std::string> keys;
  std::mt19937 random(8000);
  std::size_t top = 0;
  for (int step = 0; step < 4000; ++step) {
    if (keys.empty() || random() % 100 < (step % 1000 < 500 ? 60U : 40U)) {
      keys.push_back(sessions.Add(std::make_unique<cProxy>(dependencies)).Key());
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

}  // namespace
}  // namespace trabex
