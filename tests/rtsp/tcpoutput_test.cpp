#include "rtsp/tcpoutput.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "eventloop/descriptor.h"

using namespace kavo;

namespace {

// An output whose other end reads when told.
class TcpOutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    m_Near = Descriptor(ends[0]);
    m_Far = Descriptor(ends[1]);
    m_Output = std::make_shared<TcpOutput>(m_Near.get(), [this](bool wait) { m_Waiting = wait; });
  }

  // A picture of one letter.
  bool picture(char letter, std::size_t size, bool key = true) {
    return m_Output->sendPicture(std::vector<std::uint8_t>(size, static_cast<std::uint8_t>(letter)), key);
  }

  // Reads and lets the output go on until nothing comes any more.
  std::string drain() {
    std::string all;
    char block[65536];
    ssize_t size;
    while ((size = read(m_Far.get(), block, sizeof block)) > 0) {
      all.append(block, static_cast<std::size_t>(size));
      if (m_Waiting) {
        m_Output->flush();
      }
    }
    return all;
  }

  Descriptor m_Near;
  Descriptor m_Far;
  bool m_Waiting = false;
  std::shared_ptr<TcpOutput> m_Output;
};

constexpr std::size_t huge = 4 * 1024 * 1024;  // more than a socket takes

}  // namespace

TEST_F(TcpOutputTest, AViewerBehindLosesWholePictures) {
  EXPECT_TRUE(picture('a', 10));
  EXPECT_FALSE(m_Waiting);
  picture('b', huge);
  EXPECT_TRUE(m_Waiting);
  EXPECT_FALSE(picture('c', 10));
  m_Output->sendReport(std::vector<std::uint8_t>(10, 'r'));
  EXPECT_EQ(drain(), std::string(10, 'a') + std::string(huge, 'b'));
  EXPECT_FALSE(m_Waiting);
  EXPECT_TRUE(picture('d', 10));
  EXPECT_EQ(drain(), std::string(10, 'd'));
}

TEST_F(TcpOutputTest, AfterALossOnlyAKeyPictureLetsItGoOn) {
  picture('b', huge);
  EXPECT_FALSE(picture('c', 10, false));
  drain();
  EXPECT_FALSE(picture('d', 10, false)) << "nobody is told that a key picture is wanted";
  EXPECT_EQ(drain(), "");
  EXPECT_TRUE(picture('k', 10, true));
  EXPECT_TRUE(picture('e', 10, false));
  EXPECT_EQ(drain(), std::string(10, 'k') + std::string(10, 'e'));
}

TEST_F(TcpOutputTest, PicturesMakeRoomForAResponse) {
  EXPECT_TRUE(m_Output->admitsResponse());
  picture('a', huge);
  EXPECT_FALSE(m_Output->admitsResponse());
  EXPECT_FALSE(picture('b', 10));
  drain();
  EXPECT_TRUE(m_Output->admitsResponse());
  EXPECT_TRUE(picture('c', 10));
}

TEST_F(TcpOutputTest, AResponseWaitsWhereOnlyAPartOfItWouldFit) {
  for (pollfd socket{m_Near.get(), POLLOUT, 0}; poll(&socket, 1, 0) > 0;) {
    picture('a', 1000);
  }
  ASSERT_FALSE(m_Waiting) << "the pictures were to be taken whole";
  EXPECT_FALSE(m_Output->admitsResponse());
  EXPECT_TRUE(m_Waiting);
  EXPECT_FALSE(picture('b', 10));
  drain();
  EXPECT_TRUE(m_Output->admitsResponse());
  EXPECT_FALSE(m_Waiting);
}

TEST_F(TcpOutputTest, IsFoundByItsSocketAndSendsNowhereOnceClosed) {
  EXPECT_EQ(TcpOutput::of(m_Near.get()), m_Output);
  EXPECT_EQ(TcpOutput::of(-1), nullptr);
  picture('a', huge);
  m_Output->close();
  EXPECT_EQ(TcpOutput::of(m_Near.get()), nullptr);
  EXPECT_EQ(TcpOutput::of(-1), nullptr) << "a viewer without a connection was taken for a closed one's";
  m_Waiting = false;
  picture('b', 10);
  EXPECT_FALSE(m_Waiting);
  EXPECT_FALSE(m_Output->isStalled());
}
