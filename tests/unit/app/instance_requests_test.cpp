// What a running instance answers: long answers in slices of bounded work, and what comes between two of them.
#include "app/instance_requests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/text.h"
#include "config/configuration_dump.h"
#include "proxy/cProxy.h"
#include "proxy/session_dependencies.h"
#include "proxy/session_id.h"
#include "reload_fixture.h"

namespace trabex {
namespace {

class InstanceRequestsTest : public AutoReloadTest {
 protected:
  ControlSlices Ask(const std::vector<std::string>& request) {
    return std::get<ControlSlices>(program_->requests.Answer(request));
  }
  std::string DumpOfNow() const {
    std::string text;
    DumpConfiguration(program_->configuration, ini_,
                      [&](std::string_view line) { text.append(line).append("\n"); });
    return text;
  }
};

TEST_F(InstanceRequestsTest, LongDumpComesInSlices) {
  std::string entries;
  for (int i = 0; i < 50'000; ++i)
    entries += "SendersBlackList=sender" + std::to_string(i) + "@example.test\n";
  WriteIni(entries);
  Start();
  const ControlSlices slices = Ask({"DUMP"});
  std::string text;
  std::size_t longest = 0;
  for (bool more = true; more;) {
    ControlAnswer slice;
    more = slices(slice);
    longest = std::max(longest, slice.text.size());
    EXPECT_EQ(slice.status, exit_status::kDone);
    text += slice.text;
  }
  EXPECT_EQ(text, DumpOfNow());
  EXPECT_LT(longest, text.size() / 10);
}

TEST_F(InstanceRequestsTest, DumpEndsAtAReload) {
  std::string entries;
  for (int i = 0; i < 20'000; ++i)
    entries += "SendersBlackList=sender" + std::to_string(i) + "@example.test\n";
  WriteIni(entries);
  Start();
  const ControlSlices slices = Ask({"DUMP"});
  ControlAnswer slice;
  ASSERT_TRUE(slices(slice));
  WriteIni("");
  Window().RequestReload({});
  slice = {};
  EXPECT_FALSE(slices(slice));
  EXPECT_EQ(slice.status, exit_status::kFailed);
  EXPECT_EQ(slice.text, "");
  EXPECT_EQ(slice.error, "The configuration was reloaded meanwhile.");
}

// Sessions that have not begun: a row needs no more.
class ListedSessions : public InstanceRequestsTest {
 protected:
  static constexpr std::size_t kCount = 9000;
  static constexpr std::size_t kMaxInSlice = 500;

  void SetUp() override {
    InstanceRequestsTest::SetUp();
    WriteIni("");
    Start();
    dependencies_ = std::make_unique<SessionDependencies>(SessionDependencies{
        program_->configuration, program_->log, program_->dependencies.clock, program_->loop,
        program_->socket_module, *program_->names, Window().Sessions(), program_->tls});
    for (std::size_t i = 0; i < kCount; ++i) {
      Window().Sessions().Add(std::make_unique<cProxy>(*dependencies_));
    }
  }
  void TearDown() override {
    while (Window().Sessions().Count() > 0) Remove(0);
    InstanceRequestsTest::TearDown();
  }
  void Remove(std::size_t index) {
    SessionCollection& sessions = Window().Sessions();
    sessions.Remove(sessions.At(index).Key());
  }

  std::unique_ptr<SessionDependencies> dependencies_;
};

TEST_F(ListedSessions, ComeInSlicesWithoutThoseThatHaveGone) {
  const std::vector<std::vector<std::string>> requests = {{"SESSIONS"}, {"SESSIONS", "JSON"}};
  std::size_t there = kCount;
  for (const auto& request : requests) {
    const ControlSlices slices = Ask(request);
    std::vector<std::string> lines;
    for (bool more = true; more;) {
      ControlAnswer slice;
      more = slices(slice);
      EXPECT_EQ(slice.status, exit_status::kDone);
      const auto count = static_cast<std::size_t>(std::count(slice.text.begin(), slice.text.end(), '\n'));
      EXPECT_LE(count, kMaxInSlice);
      for (const std::string_view line : Split(slice.text, '\n')) {
        if (!line.empty()) lines.emplace_back(line);
      }
      // One that was listed, and one that would be.
      if (lines.size() == kMaxInSlice) {
        Remove(0);
        Remove(there - 2);
        there -= 2;
      }
    }
    EXPECT_EQ(lines.size(), there + 1);
    EXPECT_EQ(lines.back().find(FormatSessionId(Window().Sessions().At(there - 1).Id())),
              request.size() == 1 ? 0U : sizeof R"({"session":")" - 1);
    if (request.size() == 1) continue;
    for (const std::string& line : lines) {
      ASSERT_TRUE(line.starts_with(R"({"session":")") && line.ends_with('}')) << line;
    }
  }
}

TEST_F(ListedSessions, TakeNoOtherArgument) {
  const std::vector<std::vector<std::string>> requests = {
      {"SESSIONS", ""}, {"SESSIONS", "json"}, {"SESSIONS", "JSON", "JSON"}};
  for (const auto& request : requests) {
    const auto answer = std::get<ControlAnswer>(program_->requests.Answer(request));
    EXPECT_EQ(answer.status, exit_status::kBadCommandLine);
    EXPECT_EQ(answer.error, "SESSIONS takes nothing but JSON.");
  }
}

}  // namespace
}  // namespace trabex
