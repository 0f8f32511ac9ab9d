#include "platform/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace trabex {
namespace {

TEST(Descriptors, AreCountedAsTheyAreOpened) {
  const std::int64_t before = FindDescriptorUse().open;
  const int first = open("/dev/null", O_RDONLY);
  const int second = open("/dev/null", O_RDONLY);
  EXPECT_EQ(FindDescriptorUse().open, before + 2);
  close(first);
  close(second);
  EXPECT_EQ(FindDescriptorUse().open, before);
}

// The table of the process is larger than the limit then.
TEST(Descriptors, AreCountedUnderALowLimit) {
  const std::int64_t before = FindDescriptorUse().open;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit low{40, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  EXPECT_EQ(FindDescriptorUse().open, before);
  EXPECT_EQ(FindDescriptorUse().limit, 40);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(Descriptors, HaveTheLimitOfTheSystem) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(FindDescriptorUse().limit, static_cast<std::int64_t>(limit.rlim_cur));
}

}  // namespace
}  // namespace trabex
