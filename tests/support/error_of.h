// What an action raises, as a text that a test compares.
#pragma once

#include <string>

#include "base/error.h"

namespace trabex {

// The error that `action` raises, as "number source description"; empty when it raises none.
template <class Action>
std::string ErrorOf(Action action) {
  try {
    action();
  } catch (const Error& error) {
    return std::to_string(error.Number()) + " " + error.Source() + " " + error.Description();
  }
  return "";
}

}  // namespace trabex
