// Real players, as processes of their own.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "system/surroundings.h"
#include "system/testpattern.h"

// A child process; the destructor kills it if it is still running.
class Process {
 public:
  // Writes standard output and standard error to the file.
  Process(std::vector<std::string> const& arguments, std::string const& outputFile);
  ~Process();
  Process(Process&& other) noexcept : m_Pid(std::exchange(other.m_Pid, -1)) {}
  Process& operator=(Process const&) = delete;

  bool runs() const;
  // The exit status, or -1 if the process had to be killed at the limit.
  int wait(std::chrono::seconds limit = std::chrono::seconds(90));

 private:
  int m_Pid;
};

// A player that watches a stream from its construction on.
class Player {
 public:
  enum class Client { Ffmpeg, Gstreamer };
  enum class Transport { Tcp, Udp };

  // Plays until the player has decoded this many frames.
  Player(Client client, Transport transport, std::string const& url, int frames, int codec = 8);

  // Waits for the player to end. Returns all frames in order; none if the player failed.
  std::vector<Frame> frames(int width, int height);
  // The player's messages that indicate damage.
  std::string complaints() const;
  // All messages of the player.
  std::string messages() const { return contentOf(m_Folder.file("messages")); }

 private:
  TemporaryFolder m_Folder;
  Process m_Process;
  bool m_StatusCounts;
};
