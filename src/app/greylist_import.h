// Puts records from elsewhere into the greylisting database.
#pragma once

#include <string>

#include "app/control_requests.h"
#include "app/greylist_tool.h"
#include "greylist/cGreyListingData.h"

namespace trabex {

// Raises 321: what was asked about records is not completed with those of another file.
[[noreturn]] void RaiseLoadedAnew(const char* source);

// Puts `record` in the place of the one with its key, or adds it.
void SetRecord(const GreyListToolInputs& inputs, cGreyListingData record);

// Reads the file at `path`, which has a record in each line as AppendExported writes it, and only when all of it
// is right changes the records: with `replace` they are then those of the file, otherwise the better one of each
// key stays. That is an accepted one rather than one that waits; of two accepted ones that of the later end; of
// two that wait the one with the earlier first contact, with the larger count of both.
ControlReply ImportRecords(const GreyListToolInputs& inputs, const std::string& path, bool replace);

}  // namespace trabex
