#include "report/http_request.h"

#include <algorithm>

#include "base/text.h"

namespace trabex {

namespace {

HttpRequest Is(HttpRequest::State state) {
  HttpRequest request;
  request.state = state;
  return request;
}

bool IsMethod(std::string_view word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool IsVisibleAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

// "HTTP/1." and a digit: what is said in a later version of 1 can be answered as in this one.
bool IsKnownVersion(std::string_view word) {
  constexpr std::string_view kName = "HTTP/1.";
  return word.size() == kName.size() + 1 && word.starts_with(kName) && IsDigit(word.back());
}

// The path of "/path", "/path?query" or "http://host/path"; "" when it has none.
std::string_view PathOf(std::string_view target) {
  constexpr std::string_view kScheme = "http://";
  if (StartsWithNoCase(target, kScheme)) {
    target.remove_prefix(kScheme.size());
    target.remove_prefix(std::min(target.find('/'), target.size()));
  }
  return target.substr(0, target.find_first_of("?#"));
}

}  // namespace

HttpRequest ParseHttpRequest(std::string_view bytes) {
  const std::string_view within = bytes.substr(0, HttpRequest::kMaxSize);
  const bool ended = within.find("\r\n\r\n") != std::string_view::npos ||
                     within.find("\n\n") != std::string_view::npos ||
                     within.find("\n\r\n") != std::string_view::npos;
  const std::size_t line_end = within.find('\n');
  if (!ended) {
    return Is(bytes.size() >= HttpRequest::kMaxSize ? HttpRequest::State::kTooLong
                                                    : HttpRequest::State::kIncomplete);
  }
  std::string_view line = within.substr(0, line_end);
  if (line.ends_with('\r')) line.remove_suffix(1);
  const auto words = Split(line, ' ');
  if (words.size() != 3 || !IsMethod(words[0]) || words[1].empty() || !IsVisibleAscii(words[1]) ||
      !IsKnownVersion(words[2])) {
    return Is(HttpRequest::State::kBad);
  }
  HttpRequest request;
  request.state = HttpRequest::State::kWhole;
  request.method = words[0];
  request.path = PathOf(words[1]);
  return request;
}

std::string HttpResponse(std::string_view status, std::string_view content, std::string_view more_fields,
                         bool only_fields) {
  std::string response;
  response.reserve(content.size() + 256);
  response.append("HTTP/1.1 ").append(status).append(kCrLf);
  response.append("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: ");
  response.append(std::to_string(content.size())).append(kCrLf);
  response.append("Cache-Control: no-store\r\nConnection: close\r\n").append(more_fields).append(kCrLf);
  if (!only_fields) response.append(content);
  return response;
}

}  // namespace trabex
