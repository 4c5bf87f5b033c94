// bench_gstfile PORT FILE: serves an H.264 file with gst-rtsp-server, without encoding, until it is killed.
#include <gst/rtsp-server/rtsp-server.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_gstfile PORT FILE\n");
    return 2;
  }
  gst_init(nullptr, nullptr);
  GstRTSPServer* const server = gst_rtsp_server_new();
  gst_rtsp_server_set_service(server, argv[1]);
  GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
  std::string const pipeline = std::string("( filesrc location=") + argv[2] + " ! parsebin ! rtph264pay name=pay0 )";
  gst_rtsp_media_factory_set_launch(factory, pipeline.c_str());
  gst_rtsp_mount_points_add_factory(gst_rtsp_server_get_mount_points(server), "/kavo", factory);
  gst_rtsp_server_attach(server, nullptr);
  std::printf("serving\n");
  std::fflush(stdout);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
