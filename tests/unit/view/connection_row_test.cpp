#include "view/connection_row.h"

#include <gtest/gtest.h>

#include <string>

#include "support/ip_address.h"

namespace trabex {
namespace {

constexpr double kHour = 1.0 / 24;

TEST(ConnectionRow, FieldsHaveTheirWidths) {
  EXPECT_EQ(ConnectionRow(812, 1024, 35, 1.5 * kHour, IP("192.0.2.1"), "mx.example.org"),
            "    812     1024       35 01:30:00       192.0.2.1 mx.example.org");
  EXPECT_EQ(ConnectionRow(5, 0, 0, 0, IP("10.0.0.7"), "Unknown"),
            "      5        0        0 00:00:00        10.0.0.7 Unknown");
}

TEST(ConnectionRow, HostNameBeginsAfter51Characters) {
  EXPECT_EQ(ConnectionRow(1, 2, 3, 0, IP("1.2.3.4"), "host").find("host"), 51U);
  EXPECT_EQ(ConnectionRow(123456, 12345678, 12345678, 0, IP("255.255.255.255"), "host").find("host"), 51U);
}

TEST(ConnectionRow, HeaderIsAboveItsFields) {
  const std::string row = ConnectionRow(123456, 12345678, 87654321, 0, IP("255.255.255.255"), "Host Name");
  EXPECT_EQ(kConnectionHeader, " Handle Received     Sent Duration         Host IP Host Name");
  // The last letter of each heading is above the last one of its field.
  EXPECT_EQ(kConnectionHeader.find("Handle") + 6, row.find("123456") + 6);
  EXPECT_EQ(kConnectionHeader.find("Received") + 8, row.find("12345678") + 8);
  EXPECT_EQ(kConnectionHeader.find("Sent") + 4, row.find("87654321") + 8);
  EXPECT_EQ(kConnectionHeader.find("Duration") + 8, row.find("00:00:00") + 8);
  EXPECT_EQ(kConnectionHeader.find("Host IP") + 7, row.find("255.255.255.255") + 15);
  EXPECT_EQ(kConnectionHeader.find("Host Name"), row.find("Host Name"));
}

TEST(ConnectionRow, LongValuesAreNotCutButMoveTheRest) {
  EXPECT_EQ(ConnectionRow(1234567, 123456789, 1234567890, 0, IP("255.255.255.255"), "h"),
            " 1234567 123456789 1234567890 00:00:00 255.255.255.255 h");
  EXPECT_EQ(ConnectionRow(812, 1024, 35, 0, IP("2001:db8:1:2:3:4:5:6"), "h"),
            "    812     1024       35 00:00:00 2001:db8:1:2:3:4:5:6 h");
}

TEST(ConnectionRow, DurationShowsTheHoursOfTheDay) {
  const std::string row = ConnectionRow(1, 2, 3, 1 + 23.999722 * kHour, IP("1.2.3.4"), "h");
  EXPECT_EQ(row.substr(26, 8), "23:59:59");
}

}  // namespace
}  // namespace trabex
