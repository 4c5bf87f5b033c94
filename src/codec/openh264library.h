// The OpenH264 shared library, loaded when an encoder needs it. Host thread.
#pragma once

#include <wels/codec_api.h>

#include <memory>

namespace kavo::impl {

class OpenH264Library {
 public:
  // Throws "OpenH264 library initialization failed failed" unless a library can be
  // loaded that has the functions and the version of the header used at compile time.
  OpenH264Library();

  using DestroyEncoder = decltype(&WelsDestroySVCEncoder);
  using Encoder = std::unique_ptr<ISVCEncoder, DestroyEncoder>;

  // Throws "SVCEncoder creation failed".
  Encoder createEncoder() const;

 private:
  bool open(char const* name);

  decltype(&WelsCreateSVCEncoder) m_CreateEncoder;
  DestroyEncoder m_DestroyEncoder;
};

}  // namespace kavo::impl
