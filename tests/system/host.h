// A host program: loads the built library, serves on a free port, and submits
// frames on a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "system/records.h"
#include "system/surroundings.h"

class Host {
 public:
  struct Stream {
    kv_frame_record record{};
    std::vector<std::uint8_t> frame;  // scrolls if it has more rows than a frame
    std::size_t frameSize = 0;
    int height = 0;
  };

  // With a port: another Host has started the server on it.
  explicit Host(std::uint32_t port = 0);
  ~Host();
  Host(Host const&) = delete;
  Host& operator=(Host const&) = delete;

  int call(int command, void* param, int size) { return m_Function(command, param, size); }
  template <class Record>
  int call(int command, Record& record) {
    return call(command, &record, static_cast<int>(sizeof record));
  }

  // Starts the server on a free port, or on the given one.
  void serve();
  int serveOn(std::uint32_t port);
  std::uint32_t port() const { return m_Port; }
  // Ends the server and its streams.
  int exit();

  // Creates a session with one stream of frames in BGR24. startSubmitting() submits its frames, all streams
  // together every 30 ms.
  Stream& publish(std::string const& name, int codec = KV_CODEC_MJPEG, int width = 320, int height = 240,
                  int bitrate = 800000);
  void startSubmitting();
  // Starts the server with one stream, and submits its frames.
  void serveLive(std::string const& name, int codec = KV_CODEC_MJPEG);
  void stopSubmitting();
  // How often all streams have been submitted to.
  int submitted() const { return m_Submitted; }
  int failedSubmits() const { return m_FailedSubmits; }

  std::string url(std::string const& name, std::string const& address = "127.0.0.1") const;

 private:
  void* m_Library;
  int (*m_Function)(int, void*, int);
  std::uint32_t m_Port = 0;
  std::vector<std::unique_ptr<Stream>> m_Streams;
  std::thread m_Submitter;
  std::atomic<bool> m_Submitting = false;
  std::atomic<int> m_Submitted = 0;
  std::atomic<int> m_FailedSubmits = 0;
};
