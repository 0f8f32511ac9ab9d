#include "net/splice_pipes.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace trabex {
namespace {

TEST(SplicePipes, LendsOnlySoMany) {
  SplicePipes pipes;
  std::vector<std::unique_ptr<SplicePipe>> lent;
  for (std::size_t i = 0; i < SplicePipes::kMaxLent; ++i) {
    lent.push_back(pipes.Borrow());
    ASSERT_NE(lent.back(), nullptr) << i;
    EXPECT_TRUE(lent.back()->IsEmpty());
  }
  EXPECT_EQ(pipes.Lent(), SplicePipes::kMaxLent);
  EXPECT_EQ(pipes.Borrow(), nullptr);
  pipes.Return(std::move(lent.back()));
  lent.pop_back();
  EXPECT_NE(pipes.Borrow(), nullptr);
  for (auto& pipe : lent) pipes.Return(std::move(pipe));
}

TEST(SplicePipes, LendsTheOneThatCameBack) {
  SplicePipes pipes;
  std::unique_ptr<SplicePipe> pipe = pipes.Borrow();
  const SplicePipe* const first = pipe.get();
  pipes.Return(std::move(pipe));
  EXPECT_EQ(pipes.Lent(), 0U);
  pipe = pipes.Borrow();
  EXPECT_EQ(pipe.get(), first);
  pipes.Return(std::move(pipe));
  pipes.Return(nullptr);
  EXPECT_EQ(pipes.Lent(), 0U);
}

// A pipe takes two descriptors. When there are none the system is not asked again for each portion.
TEST(SplicePipes, RefusesForAWhileWhenTheSystemHasNone) {
  SplicePipes pipes;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(pipes.Borrow(), nullptr);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  for (int i = 0; i < SplicePipes::kRefusals; ++i) ASSERT_EQ(pipes.Borrow(), nullptr) << i;
  EXPECT_EQ(pipes.Lent(), 0U);
  std::unique_ptr<SplicePipe> pipe = pipes.Borrow();
  EXPECT_NE(pipe, nullptr);
  pipes.Return(std::move(pipe));
}

}  // namespace
}  // namespace trabex
