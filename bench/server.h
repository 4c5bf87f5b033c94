// A server under measurement: publishes frames that were encoded before.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

class BenchServer {
 public:
  struct Setup {
    std::uint16_t port;
    int streams;  // named 0, 1, ...
    int viewers;  // of the kernel's floor, which has no RTSP
  };

  virtual ~BenchServer() = default;
  // Hands one encoded JPEG image to every stream.
  virtual void push(std::span<std::uint8_t const> image) = 0;
};

// This library's delivery, and the same on live555 as it comes.
std::unique_ptr<BenchServer> makeOurServer(BenchServer::Setup const& setup);
std::unique_ptr<BenchServer> makeStockServer(BenchServer::Setup const& setup);
// gst-rtsp-server: appsrc, shared media.
std::unique_ptr<BenchServer> makeGstServer(BenchServer::Setup const& setup);
// Nothing but sendto: as many packets of the same size to as many sockets.
std::unique_ptr<BenchServer> makeFloorServer(BenchServer::Setup const& setup);
