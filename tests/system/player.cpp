#include "system/player.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

Process::Process(std::vector<std::string> const& arguments, std::string const& outputFile) : m_Pid(-1) {
  std::vector<char*> argv;
  for (auto const& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  if (posix_spawnp(&m_Pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
    m_Pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
}

Process::~Process() {
  if (m_Pid > 0) {
    kill(m_Pid, SIGKILL);
    waitpid(m_Pid, nullptr, 0);
  }
}

bool Process::runs() const {
  siginfo_t info{};
  return m_Pid > 0 && waitid(P_PID, static_cast<id_t>(m_Pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

int Process::wait(std::chrono::seconds limit) {
  auto const end = std::chrono::steady_clock::now() + limit;
  while (m_Pid > 0 && std::chrono::steady_clock::now() < end) {
    int status = 0;
    if (waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
      m_Pid = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

namespace {

std::vector<std::string> commandOf(Player::Client client, Player::Transport transport, std::string const& url,
                                   int frames, int codec, std::string const& file) {
  std::string const protocol = transport == Player::Transport::Tcp ? "tcp" : "udp";
  std::string const count = std::to_string(frames);
  if (client == Player::Client::Ffmpeg) {
    return {"ffmpeg",    "-v",          "warning",  "-rtsp_transport", protocol, "-i",       url,  "-frames:v", count,
            "-fps_mode", "passthrough", "-pix_fmt", "rgb24",           "-f",     "rawvideo", "-y", file};
  }
  std::string const decoder = codec == 8 ? "rtpjpegdepay ! jpegdec" : "rtph264depay ! h264parse ! avdec_h264";
  std::string const pipeline =
      "rtspsrc location=" + url + " protocols=" + protocol + " latency=50 ! " + decoder +
      " ! videoconvert ! video/x-raw,format=RGB ! identity eos-after=" + std::to_string(frames + 1) +
      " ! filesink location=" + file;
  return {"/bin/sh", "-c", "exec gst-launch-1.0 -q " + pipeline};
}

}  // namespace

Player::Player(Client client, Transport transport, std::string const& url, int frames, int codec)
    : m_Process(commandOf(client, transport, url, frames, codec, m_Folder.file("frames")), m_Folder.file("messages")),
      // gst-launch-1.0 sometimes closes its connection before it has sent its own
      // PAUSE, and reports that as an error; only its frames count.
      m_StatusCounts(client != Client::Gstreamer) {}

std::vector<Frame> Player::frames(int width, int height) {
  std::vector<Frame> result;
  int const status = m_Process.wait();
  if (status < 0 || (status != 0 && m_StatusCounts)) {
    return result;
  }
  std::string const bytes = contentOf(m_Folder.file("frames"));
  std::size_t const size = static_cast<std::size_t>(width * height) * 3;
  for (std::size_t at = 0; at + size <= bytes.size(); at += size) {
    Frame frame{width, height, {}};
    frame.rgb.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                     bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
    result.push_back(std::move(frame));
  }
  return result;
}

std::string Player::complaints() const {
  std::istringstream lines(messages());
  std::string found;
  for (std::string line; std::getline(lines, line);) {
    for (auto const* word : {"error", "Error", "non-existing", "no frame", "conceal", "missed", "corrupt", "invalid"}) {
      if (line.find(word) != std::string::npos) {
        found += line + "\n";
        break;
      }
    }
  }
  return found;
}
