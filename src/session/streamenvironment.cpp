#include "session/streamenvironment.h"

#include <locale.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/random.h>

#include <GroupsockHelper.hh>
#include <MediaSink.hh>
#include <cstdio>
#include <cstdlib>

#include "base/address.h"
#include "delivery/frame.h"
#include "eventloop/quietusageenvironment.h"
#include "operate/journal.h"

namespace kavo::impl {

namespace {

constexpr unsigned granularityMicroseconds = 10000;
constexpr unsigned reclamationSeconds = 65;

// Restores a signal's disposition: live555's server makes the process ignore SIGPIPE,
// which is the host's decision. Our sends never raise it.
class KeptDisposition : NonCopyable {
 public:
  explicit KeptDisposition(int signal) : m_Signal(signal) { sigaction(signal, nullptr, &m_Before); }
  ~KeptDisposition() { sigaction(m_Signal, &m_Before, nullptr); }

 private:
  int m_Signal;
  struct sigaction m_Before{};
};

// Blocks all signals in the calling thread and the threads that it starts, so that the
// host's own threads handle them.
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

// Sets the "C" locale for the calling thread: live555 would print numbers for the wire with
// the host's decimal separator.
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

// On a machine without an IPv4 address, live555 would look up the machine's own name in DNS
// repeatedly, blocking the loop.
void settleOwnAddress() {
  std::string const address = machineAddress();
  bool const hasIpv4 = address != "127.0.0.1" && address.find(':') == std::string::npos;
  ReceivingInterfaceAddr = hasIpv4 ? INADDR_ANY : htonl(INADDR_LOOPBACK);
}

// live555 seeds the random generator for session ids with the time of day.
void seedSessionIds(UsageEnvironment& env) {
  ourIPv4Address(env);  // seeds it at the first call
  int seed = 0;
  if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) == sizeof seed) {
    our_srandom(seed);
  }
}

// Empty if there is none.
std::string policyFileName() {
  char const* const file = secure_getenv("KAVO_STREAM_CONFIG");
  return file == nullptr ? "" : file;
}

// Fails closed: an unreadable policy file prevents the start.
std::shared_ptr<Policy const> readPolicyFile(std::string const& name) {
  try {
    return std::make_shared<Policy>(PolicyFile(name).read());
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
    std::string const policyFile = policyFileName();
    m_Policy = readPolicyFile(policyFile);
    m_Delivery = std::make_unique<DeliveryContext>(DeliveryContext{.policy = m_Policy->delivery});
    makeServer(port, policyFile);
    m_Port = port;
    startThread();
  } catch (...) {
    release();
    throw;
  }
}

void StreamEnvironment::makeServer(unsigned int port, std::string const& policyFile) {
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
  // The frame limit, for live555's own sinks too. Ours do not use this buffer.
  OutPacketBuffer::maxSize = Frame::largest;
  settleOwnAddress();
  seedSessionIds(*m_UsageEnvironment);
  KeptDisposition const kept(SIGPIPE);
  m_RTSPServer = RtspServer::createNew(*m_UsageEnvironment, static_cast<std::uint16_t>(port), reclamationSeconds,
                                       m_Policy, m_Delivery->descriptors, policyFile);
  if (m_RTSPServer == nullptr) {
    throw StreamException("RTSPServer creation failed", ErrorResource);
  }
  if (char const* const address = secure_getenv("KAVO_STREAM_STATUS"); address != nullptr && *address != '\0') {
    g_Journal->open();
    auto const figures = [this, port, started = Journal::now()]() KAVO_REQUIRES(eventLoopRole) {
      return ServerFigures{port, started, m_RTSPServer->connections(), m_RTSPServer->sessions()};
    };
    m_StatusServer = StatusServer::createNew(*m_TaskScheduler, address, m_Delivery->descriptors, figures);
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
  m_StatusServer.reset();
  Medium::close(m_RTSPServer);
  m_RTSPServer = nullptr;
  m_TaskScheduler.reset();
  m_UsageEnvironment.reset();
  m_Reserve.reset();
  m_Delivery.reset();
  m_Policy.reset();
  m_Failed = false;
}

// Handlers contain their exceptions; if the loop itself cannot continue, the server stops
// and the host process survives.
void StreamEnvironment::run() {
  prepareForExceptions();
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
