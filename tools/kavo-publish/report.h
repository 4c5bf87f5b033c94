// What kavo-publish prints on standard output: text for people, or JSON for programs.
#pragma once

#include <kavo_status.h>

#include <deque>
#include <map>
#include <string>

#include "publication.h"

class Report {
 public:
  explicit Report(bool json);

  void introduce(std::deque<Publication> const& publications);
  // A line a stream, which renews itself on a terminal; nothing without a page.
  void status(std::deque<Publication> const& publications, kv_status_page const* page);

 private:
  // What the page says of one stream.
  struct Figures {
    kv_status_stream stream{};
    unsigned viewers = 0;
    double loss = 0;          // the worst of any viewer's, of its packets
    double milliseconds = 0;  // to encode a frame, since the last status
  };

  Figures figuresOf(std::string const& name, kv_status_page const& page);
  void line(std::string const& name, Figures const& figures) const;
  static void flush();

  bool m_Json;
  bool m_Terminal;
  bool m_Printed = false;
  std::map<std::string, kv_status_stream> m_Before;  // by name
};
