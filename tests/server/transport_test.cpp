#include "server/transport.h"

#include <gtest/gtest.h>

using kavo::impl::acceptableTransport;

namespace {

std::string accepted(std::string_view header) {
  auto const transport = acceptableTransport(header);
  return !transport ? "refused" : transport->chosen ? transport->text() : "any channels";
}

}  // namespace

TEST(TransportHeader, IsRewrittenInLive555sForm) {
  std::pair<char const*, char const*> const cases[] = {
      {"RTP/AVP;unicast;client_port=5000-5001", "RTP/AVP;unicast;client_port=5000-5001"},
      {"RTP/AVP/UDP;unicast;client_port=5000-5001", "RTP/AVP;unicast;client_port=5000-5001"},
      {"rtp/avp/udp ; unicast ; Client_Port = 5000-5001", "RTP/AVP;unicast;client_port=5000-5001"},
      {"RTP/AVP;unicast;client_port=5000", "RTP/AVP;unicast;client_port=5000-5001"},
      {"RTP/AVP/TCP;unicast;interleaved=0-1", "RTP/AVP/TCP;unicast;interleaved=0-1"},
      {"RTP/AVP/TCP;unicast", "any channels"},
      {"RTP/AVP/TCP;interleaved=300-301", "any channels"},
      {"RTP/AVP/TCP;interleaved=254-255", "any channels"},
      {"RTP/AVP/TCP;interleaved=4-4", "any channels"},
      {"RTP/AVP;multicast, RTP/AVP/TCP;unicast;interleaved=2-3", "RTP/AVP/TCP;unicast;interleaved=2-3"},
  };
  for (auto const& [asked, offered] : cases) {
    EXPECT_EQ(accepted(asked), offered) << asked;
  }
}

TEST(TransportHeader, IsRefusedIfItIsNotServed) {
  for (auto const* asked :
       {"RAW/RAW/UDP;unicast;client_port=5000", "MP2T/H2221/UDP;unicast;client_port=5000", "RTP/AVP", "RTP/AVP;unicast",
        "RTP/AVP;unicast;client_port=0-1", "RTP/AVP;unicast;client_port=5000-0", "RTP/AVP;unicast;client_port=65535",
        "RTP/AVP;unicast;client_port=65536-65537", "RTP/AVP;unicast;client_port=-5", "RTP/AVP;unicast;client_port=x",
        "RTP/AVP;multicast;client_port=5000-5001", "RTP/SAVP;unicast;client_port=5000-5001", "", ";;;", ","}) {
    EXPECT_EQ(accepted(asked), "refused") << asked;
  }
}
