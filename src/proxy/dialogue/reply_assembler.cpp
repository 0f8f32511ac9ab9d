#include "proxy/dialogue/reply_assembler.h"

#include <utility>

#include "base/text.h"

namespace trabex {

std::optional<std::string> ReplyAssembler::NextReply() {
  for (;;) {
    const std::size_t line_end = buffer_.find(kCrLf, line_start_);
    if (line_end == std::string::npos) return std::nullopt;
    const bool continues = line_end >= line_start_ + 4 && buffer_[line_start_ + 3] == '-';
    line_start_ = line_end + kCrLf.size();
    if (continues) continue;
    std::string reply;
    if (line_start_ == buffer_.size()) {
      reply = std::exchange(buffer_, {});
    } else {
      reply = buffer_.substr(0, line_start_);
      buffer_.erase(0, line_start_);
    }
    line_start_ = 0;
    return reply;
  }
}

void ReplyAssembler::EndLine() {
  if (buffer_.empty() || buffer_.ends_with(kCrLf)) return;
  buffer_.append(buffer_.ends_with('\r') ? kCrLf.substr(1) : kCrLf);
}

std::string ReplyAssembler::TakeWholeLines() {
  const std::size_t last = buffer_.rfind(kCrLf);
  const std::size_t end = last == std::string::npos ? 0 : last + kCrLf.size();
  std::string lines = buffer_.substr(0, end);
  buffer_.erase(0, end);
  line_start_ = 0;
  return lines;
}

}  // namespace trabex
