// What a running instance answers: long answers in slices of bounded work, and what comes between two of them.
#include "app/instance_requests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <variant>

#include "config/configuration_dump.h"
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

}  // namespace
}  // namespace trabex
