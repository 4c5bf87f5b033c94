#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include "base/uniquefd.h"
#include "server.h"

namespace {

class FloorServer : public BenchServer {
 public:
  explicit FloorServer(Setup const& setup) : m_Sender(socket(AF_INET, SOCK_DGRAM, 0)) {
    for (int i = 0; i < setup.viewers; ++i) {
      kavo::impl::UniqueFd receiver(socket(AF_INET, SOCK_DGRAM, 0));
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t size = sizeof address;
      bind(receiver.get(), reinterpret_cast<sockaddr*>(&address), size);
      getsockname(receiver.get(), reinterpret_cast<sockaddr*>(&address), &size);
      m_Receivers.push_back(std::move(receiver));
      m_Addresses.push_back(address);
    }
  }

  void push(std::span<std::uint8_t const> image) override {
    constexpr std::size_t payload = 1400;
    for (std::size_t at = 0; at < image.size(); at += payload) {
      auto const packet = image.subspan(at, std::min(payload, image.size() - at));
      for (auto const& address : m_Addresses) {
        sendto(m_Sender.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr const*>(&address),
               sizeof address);
      }
    }
    // The receivers read like viewers; a full buffer would make sending cheap.
    char block[2048];
    for (auto const& receiver : m_Receivers) {
      while (recv(receiver.get(), block, sizeof block, MSG_DONTWAIT) > 0) {
      }
    }
  }

 private:
  kavo::impl::UniqueFd m_Sender;
  std::vector<kavo::impl::UniqueFd> m_Receivers;
  std::vector<sockaddr_in> m_Addresses;
};

}  // namespace

std::unique_ptr<BenchServer> makeFloorServer(BenchServer::Setup const& setup) {
  return std::make_unique<FloorServer>(setup);
}
