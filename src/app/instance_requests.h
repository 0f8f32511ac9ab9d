// What a running instance does when it is asked: the requests about its configuration, its log, its sessions
// and its greylisting records.
#pragma once

namespace trabex {

class frmMain;
struct Program;

// Adds RELOAD, REOPENLOG, DUMP, SESSIONS, CLOSE and GREYLIST to the requests of `program`. Both outlive the
// requests' last use.
void AddInstanceRequests(Program& program, frmMain& window);

}  // namespace trabex
