// The codes in a server's reply (RFC 5321, 4.2.1). A reply is given whole, without its last CR LF.
#pragma once

#include <string_view>

namespace trabex {

// The first three bytes of a line, or of a reply.
std::string_view CodeOf(std::string_view line);
// The last line of a reply.
std::string_view LastLine(std::string_view reply);
// Whether all lines have the same one.
bool HasOneCode(std::string_view reply);
// Whether each line is one of a reply: three digits, of which the first is 2 to 5, and then nothing, a blank
// or a "-".
bool IsWellFormedReply(std::string_view reply);

}  // namespace trabex
