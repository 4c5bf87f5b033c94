// kavo-publish as a process of its own, with clocks that the test sets.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>

#include "system/rtspclient.h"
#include "system/surroundings.h"

class ShiftedPublisher {
 public:
  explicit ShiftedPublisher(std::string const& codec) {
    setClocks(0, 0);
    m_Port = onFreePort([&](std::uint32_t port) { return serves(port, codec); });
    EXPECT_NE(m_Port, 0U) << contentOf(m_Folder.file("output"));
  }

  ~ShiftedPublisher() {
    if (m_Process > 0) {
      kill(m_Process, SIGKILL);
      waitpid(m_Process, nullptr, 0);
    }
  }
  ShiftedPublisher(ShiftedPublisher const&) = delete;
  ShiftedPublisher& operator=(ShiftedPublisher const&) = delete;

  std::uint32_t port() const { return m_Port; }
  std::string url(std::string const& host = "127.0.0.1") const {
    return "rtsp://" + host + ":" + std::to_string(m_Port) + "/kavo";
  }

  // Sets by how many seconds its clocks are ahead of the machine's.
  void setClocks(std::int64_t wall, std::int64_t monotonic) {
    std::ofstream stream(m_Folder.file("clock"), std::ios::in | std::ios::out | std::ios::binary);
    if (!stream) {
      stream.open(m_Folder.file("clock"), std::ios::binary);
    }
    stream.write(reinterpret_cast<char const*>(&wall), sizeof wall);
    stream.write(reinterpret_cast<char const*>(&monotonic), sizeof monotonic);
  }
  // Advances its monotonic clock, so that its timers expire.
  void passSeconds(std::int64_t seconds) { setClocks(0, m_Passed += seconds); }

 private:
  bool serves(std::uint32_t port, std::string const& codec) {
    auto const output = m_Folder.file("output");
    std::string const command = "KAVO_CLOCK_FILE=" + m_Folder.file("clock") +
                                " LD_PRELOAD='" KAVO_CLOCK_SHIM "' exec '" KAVO_PUBLISH "' --size 320x240 --port " +
                                std::to_string(port) + " --codec " + codec + " >" + output + " 2>&1";
    m_Process = fork();
    if (m_Process == 0) {
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    while (contentOf(output).find("Ctrl-C") == std::string::npos) {
      if (waitpid(m_Process, nullptr, WNOHANG) != 0) {
        m_Process = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  TemporaryFolder m_Folder;
  std::uint32_t m_Port = 0;
  std::int64_t m_Passed = 0;
  pid_t m_Process = -1;
};
