// This system has no limit that a test could reach.
#include "support/open_file_limit.h"

#include <gtest/gtest.h>

namespace trabex {

OpenFileLimit::OpenFileLimit() = default;
OpenFileLimit::~OpenFileLimit() = default;

void OpenFileLimit::LeaveOnly(int /*free*/) {
  FAIL() << "open files cannot be limited here";
}

bool OpenFileLimit::NoneLeft() {
  return false;
}

void OpenFileLimit::Lift() {}

}  // namespace trabex
