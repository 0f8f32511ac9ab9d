#include "platform/linux/sockets/socket_errno.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace trabex {

namespace {

struct Row {
  int code;
  int number;
};

constexpr int kSystemCallFailure = 10107;

constexpr Row kTable[] = {
    {0, 0},
    {EINTR, 10004},
    {EACCES, 10013},
    {EPERM, 10013},  // what a packet filter answers
    {EFAULT, 10014},
    {EINVAL, 10022},
    {EMFILE, 10024},
    {ENFILE, 10024},
    {EAGAIN, 10035},
    {EINPROGRESS, 10036},
    {EALREADY, 10037},
    {ENOTSOCK, 10038},
    {EBADF, 10038},
    {EDESTADDRREQ, 10039},
    {EMSGSIZE, 10040},
    {EPROTOTYPE, 10041},
    {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043},
    {ESOCKTNOSUPPORT, 10044},
    {EOPNOTSUPP, 10045},
    {EPFNOSUPPORT, 10046},
    {EAFNOSUPPORT, 10047},
    {EADDRINUSE, 10048},
    {EADDRNOTAVAIL, 10049},
    {ENETDOWN, 10050},
    {ENETUNREACH, 10051},
    {ENONET, 10051},
    {ENETRESET, 10052},
    {ECONNABORTED, 10053},
    {EPROTO, 10053},  // a connection that broke while it waited to be accepted
    {ECONNRESET, 10054},
    {EPIPE, 10054},  // the peer reset the connection and that error was reported already
    {ENOBUFS, 10055},
    {ENOMEM, 10055},
    {ENOSPC, 10055},  // no space for another watch
    {EISCONN, 10056},
    {ENOTCONN, 10057},
    {ESHUTDOWN, 10058},
    {ETIMEDOUT, 10060},
    {ECONNREFUSED, 10061},
    {EHOSTUNREACH, 10065},
    {EHOSTDOWN, 10065},
    {EUSERS, 10067},
};

}  // namespace

int SocketErrorOfErrno(int code) {
  const auto* const row =
      std::find_if(std::begin(kTable), std::end(kTable), [&](const Row& r) { return r.code == code; });
  return row == std::end(kTable) ? kSystemCallFailure : row->number;
}

}  // namespace trabex
