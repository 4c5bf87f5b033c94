// The standard output of kavo-publish: text for people, or JSON for programs.
#pragma once

#include <deque>
#include <string>

#include "publication.h"

class Report {
 public:
  explicit Report(bool json);

  void introduce(std::deque<Publication> const& publications);
  // Prints a line for each stream; on a terminal it replaces the previous ones.
  void status(std::deque<Publication> const& publications);

 private:
  void line(std::string const& name, kavo::StreamStatus const& status) const;
  static void flush();

  bool m_Json;
  bool m_Terminal;
  bool m_Printed = false;
};
