#include "support/open_file_limit.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

#include "base/error.h"

namespace trabex {

namespace {

constexpr rlim_t kLimit = 256;

void SetLimit(rlim_t files) {
  rlimit limit{};
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = files;
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

}  // namespace

OpenFileLimit::OpenFileLimit() {
  // A sanitizer opens a pipe when it first meets an object of a type; without a descriptor left it would take
  // the first Error for none.
  try {
    throw Error(1, "OpenFileLimit", "none");
  } catch (const Error& error) {
    EXPECT_EQ(error.Number(), 1);
  }
  rlimit limit{};
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  normal_ = limit.rlim_cur;
}

OpenFileLimit::~OpenFileLimit() {
  Lift();
}

void OpenFileLimit::LeaveOnly(int free) {
  // A lower limit alone would not do: descriptors above it that are closed could not be opened again.
  SetLimit(std::min(kLimit, static_cast<rlim_t>(normal_)));
  for (int copy = dup(STDIN_FILENO); copy >= 0; copy = dup(STDIN_FILENO)) taken_.push_back(copy);
  ASSERT_GE(taken_.size(), static_cast<std::size_t>(free));
  for (; free > 0; --free) {
    close(taken_.back());
    taken_.pop_back();
  }
}

bool OpenFileLimit::NoneLeft() {
  const int descriptor = dup(STDIN_FILENO);
  if (descriptor < 0) return true;
  close(descriptor);
  return false;
}

void OpenFileLimit::Lift() {
  for (const int descriptor : taken_) close(descriptor);
  taken_.clear();
  SetLimit(normal_);
}

}  // namespace trabex
