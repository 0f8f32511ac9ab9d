// What a connection of a load balancer may begin with. However it is cut, it is a header, the beginning of
// one, or neither; and what a header says can be written again.
#include "proxy/dialogue/proxy_header.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "filter_dependencies.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace trabex;
  using State = ProxyHeader::State;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const ProxyHeader header = ParseProxyHeader(input);
  // The state never changes again once it is known.
  std::size_t known_at = 0;
  while (known_at < size && ParseProxyHeader(input.substr(0, known_at)).state == State::kIncomplete)
    ++known_at;
  Require(known_at <= kMaxProxyHeader);
  for (std::size_t end = known_at; end <= std::min(size, known_at + 64); ++end) {
    Require(ParseProxyHeader(input.substr(0, end)).state == header.state);
  }
  if (header.state != State::kWhole) {
    Require(header.size == 0 && !header.connection);
    Require(header.state == State::kBad || size < kMaxProxyHeader);
    return 0;
  }
  Require(header.size == known_at);
  if (!header.connection) return 0;
  const ProxiedTls tls{"TLSv1.3", input, true, true, input};
  for (const std::string& written :
       {FormatProxyLine(*header.connection), FormatProxyHeader(*header.connection, nullptr),
        FormatProxyHeader(*header.connection, &tls)}) {
    Require(written.size() <= 232);
    const ProxyHeader again = ParseProxyHeader(written);
    Require(again.size == written.size() && again.connection == header.connection);
  }
  return 0;
}
