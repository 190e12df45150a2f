#include "driver/driver_core.h"

#include <gio/gio.h>
#include <ptz_serialize.h>
#include <sys/socket.h>
#include <syslog.h>

#include <cstring>

#include "driver/socket_path.h"

namespace ptz_kit {

namespace {

constexpr guint ms_per_second = 1000;

bool is_refusal(std::span<const guint8> body) {
  gint32 command = 0;
  return ptz_kit_body_get_command(body.data(), body.size(), &command) != FALSE && command == PTZ_COMMAND_ERROR_REPLY;
}

gsize frame_length_of(std::span<const guint8> body) { return PTZ_SOCKET_FRAME_HEADER_SIZE + body.size(); }

}  // namespace

// Before the device is opened and the status is published: both may belong to a driver that runs.
bool DriverCore::claim(GError **error) {
  if (socket_path.empty()) return true;  // no client can find the driver
  const Text program(g_file_read_link("/proc/self/exe", nullptr));
  program_ = program ? program.get() : "";
  resolved_path_ = resolve_socket_path(socket_path);
  started_ns_ = monotonic_ns();
  accounting_.reset();
  const PTZKitRegistryEntry facts = {name.data(),
                                     resolved_path_.data(),
                                     program_.data(),
                                     getpid(),
                                     getuid(),
                                     instance,
                                     static_cast<guint32>(g_ascii_strtoull(protocol_version, nullptr, 10)),
                                     g_get_real_time(),
                                     PTZ_KIT_DRIVER_LIVE};
  if (!registration_.claim(facts, error)) return false;
  if (is_path_free(resolved_path_, error)) return true;
  registration_.withdraw();
  return false;
}

bool DriverCore::start(GError **error) {
  if (!claim(error)) return false;
  if (slots().open != nullptr && slots().open(object, error) == FALSE) {
    if (error != nullptr && *error == nullptr) {
      g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED,
                          "the device cannot be opened: the function \"open\" did not return TRUE, and told no error");
    }
    registration_.withdraw();
    return false;
  }
  open_ = true;
  if (keeps_presets() && !preset_file.empty()) presets.open(preset_file);
  // A client that can ask the driver finds its status.
  if (instance > 0) status_ = std::make_unique<PublishedStatus>(instance, axes, flags);
  if (!socket_path.empty() && !listener_.start(socket_path, error)) {
    stop();
    return false;
  }
  serving_ = true;
  set_publish_rate();
  if (slots().started != nullptr && slots().started(object, error) == FALSE) {
    if (error != nullptr && *error == nullptr) {
      g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED,
                          "the driver cannot serve: the function \"started\" did not return TRUE, and told no error");
    }
    stop();
    return false;
  }
  if (verbose) syslog(LOG_INFO, "serving on %s", socket_path.c_str());
  return true;
}

bool DriverCore::check_settings(GError **error) const {
  if (slots().check_settings == nullptr || slots().check_settings(object, error) != FALSE) return true;
  if (error != nullptr && *error == nullptr) {
    g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, "the settings do not fit the driver");
  }
  return false;
}

void DriverCore::stop() {
  stop_serving();
  if (!open_) return;
  open_ = false;
  if (slots().close != nullptr) slots().close(object);
}

void DriverCore::stop_serving() {
  serving_ = false;
  pending_.expire_all();
  publish_timer_.stop();
  publish_rate_ = 0;
  if (end_source_ != 0) g_source_remove(end_source_);
  end_source_ = 0;
  listener_.stop();
  registration_.withdraw();
  status_.reset();
}

// The client is asked for now: by the time of a late reply, another one may have the descriptor's number.
Request DriverCore::request_from(gpointer reply_context, std::span<const guint8> body) {
  Request request = {PTZ_COMMAND_ERROR_REPLY, reply_context, 0, -1, status_ ? status_->request_begins() : 0};
  ptz_kit_body_get_command(body.data(), body.size(), &request.command);
  const auto &context = *static_cast<const PTZSocketServerCommandReplyContext *>(reply_context);
  if (!Accounting::enabled) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(context.fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return request;
    request.pid = peer.pid;
    request.uid = peer.uid;
    return request;
  }
  request.arrived_ns = monotonic_ns();
  request.client = accounting_.client_at(context.fd, request.arrived_ns);
  if (request.client == nullptr) return request;
  const Identity &peer = *request.client->identity;
  request.pid = peer.pid;
  if (peer.uid != G_MAXUINT32) request.uid = peer.uid;
  accounting_.request_arrived(*request.client, request.command, frame_length_of(body), request.arrived_ns);
  monitor_.frame_came(
      {.time_ns = request.arrived_ns, .client = request.client->identity.get(), .message_id = context.message_id},
      body);
  monitor_.request_came(request.arrived_ns);
  return request;
}

