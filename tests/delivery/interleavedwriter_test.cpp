#include "delivery/interleavedwriter.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <string>

#include "eventloop/looptest.h"

using namespace kavo::impl;
using namespace std::chrono_literals;

namespace {

// A writer whose peer reads on demand. The payload of a frame is one letter, repeated.
class InterleavedWriterTest : public LoopTest {
 protected:
  bool frame(char letter, std::size_t packets, bool key = true, std::uint8_t channel = 0) {
    auto const frame = std::make_shared<Frame>();
    auto const payload = frame->reserve(1000).first(1000);
    std::ranges::fill(payload, static_cast<std::uint8_t>(letter));
    frame->isKeyFrame = key;
    frame->packets.begin({.payloadType = 96, .sequence = 1, .timestamp = 2, .ssrc = 3});
    for (std::size_t i = 0; i < packets; ++i) {
      frame->packets.add({}, payload, false);
    }
    frame->packets.end();
    return m_Writer->sendFrame(frame, channel, Transport::Clock::now()).accepted;
  }

  void report() { m_Writer->sendReport(std::vector<std::uint8_t>(20, 'r'), 1); }

  // Lets the writer continue and reads a block. Returns false if nothing had arrived.
  bool readSome() {
    if (m_Blocked) {
      m_Writer->flush();
    }
    char block[65536];
    ssize_t const size = read(m_Sockets.far.get(), block, sizeof block);
    m_Received.append(block, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return size > 0;
  }

  // The newest frame, of b, must wait for the response.
  void readUntilAResponseFits() {
    while (!m_Writer->prepareForResponse()) {
      ASSERT_TRUE(readSome());
    }
    EXPECT_EQ(m_Received.find("bbb"), std::string::npos);
  }

  // Reads everything and returns it as packet counts and letters, such as "1a 20b ". Every packet must be
  // complete.
  std::string drain() {
    while (readSome()) {
    }
    std::string runs;
    int count = 0;
    char letter = 0;
    auto const endRun = [&] { runs += count > 0 ? std::to_string(count) + letter + ' ' : ""; };
    for (std::size_t at = 0; at < m_Received.size();) {
      auto const byte = [&](std::size_t i) { return static_cast<std::uint8_t>(m_Received.at(at + i)); };
      std::size_t const size = 256U * byte(2) + byte(3);
      EXPECT_EQ(m_Received[at], '$');
      char const last = m_Received.at(at + 3 + size);
      if (last != letter) {
        endRun();
        count = 0;
      }
      letter = last;
      ++count;
      at += 4 + size;
    }
    endRun();
    m_Received.clear();
    return runs;
  }

  Pair m_Sockets;
  bool m_Blocked = false;
  std::string m_Received;
  std::unique_ptr<InterleavedWriter> const m_Writer = std::make_unique<InterleavedWriter>(
      *m_Scheduler, m_Sockets.near.get(), [this](bool wanted) { m_Blocked = wanted; });
};

constexpr std::size_t huge = 4000;  // packets: more than a socket buffer or one system call takes

}  // namespace

TEST_F(InterleavedWriterTest, AViewerMissesWholeFramesOnly) {
  EXPECT_TRUE(frame('a', 1));
  EXPECT_FALSE(m_Blocked);
  EXPECT_TRUE(frame('b', huge));
  EXPECT_TRUE(m_Blocked);
  EXPECT_TRUE(frame('c', 1));
  EXPECT_TRUE(frame('d', huge)) << "it takes the place of the one before";
  EXPECT_TRUE(frame('e', 1));
  report();
  report();
  EXPECT_EQ(drain(), "1a 4000b 1e 1r ") << "one report waits, for the viewer that is always behind";
  EXPECT_FALSE(m_Blocked);
  report();
  EXPECT_EQ(drain(), "1r ");
}

TEST_F(InterleavedWriterTest, DependentFramesWaitUntilThereAreTooMany) {
  frame('k', huge);
  EXPECT_TRUE(frame('p', 1, false));
  EXPECT_TRUE(frame('q', 1, false));
  EXPECT_TRUE(frame('o', 1, true, 2)) << "another stream's";
  EXPECT_FALSE(frame('r', InterleavedWriter::maxWaiting / 1000, false));
  EXPECT_EQ(drain(), "4000k 1o ") << "what builds on what was dropped came";
  EXPECT_TRUE(frame('k', 1));
  EXPECT_TRUE(frame('u', 1, false));
  EXPECT_EQ(drain(), "1k 1u ");
}

TEST_F(InterleavedWriterTest, AfterACancelOnlyTheFrameBeingSentIsFinished) {
  frame('a', huge);
  frame('b', 1);
  frame('c', 1, true, 2);
  m_Writer->cancel(0);
  EXPECT_EQ(drain(), "4000a 1c ");
}

// A viewer is stalled only while data waits for it: one that was paused in mid-frame is not.
TEST_F(InterleavedWriterTest, AViewerIsStalledOnlyWhileSomethingIsQueued) {
  auto const later = [] { return InterleavedWriter::Clock::now() + 10s + 1ms; };
  EXPECT_FALSE(m_Writer->isStalled(later()));
  frame('a', huge);
  EXPECT_FALSE(m_Writer->isStalled(InterleavedWriter::Clock::now()));
  EXPECT_TRUE(m_Writer->isStalled(later()));
  m_Writer->cancel(0);
  EXPECT_FALSE(m_Writer->isStalled(later()));
  frame('b', 1);
  EXPECT_TRUE(m_Writer->isStalled(later()));
  drain();
  EXPECT_FALSE(m_Writer->isStalled(later()));
}

TEST_F(InterleavedWriterTest, ProgressIsKeptForEachChannel) {
  frame('a', 1, true, 4);
  EXPECT_FALSE(m_Writer->takeProgress(0));
  EXPECT_TRUE(m_Writer->takeProgress(4));
  EXPECT_FALSE(m_Writer->takeProgress(4));
}

TEST_F(InterleavedWriterTest, AResponseFollowsTheFrameBeingSent) {
  EXPECT_TRUE(m_Writer->prepareForResponse());
  frame('a', huge);
  EXPECT_FALSE(m_Writer->prepareForResponse());
  frame('b', 1);
  readUntilAResponseFits();
  EXPECT_EQ(drain(), "4000a 1b ");
  EXPECT_FALSE(m_Blocked);
}

TEST_F(InterleavedWriterTest, AResponseWaitsIfOnlyPartOfItWouldFit) {
  for (pollfd socket{m_Sockets.near.get(), POLLOUT, 0}; poll(&socket, 1, 0) > 0;) {
    frame('a', 1);
  }
  ASSERT_FALSE(m_Blocked) << "the frames were to be taken whole";
  EXPECT_FALSE(m_Writer->prepareForResponse());
  EXPECT_TRUE(m_Blocked);
  frame('b', 1);
  readUntilAResponseFits();
  EXPECT_NE(drain().find("1b"), std::string::npos);
}

TEST_F(InterleavedWriterTest, SendsNothingOnceClosed) {
  frame('a', huge);
  m_Writer->close();
  m_Blocked = false;
  frame('b', 1);
  report();
  m_Writer->cancel(0);
  EXPECT_FALSE(m_Blocked);
  EXPECT_FALSE(m_Writer->isBlocked());
  while (readSome()) {
  }
  EXPECT_EQ(m_Received.find("bbb"), std::string::npos);
}
