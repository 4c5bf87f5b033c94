// A stream of frames that the host has encoded. Host threads, one at a time, under the
// session's lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "codec/codecparameter.h"
#include "rtp/accessunit.h"
#include "session/isubsession.h"

class ServerMediaSession;
struct AVPacket;

namespace kavo::impl {

class EncodedParameter : public ICodecParameter {
 public:
  std::int32_t m_Codec = 0;  // the host's number; the bitrate is in kbit/s, 0 where unknown
  std::span<std::uint8_t const> m_ParameterSets;
};

class EncodedSubSession : public ISubSession {
 public:
  // Adds its demand session to the media session last. Throws for unsupported codecs and for
  // parameter sets that cannot be read.
  EncodedSubSession(StreamEnvironment const& env, ServerMediaSession& media, std::string const& name,
                    EncodedParameter const& parameter);

  std::uint32_t submitEncoded(EncodedFrame const& frame) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct Format;

  static Format const& formatOf(std::int32_t codec);

  std::uint32_t wanted(Clock::time_point now) const;
  void queue(EncodedFrame const& frame, Clock::time_point now);
  AccessUnit read(std::span<std::uint8_t const> bytes);
  void copy(std::span<std::uint8_t const> bytes, AccessUnit const& unit, AVPacket& packet) const;
  Clock::time_point timeOf(EncodedFrame const& frame, Clock::time_point now) const;

  Format const& m_Format;
  std::unique_ptr<ParameterSets> m_ParameterSets;  // JPEG has none
  Clock::time_point m_LastTime{};
  bool m_IsBroken = false;  // a frame was dropped that the next ones refer to
};

}  // namespace kavo::impl
