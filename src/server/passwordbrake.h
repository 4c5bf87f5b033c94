// Limits how often an address may try passwords. Event-loop thread.
#pragma once

#include <chrono>
#include <map>

#include "base/address.h"

namespace kavo::impl {

class PasswordBrake {
 public:
  using Clock = std::chrono::steady_clock;

  // Whether credentials from the address are checked: not after ten wrong ones in a second.
  bool mayTry(sockaddr_storage const& address) {
    if (auto const now = Clock::now(); now - m_Begin >= std::chrono::seconds(1)) {
      m_Wrong.clear();
      m_Begin = now;
    }
    auto const found = m_Wrong.find(networkOf(address));
    return found == m_Wrong.end() || found->second < 10;
  }
  void wrong(sockaddr_storage const& address) { ++m_Wrong[networkOf(address)]; }

 private:
  std::map<Network, int> m_Wrong;  // since m_Begin
  Clock::time_point m_Begin{};
};

}  // namespace kavo::impl
