// Expecting an Error with all its parts.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "base/error.h"

namespace trabex {

// Runs `action` and compares the Error it raises.
template <class Action>
void ExpectError(Action action, int number, const std::string& source, const std::string& description) {
  try {
    action();
    ADD_FAILURE() << "no error; expected " << number << " " << description;
  } catch (const Error& error) {
    EXPECT_EQ(error.Number(), number) << description;
    EXPECT_EQ(error.Source(), source) << description;
    EXPECT_EQ(error.Description(), description);
  }
}

}  // namespace trabex
