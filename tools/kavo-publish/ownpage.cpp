#include "ownpage.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "status/statusreader.h"

OwnPage::OwnPage() {
  char const* const given = std::getenv("KAVO_STREAM_STATUS");
  if (given != nullptr && *given != '\0') {
    m_File = statusFileOf(getpid());
    return;
  }
  std::error_code none;
  std::string folder = (std::filesystem::temp_directory_path(none) / "kavo-publish-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    return;
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
