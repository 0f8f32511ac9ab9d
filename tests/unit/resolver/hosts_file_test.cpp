#include "resolver/hosts_file.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "support/fake_clock.h"
#include "support/ip_address.h"
#include "support/temp_folder.h"

namespace trabex {
namespace {

using Addresses = std::vector<IPAddress>;

constexpr const char* kHosts =
    "# a comment\n"
    "127.0.0.1\tlocalhost loopback # 127.0.0.2 not-this\r\n"
    "\n"
    "  192.0.2.1   Mail.Example.test mail\n"
    "192.0.2.2 mail.example.test. mail mail\n"
    "192.0.2.1 second.example.test\n"
    "::1 six.example.test six\n"
    "fe80::1%lo0 six\n"
    "192.0.2.6 six\n"
    "2001:DB8:0::6 six-too six\n"
    "::ffff:192.0.2.66 six\n"
    "127.1 odd.example.test\n"
    "0x7f.0.0.1 hex.example.test\n"
    "192.0.2.9\n"
    "words without an address\n"
    "#192.0.2.7 off.example.test\n"
    "192.0.2.8 last.example.test";

TEST(HostsTable, NamesHaveAllTheirAddresses) {
  const HostsTable table(kHosts);
  const struct {
    const char* name;
    Addresses addresses;
  } cases[] = {
      {"localhost", {kIPv4Loopback}},
      {"loopback", {kIPv4Loopback}},
      {"mail", {IP("192.0.2.1"), IP("192.0.2.2")}},
      {"mail.example.test", {IP("192.0.2.1"), IP("192.0.2.2")}},
      {"MAIL.example.TEST.", {IP("192.0.2.1"), IP("192.0.2.2")}},
      {"last.example.test", {IP("192.0.2.8")}},
      {"not-this", {}},
      {"six", {kIPv6Loopback, IP("192.0.2.6"), IP("2001:db8::6"), IP("192.0.2.66")}},
      {"six.example.test", {kIPv6Loopback}},
      {"odd.example.test", {}},
      {"hex.example.test", {}},
      {"without", {}},
      {"off.example.test", {}},
      {"", {}},
      {".", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(table.Addresses(c.name), c.addresses) << c.name;
}

TEST(HostsTable, AddressHasTheFirstNameOfItsFirstLine) {
  const HostsTable table(kHosts);
  EXPECT_EQ(table.Name(IP("192.0.2.1")), "Mail.Example.test");
  EXPECT_EQ(table.Name(IP("192.0.2.2")), "mail.example.test");
  EXPECT_EQ(table.Name(kIPv6Loopback), "six.example.test");
  EXPECT_EQ(table.Name(IP("2001:db8::6")), "six-too");
  EXPECT_EQ(table.Name(kIPv4Loopback), "localhost");
  EXPECT_EQ(table.Name(IP("192.0.2.9")), "");
  EXPECT_EQ(table.Name(IP("192.0.2.7")), "");
  EXPECT_EQ(HostsTable().Name(kIPv4Any), "");
}

TEST(HostsTable, FullNameIsOnTheSameLine) {
  const struct {
    const char* text;
    const char* host;
    const char* full;
  } cases[] = {
      {"127.0.1.1 box.example.test box\n", "box", "box.example.test"},
      {"127.0.1.1 box box.example.test.\n", "box", "box.example.test"},
      {"::1 Box.example.test BOX\n", "box", "Box.example.test"},
      {"127.0.0.1 localhost.localdomain localhost box\n", "box", ""},  // another name is not ours
      {"127.0.0.1 box\n192.0.2.1 box.example.test box\n", "box", "box.example.test"},
      {"192.0.2.1 box.example.test\n", "box", ""},
      {"192.0.2.1 boxes.example.test box\n", "box", ""},
      {"192.0.2.1 box. box\n", "box", ""},
      {"192.0.2.1 box.example.test box\n", "box.example.test", ""},
      {"", "box", ""},
      {"192.0.2.1 .x x\n", "", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(FullNameInHosts(c.text, c.host), c.full) << c.text;
}

TEST(HostsFile, ChangeIsSeenWithinASecond) {
  const TempFolder folder;
  const std::string path = folder / "hosts";
  FakeClock clock;
  HostsFile file(path);
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{});
  WriteFile(path, "192.0.2.1 a\n");
  clock.Advance(std::chrono::milliseconds(999));
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{});
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{IP("192.0.2.1")});

  WriteFile(path, "192.0.2.2 a\n");
  std::filesystem::last_write_time(path,
                                   std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  clock.Advance(std::chrono::seconds(1));
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{IP("192.0.2.2")});
  EXPECT_EQ(file.Text(), "192.0.2.2 a\n");

  std::filesystem::remove(path);
  clock.Advance(std::chrono::seconds(1));
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{});
  EXPECT_EQ(file.Text(), "");
}

// What cannot be read for the moment is not taken for an empty file.
TEST(HostsFile, UnreadableFileKeepsWhatWasKnown) {
  const TempFolder folder;
  const std::string path = folder / "hosts";
  WriteFile(path, "192.0.2.1 a\n");
  FakeClock clock;
  HostsFile file(path);
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{IP("192.0.2.1")});
  std::filesystem::remove(path);
  ASSERT_TRUE(std::filesystem::create_directory(path));  // cannot be opened as a file
  clock.Advance(std::chrono::seconds(1));
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{IP("192.0.2.1")});
  // Once it can be read again it counts, even if its date is still the same.
  const auto date = std::filesystem::last_write_time(path);
  std::filesystem::remove(path);
  WriteFile(path, "192.0.2.2 a\n");
  std::filesystem::last_write_time(path, date);
  clock.Advance(std::chrono::seconds(1));
  EXPECT_EQ(file.Table(clock.Monotonic()).Addresses("a"), Addresses{IP("192.0.2.2")});
}

}  // namespace
}  // namespace trabex
