// The switches that look at the settings without a start: "/CHECK" and "/DUMP".
#pragma once

namespace trabex {

struct CommandLine;
struct Program;

// Both print on standard output and return the exit status. `program` has the command line's paths and port,
// and nothing has been read yet.

// Checks the settings and prints what is found (finding.h): 0 when there is no error, otherwise 1.
int CheckOnRequest(Program& program, const CommandLine& line);
// Prints the configuration that a start would have in force: 0. With errors in the file, which standard error
// shows, the defaults are in it that are taken with IgnoreIniErrors, and the status is 1.
int DumpOnRequest(Program& program, const CommandLine& line);

}  // namespace trabex
