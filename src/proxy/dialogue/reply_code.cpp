#include "proxy/dialogue/reply_code.h"

#include "base/text.h"

namespace trabex {

namespace {

constexpr std::size_t kCodeSize = 3;

// Whether `holds` is so of each line.
template <class Condition>
bool AllLines(std::string_view reply, Condition holds) {
  for (;;) {
    const std::size_t end = reply.find(kCrLf);
    if (!holds(reply.substr(0, end))) return false;
    if (end == std::string_view::npos) return true;
    reply.remove_prefix(end + kCrLf.size());
  }
}

bool IsReplyLine(std::string_view line) {
  if (line.size() < kCodeSize || line[0] < '2' || line[0] > '5') return false;
  if (!IsDigit(line[1]) || !IsDigit(line[2])) return false;
  return line.size() == kCodeSize || line[kCodeSize] == ' ' || line[kCodeSize] == '-';
}

}  // namespace

std::string_view CodeOf(std::string_view line) {
  return line.substr(0, kCodeSize);
}

std::string_view LastLine(std::string_view reply) {
  const std::size_t end = reply.rfind(kCrLf);
  return end == std::string_view::npos ? reply : reply.substr(end + kCrLf.size());
}

bool HasOneCode(std::string_view reply) {
  const std::string_view code = CodeOf(reply);
  return AllLines(reply, [code](std::string_view line) { return CodeOf(line) == code; });
}

bool IsWellFormedReply(std::string_view reply) {
  return AllLines(reply, IsReplyLine);
}

}  // namespace trabex
