// The switch that says what the settings would make of a client and its mail, or of a value in a list.
#pragma once

namespace trabex {

struct CommandLine;
struct Program;

// Explains what `line` asks for by the initialization file of `program`: on standard output, or, when the file
// has errors or the arguments cannot be read, what is wrong on standard error. Changes nothing. Returns the
// exit status: one of exit_status.h, or for a client that of its mail (explanation.h).
int ExplainOnRequest(Program& program, const CommandLine& line);

}  // namespace trabex
