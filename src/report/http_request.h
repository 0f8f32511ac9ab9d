// What is read of an HTTP request (RFC 9112), and the answers to it. Only requests without content are of any
// use here, so what follows the header fields is never looked at.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace trabex {

struct HttpRequest {
  // Of the request line and the header fields, with the empty line behind them.
  static constexpr std::size_t kMaxSize = 4096;

  enum class State {
    kIncomplete,
    kWhole,
    kBad,
    kTooLong,
  };
  State state = State::kIncomplete;
  std::string_view method;
  std::string_view path;  // without a query, and without the host that a proxy would need
};

// Reads the beginning of what a client has sent; views point into `bytes`. Lines may end in LF alone.
HttpRequest ParseHttpRequest(std::string_view bytes);

// A whole response that is the connection's last: status line ("200 OK"), header fields (`more_fields` with
// their line ends among them) and `content` as text. With `only_fields` the content is left out, as HEAD wants
// it.
std::string HttpResponse(std::string_view status, std::string_view content, std::string_view more_fields = {},
                         bool only_fields = false);

}  // namespace trabex
