#include "interface/cinterface.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <initializer_list>
#include <string>

#include "codec/codecparameter.h"
#include "kavo_stream.h"
#include "operate/journal.h"
#include "session/encodedsubsession.h"
#include "session/sessionmanager.h"

namespace kavo::impl {

namespace {

constexpr unsigned int defaultPort = 8554;

// Never destroyed, so that it remains usable during and after static destruction;
// g_ExitAtUnload releases its resources.
NoDestroy<SessionManager> g_SessionManager;

// Set in a child process forked while a server existed: it has the server's memory but not
// its thread, and its calls must not touch the parent's sockets. A host that forks before
// serving (a daemon) is not affected.
std::atomic<bool> g_InChild = false;

// Stops serving when the library is unloaded or the process exits.
struct ExitAtUnload : NonCopyable {
  ExitAtUnload() {
    pthread_atfork(nullptr, nullptr, [] { g_InChild = g_InChild || g_SessionManager->mayServe(); });
  }
  ~ExitAtUnload() {
    if (!g_InChild) {
      resultOf([] { g_SessionManager->exit(); }, [](char const*) {});
      g_Journal->close();
    }
  }
} const g_ExitAtUnload;

template <class Record>
Record& recordAt(void* param, int size) {
  if (size != static_cast<int>(sizeof(Record)) || param == nullptr) {
    throw StreamException("Invalid input parameter", ErrorInvalidParameter);
  }
  return *static_cast<Record*>(param);
}

template <std::size_t Size>
void requireTerminated(char const (&text)[Size]) {
  if (strnlen(text, Size) == Size) {
    throw StreamException("Invalid parameter", ErrorInvalidParameter);
  }
}

// The texts become lines of the SDP, where a line break would start another line.
template <std::size_t Size>
void requireText(char const (&text)[Size]) {
  requireTerminated(text);
  if (std::any_of(text, text + std::strlen(text), [](unsigned char c) { return c < 0x20 || c == 0x7F; })) {
    throw StreamException("Invalid parameter", ErrorInvalidParameter);
  }
}

template <std::size_t Size>
void copyTo(char (&field)[Size], std::string const& text) {
  std::size_t const length = std::min(text.size(), Size - 1);
  std::memcpy(field, text.data(), length);
  field[length] = '\0';
}

void streamInit(void* param, int size) {
  g_SessionManager->init(ValidateInput<unsigned int>(param, size, defaultPort));
}

void streamExit(void*, int) { g_SessionManager->exit(); }

void streamCreateSession(void* param, int size) {
  auto& record = recordAt<kv_session_record>(param, size);
  requireText(record.name);
  requireText(record.description);
  requireText(record.info);
  SessionManager::SessionInformation information;
  information.name = record.name;
  information.info = record.info;
  information.description = record.description;
  g_SessionManager->addSession(information);
  copyTo(record.url, information.url);
  record.handle = information.handle;
}

void streamRemoveSession(void* handle, int size) {
  if (size != static_cast<int>(sizeof handle) || handle == nullptr) {
    throw StreamException("Invalid input parameter", ErrorInvalidParameter);
  }
  g_SessionManager->removeSession(handle);
}

VideoCodecParameter parameterOf(kv_video_record const& record) {
  VideoCodecParameter parameter;
  parameter.m_MediaType = MediaTypeVideo;
  parameter.m_Bitrate = record.bitrate;
  parameter.m_DstWidth = record.dst_width;
  parameter.m_DstHeight = record.dst_height;
  parameter.m_SrcWidth = record.src_width;
  parameter.m_SrcHeight = record.src_height;
  parameter.m_FrameRate = record.frame_rate;
  parameter.m_SrcPixelFmt = record.src_pixel_format;
  parameter.m_DstPixelFmt = record.dst_pixel_format;
  parameter.m_DstCodecId = record.dst_codec;
  parameter.m_SrcCodecId = record.src_codec;
  return parameter;
}

void streamCreateStream(void* param, int size) {
  auto& record = recordAt<kv_stream_record>(param, size);
  if (record.media_type != KV_MEDIA_VIDEO || record.video == nullptr) {
    throw StreamException("Invalid parameter", ErrorInvalidParameter);
  }
  VideoCodecParameter const parameter = parameterOf(*record.video);
  g_SessionManager->addStream(record.handle, record.stream, &parameter);
}

void streamSubmitData(void* param, int size) {
  auto const& record = recordAt<kv_frame_record>(param, size);
  g_SessionManager->submitData(record.handle, record.stream, record.frame);
}

void streamCreateEncodedStream(void* param, int size) {
  auto& record = recordAt<kv_encoded_stream_record>(param, size);
  bool const hasSets = record.parameter_sets != nullptr && record.parameter_size > 0;
  bool const hasNone = record.parameter_sets == nullptr && record.parameter_size == 0;
  if (record.bitrate < 0 || (!hasSets && !hasNone)) {
    throw StreamException("Invalid parameter", ErrorInvalidParameter);
  }
  EncodedParameter parameter;
  parameter.m_Codec = record.codec;
  parameter.m_Bitrate = record.bitrate;
  parameter.m_ParameterSets = {record.parameter_sets, static_cast<std::size_t>(record.parameter_size)};
  g_SessionManager->addStream(record.handle, record.stream, &parameter);
}

void streamSubmitEncoded(void* param, int size) {
  auto& record = recordAt<kv_encoded_frame_record>(param, size);
  if (record.data == nullptr || record.size == 0 || record.size > EncodedFrame::largest || record.time_ns < 0) {
    throw StreamException("Invalid frame buffer", ErrorInvalidParameter);
  }
  EncodedFrame frame{.bytes = {record.data, record.size}, .captured = std::nullopt};
  if (record.time_ns > 0) {
    frame.captured.emplace(std::chrono::nanoseconds(record.time_ns));
  }
  record.wanted = g_SessionManager->submitEncoded(record.handle, record.stream, frame);
}

void streamGetStatus(void* param, int size) {
  auto& record = recordAt<kv_status_record>(param, size);
  g_SessionManager->status(record.handle, record.stream, record);
}

void streamGetInfo(void* param, int size) {
  auto& record = recordAt<kv_session_record>(param, size);
  SessionManager::SessionInformation information;
  information.handle = record.handle;
  g_SessionManager->sessionInfo(information);
  copyTo(record.name, information.name);
  copyTo(record.info, information.info);
  copyTo(record.description, information.description);
  copyTo(record.url, information.url);
}

}  // namespace

NoDestroy<FunctionTable const> const g_FunctionTable(std::initializer_list<FunctionTable::value_type>{
    {KV_INIT, streamInit},
    {KV_EXIT, streamExit},
    {KV_CREATE_SESSION, streamCreateSession},
    {KV_REMOVE_SESSION, streamRemoveSession},
    {KV_CREATE_STREAM, streamCreateStream},
    {KV_SUBMIT_FRAME, streamSubmitData},
    {KV_GET_INFO, streamGetInfo},
});

NoDestroy<FunctionTable const> const g_MoreFunctions(std::initializer_list<FunctionTable::value_type>{
    {KV_CREATE_ENCODED_STREAM, streamCreateEncodedStream},
    {KV_SUBMIT_ENCODED, streamSubmitEncoded},
    {KV_GET_STATUS, streamGetStatus},
});

NoDestroy<ErrorTable const> const g_ErrorTable(std::initializer_list<ErrorTable::value_type>{
    {ErrorInvalidParameter, KV_INVALID_PARAMETER},
    {ErrorResource, KV_RESOURCE_FAILURE},
    {ErrorCodec, KV_CODEC_FAILURE},
    {ErrorServerNotStarted, KV_NOT_STARTED},
    {ErrorAlreadyThere, KV_ALREADY_THERE},
    {ErrorNameInUse, KV_NAME_IN_USE},
    {ErrorNoStream, KV_UNKNOWN},
});

namespace {

void dispatch(int command, void* param, int size) {
  auto const& table = command < KV_CREATE_ENCODED_STREAM ? *g_FunctionTable : *g_MoreFunctions;
  auto const row = table.find(command);
  if (row == table.end()) {
    throw StreamException("Invalid input parameter", ErrorInvalidParameter);
  }
  if (g_InChild && command != KV_EXIT) {
    throw StreamException("RTSP server is the parent process's", ErrorResource);
  }
  if (!g_InChild) {
    row->second(param, size);
  }
}

}  // namespace

}  // namespace kavo::impl

__attribute__((visibility("default"))) int kv_Stream(int command, void* param, int size) {
  kavo::impl::prepareForExceptions();
  return kavo::impl::resultOf([=] { kavo::impl::dispatch(command, param, size); },
                              [](char const* text) { kavo::impl::g_Journal->failed(text); });
}
