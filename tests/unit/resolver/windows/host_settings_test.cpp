#include "resolver/host_settings.h"

#include <gtest/gtest.h>

#include "platform/files.h"

namespace trabex {
namespace {

TEST(HostSettings, AreThoseOfTheSystem) {
  EXPECT_NE(MachineName(), "");
  EXPECT_TRUE(IsAbsolutePath(DefaultHostsPath())) << DefaultHostsPath();
  EXPECT_TRUE(DefaultHostsPath().ends_with("\\drivers\\etc\\hosts"));
  EXPECT_EQ(ResolverSettingsPath(), "");
}

}  // namespace
}  // namespace trabex
