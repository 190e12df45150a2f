// kit/driver/driver_core.h - the private state of a PTZKitDriver.
//
// Everything runs in the default main context's thread. A request arrives in on_request(), which makes its reply object
// and hands both to dispatch() (dispatch.cpp); answers come back through deliver(), at once or later. stop() answers
// the replies that are pending before the server goes, because a reply's context belongs to the server.
#pragma once
#include <ptz_kit_body.h>
#include <ptz_kit_driver.h>
#include <ptz_kit_replies.h>
#include <ptz_socket_server_command.h>

#include <memory>
#include <string>
#include <vector>

#include "driver/axes.h"
#include "driver/listener.h"
#include "driver/monitor_server.h"
#include "driver/pending_replies.h"
#include "driver/preset_store.h"
#include "driver/published_status.h"
#include "driver/reply.h"
#include "driver/reply_sender.h"
#include "driver/settings.h"
#include "handles.h"
#include "registry/registration.h"

namespace ptz_kit {

inline constexpr char protocol_version[] = G_STRINGIFY(PTZ_KIT_PROTOCOL_VERSION);
inline constexpr guint default_reply_deadline_ms = 30'000;

struct Capabilities {
  guint32 move = 0;
  guint32 extra = 0;
};

class DriverCore final : public ReplyTarget, public MonitoredDriver {
  Accounting accounting_;
  MonitorServer monitor_{*this};
  gint64 started_ns_ = 0;
  std::string program_, resolved_path_;
  PendingReplies pending_;
  ReplySender sender_;
  Registration registration_;
  Listener listener_{registration_, monitor_, on_request, this};
  std::unique_ptr<PublishedStatus> status_;
  Timer publish_timer_;
  gint32 publish_rate_ = 0;
  guint end_source_ = 0;
  bool open_ = false;
  bool serving_ = false;

  static gboolean on_request(gpointer core, gpointer reply_context, gpointer data, guint32 length);
  static gboolean on_publish(gpointer core);
  static gboolean on_end(gpointer core);
  void log_request(gint32 command, std::span<const guint8> body) const;
  void follow_orders(gint32 command, bool refused);
  void set_publish_rate();
  void reported(bool moved, bool knowledge_changed);
  bool claim(GError **error);
  [[nodiscard]] Request request_from(gpointer reply_context, std::span<const guint8> body);
  void count_reply(const Request &request, guint32 message_id, std::span<const guint8> body, gint64 now_ns, bool sent);

 public:
  explicit DriverCore(PTZKitDriver *driver) : object(driver) {}
  DriverCore(const DriverCore &) = delete;
  ~DriverCore() { stop_serving(); }

  PTZKitDriver *object;
  std::string name = "driver", socket_path, preset_file;
  std::vector<std::string> device_types;
  std::vector<const GOptionEntry *> option_entries;
  guint instance = 0;
  guint reply_deadline_ms = default_reply_deadline_ms;  // 0: none
  bool keep_presets = true, verbose = false;
  Axes axes;
  Settings settings;
  PresetStore presets;
  Capabilities added, removed;
  bool going_to_preset = false;
  guint32 flags = 0;  // those that are on, by PublishedStatus::flag_bit()

  [[nodiscard]] const PTZKitDriverClass &slots() const { return *PTZ_KIT_DRIVER_GET_CLASS(object); }
  [[nodiscard]] bool can_move() const { return slots().move != nullptr && axes_set(axes) != 0; }
  [[nodiscard]] bool keeps_presets() const { return keep_presets && can_move(); }

  [[nodiscard]] bool is_started() const { return open_; }
  bool start(GError **error);
  void stop();
  void stop_serving();
  [[nodiscard]] bool check_settings(GError **error) const;
  // Answers a request that came another way than over the socket.
  [[nodiscard]] Bytes answer(std::span<const guint8> body);

  // Lets the driver report where its axes are now.
  void update();
  void report(PTZKitAxis axis, gint32 position, bool moving);
  void report_unknown(PTZKitAxis axis);
  void report_flag(PTZSCParam flag, bool on);

  // preset_functions.cpp: stores a preset of the device, or removes it. False, logged, if the change cannot be kept.
  bool change_preset(guint32 number, const StoredPreset *preset);

  void deliver(PTZKitReply *reply, std::span<const guint8> body) override;

  [[nodiscard]] FrameHistory &history() { return monitor_.history(); }
  [[nodiscard]] Facts facts() const override;
  void look_at_clients() override;
  [[nodiscard]] const Accounting &accounting() const override { return accounting_; }
};

// dispatch.cpp: answers the request, or hands it to the driver's virtual function.
void dispatch(DriverCore &core, std::span<const guint8> body, PTZKitReply *reply);
[[nodiscard]] bool serves(const DriverCore &core, PTZCommand command);
// As dispatch() without checks: what another command is carried out by.
void call(DriverCore &core, PTZCommand command, gconstpointer message, PTZKitReply *reply);

// The answers of the class, by command.
using Answer = void (*)(DriverCore &core, gconstpointer request, PTZKitReply *reply);

// base_answers.cpp
[[nodiscard]] Capabilities capabilities_of(const DriverCore &core);
void answer_query_speed(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_query_position(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_query_limit_ranges(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_get_driver_name(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_get_device_types(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_get_capabilities(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_set_capabilities(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_get_driver_property(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_get_driver_parameters(DriverCore &core, gconstpointer, PTZKitReply *reply);

// motion.cpp
void answer_move(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_move_command(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_stop(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_unregister(DriverCore &core, gconstpointer, PTZKitReply *reply);
// Moves the given axes that the head has; each goes to its limit if the position lies beyond it.
void move_to(DriverCore &core, guint8 axes, const Position &position, guint16 speed, PTZKitReply *reply);

// preset_answers.cpp
void answer_set_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_set_device_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_get_device_presets(DriverCore &core, gconstpointer, PTZKitReply *reply);
void answer_goto_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_goto_device_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_get_preset_position(DriverCore &core, gconstpointer request, PTZKitReply *reply);
void answer_default_home_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply);

}  // namespace ptz_kit
