// What can be asked of greylisting records: "/GREYLIST" and its commands, on the records of a running instance or
// on those of a file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "app/control_requests.h"
#include "config/configuration.h"
#include "greylist/greylisting_database.h"
#include "platform/clock.h"

namespace trabex {

// All outlive the tool and what it answers.
struct GreyListToolInputs {
  GreyListingDatabase& database;
  const GreyListingSettings& settings;
  const Clock& clock;
  // How often the records were loaded or dropped as a whole. An answer that is being made then ends.
  std::function<std::uint64_t()> loads = [] { return std::uint64_t{0}; };
  // The records are about to be changed as a whole, so from now on they are not saved, until release_saves. A save that
  // cannot wait for that calls `complete` first, which makes all of the change and releases. False: somebody else holds
  // the saves.
  std::function<bool(std::function<void()> complete)> hold_saves = [](const auto&) { return true; };
  std::function<void()> release_saves = [] {};
  // The file to be imported, when who asks has opened it.
  std::function<NativeFile()> attached = [] { return NativeFile(); };
};

// Answers
//   list [PATTERN...] [--accepted|--waiting|--expired] [--json]
//   show CLIENT FROM TO [--json]
//   delete PATTERN... [--dry-run]
//   add CLIENT FROM TO [--accepted]
//   export
//   import FILE [--merge|--replace]
//   stats
// A PATTERN (match/mText.h) is held against a record's whole key. Changed records set the database's flag. The
// records may change while a long answer is made: what is added or removed meanwhile is in it or not. When they are
// loaded anew or dropped meanwhile it raises 321, unless it is an import that changes them already: that is completed
// first. It is also completed when it is dropped.
ControlReply AnswerGreyList(const GreyListToolInputs& inputs, const std::vector<std::string>& arguments);

// The commands with their options, for tests that hold the documents against them.
struct GreyListCommandForm {
  std::string_view name;
  std::vector<std::string_view> options;  // with the hyphens
};
std::vector<GreyListCommandForm> GreyListCommandForms();

// What `show` fails with when there is no record: this and the key.
inline constexpr std::string_view kNoRecord = "There is no record of ";

}  // namespace trabex
