// What the errors of Sockets::BindExclusively mean.
#pragma once

namespace trabex {

// Whether `error` may mean that another socket has the port, at this address or at others: 10048, and on Windows also
// 10013, which says there that one has it at all addresses.
bool MayBeTaken(int error);

}  // namespace trabex
