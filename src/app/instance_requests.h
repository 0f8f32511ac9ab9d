// What a running instance does when it is asked: the requests about its configuration, its log, its sessions
// and its greylisting records.
#pragma once

#include <string_view>

#include "app/control_requests.h"
#include "config/configuration.h"

namespace trabex {

class frmMain;
struct Program;

// The dump of `configuration` (config/configuration_dump.h), which outlives what is returned and does not change
// meanwhile.
ControlSlices DumpInSlices(const Configuration& configuration, std::string_view ini_path);

// Adds RELOAD, REOPENLOG, DUMP, SESSIONS, CLOSE, VIEW and GREYLIST to the requests of `program`. Both outlive the
// requests' last use.
void AddInstanceRequests(Program& program, frmMain& window);

}  // namespace trabex
