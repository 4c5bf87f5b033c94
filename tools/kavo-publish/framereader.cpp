#include "framereader.h"

#include <algorithm>
#include <iterator>

#include "rtp/accessunit.h"
#include "rtp/jpegimage.h"

namespace {

struct Copied {
  AVCodecID id;
  kavo::Codec codec;
  char const* filter;  // to the form that the library takes
};

constexpr Copied copied[] = {{AV_CODEC_ID_H264, kavo::Codec::H264, "h264_mp4toannexb"},
                             {AV_CODEC_ID_HEVC, kavo::Codec::H265, "hevc_mp4toannexb"},
                             {AV_CODEC_ID_MJPEG, kavo::Codec::Jpeg, "null"}};

}  // namespace

void DecodingReader::open(AVStream const& stream, AVCodec const& codec, std::string const& title) {
  m_Decoder.reset(avcodec_alloc_context3(&codec));
  avcodec_parameters_to_context(m_Decoder.get(), stream.codecpar);
  m_Decoder->thread_count = 0;
  if (avcodec_open2(m_Decoder.get(), &codec, nullptr) < 0 || m_Decoder->width <= 0) {
    throw Failure("FFmpeg cannot decode the video of " + title + ": choose another input");
  }
  m_Frames.setUp(stream, *m_Decoder);
}

void CopyingReader::refuse(std::string const& reason) const {
  throw Failure(m_Title + " cannot be copied: " + reason + "; leave --copy out to re-encode it");
}

void CopyingReader::open(AVStream const& stream, AVCodec const& codec, std::string const& title) {
  m_Title = title;
  auto const* const format = std::ranges::find(copied, codec.id, &Copied::id);
  if (format == std::end(copied)) {
    refuse(std::string("it is ") + codec.name + ", not H.264, H.265 or MJPEG");
  }
  if (stream.codecpar->video_delay > 0) {
    refuse("it has B-frames");
  }
  AVBSFContext* filter = nullptr;
  av_bsf_alloc(av_bsf_get_by_name(format->filter), &filter);
  m_Filter.reset(filter);
  avcodec_parameters_copy(filter->par_in, stream.codecpar);
  filter->time_base_in = stream.time_base;
  if (av_bsf_init(filter) < 0) {
    refuse("FFmpeg cannot read its parameter sets");
  }
  m_LastTime = AV_NOPTS_VALUE;
  m_Options.codec = format->codec;
  m_Options.kilobitsPerSecond = static_cast<int>(std::max<std::int64_t>(0, parameters().bit_rate / 1000));
  auto const* const sets = parameters().extradata;
  m_Options.parameterSets.clear();
  if (format->codec != kavo::Codec::Jpeg && sets != nullptr) {
    m_Options.parameterSets.assign(sets, sets + parameters().extradata_size);
  }
}

int CopyingReader::receive() {
  av_packet_unref(m_Packet.get());
  int const received = av_bsf_receive_packet(m_Filter.get(), m_Packet.get());
  if (received < 0) {
    return received;
  }
  std::int64_t const time = m_Packet->pts;
  if (time != AV_NOPTS_VALUE && m_LastTime != AV_NOPTS_VALUE && time < m_LastTime) {
    refuse("it has B-frames");
  }
  m_LastTime = time;
  return received;
}

void CopyingReader::restart() {
  av_bsf_flush(m_Filter.get());
  m_LastTime = AV_NOPTS_VALUE;
}

std::span<std::uint8_t const> CopyingReader::frame() {
  check();
  return {m_Packet->data, static_cast<std::size_t>(m_Packet->size)};
}

// The library would refuse it too, but not say why.
void CopyingReader::check() const {
  std::span const bytes(m_Packet->data, static_cast<std::size_t>(m_Packet->size));
  try {
    if (m_Options.codec == kavo::Codec::Jpeg) {
      kavo::impl::JpegImage const image(bytes);
    } else {
      kavo::impl::ParameterSets(m_Options.codec == kavo::Codec::H264 ? kavo::impl::NalCodec::H264
                                                                     : kavo::impl::NalCodec::H265)
          .learn(bytes);
    }
  } catch (kavo::impl::UnusableFrame const& reason) {
    refuse(reason.what());
  }
}
