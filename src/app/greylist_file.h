// "/GREYLIST" where no instance runs: on the database file itself.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace trabex {

struct Program;

// Answers as AnswerGreyList with the records of the file that the initialization file of `program` names, and
// saves them when they have changed. Holds the instance's lock meanwhile, so that none starts. Returns the exit
// status; `err` is told why it is not 0. A file that cannot be read is left as it is.
int AskGreyListFile(Program& program, const std::vector<std::string>& arguments, std::ostream& out,
                    std::ostream& err);

}  // namespace trabex
