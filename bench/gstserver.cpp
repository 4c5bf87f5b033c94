#include <gst/app/gstappsrc.h>
#include <gst/rtsp-server/rtsp-server.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "server.h"

namespace {

class GstServer : public BenchServer {
 public:
  explicit GstServer(Setup const& setup) {
    gst_init(nullptr, nullptr);
    m_Loop = g_main_loop_new(nullptr, FALSE);
    m_Server = gst_rtsp_server_new();
    gst_rtsp_server_set_service(m_Server, std::to_string(setup.port).c_str());
    GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(m_Server);
    for (int i = 0; i < setup.streams; ++i) {
      GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
      gst_rtsp_media_factory_set_launch(
          factory,
          "( appsrc name=source is-live=true format=time do-timestamp=true caps=image/jpeg,framerate=25/1,"
          "width=640,height=480 ! rtpjpegpay name=pay0 pt=26 mtu=1456 )");
      gst_rtsp_media_factory_set_shared(factory, TRUE);
      g_signal_connect(factory, "media-configure", G_CALLBACK(onConfigure), this);
      gst_rtsp_mount_points_add_factory(mounts, ("/" + std::to_string(i)).c_str(), factory);
    }
    g_object_unref(mounts);
    gst_rtsp_server_attach(m_Server, nullptr);
    m_Thread = std::thread([this] { g_main_loop_run(m_Loop); });
  }

  ~GstServer() override {
    g_main_loop_quit(m_Loop);
    m_Thread.join();
  }

  void push(std::span<std::uint8_t const> image) override {
    std::lock_guard const lock(m_Mutex);
    for (GstAppSrc* source : m_Sources) {
      GstBuffer* buffer = gst_buffer_new_allocate(nullptr, image.size(), nullptr);
      gst_buffer_fill(buffer, 0, image.data(), image.size());
      gst_app_src_push_buffer(source, buffer);
    }
  }

 private:
  static void onConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer server) {
    auto* self = static_cast<GstServer*>(server);
    GstElement* element = gst_rtsp_media_get_element(media);
    auto* source = GST_APP_SRC(gst_bin_get_by_name_recurse_up(GST_BIN(element), "source"));
    gst_object_unref(element);
    g_signal_connect(media, "unprepared", G_CALLBACK(onUnprepared), server);
    g_object_set_data(G_OBJECT(media), "source", source);
    std::lock_guard const lock(self->m_Mutex);
    self->m_Sources.insert(source);
  }

  static void onUnprepared(GstRTSPMedia* media, gpointer server) {
    auto* self = static_cast<GstServer*>(server);
    std::lock_guard const lock(self->m_Mutex);
    self->m_Sources.erase(static_cast<GstAppSrc*>(g_object_get_data(G_OBJECT(media), "source")));
  }

  GMainLoop* m_Loop;
  GstRTSPServer* m_Server;
  std::thread m_Thread;
  std::mutex m_Mutex;
  std::set<GstAppSrc*> m_Sources;
};

}  // namespace

std::unique_ptr<BenchServer> makeGstServer(BenchServer::Setup const& setup) {
  return std::make_unique<GstServer>(setup);
}
