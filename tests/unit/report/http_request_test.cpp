#include "report/http_request.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

using State = HttpRequest::State;

TEST(HttpRequest, IsRead) {
  const struct {
    std::string_view bytes;
    std::string_view method;
    std::string_view path;
  } cases[] = {
      {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "GET", "/metrics"},
      {"GET /metrics HTTP/1.0\r\n\r\n", "GET", "/metrics"},
      {"GET /metrics?a=b HTTP/1.1\nHost: x\n\n", "GET", "/metrics"},
      {"GET /metrics HTTP/1.1\nHost: x\n\r\n", "GET", "/metrics"},
      {"GET http://host:9425/healthz HTTP/1.1\r\n\r\n", "GET", "/healthz"},
      {"GET http://host HTTP/1.1\r\n\r\n", "GET", ""},
      {"OPTIONS * HTTP/1.1\r\n\r\n", "OPTIONS", "*"},
      {"GET / HTTP/1.1\r\n\r\nGET /metrics HTTP/1.1\r\n\r\n", "GET", "/"},
  };
  for (const auto& c : cases) {
    const HttpRequest request = ParseHttpRequest(c.bytes);
    EXPECT_EQ(request.state, State::kWhole) << c.bytes;
    EXPECT_EQ(request.method, c.method) << c.bytes;
    EXPECT_EQ(request.path, c.path) << c.bytes;
  }
}

TEST(HttpRequest, IsWaitedForUpToItsLimit) {
  const std::string line = "GET / HTTP/1.1\r\n";
  EXPECT_EQ(ParseHttpRequest("").state, State::kIncomplete);
  EXPECT_EQ(ParseHttpRequest(line).state, State::kIncomplete);
  EXPECT_EQ(ParseHttpRequest(line + std::string(HttpRequest::kMaxSize - line.size() - 1, 'x')).state,
            State::kIncomplete);
  EXPECT_EQ(ParseHttpRequest(line + std::string(HttpRequest::kMaxSize - line.size(), 'x')).state,
            State::kTooLong);
  const std::string longest = line + std::string(HttpRequest::kMaxSize - line.size() - 4, 'x') + "\r\n\r\n";
  EXPECT_EQ(ParseHttpRequest(longest).state, State::kWhole);
  EXPECT_EQ(ParseHttpRequest("x" + longest).state, State::kTooLong);
}

TEST(HttpRequest, ThatIsNoneIsBad) {
  for (const std::string_view bytes :
       {"\r\n\r\n", "GET /metrics\r\n\r\n", "GET  /metrics HTTP/1.1\r\n\r\n", "get / HTTP/1.1\r\n\r\n",
        "GET / HTTP/2.0\r\n\r\n", "GET / HTTP/1.11\r\n\r\n", "GET / http/1.1\r\n\r\n",
        "GET /\xC3\xBC HTTP/1.1\r\n\r\n", "GET /\t HTTP/1.1\r\n\r\n", "EHLO client.example\r\n\r\n",
        "GET / HTTP/1.1 \r\n\r\n", " GET / HTTP/1.1\r\n\r\n"}) {
    EXPECT_EQ(ParseHttpRequest(bytes).state, State::kBad) << bytes;
  }
}

TEST(HttpResponse, EndsTheConnection) {
  EXPECT_EQ(
      HttpResponse("200 OK", "OK\n"),
      "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: 3\r\n"
      "Cache-Control: no-store\r\nConnection: close\r\n\r\nOK\n");
  EXPECT_EQ(HttpResponse("405 Method Not Allowed", "No.\n", "Allow: GET\r\n", true),
            "HTTP/1.1 405 Method Not Allowed\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
            "Content-Length: 4\r\nCache-Control: no-store\r\nConnection: close\r\nAllow: GET\r\n\r\n");
}

}  // namespace
}  // namespace trabex