void DriverCore::count_reply(const Request &request, guint32 message_id, std::span<const guint8> body, gint64 now_ns,
                             bool sent) {
  const gint64 latency_ns = now_ns - request.arrived_ns;
  monitor_.frame_came({.time_ns = now_ns,
                       .latency_ns = latency_ns,
                       .client = request.client->identity.get(),
                       .message_id = message_id,
                       .is_reply = true,
                       .is_unsent = !sent},
                      body);
  accounting_.request_answered(*request.client,
                               {frame_length_of(body), latency_ns, is_refusal(body), pending_.expires(), sent});
}

MonitoredDriver::Facts DriverCore::facts() const { return {name, program_, resolved_path_, instance, started_ns_}; }

void DriverCore::look_at_clients() {
  const gint64 now_ns = monotonic_ns();
  accounting_.begin_look();
  listener_.for_each_client([&](int fd) { static_cast<void>(accounting_.client_at(fd, now_ns)); });
  accounting_.end_look();
}

gboolean DriverCore::on_request(gpointer core, gpointer reply_context, gpointer data, guint32 length) {
  auto &self = *static_cast<DriverCore *>(core);
  const Object<PTZKitDriver> alive(static_cast<PTZKitDriver *>(g_object_ref(self.object)));
  const std::span body(static_cast<const guint8 *>(data), length);
  const Request request = self.request_from(reply_context, body);
  // Until the reply is sent: a server that has lost its path goes when it has no client.
  g_object_ref(static_cast<const PTZSocketServerCommandReplyContext *>(reply_context)->server);
  const Object<PTZKitReply> reply(make_reply(self, request));
  self.pending_.add(reply.get());
  dispatch(self, body, reply.get());
  if (is_deferred(reply.get())) {
    if (self.reply_deadline_ms > 0) self.pending_.set_deadline(reply.get(), self.reply_deadline_ms);
  } else {
    // A virtual function that has thrown, in a language that can, has done neither.
    fail(reply.get(), "it was neither answered nor deferred");
  }
  return TRUE;
}

Bytes DriverCore::answer(std::span<const guint8> body) {
  class Capture final : public ReplyTarget {
    DriverCore &core_;

   public:
    Bytes body;
    explicit Capture(DriverCore &core) : core_(core) {}
    void deliver(PTZKitReply *reply, std::span<const guint8> answer) override {
      core_.follow_orders(request_of(reply).command, is_refusal(answer));
      body.reset(g_bytes_new(answer.data(), answer.size()));
    }
  } capture(*this);
  Request request = {PTZ_COMMAND_ERROR_REPLY, nullptr, 0, -1, 0};
  ptz_kit_body_get_command(body.data(), body.size(), &request.command);
  const Object<PTZKitDriver> alive(static_cast<PTZKitDriver *>(g_object_ref(object)));
  const Object<PTZKitReply> reply(make_reply(capture, request));
  dispatch(*this, body, reply.get());
  if (!is_deferred(reply.get())) fail(reply.get(), "it was neither answered nor deferred");
  expire(reply.get(), "the answer was deferred");  // unless it is delivered
  return std::move(capture.body);
}

void DriverCore::deliver(PTZKitReply *reply, std::span<const guint8> body) {
  const Request &request = request_of(reply);
  pending_.remove(reply);
  const bool refused = is_refusal(body);
  follow_orders(request.command, refused);
  if (verbose) log_request(request.command, body);
  if (status_) status_->reply_begins();
  const auto *context = static_cast<const PTZSocketServerCommandReplyContext *>(request.context);
  const Object<PTZSocketServer> server(context != nullptr ? context->server : nullptr);
  const gint64 now_ns = request.client != nullptr ? monotonic_ns() : 0;
  const guint32 message_id = context != nullptr ? context->message_id : 0;
  const bool sent = sender_.send(request.context, request.pid, body);
  if (request.client != nullptr) count_reply(request, message_id, body, now_ns, sent);
  if (!status_) return;
  status_->request_ends(request.serial);
  if (!serving_) return;
  status_->publish(axes, going_to_preset);
}

