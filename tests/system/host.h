// A host program: loads the built library, serves on a free port and submits
// frames from a thread of its own.
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
    std::string name;
    kv_frame_record record{};
    std::vector<std::uint8_t> frame;  // with more rows than a frame of a packed format has, it scrolls
    std::size_t frameSize = 0;
    int width = 0;
    int height = 0;
  };

  // Whose server another one has started on the port, if given.
  explicit Host(std::uint32_t port = 0);
  ~Host();
  Host(Host const&) = delete;
  Host& operator=(Host const&) = delete;

  int call(int command, void* param, int size) { return m_Function(command, param, size); }
  template <class Record>
  int call(int command, Record& record) {
    return call(command, &record, static_cast<int>(sizeof record));
  }

  // Serves on a free port, or on the one given.
  void serve();
  int serveOn(std::uint32_t port);
  std::uint32_t port() const { return m_Port; }
  // Ends serving; the streams are gone with it.
  int exit();

  // A session with one stream of the test pattern; its frames are submitted
  // from startSubmitting() on, all streams at once every few milliseconds. Its
  // encoded frames are of the same size, or square with that many pixels a side.
  Stream& publish(std::string const& name, int format = KV_BGR24, int codec = KV_CODEC_MJPEG, int width = 320,
                  int height = 240, int bitrate = 800000, int publishedSize = 0);
  void startSubmitting();
  // All of it: serves one stream of the test pattern, and submits its frames.
  void serveLive(std::string const& name, int codec = KV_CODEC_MJPEG);
  void stopSubmitting();
  // Rounds of frames submitted so far.
  int submitted() const { return m_Submitted; }
  int failedSubmits() const { return m_FailedSubmits; }

  // Of all streams published.
  std::vector<std::string> names() const;
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
