// The status page of this process's library, which tells what became of the frames.
#pragma once

#include <kavo_status.h>

#include <memory>
#include <string>

class OwnPage {
 public:
  // Before the server starts: has the library make a page, in a folder that goes away
  // with this object, unless KAVO_STREAM_STATUS names one already. Without a place for
  // one there is none.
  OwnPage();
  ~OwnPage();
  OwnPage(OwnPage const&) = delete;
  OwnPage& operator=(OwnPage const&) = delete;

  // Null where there is none, or it cannot be read.
  std::unique_ptr<kv_status_page> read() const;

 private:
  std::string m_Folder;  // empty: the page is the user's
  std::string m_File;
};
