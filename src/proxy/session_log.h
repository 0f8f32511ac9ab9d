// The two session log writers: every event and protocol line of a session goes to the log through them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/ip_address.h"
#include "tls/tls_facts.h"

namespace trabex {

// What is put before a text that is logged at `level` (one of log_level): "< " for a received text, "> " for
// a sent one.
std::string_view LogMark(std::int32_t level);

// One side's line: tag, handle in 6, address in 15 ("[   Undefined   ]" for none), `mark`, text. The text is
// shown as AppendVisible does (base/visible_text.h), so that a block of lines stays on one line, and no peer
// forges a line or reaches the terminal of who reads it.
std::string FormatSessionLine(std::string_view side_tag, std::int32_t handle, const IPAddress& address,
                              std::string_view text, std::string_view mark = {});
// The same in place of what `line` holds. A string that serves for line after line needs no new memory for each.
void FormatSessionLine(std::string& line, std::string_view side_tag, std::int32_t handle,
                       const IPAddress& address, std::string_view text, std::string_view mark);

// What was agreed with the client (`of_client`), or with the server: "TLS: TLSv1.3, TLS_AES_256_GCM_SHA384,
// resumed." and the like.
std::string DescribeTls(const TlsFacts& facts, bool of_client);

}  // namespace trabex
