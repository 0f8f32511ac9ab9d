// What a running instance does when it is asked: the requests about its configuration, its log and its
// sessions.
#pragma once

namespace trabex {

class frmMain;
struct Program;

// Adds RELOAD, REOPENLOG, DUMP, SESSIONS and CLOSE to the requests of `program`. Both outlive the requests' last
// use.
void AddInstanceRequests(Program& program, frmMain& window);

}  // namespace trabex
