#include "platform/standard_output.h"

#include "platform/windows/process/stream_writer.h"

namespace trabex {

std::size_t WriteStandardOutput(std::string_view text) {
  return StandardOutputWriter().Write(text);
}

}  // namespace trabex
