// Makes one call fail: the n-th of a function, for every n or for a sample of so many runs. A host with viewers
// executes all commands. Each must return a result, the process must survive, nothing may hang, and everything
// must work afterwards.
//
//   inject_sweep LIBRARY all | RUNS [FUNCTION]
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "system/records.h"
#include "system/rtspclient.h"
#include "system/surroundings.h"

namespace {

void (*g_Arm)(char const*, long, long);
void (*g_Disarm)();
char const* (*g_Name)(int);
long (*g_Calls)(int);
void (*g_Enter)(int);
int (*g_Function)(int, void*, int);

template <class Function>
void find(Function& function, char const* name) {
  function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
}

int library(int command, void* param, int size) {
  g_Enter(1);
  int const result = g_Function(command, param, size);
  g_Enter(0);
  return result;
}

constexpr unsigned limitSeconds = 180;

// Milliseconds to wait for a response that may never come.
constexpr int impatient = 250;

std::string g_Folder;  // for the policy file and the sockets

std::string statusSocket(pid_t process) { return g_Folder + "/" + std::to_string(process); }

// How often a command or a viewer is retried; increased only if more calls than that fail.
long g_MaxTries = 40;

template <class Record>
int call(int command, Record& record) {
  return library(command, &record, sizeof record);
}

struct Stream {
  kv_session_record session{};
  kv_frame_record frame{};
  int encodedFrames = 0;  // of an encoded stream
};

std::vector<std::uint8_t> const g_Pixels(64 * 64 * 3 + 4096, 90);

// Repeats the command until it succeeds, since a failed one must have changed nothing. Returns the first result.
int insist(std::function<int()> const& command) {
  int const first = command();
  for (long again = first, tries = 0; again != KV_OK && tries < g_MaxTries; ++tries) {
    again = command();
    // A failed server returns 6 until it is restarted.
    bool const gaveUp = tries == g_MaxTries - 1 && again != KV_OK && again != KV_RESOURCE_FAILURE;
    if (again == KV_ALREADY_THERE || again == KV_NAME_IN_USE || gaveUp) {
      std::fprintf(stderr, "a command that failed has half happened: %d, then %ld\n", first, again);
      std::_Exit(3);
    }
  }
  return first;
}

// Repeats a call until it succeeds.
auto const g_InsistingCall = [](int command, auto& record) { return insist([&] { return call(command, record); }); };

// Returns whether there is a stream: OpenH264 may stay broken after it has run out of memory.
bool publish(Stream& stream, char const* name, int codec) {
  stream.session = sessionRecord(name);
  stream.frame = createStream(stream.session, videoRecord(KV_RGB24, codec, 64, 64), g_InsistingCall);
  stream.frame.frame = g_Pixels.data();
  return stream.frame.stream != nullptr;
}

bool publishEncoded(Stream& stream, char const* name) {
  stream.session = sessionRecord(name);
  g_InsistingCall(KV_CREATE_SESSION, stream.session);
  kv_encoded_stream_record record{};
  record.handle = stream.session.handle;
  record.codec = KV_CODEC_H264;
  g_InsistingCall(KV_CREATE_ENCODED_STREAM, record);
  stream.frame.handle = stream.session.handle;
  stream.frame.stream = record.stream;
  stream.encodedFrames = 1;
  return record.stream != nullptr;
}

// Submits the next frame with its number; every fifth is a key frame.
void submitEncoded(Stream& stream) {
  int const number = stream.encodedFrames++;
  std::vector<std::uint8_t> bytes;
  if (number % 5 == 1) {
    bytes = {0, 0, 1, 0x67, 0x64, 0, 0x1E, 0xAC, 0, 0, 1, 0x68, 0xEB};
  }
  bytes.insert(bytes.end(), {0, 0, 1, static_cast<std::uint8_t>(number % 5 == 1 ? 0x65 : 0x41), 0x88,
                             static_cast<std::uint8_t>(1 + number / 200), static_cast<std::uint8_t>(1 + number % 200)});
  kv_encoded_frame_record frame{};
  frame.handle = stream.frame.handle;
  frame.stream = stream.frame.stream;
  frame.data = bytes.data();
  frame.size = bytes.size();
  call(KV_SUBMIT_ENCODED, frame);
}

// Reads the frames that have arrived over TCP since PLAY. None may refer to a missing one. Returns their number.
int checkedFrames(RtspClient& viewer) {
  int frames = 0;
  for (int last = -1; viewer.hasPacket();) {
    auto const packet = viewer.packet();
    if (packet.channel < 0) {
      break;
    }
    if (packet.channel == 0 && packet.bytes.size() == 16) {
      int const number = (packet.bytes[14] - 1) * 200 + packet.bytes[15] - 1;
      if (number != last + 1 && packet.bytes[12] != 0x65) {
        std::fprintf(stderr, "frame %d came after %d\n", number, last);
        std::_Exit(7);
      }
      last = number;
      ++frames;
    }
  }
  return frames;
}

void submit(std::vector<Stream>& streams, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    for (Stream& stream : streams) {
      if (stream.encodedFrames > 0) {
        submitEncoded(stream);
      } else {
        call(KV_SUBMIT_FRAME, stream.frame);
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

// A new viewer must get a frame from the server that met the failure, unless that server has failed.
void requireService(std::uint32_t port, std::vector<Stream>& streams, std::string const& url) {
  for (long tries = 0; tries < g_MaxTries; ++tries) {
    RtspClient viewer(port, false, 0, impatient);
    if (viewer.play(url)) {
      submit(streams, 10);
      if (viewer.hasPacket()) {
        return;
      }
    }
    if (call(KV_GET_INFO, streams[0].session) == KV_RESOURCE_FAILURE) {
      return;
    }
  }
  std::fprintf(stderr, "after the failure: no frame of %s\n", url.c_str());
  std::_Exit(6);
}

// The host's status as JSON; empty if there is no response.
std::string status() {
  return answerOf(statusSocket(getpid()), "GET /status.json HTTP/1.0\r\nHost: localhost\r\n\r\n", 2);
}

// Executes all commands, with viewers that join, stay and leave. If strict, everything must work.
void script(std::uint32_t port, bool strict) {
  auto const require = [=](bool condition, char const* what) {
    if (strict && !condition) {
      std::fprintf(stderr, "afterwards: %s\n", what);
      std::_Exit(4);
    }
  };
  insist([&] { return call(KV_INIT, port); });
  std::vector<Stream> streams(3);
  require(publish(streams[0], "jpeg", KV_CODEC_MJPEG), "no JPEG stream");
  require(publish(streams[1], "h264", KV_CODEC_H264), "no H.264 stream");
  require(publishEncoded(streams[2], "encoded"), "no encoded stream");
  for (auto const& stream : streams) {
    std::string const url = std::string("rtsp://127.0.0.1/") + stream.session.name;
    RtspClient tcp(port, false, 0, strict ? 10000 : impatient);
    RtspClient udp(port, false, 0, strict ? 10000 : impatient);
    require(tcp.play(url), "no viewer over TCP");
    require(udp.playOverUdp(url), "no viewer over UDP");
    submit(streams, 10);
    require(status().find("\"playing\"") != std::string::npos, "no status");
    require(tcp.hasPacket() && udp.hasPacket(), "no frame");
    require(stream.encodedFrames == 0 || checkedFrames(tcp) > 0, "no encoded frame");
    tcp.sendReport();
    udp.sendReport();
    tcp.request("PAUSE", url);
    submit(streams, 2);
    tcp.request("PLAY", url);
    submit(streams, 2);
    udp.request("TEARDOWN", url);
    requireService(port, streams, url);
  }
  call(KV_GET_INFO, streams[0].session);
  require(insist([&] { return library(KV_REMOVE_SESSION, streams[0].session.handle, 8); }) == KV_OK, "not removed");
  require(library(KV_EXIT, nullptr, 0) == KV_OK, "no exit");
}

int openDescriptors() {
  namespace fs = std::filesystem;
  return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// In a process of its own: the script without a failure, with it, and without again.
// Prints each function with its number of calls.
int runOne(char const* file, std::string const& function, long at, long count) {
  alarm(limitSeconds);
  void* const handle = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  g_Function = reinterpret_cast<int (*)(int, void*, int)>(dlsym(handle, "_Z9kv_StreamiPvi"));
  script(freePort(), true);
  int const before = openDescriptors();
  if (count > g_MaxTries) {
    g_MaxTries = 4 * count;
  }
  g_Arm(function.c_str(), at, count);
  script(freePort(), false);
  g_Disarm();
  library(KV_EXIT, nullptr, 0);
  script(freePort(), true);
  if (openDescriptors() > before) {
    std::fprintf(stderr, "%d descriptors are left\n", openDescriptors() - before);
    return 5;
  }
  for (int i = 0; g_Name(i) != nullptr; ++i) {
    std::cout << g_Name(i) << ' ' << g_Calls(i) << '\n';
  }
  return 0;
}

// Returns the output of the run; if it failed, prints why and returns nullopt.
std::optional<std::string> runApart(char const* self, char const* library, std::string const& function, long at,
                                    long count) {
  std::string const command = std::string("timeout -s ALRM ") + std::to_string(2 * limitSeconds) + " " + self + " " +
                              library + " one " + function + " " + std::to_string(at) + " " + std::to_string(count) +
                              " 2>&1";
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  char block[512];
  while (std::fgets(block, sizeof block, pipe) != nullptr) {
    output += block;
  }
  int const status = pclose(pipe);
  if (status != 0) {
    std::printf("FAILED: call %ld of %s (%ld in a row): status %d: %s\n", at, function.c_str(), count,
                WEXITSTATUS(status), output.c_str());
    return std::nullopt;
  }
  return output;
}

}  // namespace

int main(int argc, char** argv) {
  find(g_Arm, "kavo_inject_arm");
  find(g_Disarm, "kavo_inject_disarm");
  find(g_Name, "kavo_inject_name");
  find(g_Calls, "kavo_inject_calls");
  find(g_Enter, "kavo_inject_enter");
  if (argc < 3 || g_Arm == nullptr) {
    std::fprintf(stderr, "usage: LD_PRELOAD=libfailshim.so inject_sweep LIBRARY all|RUNS [FUNCTION]\n");
    return 2;
  }
  std::string const mode = argv[2];
  if (mode == "one") {
    g_Folder = std::filesystem::path(std::getenv("KAVO_STREAM_STATUS")).parent_path();
    return runOne(argv[1], argv[3], std::atol(argv[4]), std::atol(argv[5]));
  }
  // Every host reads a policy and has a status server.
  TemporaryFolder const folder;
  Variable const policy("KAVO_STREAM_CONFIG", folder.file("policy.toml"));
  Variable const status("KAVO_STREAM_STATUS", folder.file("%p"));
  std::ofstream(folder.file("policy.toml")) << "[access]\nallow = [\"127.0.0.0/8\"]\n[server]\nmax_viewers = 100\n";

  std::vector<std::pair<std::string, long>> calls;  // functions that were called at all
  std::istringstream counted(runApart(argv[0], argv[1], "none", 1, 1).value_or(""));
  for (auto [name, number] = std::pair(std::string(), 0L); counted >> name >> number;) {
    if (number > 0 && (argc < 4 || name == argv[3])) {
      calls.emplace_back(name, number);
    }
  }
  std::mt19937 random(static_cast<unsigned>(std::time(nullptr)));
  long const wanted = mode == "all" ? LONG_MAX : std::atol(mode.c_str());
  long runs = 0;
  long failed = 0;
  for (long round = 1, last = -1; runs < wanted && runs > last; ++round) {
    last = runs;
    for (auto const& [function, number] : calls) {
      long const at = mode == "all" ? round : 1 + static_cast<long>(random() % static_cast<unsigned long>(number));
      if (at <= number && runs < wanted) {
        long const kind = mode == "all" ? round % 7 : static_cast<long>(random() % 7);
        long const count = kind == 0 ? 30 : kind == 3 && function == "malloc" ? 100 : 1;
        failed += runApart(argv[0], argv[1], function, at, count) ? 0 : 1;
        ++runs;
      }
    }
  }
  std::printf("%ld runs, %ld failed\n", runs, failed);
  return failed == 0 && runs > 0 ? 0 : 1;
}
