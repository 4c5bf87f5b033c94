// The limits on connections and sessions: who is admitted, and who is evicted for it.
#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

#include "eventloop/memoryreserve.h"
#include "server/clientsession.h"
#include "server/rtspconnection.h"
#include "server/rtspserver.h"

namespace kavo::impl {

namespace {

// Even if there are descriptors for more.
constexpr std::size_t mostConnections = 4096;

// The last eighth is reserved for addresses that have fewer than four.
std::size_t placesFor(std::size_t ofAddress, std::size_t all) { return ofAddress < 4 ? all : all - all / 8; }

}  // namespace

std::size_t RtspServer::maxConnections() const {
  return std::min({m_Descriptors->limit(), mostConnections, m_Policy->maxConnections.value_or(SIZE_MAX)});
}

bool RtspServer::makeRoomForSession(sockaddr_storage const& clientAddress) {
  std::map<Network, std::size_t> all;
  std::map<Network, std::size_t> idle;
  impl::ClientSession* lost = nullptr;  // without a connection
  impl::ClientSession* itsOwn = nullptr;
  auto const network = networkOf(clientAddress);
  forEachSession([&](impl::ClientSession& session) KAVO_REQUIRES(eventLoopRole) {
    auto const from = networkOf(session.clientAddress());
    ++all[from];
    idle[from] += session.isPlaying() ? 0 : 1;
    if (session.connection() == nullptr) {
      lost = &session;
      itsOwn = from == network ? &session : itsOwn;
    }
  });
  std::size_t const most = std::min(maxConnections(), m_Policy->maxViewers.value_or(SIZE_MAX));
  impl::ClientSession* evicted = nullptr;
  if (all[network] >= m_Policy->maxViewersPerAddress.value_or(SIZE_MAX)) {
    evicted = itsOwn;
  } else if (numClientSessions() < placesFor(all[network], most)) {
    return true;
  } else {
    std::size_t mostIdle = 0;
    forEachSession([&](impl::ClientSession& session) KAVO_REQUIRES(eventLoopRole) {
      std::size_t const ofAddress = idle[networkOf(session.clientAddress())];
      if (!session.isPlaying() && ofAddress > mostIdle) {
        mostIdle = ofAddress;
        evicted = &session;
      }
    });
    evicted = evicted != nullptr ? evicted : lost;
  }
  delete evicted;
  return evicted != nullptr;
}

std::optional<DescriptorBudget::Share> RtspServer::placeForConnection(sockaddr_storage const& clientAddress) {
  auto const network = networkOf(clientAddress);
  auto const ofAddress = std::ranges::count_if(
      m_Connections, [&](auto const* connection) { return networkOf(connection->clientAddress()) == network; });
  std::size_t const places = placesFor(static_cast<std::size_t>(ofAddress), maxConnections());
  bool const hasRoom = MemoryReserve::refill() && (m_Connections.size() < places || evictConnection());
  return hasRoom ? m_Descriptors->take(1) : std::nullopt;
}

// Closes a connection without a stream: one from the address with the most connections, if it has
// several; else one that never sent anything, so that a flood of silent connections cannot evict
// a client about to set up a session; among equals the least recently active. Never the one whose
// request needs the room. False if there is none.
bool RtspServer::evictConnection() {
  std::map<Network, std::size_t> counts;
  for (auto const* const connection : m_Connections) {
    ++counts[networkOf(connection->clientAddress())];
  }
  constexpr std::size_t several = 4;
  RtspConnection* unwanted = nullptr;
  std::pair<std::size_t, bool> worst;
  for (auto* const connection : m_Connections) {
    std::size_t const ofAddress = counts[networkOf(connection->clientAddress())];
    std::pair const rank(ofAddress < several ? 0 : ofAddress, !connection->hasSentAnything());
    bool const isSpared = connection->hasStream() || connection->isHandlingRequest();
    if (!isSpared && (unwanted == nullptr || rank > worst)) {
      unwanted = connection;
      worst = rank;
    }
  }
  delete unwanted;
  return unwanted != nullptr;
}

}  // namespace kavo::impl