void DriverCore::log_request(gint32 command, std::span<const guint8> body) const {
  const char *label = ptz_kit_command_name(command);
  Error error;
  const Handle<PTZKitErrorReply, ptz_kit_error_reply_free> refusal(
      is_refusal(body) ? ptz_kit_error_reply_read(body.data(), body.size(), out(error)) : nullptr);
  if (refusal) {
    syslog(LOG_INFO, "request %d \"%s\": error %u, %s", command, label != nullptr ? label : "", refusal->code,
           refusal->text);
  } else {
    syslog(LOG_INFO, "request %d \"%s\": served", command, label != nullptr ? label : "");
  }
}

// What an order that was carried out says of the motion.
void DriverCore::follow_orders(gint32 command, bool refused) {
  if (refused) return;
  switch (command) {
    case PTZ_COMMAND_GOTO_PRESET:
    case PTZ_COMMAND_GOTO_DEVICE_PRESET:
      going_to_preset = any_moving(axes);
      break;
    case PTZ_COMMAND_MOVE:
    case PTZ_COMMAND_MOVE_COMMAND:
    case PTZ_COMMAND_STOP:
    case PTZ_COMMAND_AREA_ZOOM:
    case PTZ_COMMAND_FIELD_ANGLES:
      going_to_preset = false;
      break;
    case PTZ_COMMAND_UNREGISTER:
      // Later, so that the reply is sent first.
      if (end_source_ == 0) end_source_ = g_idle_add(on_end, this);
      break;
    default:
      break;
  }
}

gboolean DriverCore::on_end(gpointer core) {
  auto &self = *static_cast<DriverCore *>(core);
  self.end_source_ = 0;
  const Object<PTZKitDriver> alive(static_cast<PTZKitDriver *>(g_object_ref(self.object)));
  g_signal_emit_by_name(self.object, "ended");
  return G_SOURCE_REMOVE;
}

void DriverCore::update() {
  if (slots().update != nullptr) slots().update(object);
}

void DriverCore::report(PTZKitAxis axis, gint32 position, bool moving) {
  const bool moved = any_moving(axes), was_known = axes[axis].is_known();
  axes[axis].report(position, moving, g_get_monotonic_time());
  reported(moved, !was_known);
}

void DriverCore::report_unknown(PTZKitAxis axis) {
  const bool moved = any_moving(axes), was_known = axes[axis].is_known();
  axes[axis].report_unknown();
  reported(moved, was_known);
}

// Changes are published at once; positions at the next time.
void DriverCore::reported(bool moved, bool knowledge_changed) {
  const bool moves = any_moving(axes);
  if (moved == moves && !knowledge_changed) return;
  if (!moves) going_to_preset = false;
  if (!serving_) return;
  if (status_) status_->publish(axes, going_to_preset);
  set_publish_rate();
}

void DriverCore::report_flag(PTZSCParam flag, bool on) {
  const guint32 bit = PublishedStatus::flag_bit(flag);
  flags = on ? flags | bit : flags & ~bit;
  if (status_) status_->set_flag(flag, on);
}

// Without a status nothing is published, and the axes are asked for when a client asks.
void DriverCore::set_publish_rate() {
  const gint32 rate = status_ ? PublishedStatus::updates_per_second(any_moving(axes)) : 0;
  if (rate == publish_rate_) return;
  publish_rate_ = rate;
  if (rate == 0) return publish_timer_.stop();
  publish_timer_.start(ms_per_second / static_cast<guint>(rate), on_publish, this);
}

gboolean DriverCore::on_publish(gpointer core) {
  auto &self = *static_cast<DriverCore *>(core);
  const Object<PTZKitDriver> alive(static_cast<PTZKitDriver *>(g_object_ref(self.object)));
  if (any_moving(self.axes)) self.update();
  // The update may have changed the rate, and with it the timer.
  if (self.status_) self.status_->publish(self.axes, self.going_to_preset);
  return G_SOURCE_CONTINUE;
}

}  // namespace ptz_kit
