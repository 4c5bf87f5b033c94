#include "base/address.h"

#include <gtest/gtest.h>

using namespace kavo::impl;

// Limits count an IPv4 address, or the /64 network of an IPv6 address.
TEST(Address, AClientIsAnAddressOrASmallNetwork) {
  auto const ipv4 = [](char const* text) { return networkOf(localAddress(AF_INET, text).value()); };
  auto const ipv6 = [](char const* text) { return networkOf(localAddress(AF_INET6, text).value()); };
  EXPECT_EQ(ipv6("2001:db8:0:1::7"), ipv6("2001:db8:0:1:8::9"));
  EXPECT_NE(ipv6("2001:db8:0:1::7"), ipv6("2001:db8:0:2::7"));
  EXPECT_NE(ipv4("192.0.2.7"), ipv4("192.0.2.8"));
  EXPECT_NE(ipv4("192.0.2.7"), ipv6("c000:207::"));  // the same bytes
}
