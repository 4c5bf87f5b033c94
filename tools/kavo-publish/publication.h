// Publishes one input as a stream, on its own thread.
#pragma once

#include <atomic>
#include <exception>
#include <kavo/stream.hpp>
#include <memory>
#include <span>
#include <string>
#include <thread>

#include "formats.h"
#include "input.h"
#include "options.h"

class Publication {
 public:
  // Opens the input and creates its session and stream. note is called with remarks. Throws Failure.
  Publication(kavo::Server& server, Options const& options, Options::Input const& input, std::atomic<bool>& stop,
              Note const& note);
  // Waits for the thread; set stop before.
  ~Publication();
  Publication(Publication const&) = delete;
  Publication& operator=(Publication const&) = delete;

  // Starts submitting frames when they are due, until the input ends or stop becomes true. Sets stop
  // if something fails.
  void start();
  bool isRunning() const { return m_Running; }
  // Call after the thread has ended: rethrows its failure, if any.
  void rethrow() const;

  std::string const& name() const { return m_Name; }
  std::string const& source() const { return m_Source; }
  std::string url() const { return m_Session.url(); }
  kavo::StreamStatus status() const { return m_Stream ? m_Stream->status() : m_EncodedStream->status(); }
  CodecInfo const& codec() const { return *m_Codec; }
  // The size of the published frames.
  Size size() const { return {m_Video.outputWidth, m_Video.outputHeight}; }
  double frameRate() const { return m_Input.frameRate(); }
  std::int64_t bitsPerSecond() const { return m_Video.bitsPerSecond; }

 private:
  kavo::VideoOptions videoFor(CodecInfo const& codec, Options const& options) const;
  void createStream(Options const& options, Note const& note);
  void createCopy(CopyingReader const& input);
  bool takesUsualBitrate(Options options);
  void run();
  void submit(std::span<std::uint8_t const> frame);

  std::string m_Name;
  std::string m_Source;
  std::atomic<bool>& m_Stop;
  Input m_Input;
  kavo::Session m_Session;
  kavo::VideoOptions m_Video;
  CodecInfo const* m_Codec = nullptr;
  // One of these is set.
  std::unique_ptr<kavo::Stream> m_Stream;
  std::unique_ptr<kavo::EncodedStream> m_EncodedStream;

  std::exception_ptr m_Failure;
  std::atomic<bool> m_Running = false;
  std::thread m_Thread;
};
