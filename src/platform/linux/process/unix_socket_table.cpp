#include "platform/linux/process/unix_socket_table.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/linux/descriptor.h"

namespace trabex {

namespace {

// More than the kernel puts into one answer.
constexpr std::size_t kMaxAnswerBytes = std::size_t{64} * 1024;
// It answers at once; this is for a kernel that does not know the question.
constexpr timeval kMaxWait{1, 0};

struct Question {
  nlmsghdr header{};
  unix_diag_req request{};
};

bool AskForAll(int socket) {
  Question question;
  question.header.nlmsg_len = sizeof question;
  question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  question.request.sdiag_family = AF_UNIX;
  question.request.udiag_states = ~std::uint32_t{0};
  question.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_UID;
  return send(socket, &question, sizeof question, 0) == static_cast<ssize_t>(sizeof question);
}

// Reads a fixed part of a message, and takes it away; false when it is not there.
template <class Part>
bool TakePart(std::string_view& bytes, Part& part, std::size_t aligned_size) {
  if (bytes.size() < sizeof part) return false;
  std::memcpy(&part, bytes.data(), sizeof part);
  bytes.remove_prefix(std::min(aligned_size, bytes.size()));
  return true;
}

// The owner, if the socket that `message` describes is the wanted one.
std::optional<uid_t> OwnerIn(std::string_view message, std::string_view abstract_name) {
  unix_diag_msg socket{};
  if (!TakePart(message, socket, NLMSG_ALIGN(sizeof socket)) || socket.udiag_type != SOCK_DGRAM) {
    return std::nullopt;
  }
  bool is_named_so = false;
  std::optional<uid_t> owner;
  rtattr attribute{};
  while (TakePart(message, attribute, RTA_LENGTH(0)) && attribute.rta_len >= RTA_LENGTH(0)) {
    const std::string_view value = message.substr(0, attribute.rta_len - RTA_LENGTH(0));
    if (attribute.rta_type == UNIX_DIAG_NAME) {
      is_named_so = !value.empty() && value[0] == '\0' && value.substr(1) == abstract_name;
    } else if (attribute.rta_type == UNIX_DIAG_UID && value.size() == sizeof(std::uint32_t)) {
      std::uint32_t number = 0;
      std::memcpy(&number, value.data(), sizeof number);
      owner = number;
    }
    message.remove_prefix(std::min<std::size_t>(RTA_ALIGN(value.size()), message.size()));
  }
  return is_named_so ? owner : std::nullopt;
}

}  // namespace

std::optional<uid_t> OwnerOfDatagramSocket(std::string_view abstract_name) {
  const Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!socket) return std::nullopt;
  setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &kMaxWait, sizeof kMaxWait);
  if (!AskForAll(socket.Get())) return std::nullopt;
  std::array<char, kMaxAnswerBytes> buffer;
  for (;;) {
    const ssize_t length = recv(socket.Get(), buffer.data(), buffer.size(), 0);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return std::nullopt;
    std::string_view answer(buffer.data(), static_cast<std::size_t>(length));
    nlmsghdr header{};
    for (std::string_view rest = answer; TakePart(rest, header, NLMSG_HDRLEN); rest = answer) {
      if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || header.nlmsg_len < NLMSG_HDRLEN) return std::nullopt;
      if (const auto owner = OwnerIn(rest.substr(0, header.nlmsg_len - NLMSG_HDRLEN), abstract_name)) {
        return owner;
      }
      answer.remove_prefix(std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), answer.size()));
    }
  }
}

}  // namespace trabex
