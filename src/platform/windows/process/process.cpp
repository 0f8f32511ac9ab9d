#include "platform/process.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>

#include "base/delimited_text.h"
#include "platform/windows/process/command_line.h"
#include "platform/windows/win.h"

namespace trabex {

const bool kTokensKeepQuotes = true;

std::vector<std::string> SplitCommandLine(std::string_view line) {
  const bool quoted = line.starts_with('"');
  const std::size_t end = quoted ? line.find('"', 1) : line.find_first_of(" \t");
  line = end == std::string_view::npos ? std::string_view() : line.substr(end + 1);
  const auto tokens = mCommon::SplitOutside(line, " ", "\"", "\"", {.skipEmpty = true});
  return std::vector<std::string>(tokens.begin(), tokens.end());
}

std::vector<std::string> CommandLineTokens(int /*argc*/, char* const* /*argv*/) {
  return SplitCommandLine(Utf8(GetCommandLineW()));
}

void PrepareStreamsAndRequests() {
  // A file on a drive that is not ready is an error as any other, and not the system's to ask the user about.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  // What is written has the line ends that it is to have.
  for (std::FILE* const stream : {stdin, stdout, stderr}) {
    if (const int number = _fileno(stream); number >= 0) _setmode(number, _O_BINARY);
  }
}

// Nothing that the system asks waits in a process without a loop.
void LetRequestsEndProcess() {}

}  // namespace trabex
