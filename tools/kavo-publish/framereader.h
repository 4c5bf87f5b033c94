// Turns the packets of an input into the frames to publish: decodes them, or copies them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "ffmpeg.h"
#include "options.h"
#include "uprightframes.h"

class FrameReader {
 public:
  virtual ~FrameReader() = default;

  // Prepares for the packets of this stream, which the codec decodes; called again if the input is
  // reopened. title names the input in messages. Throws Failure.
  virtual void open(AVStream const& stream, AVCodec const& codec, std::string const& title) = 0;
  // Null means that there are no more packets.
  virtual void send(AVPacket* packet) = 0;
  // 0 or FFmpeg's error; AVERROR(EAGAIN) if it needs another packet.
  virtual int receive() = 0;
  // The frame received, valid until the next call; and its time in the stream's time base, or
  // AV_NOPTS_VALUE.
  virtual std::span<std::uint8_t const> frame() = 0;
  virtual std::int64_t time() const = 0;
  // Call after rewinding the input.
  virtual void restart() = 0;

  virtual Size size() const = 0;
};

// Decodes to raw frames, upright and with square pixels.
class DecodingReader : public FrameReader {
 public:
  void open(AVStream const& stream, AVCodec const& codec, std::string const& title) override;
  void send(AVPacket* packet) override { avcodec_send_packet(m_Decoder.get(), packet); }
  int receive() override { return avcodec_receive_frame(m_Decoder.get(), m_Frame.get()); }
  std::span<std::uint8_t const> frame() override { return m_Frames.pack(*m_Frame); }
  std::int64_t time() const override { return m_Frame->best_effort_timestamp; }
  void restart() override { avcodec_flush_buffers(m_Decoder.get()); }
  Size size() const override { return m_Frames.size(); }

  kavo::PixelFormat pixelFormat() const { return m_Frames.hostFormat(); }
  // See UprightFrames.
  void convertForJpeg(Size size) { m_Frames.convertForJpeg(size); }

 private:
  CPtr<AVCodecContext, avcodec_free_context> m_Decoder;
  CPtr<AVFrame, av_frame_free> m_Frame{av_frame_alloc()};
  UprightFrames m_Frames;
};

// Passes on encoded frames in the form that the library accepts.
class CopyingReader : public FrameReader {
 public:
  void open(AVStream const& stream, AVCodec const& codec, std::string const& title) override;
  void send(AVPacket* packet) override { av_bsf_send_packet(m_Filter.get(), packet); }
  int receive() override;
  std::span<std::uint8_t const> frame() override;
  std::int64_t time() const override { return m_Packet->pts; }
  void restart() override;
  Size size() const override { return {parameters().width, parameters().height}; }

  // The bitrate (0: unknown) and the parameter sets of the input.
  kavo::EncodedOptions const& options() const { return m_Options; }

 private:
  AVCodecParameters const& parameters() const { return *m_Filter->par_out; }
  [[noreturn]] void refuse(std::string const& reason) const;
  void check() const;

  std::string m_Title;
  kavo::EncodedOptions m_Options;
  CPtr<AVBSFContext, av_bsf_free> m_Filter;
  CPtr<AVPacket, av_packet_free> m_Packet{av_packet_alloc()};
  std::int64_t m_LastTime = AV_NOPTS_VALUE;
};
