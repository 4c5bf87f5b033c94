// Owners for FFmpeg's objects, and its errors as text.
#pragma once

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
}

template <auto Free>
struct Freed {
  template <class T>
  void operator()(T* object) const {
    Free(&object);
  }
};

template <class T, auto Free>
using CPtr = std::unique_ptr<T, Freed<Free>>;

inline std::string reasonOf(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  return text;
}
