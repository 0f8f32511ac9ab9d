// What can be asked of greylisting records: "/GREYLIST" and its commands, on the records of a running instance or
// on those of a file.
#pragma once

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
  // While it is told true the records must not be saved: they are about to be changed as a whole.
  std::function<void(bool hold)> hold_saves = [](bool) {};
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
// inputs of a long answer may change while it is made: what is added or removed meanwhile is in it or not. An
// import that has read all of its file and changes the records is completed when it is dropped.
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
