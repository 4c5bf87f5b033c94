// What kavo-publish prints on standard output: text for people, or JSON for programs.
#pragma once

#include <deque>

#include "channel.h"

class Report {
 public:
  explicit Report(bool json);

  void introduce(std::deque<Channel> const& channels);
  // A line a stream, which renews itself on a terminal.
  void status(std::deque<Channel>& channels);

 private:
  void line(Channel const& channel, Channel::Figures const& figures) const;

  bool m_Json;
  bool m_Terminal;
  bool m_Printed = false;
};
