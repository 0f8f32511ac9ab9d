#include "app/control_requests.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace trabex {
namespace {

TEST(ControlRequests, HandlerGetsWhatFollowsItsName) {
  ControlRequests requests;
  std::vector<std::string> got;
  requests.Add("STATUS", [&](const std::vector<std::string>& arguments) {
    got = arguments;
    return ControlAnswer{.status = 7, .text = "text\n", .error = "error"};
  });
  const auto answer = std::get<ControlAnswer>(requests.Answer({"STATUS", "a b", ""}));
  EXPECT_EQ(got, (std::vector<std::string>{"a b", ""}));
  EXPECT_EQ(answer.status, 7);
  EXPECT_EQ(answer.text, "text\n");
  EXPECT_EQ(answer.error, "error");
}

TEST(ControlRequests, UnknownOnesFail) {
  ControlRequests requests;
  requests.Add("STATUS", [](const std::vector<std::string>&) { return ControlAnswer{}; });
  for (const std::string name : {"RELOAD", "status", "STATUS ", ""}) {
    const auto answer = std::get<ControlAnswer>(requests.Answer({name}));
    EXPECT_EQ(answer.status, exit_status::kFailed);
    EXPECT_EQ(answer.error, "This instance does not know the request \"" + name + "\".");
  }
  EXPECT_EQ(std::get<ControlAnswer>(requests.Answer({})).status, exit_status::kFailed);
}

TEST(PendingAnswer, IsGivenBeforeOrAfterSomebodyAwaitsIt) {
  std::vector<int> got;
  const auto taker = [&](const ControlAnswer& answer) { got.push_back(answer.status); };
  PendingAnswer early;
  early.Give({.status = 1, .text = {}, .error = {}});
  EXPECT_TRUE(got.empty());
  early.Await(taker);
  EXPECT_EQ(got, std::vector<int>{1});
  PendingAnswer late;
  late.Await(taker);
  late.Give({.status = 2, .text = {}, .error = {}});
  EXPECT_EQ(got, (std::vector<int>{1, 2}));
  PendingAnswer unwanted;
  unwanted.Await(taker);
  unwanted.Await(nullptr);
  unwanted.Give({.status = 3, .text = {}, .error = {}});
  EXPECT_EQ(got, (std::vector<int>{1, 2}));
}

}  // namespace
}  // namespace trabex
