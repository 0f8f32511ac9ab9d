// A DNS server on loopback whose behaviour a test sets, name by name. It lives on the test's own loop.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/ip_address.h"
#include "base/text.h"
#include "platform/fd_watcher.h"
#include "support/system_socket.h"

namespace trabex {

// A question as it arrived, and the pieces of which answers are made.
struct DnsQuestion {
  std::string name;    // in lower case, without a dot at its end
  int type = 0;        // dns::kA, ...
  std::string packet;  // the whole message
  bool over_tcp = false;
};

namespace dns {

inline constexpr int kA = 1;
inline constexpr int kCname = 5;
inline constexpr int kPtr = 12;
inline constexpr int kAaaa = 28;

enum class Rcode { kNone = 0, kFormat = 1, kServer = 2, kNoSuchName = 3, kNotImplemented = 4, kRefused = 5 };

std::string Number16(std::size_t number);
std::string EncodedName(std::string_view name);
std::string Record(const std::string& encoded_owner, int type, const std::string& data);
std::string AddressData(const IPAddress& address);
// The question's own name, by reference.
inline const std::string kOwnName = "\xC0\x0C";

// An answer to `question` with `records` of the answer section. `extra_flags` are those of the header's first
// flag byte (2: truncated).
std::string Answer(const DnsQuestion& question, const std::vector<std::string>& records,
                   Rcode code = Rcode::kNone, int extra_flags = 0);
// Those of the addresses that are of the family asked for.
std::string AddressAnswer(const DnsQuestion& question, const std::vector<IPAddress>& addresses);
std::string NameAnswer(const DnsQuestion& question, const std::vector<std::string>& names);

}  // namespace dns

class DnsServer {
 public:
  // For a second server on the same port.
  static constexpr const char* kOtherHost = "127.0.0.2";

  // The messages to send back, in this order; none: silence.
  using Rule = std::function<std::vector<std::string>(const DnsQuestion&)>;

  // `loop` outlives the server.
  explicit DnsServer(EventLoop& loop) : DnsServer(loop, "127.0.0.1", FreePort()) {}
  // `host` is 127.0.0.1 or kOtherHost.
  DnsServer(EventLoop& loop, std::string host, std::uint16_t port);
  ~DnsServer();
  DnsServer(const DnsServer&) = delete;
  DnsServer& operator=(const DnsServer&) = delete;

  // "127.0.0.1:port", and the parts.
  std::string Address() const { return host_ + ":" + std::to_string(Port()); }
  const std::string& Host() const { return host_; }
  std::uint16_t Port() const { return udp_.Local().port; }

  // What happens for `name`; for anything else "no such name" is answered.
  void Set(std::string_view name, Rule rule) { rules_[ToLower(name)] = std::move(rule); }
  void SetAddresses(std::string_view name, std::vector<IPAddress> addresses);
  void SetNames(std::string_view reverse_name, std::vector<std::string> names);
  void SetFailure(std::string_view name, dns::Rcode code);
  void SetSilent(std::string_view name);
  // Anything that is not set.
  void SetDefault(Rule rule) { default_ = std::move(rule); }

  // Answers wait from now on until Release.
  void Hold() { hold_ = true; }
  // Sends the first `max_replies` of the answers that wait.
  void Release(std::size_t max_replies = SIZE_MAX);
  std::size_t Held() const { return held_.size(); }

  // How often something was asked for, tries counted one by one.
  std::size_t Questions() const { return questions_; }
  std::size_t Questions(std::string_view name) const;
  // What was asked for `name`, in order.
  std::vector<int> AskedTypes(std::string_view name) const;
  // The port from which the last question came.
  std::uint16_t LastPort() const { return last_port_; }

 private:
  struct Connection;

  // A port that is free on either host and with either transport.
  static std::uint16_t FreePort();

  std::vector<std::string> Answers(const DnsQuestion& question);
  void ReadQuestions();
  void AcceptConnection();
  void ReadConnection(Connection& connection);

  EventLoop& loop_;
  const std::string host_;
  SystemSocket udp_;
  SystemSocket listener_;
  FdWatcher udp_watch_;
  FdWatcher listener_watch_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::map<std::string, Rule> rules_;
  Rule default_ = [](const DnsQuestion& question) {
    return std::vector{dns::Answer(question, {}, dns::Rcode::kNoSuchName)};
  };
  bool hold_ = false;
  std::deque<std::pair<Endpoint, std::string>> held_;
  std::size_t questions_ = 0;
  std::map<std::string, std::vector<int>> asked_;
  std::uint16_t last_port_ = 0;
};

}  // namespace trabex
