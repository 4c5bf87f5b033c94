// A server to measure: it publishes frames that are already encoded.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

class BenchServer {
 public:
  struct Setup {
    std::uint16_t port;
    int streams;  // named 0, 1, ...
    int viewers;  // only for floorServer, which has no RTSP
  };

  virtual ~BenchServer() = default;
  // Pushes an encoded JPEG image to every stream.
  virtual void push(std::span<std::uint8_t const> image) = 0;
};

// This library's delivery, and unmodified live555.
std::unique_ptr<BenchServer> makeOurServer(BenchServer::Setup const& setup);
std::unique_ptr<BenchServer> makeStockServer(BenchServer::Setup const& setup);
// gst-rtsp-server: appsrc, shared media.
std::unique_ptr<BenchServer> makeGstServer(BenchServer::Setup const& setup);
// Only sendto: the same number and size of packets to the same number of sockets.
std::unique_ptr<BenchServer> makeFloorServer(BenchServer::Setup const& setup);
