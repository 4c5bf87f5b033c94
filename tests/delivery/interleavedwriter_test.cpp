#include "delivery/interleavedwriter.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "base/descriptor.h"

using namespace kavo;

namespace {

// An output whose other end reads when told.
class InterleavedWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    m_Near = Descriptor(ends[0]);
    m_Far = Descriptor(ends[1]);
    m_Output = std::make_shared<InterleavedWriter>(m_Near.get(), [this](bool wait) { m_Waiting = wait; });
  }

  // One letter throughout, but for the channel.
  static FramedPackets framed(char letter, std::size_t size, std::uint8_t channel = 0) {
    auto const bytes = std::make_shared<std::vector<std::uint8_t>>(size, static_cast<std::uint8_t>(letter));
    (*bytes)[1] = channel;
    return bytes;
  }

  bool picture(char letter, std::size_t size, bool key = true, std::uint8_t channel = 0) {
    return m_Output->sendPicture(framed(letter, size, channel), key);
  }

  // Lets the output go on, and reads a block; false when there was nothing.
  bool readSome() {
    if (m_Waiting) {
      m_Output->flush();
    }
    char block[65536];
    ssize_t const size = read(m_Far.get(), block, sizeof block);
    m_Received.append(block, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return size > 0;
  }

  // All that comes, as "10a 20b ".
  std::string drain() {
    while (readSome()) {
    }
    std::string runs;
    for (std::size_t at = 0, end; at < m_Received.size(); at = end) {
      std::string const sameRun{m_Received[at], 0, 2};  // and the channels
      end = std::min(m_Received.find_first_not_of(sameRun, at), m_Received.size());
      runs += std::to_string(end - at) + m_Received[at] + ' ';
    }
    m_Received.clear();
    return runs;
  }

  Descriptor m_Near;
  Descriptor m_Far;
  bool m_Waiting = false;
  std::string m_Received;
  std::shared_ptr<InterleavedWriter> m_Output;
};

constexpr std::size_t huge = 4 * 1024 * 1024;  // more than a socket takes

}  // namespace

TEST_F(InterleavedWriterTest, WhatAViewerMissesIsWholePictures) {
  EXPECT_TRUE(picture('a', 10));
  EXPECT_FALSE(m_Waiting);
  EXPECT_TRUE(picture('b', huge));
  EXPECT_TRUE(m_Waiting);
  EXPECT_TRUE(picture('c', 10));
  EXPECT_TRUE(picture('d', huge)) << "it takes the place of the one before";
  EXPECT_TRUE(picture('e', 10));
  m_Output->sendReport(framed('r', 10));
  EXPECT_EQ(drain(), "10a " + std::to_string(huge) + "b 10e ");
  EXPECT_FALSE(m_Waiting);
  m_Output->sendReport(framed('r', 10));
  EXPECT_EQ(drain(), "10r ");
}

TEST_F(InterleavedWriterTest, PicturesThatBuildOnOthersWaitUntilTheyAreTooMany) {
  picture('k', huge);
  EXPECT_TRUE(picture('p', 10, false));
  EXPECT_TRUE(picture('q', 10, false));
  EXPECT_TRUE(picture('o', 10, true, 2)) << "another stream's";
  EXPECT_TRUE(picture('r', InterleavedWriter::maxWaiting, false)) << "a key picture could not be sent yet";
  EXPECT_TRUE(picture('s', 10, false));
  EXPECT_EQ(drain(), std::to_string(huge) + "k 10o ");
  EXPECT_FALSE(picture('t', 10, false)) << "nobody is told that a key picture is wanted";
  EXPECT_TRUE(picture('o', 10, false, 2));
  EXPECT_TRUE(picture('k', 10));
  EXPECT_TRUE(picture('u', 10, false));
  EXPECT_EQ(drain(), "10o 10k 10u ");
}

TEST_F(InterleavedWriterTest, PicturesThatBuildOnOthersWaitUntilTheyAreTooOld) {
  picture('k', huge);
  EXPECT_TRUE(picture('p', 10, false));
  std::this_thread::sleep_for(InterleavedWriter::maxAge + std::chrono::milliseconds(1));
  EXPECT_TRUE(picture('q', 10, false)) << "a key picture could not be sent yet";
  EXPECT_EQ(drain(), std::to_string(huge) + "k ");
  EXPECT_FALSE(picture('r', 10, false));
}

TEST_F(InterleavedWriterTest, OfAStreamThatEndedOnlyABegunPictureIsSent) {
  picture('a', huge);
  picture('b', 10);
  picture('c', 10, true, 2);
  m_Output->forget(0);
  EXPECT_EQ(drain(), std::to_string(huge) + "a 10c ");
}

TEST_F(InterleavedWriterTest, AResponseComesAfterTheBegunPicture) {
  EXPECT_TRUE(m_Output->admitsResponse());
  picture('a', huge);
  EXPECT_FALSE(m_Output->admitsResponse());
  picture('b', 10);
  while (!m_Output->admitsResponse()) {
    ASSERT_TRUE(readSome());
  }
  EXPECT_EQ(m_Received.find('b'), std::string::npos);
  EXPECT_EQ(drain(), std::to_string(huge) + "a 10b ");
  EXPECT_FALSE(m_Waiting);
}

TEST_F(InterleavedWriterTest, AResponseWaitsWhereOnlyAPartOfItWouldFit) {
  for (pollfd socket{m_Near.get(), POLLOUT, 0}; poll(&socket, 1, 0) > 0;) {
    picture('a', 1000);
  }
  ASSERT_FALSE(m_Waiting) << "the pictures were to be taken whole";
  EXPECT_FALSE(m_Output->admitsResponse());
  EXPECT_TRUE(m_Waiting);
  picture('b', 10);
  while (!m_Output->admitsResponse()) {
    ASSERT_TRUE(readSome());
  }
  EXPECT_EQ(m_Received.find('b'), std::string::npos);
  EXPECT_NE(drain().find("10b"), std::string::npos);
}

TEST_F(InterleavedWriterTest, IsFoundByItsSocketAndSendsNowhereOnceClosed) {
  EXPECT_EQ(InterleavedWriter::of(m_Near.get()), m_Output);
  EXPECT_EQ(InterleavedWriter::of(-1), nullptr);
  picture('a', huge);
  m_Output->close();
  EXPECT_EQ(InterleavedWriter::of(m_Near.get()), nullptr);
  EXPECT_EQ(InterleavedWriter::of(-1), nullptr) << "a viewer without a connection was taken for a closed one's";
  m_Waiting = false;
  picture('b', 10);
  m_Output->forget(0);
  EXPECT_FALSE(m_Waiting);
  EXPECT_FALSE(m_Output->isStalled());
}
