#include "ownpage.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "options.h"
#include "status/statusreader.h"

OwnPage::OwnPage() {
  char const* const given = std::getenv("KAVO_STREAM_STATUS");
  if (given != nullptr && *given != '\0') {
    m_File = statusFileOf(getpid());
    return;
  }
  char const* const runtime = std::getenv("XDG_RUNTIME_DIR");
  std::string folder = (runtime != nullptr ? std::string(runtime) : "/tmp") + "/kavo-publish-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    throw Failure("cannot make a folder like '" + folder + "': " + std::strerror(errno) +
                  "; set XDG_RUNTIME_DIR to a folder of yours");
  }
  m_Folder = folder;
  m_File = m_Folder + "/status";
  setenv("KAVO_STREAM_STATUS", m_File.c_str(), 1);
}

OwnPage::~OwnPage() {
  if (!m_Folder.empty()) {
    std::error_code none;
    std::filesystem::remove_all(m_Folder, none);
  }
}

std::unique_ptr<kv_status_page> OwnPage::read() const {
  try {
    return readStatus(m_File);
  } catch (StatusError const&) {
    return nullptr;
  }
}
