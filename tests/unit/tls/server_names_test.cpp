#include "tls/server_names.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

TEST(ServerNamesTest, FindsTheNameItselfThenOneLabelOfAWildcard) {
  ServerNames names;
  names.Add("mx.example.org", 1);
  names.Add("*.example.org", 2);
  names.Add("MX.Example.org", 3);  // is there already
  names.Add("m*.other.org", 4);    // no wildcard
  names.Add("dotted.org.", 5);
  const std::pair<const char*, int> cases[] = {
      {"mx.example.org", 1},
      {"MX.EXAMPLE.ORG", 1},
      {"mx.example.org.", 1},
      {"a.example.org", 2},
      {"a.b.example.org", -1},
      {"example.org", -1},
      {".example.org", -1},
      {"*.example.org", 2},
      {"mx.other.org", -1},
      {"dotted.org", 5},
      {"", -1},
      {".", -1},
      {"org", -1},
  };
  for (const auto& [name, value] : cases) {
    SCOPED_TRACE(name);
    const auto found = names.Find(name);
    EXPECT_EQ(found ? static_cast<int>(*found) : -1, value);
  }
}

}  // namespace
}  // namespace trabex
