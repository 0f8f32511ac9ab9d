// What the greylisting records amount to.
#pragma once

#include "app/control_requests.h"
#include "app/greylist_tool.h"

namespace trabex {

// One name, a tab and a number a line: the records by state and by age, that is the time since their first contact
// as far as the delay in force tells it, and the networks and recipients that most of them have.
ControlReply RecordStatistics(const GreyListToolInputs& inputs);

}  // namespace trabex
