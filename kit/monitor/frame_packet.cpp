#include "monitor/frame_packet.h"

#include <ptz_socket_frame.h>

using namespace ptz_kit;

GType ptz_kit_frame_direction_get_type(void) {
  static gsize type;
  static constexpr GEnumValue values[] = {{PTZ_KIT_FRAME_REQUEST, "PTZ_KIT_FRAME_REQUEST", "request"},
                                          {PTZ_KIT_FRAME_REPLY, "PTZ_KIT_FRAME_REPLY", "reply"},
                                          {0, nullptr, nullptr}};
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("PTZKitFrameDirection", values));
  return type;
}

G_DEFINE_BOXED_TYPE(PTZKitMonitorFrame, ptz_kit_monitor_frame, ptz_kit_monitor_frame_copy, ptz_kit_monitor_frame_free)

PTZKitMonitorFrame *ptz_kit_monitor_frame_copy(const PTZKitMonitorFrame *frame) {
  g_return_val_if_fail(frame != NULL, NULL);
  auto *copy = g_new(PTZKitMonitorFrame, 1);
  *copy = *frame;
  copy->program = g_strdup(frame->program);
  copy->body = frame->body != nullptr ? g_bytes_ref(frame->body) : nullptr;
  return copy;
}

void ptz_kit_monitor_frame_free(PTZKitMonitorFrame *frame) {
  if (frame == nullptr) return;
  g_free(frame->program);
  if (frame->body != nullptr) g_bytes_unref(frame->body);
  g_free(frame);
}

namespace ptz_kit {

MonitorFrame read_frame(const PacketHeader &header, PacketReader &reader) {
  MonitorFrame frame(g_new0(PTZKitMonitorFrame, 1));
  frame->time_ns = reader.get<gint64>();
  frame->latency_ns = reader.get<gint64>();
  frame->lost = reader.get<guint64>();
  frame->client = reader.get<guint32>();
  frame->pid = reader.get<gint32>();
  frame->uid = reader.get<guint32>();
  frame->message_id = reader.get<guint32>();
  const std::string_view program = reader.text();
  if (reader.failed() || reader.left() > PTZ_SOCKET_BODY_MAX) return nullptr;
  const auto body = reader.rest();
  frame->direction = (header.flags & frame_is_reply) != 0 ? PTZ_KIT_FRAME_REPLY : PTZ_KIT_FRAME_REQUEST;
  frame->past = (header.flags & frame_is_past) != 0 ? TRUE : FALSE;
  frame->unsent = (header.flags & frame_is_unsent) != 0 ? TRUE : FALSE;
  frame->program = g_utf8_make_valid(program.data(), static_cast<gssize>(program.size()));
  frame->body = g_bytes_new(body.data(), body.size());
  return frame;
}

}  // namespace ptz_kit
