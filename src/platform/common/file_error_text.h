// The run-time errors of files (files.h) by their numbers.
#pragma once

#include <string>

namespace trabex {

[[noreturn]] void RaiseFileErrorNumber(int number, std::string source);

}  // namespace trabex
