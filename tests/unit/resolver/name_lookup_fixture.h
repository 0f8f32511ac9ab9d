// Look-ups against a DNS server of the test's own. Where time matters the loop's clock is the test's; c-ares
// keeps its own time for asking again.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "dns_server.h"
#include "resolver/name_lookup.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/temp_folder.h"

namespace trabex {

inline constexpr IPAddress kAddress1 = IPAddress::IPv4(0xC0000201);  // 192.0.2.1
inline constexpr IPAddress kAddress2 = IPAddress::IPv4(0xC0000202);
inline constexpr const char* kReverse1 = "1.2.0.192.in-addr.arpa";
inline constexpr IPAddress kAddress6 =
    IPAddress::IPv6({0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x1F});  // 2001:db8::1f
inline constexpr const char* kReverse6 =
    "f.1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa";

// An outcome in one word: "192.0.2.1 192.0.2.2", "host.test" or "11001".
inline std::string Shown(const AddressAnswer& answer) {
  if (answer.error != 0) return std::to_string(answer.error);
  std::string shown;
  for (const IPAddress& address : answer.addresses) {
    if (!shown.empty()) shown += ' ';
    shown += FormatIPAddress(address);
  }
  return shown;
}
inline std::string Shown(const NameAnswer& answer) {
  return answer.error != 0 ? std::to_string(answer.error) : answer.name;
}

inline std::string ShownConfirmed(const NameAnswer& answer) {
  return Shown(answer) + (answer.confirmed ? " confirmed" : "") +
         (answer.confirmation_failed ? " unconfirmed for now" : "");
}

inline std::size_t OpenDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

class NameLookupTest : public testing::Test {
 protected:
  explicit NameLookupTest(Milliseconds limit = std::chrono::seconds(5)) {
    WriteFile(folder_ / "hosts", "127.0.0.1 loopback\n192.0.2.77 Known.test known\n192.0.2.78 known.test\n");
    lookup_ = MakeNameLookup(loop_,
                             {.servers = server_.Address(), .hosts_file = folder_ / "hosts", .limit = limit});
  }

  LookupId Ask(std::string_view name, std::string& outcome) {
    return Ask(name, LookupFamily::kIPv4, outcome);
  }
  LookupId Ask(std::string_view name, LookupFamily family, std::string& outcome) {
    return lookup_->FindAddresses(name, family,
                                  [&](const AddressAnswer& answer) { outcome += Shown(answer); });
  }
  LookupId Ask(const IPAddress& address, std::string& outcome) {
    return lookup_->FindName(address, [&](const NameAnswer& answer) { outcome += Shown(answer); });
  }
  // Asks and runs the loop until the answer is there.
  template <class What>
  std::string Outcome(What what) {
    std::string outcome;
    Ask(what, outcome);
    EXPECT_EQ(outcome, "") << "answered from inside the call";
    EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
    return outcome;
  }
  std::string Outcome(std::string_view name, LookupFamily family) {
    std::string outcome;
    Ask(name, family, outcome);
    EXPECT_EQ(outcome, "") << "answered from inside the call";
    EXPECT_TRUE(RunUntil(loop_, [&] { return !outcome.empty(); }));
    return outcome;
  }
  // Runs the loop until `name` has been asked for `times`.
  bool Asked(std::string_view name, std::size_t times = 1) {
    return RunUntil(loop_, [&] { return server_.Questions(name) >= times; });
  }

  const TempFolder folder_;
  FakeClock clock_;
  EventLoop loop_{clock_};
  DnsServer server_{loop_};
  std::unique_ptr<NameLookup> lookup_;
};

}  // namespace trabex
