// Cuts what the server sends into whole replies (RFC 5321, 4.2.1), so that nothing depends on how the network
// split them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace trabex {

// A reply ends with the first line that has no "-" after its code; lines end in CR LF.
class ReplyAssembler {
 public:
  // Replies of real servers stay below a few kilobytes. A longer one is not held as a whole, so that a
  // server cannot fill the memory.
  static constexpr std::size_t kMaxReplyBytes = 65536;

  void Append(std::string bytes) {
    if (buffer_.empty()) return buffer_.swap(bytes);
    buffer_ += bytes;
  }
  // The next complete reply with its line ends, or nothing when it has not come whole.
  std::optional<std::string> NextReply();
  bool IsEmpty() const { return buffer_.empty(); }
  // More than kMaxReplyBytes are there without a complete reply.
  bool TooLong() const { return buffer_.size() > kMaxReplyBytes; }
  // The server says no more: a last line without its end gets it.
  void EndLine();
  // Takes the whole lines of a reply whose end has not come; NextReply goes on after them.
  std::string TakeWholeLines();

 private:
  std::string buffer_;
  std::size_t line_start_ = 0;  // of the first line that was not complete at the last search
};

}  // namespace trabex
