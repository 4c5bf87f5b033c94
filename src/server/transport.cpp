#include "server/transport.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

#include "server/text.h"

namespace kavo::impl {

namespace {

using Range = std::pair<std::uint16_t, std::uint16_t>;

// Parses "a-b", or "a" as "a-(a+1)"; nullopt if malformed or out of range.
std::optional<Range> rangeOf(std::string_view text, unsigned lowest, unsigned highest) {
  auto const number = [&](std::string_view digits) -> std::optional<std::uint16_t> {
    std::uint16_t value = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    bool const whole = error == std::errc() && end == digits.data() + digits.size();
    return whole && value >= lowest && value <= highest ? std::optional(value) : std::nullopt;
  };
  auto const dash = text.find('-');
  auto const first = number(text.substr(0, dash));
  if (!first) {
    return std::nullopt;
  }
  if (dash == std::string_view::npos) {
    return *first < highest ? std::optional<Range>({*first, static_cast<std::uint16_t>(*first + 1)}) : std::nullopt;
  }
  auto const second = number(text.substr(dash + 1));
  return second ? std::optional<Range>({*first, *second}) : std::nullopt;
}

std::optional<Range> parameterRange(std::vector<std::string_view> const& fields, std::string_view name, unsigned lowest,
                                    unsigned highest) {
  for (auto const field : fields) {
    auto const equals = field.find('=');
    if (equals != std::string_view::npos && equalsIgnoringCase(trimmed(field.substr(0, equals)), name)) {
      return rangeOf(trimmed(field.substr(equals + 1)), lowest, highest);
    }
  }
  return std::nullopt;
}

std::optional<RequestedTransport> acceptable(std::string_view transport) {
  auto const fields = split(transport, ';');
  auto const has = [&](std::string_view word) {
    return std::any_of(fields.begin(), fields.end(), [&](auto field) { return equalsIgnoringCase(field, word); });
  };
  if (has("multicast")) {
    return std::nullopt;
  }
  if (equalsIgnoringCase(fields[0], "RTP/AVP/TCP")) {
    // live555 takes channel 255 for none.
    auto const channels = parameterRange(fields, "interleaved", 0, 254);
    return channels && channels->first != channels->second
               ? RequestedTransport{true, true, channels->first, channels->second}
               : RequestedTransport{true, false};
  }
  // RFC 2326: "RTP/AVP" is short for "RTP/AVP/UDP".
  if (equalsIgnoringCase(fields[0], "RTP/AVP") || equalsIgnoringCase(fields[0], "RTP/AVP/UDP")) {
    auto const ports = parameterRange(fields, "client_port", 1, 65535);
    return ports ? std::optional(RequestedTransport{false, true, ports->first, ports->second}) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace

std::string RequestedTransport::text() const {
  return std::string(interleaved ? "RTP/AVP/TCP;unicast;interleaved=" : "RTP/AVP;unicast;client_port=") +
         std::to_string(rtp) + "-" + std::to_string(rtcp);
}

std::optional<RequestedTransport> acceptableTransport(std::string_view header) {
  for (auto const transport : split(header, ',')) {
    if (auto const accepted = acceptable(transport)) {
      return accepted;
    }
  }
  return std::nullopt;
}

}  // namespace kavo::impl
