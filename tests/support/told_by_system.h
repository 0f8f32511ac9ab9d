// What this system tells of a connection, asked once of plain sockets. Tests that name what it may not tell expect the
// rest only where it does not. Wine tells neither.
#pragma once

#include <string>

namespace trabex {

// Whether a reset is told from any other end of the connection.
bool ResetsAreTold();

// `told`, which names one reset as "(10054)" or none, as this system tells it.
std::string AsTold(std::string told);

// Whether it is told how much of what was sent the other end has acknowledged.
bool AcknowledgementsAreTold();

}  // namespace trabex
