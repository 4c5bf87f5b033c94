#include "session/streamenvironment.h"

#include <ifaddrs.h>
#include <locale.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/random.h>

#include <GroupsockHelper.hh>
#include <MediaSink.hh>
#include <cstdio>
#include <cstdlib>

#include "delivery/frame.h"
#include "eventloop/quietusageenvironment.h"
#include "operate/statuspage.h"

namespace kavo::impl {

namespace {

constexpr unsigned granularityMicroseconds = 10000;
constexpr unsigned reclamationSeconds = 65;

// Restores a signal's disposition: live555's server makes the process ignore
// SIGPIPE, which is for the host to decide. Our sends never raise it.
class KeptDisposition : NonCopyable {
 public:
  explicit KeptDisposition(int signal) : m_Signal(signal) { sigaction(signal, nullptr, &m_Before); }
  ~KeptDisposition() { sigaction(m_Signal, &m_Before, nullptr); }

 private:
  int m_Signal;
  struct sigaction m_Before{};
};

// Blocks all signals in the calling thread and the threads it starts: the host's
// signals are for its own threads.
class BlockedSignals : NonCopyable {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &m_Before);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }

 private:
  sigset_t m_Before{};
};

// The "C" locale for the calling thread: live555 prints numbers for the wire with
// what may be the host's decimal comma.
class NeutralLocale : NonCopyable {
 public:
  NeutralLocale() : m_Locale(newlocale(LC_ALL_MASK, "C", nullptr)), m_Before(uselocale(m_Locale)) {}
  ~NeutralLocale() {
    uselocale(m_Before);
    if (m_Locale != nullptr) {
      freelocale(m_Locale);
    }
  }

 private:
  locale_t m_Locale;
  locale_t m_Before;
};

bool hasAddress() {
  ifaddrs* all = nullptr;
  bool found = getifaddrs(&all) != 0;
  for (ifaddrs const* entry = all; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) {
      continue;
    }
    auto const* const v4 = reinterpret_cast<sockaddr_in const*>(entry->ifa_addr);
    auto const* const v6 = reinterpret_cast<sockaddr_in6 const*>(entry->ifa_addr);
    found = found || (entry->ifa_addr->sa_family == AF_INET && v4->sin_addr.s_addr != htonl(INADDR_LOOPBACK)) ||
            (entry->ifa_addr->sa_family == AF_INET6 && !IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr) &&
             !IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr));
  }
  freeifaddrs(all);
  return found;
}

// On a machine with nothing but loopback, live555 would ask DNS for the machine's
// own name, again and again, and the loop would wait for the answer.
void settleOwnAddress() {
  if (!hasAddress()) {
    ReceivingInterfaceAddr = htonl(INADDR_LOOPBACK);
  }
}

// live555 seeds the generator that session ids come from with the time of day.
void seedSessionIds(UsageEnvironment& env) {
  ourIPv4Address(env);  // which is when it does
  int seed = 0;
  if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) == sizeof seed) {
    our_srandom(seed);
  }
}

// It never falls open: what cannot be read lets nothing start.
std::shared_ptr<Policy const> policyFromEnvironment() {
  char const* const file = secure_getenv("KAVO_STREAM_CONFIG");
  if (file == nullptr || *file == '\0') {
    return std::make_shared<Policy>();
  }
  try {
    return std::make_shared<Policy>(readPolicy(file));
  } catch (PolicyError const& error) {
    std::fprintf(stderr, "kavo_stream: %s\n", error.what());
    throw StreamException(error.what(), ErrorResource);
  }
}

}  // namespace

StreamEnvironment::~StreamEnvironment() { stop(); }

void StreamEnvironment::start(unsigned int port) {
  requireHealth();
  if (m_RTSPServer != nullptr) {
    throw StreamException("RTSP server is already initialized", ErrorAlreadyThere);
  }
  if (port == 0 || port > 65535) {
    throw StreamException("Invalid port number for RTSP server", ErrorInvalidParameter);
  }
  try {
    m_Policy = policyFromEnvironment();
    m_Delivery = std::make_unique<DeliveryContext>(DeliveryContext{.policy = m_Policy->delivery});
    makeServer(port);
    startThread();
  } catch (...) {
    release();
    throw;
  }
  status::putProcess(&kv_status_process::port, port);
}

void StreamEnvironment::makeServer(unsigned int port) {
  m_Reserve = std::make_unique<MemoryReserve>();
  EventLoopRole::Holder const role(eventLoopRole);
  m_TaskScheduler.reset(EpollScheduler::createNew(granularityMicroseconds));
  if (!m_TaskScheduler) {
    throw StreamException("BasicTaskScheduler creation failed", ErrorResource);
  }
  m_UsageEnvironment.reset(QuietUsageEnvironment::createNew(*m_TaskScheduler));
  if (!m_UsageEnvironment) {
    throw StreamException("BasicUsageEnvironment creation failed", ErrorResource);
  }
  // What a frame may have, for live555's own sinks too. Ours take no such buffer.
  OutPacketBuffer::maxSize = Frame::largest;
  settleOwnAddress();
  seedSessionIds(*m_UsageEnvironment);
  KeptDisposition const kept(SIGPIPE);
  m_RTSPServer =
      RtspServer::createNew(*m_UsageEnvironment, static_cast<std::uint16_t>(port), reclamationSeconds, m_Policy);
  if (m_RTSPServer == nullptr) {
    throw StreamException("RTSPServer creation failed", ErrorResource);
  }
}

void StreamEnvironment::startThread() {
  m_WatchVariable = 0;
  BlockedSignals const blocked;
  m_Thread = std::thread([this] { run(); });
  pthread_setname_np(m_Thread.native_handle(), "kavo-rtsp");
}

void StreamEnvironment::stop() {
  if (m_RTSPServer == nullptr) {
    return;
  }
  m_WatchVariable = 1;
  if (m_Thread.joinable()) {
    m_Thread.join();
  }
  release();
}

void StreamEnvironment::release() {
  EventLoopRole::Holder const role(eventLoopRole);
  Medium::close(m_RTSPServer);
  m_RTSPServer = nullptr;
  m_TaskScheduler.reset();
  m_UsageEnvironment.reset();
  m_Reserve.reset();
  m_Delivery.reset();
  m_Policy.reset();
  m_Failed = false;
  status::putProcess(&kv_status_process::port, 0);
}

// Handlers contain their exceptions; if the loop itself cannot continue, the server
// ends and the host lives.
void StreamEnvironment::run() {
  EventLoopRole::Holder const role(eventLoopRole);
  NeutralLocale const neutral;
  try {
    m_TaskScheduler->doEventLoop(&m_WatchVariable);
  } catch (...) {
    m_Failed = true;
    m_TaskScheduler->closeCalls();
  }
}

RtspServer* StreamEnvironment::GetRTSPServer() const {
  if (m_RTSPServer == nullptr) {
    throw StreamException("RTSP server is not initialized", ErrorServerNotStarted);
  }
  requireHealth();
  return m_RTSPServer;
}

}  // namespace kavo::impl
