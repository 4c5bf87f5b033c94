#include "codec/openh264library.h"

#include <dlfcn.h>
#include <wels/codec_ver.h>

#include "base/streamexception.h"

namespace kavo::impl {

namespace {

template <class Function>
Function lookUp(void* library, char const* name) {
  return reinterpret_cast<Function>(dlsym(library, name));
}

// Other versions have a different vtable and struct layout behind the same names.
bool isOurGeneration(decltype(&WelsGetCodecVersionEx) getVersion) {
  OpenH264Version version{};
  getVersion(&version);
  return version.uMajor == OPENH264_MAJOR && version.uMinor == OPENH264_MINOR;
}

// The development package installs the first name, the run-time package only the second.
constexpr char const* names[] = {"libopenh264.so", "libopenh264.so.8"};

}  // namespace

OpenH264Library::OpenH264Library() {
  for (char const* name : names) {
    if (open(name)) {
      return;
    }
  }
  throw StreamException("OpenH264 library initialization failed failed", ErrorCodec);
}

bool OpenH264Library::open(char const* name) {
  // Never closed: it has unique symbols and so stays loaded anyway, and the last encoder
  // may be destroyed while this library is being unloaded, when closing such a library
  // makes the loader abort the process.
  void* const library = dlopen(name, RTLD_LAZY | RTLD_LOCAL);
  if (library == nullptr) {
    return false;
  }
  m_CreateEncoder = lookUp<decltype(m_CreateEncoder)>(library, "WelsCreateSVCEncoder");
  m_DestroyEncoder = lookUp<DestroyEncoder>(library, "WelsDestroySVCEncoder");
  auto const getVersion = lookUp<decltype(&WelsGetCodecVersionEx)>(library, "WelsGetCodecVersionEx");
  return m_CreateEncoder != nullptr && m_DestroyEncoder != nullptr && getVersion != nullptr &&
         isOurGeneration(getVersion);
}

OpenH264Library::Encoder OpenH264Library::createEncoder() const {
  ISVCEncoder* encoder = nullptr;
  int const failed = m_CreateEncoder(&encoder);
  Encoder owned(encoder, m_DestroyEncoder);
  if (failed != 0 || !owned) {
    throw StreamException("SVCEncoder creation failed", ErrorCodec);
  }
  return owned;
}

}  // namespace kavo::impl
