// What is known of an initialization file before a reload takes it.
#pragma once

#include <string>
#include <vector>

#include "config/configuration.h"
#include "config/ini_reader.h"

namespace trabex {

struct Program;

struct ReloadCheck {
  std::vector<std::string> findings;  // one line each, without a line end: "FILE: error: TEXT"
  bool has_errors = false;
  Configuration settings = DefaultConfiguration();  // as they would be, bad values left out
};

// Reads `ini` as a reload of `program` would, whatever IgnoreIniErrors says, and changes nothing.
ReloadCheck CheckForReload(Program& program, const IniText& ini);

// The line of a finding that stands against a reload.
std::string ReloadError(const Program& program, const std::string& text);

}  // namespace trabex
