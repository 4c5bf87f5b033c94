// Serves the status over HTTP: as JSON, as metrics and as a page. Event-loop thread.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "base/uniquefd.h"
#include "eventloop/loophandles.h"
#include "operate/descriptors.h"
#include "operate/statustext.h"

namespace kavo::impl {

class StatusServer : NonCopyable {
 public:
  // The address is IPV4:PORT, [IPV6]:PORT or the path of a socket, in which %p stands for the process
  // id. If it cannot listen there, prints a line on standard error and returns null.
  static std::unique_ptr<StatusServer> createNew(TaskScheduler& scheduler, std::string address,
                                                 std::shared_ptr<DescriptorBudget> descriptors,
                                                 std::function<ServerFigures()> figures) KAVO_REQUIRES(eventLoopRole);
  ~StatusServer();

 private:
  struct Connection;

  StatusServer(TaskScheduler& scheduler, UniqueFd socket, std::string path,
               std::shared_ptr<DescriptorBudget> descriptors, std::function<ServerFigures()> figures)
      KAVO_REQUIRES(eventLoopRole);

  void accept() KAVO_REQUIRES(eventLoopRole);
  void handle(Connection& connection, int conditions) KAVO_REQUIRES(eventLoopRole);
  std::string answerTo(std::string_view header) KAVO_REQUIRES(eventLoopRole);
  void end(Connection& connection) KAVO_REQUIRES(eventLoopRole);

  TaskScheduler& m_Scheduler;
  UniqueFd const m_Socket;
  std::string const m_Path;  // of the socket to remove; empty for TCP
  std::shared_ptr<DescriptorBudget> const m_Descriptors;
  std::function<ServerFigures()> const m_Figures;
  SocketWatch m_Watch;
  Timer m_AcceptAgain;
  std::list<std::unique_ptr<Connection>> m_Connections KAVO_GUARDED_BY(eventLoopRole);
};

}  // namespace kavo::impl
