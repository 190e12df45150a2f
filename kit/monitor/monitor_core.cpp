#include "monitor/monitor_core.h"

#include <glib-unix.h>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>

#include "link/connection.h"

namespace ptz_kit {
namespace {

constexpr std::size_t buffer_size = 65536;
constexpr int packets_per_dispatch = 64;

GIOErrorEnum code_of(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG:
    case EINVAL:
      return G_IO_ERROR_NOT_FOUND;
    case EAGAIN:
      return G_IO_ERROR_BUSY;
    case ECONNREFUSED:
    case EPROTOTYPE:
    case ENOTSOCK:
      return G_IO_ERROR_CONNECTION_REFUSED;
    default:
      return static_cast<GIOErrorEnum>(g_io_error_from_errno(error));
  }
}

void set_busy(GError **error) {
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_BUSY, "the driver serves as many monitors as it can");
}

// Polls until the descriptor is readable. False with an error if the time is over or the cancellable is cancelled.
bool wait_for_input(int fd, gint64 due_us, GCancellable *cancellable, GError **error) {
  if (g_cancellable_set_error_if_cancelled(cancellable, error) != FALSE) return false;
  const gint64 left_us = due_us - g_get_monotonic_time();
  if (left_us <= 0) {
    g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT, "the driver has not answered in time");
    return false;
  }
  GPollFD fds[2] = {{fd, G_IO_IN, 0}, {-1, 0, 0}};
  const bool cancels = g_cancellable_make_pollfd(cancellable, &fds[1]) != FALSE;
  g_poll(fds, cancels ? 2 : 1, static_cast<gint>(std::min<gint64>((left_us + 999) / 1000, G_MAXINT)));
  if (cancels) g_cancellable_release_fd(cancellable);
  return true;
}

void destroy(GSource *&source) {
  if (source == nullptr) return;
  g_source_destroy(source);
  g_source_unref(std::exchange(source, nullptr));
}

}  // namespace

MonitorCore::MonitorCore(PTZKitMonitor *object, const char *driver_path)
    : object_(object), path_(std::string(driver_path) + monitor_suffix) {}

bool MonitorCore::connect(GError **error) {
  if (fd_) return true;
  fd_ = connect_to(path_.c_str(), SOCK_SEQPACKET);
  if (!fd_) {
    const int problem = errno;
    g_set_error(error, G_IO_ERROR, code_of(problem), "cannot connect to '%s': %s", path_.c_str(), g_strerror(problem));
    return false;
  }
  was_busy_ = has_closed_ = false;
  if (!buffer_) buffer_ = std::make_unique_for_overwrite<guint8[]>(buffer_size);
  source_ = g_unix_fd_source_new(fd_.get(), G_IO_IN);
  g_source_set_callback(source_, G_SOURCE_FUNC(on_input), this, nullptr);
  g_source_set_static_name(source_, "PTZKitMonitor");
  g_source_attach(source_, context_.get());
  return true;
}

void MonitorCore::close(bool tell) {
  destroy(source_);
  if (!tell) destroy(later_);
  fd_ = UniqueFd();
  has_closed_ = tell;
  if (tell) emit_later();
}

MonitorCore::Received MonitorCore::receive(std::span<const guint8> &packet) {
  ssize_t length = 0;
  do {
    length = recv(fd_.get(), buffer_.get(), buffer_size, MSG_DONTWAIT | MSG_TRUNC);
    // ECONNRESET, which comes once, tells that the driver has not read a request. Its packets come behind that.
  } while (length < 0 && (errno == EINTR || errno == ECONNRESET));
  if (length < 0 && errno == EAGAIN) return Received::none;
  if (length <= 0) return Received::end;
  if (static_cast<std::size_t>(length) > buffer_size) return Received::malformed;
  packet = {buffer_.get(), static_cast<std::size_t>(length)};
  return Received::packet;
}

// Receives a packet. Frames go into the queue, figures into the answer, which may be null.
MonitorCore::Received MonitorCore::receive_into_queue(FiguresAnswer *answer, bool &complete) {
  std::span<const guint8> packet;
  const Received received = receive(packet);
  if (received != Received::packet) return received;
  PacketReader reader(packet);
  const PacketHeader header = reader.header();
  if (reader.failed()) return Received::malformed;
  switch (header.kind) {
    case PacketKind::busy:
      was_busy_ = true;
      return Received::end;
    case PacketKind::frame: {
      MonitorFrame frame = read_frame(header, reader);
      if (frame == nullptr) return Received::malformed;
      enqueue(std::move(frame));
      return Received::packet;
    }
    case PacketKind::driver_figures:
    case PacketKind::client_figures:
      // The answer to a request that was given up is skipped.
      if (answer == nullptr || header.serial != serial_) return Received::packet;
      return answer->take(header.kind, reader) ? Received::packet : Received::malformed;
    case PacketKind::end_of_figures:
      complete = answer != nullptr && header.serial == serial_;
      if (complete) answer->set_lost(dropped_ + (reader.left() != 0 ? reader.get<guint64>() : 0));
      return Received::packet;
    default:
      return Received::packet;  // of a later version
  }
}

bool MonitorCore::check_connected(GError **error) const {
  if (fd_) return true;
  if (was_busy_) {
    set_busy(error);
  } else {
    g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_NOT_CONNECTED, "the monitor is not connected");
  }
  return false;
}

// A lost connection is no error: receiving then finds its end, behind the packets that tell why.
bool MonitorCore::send(const PacketHeader &header, GError **error) {
  const PacketWriter packet(header);
  const auto bytes = packet.bytes();
  if (::send(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 || errno != EAGAIN) return true;
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, "the driver does not read the monitor's requests");
  return false;
}

bool MonitorCore::subscribe(bool with_past, GError **error) {
  if (!check_connected(error)) return false;
  const guint16 flags = with_past ? subscribe_with_past : 0;
  return send({PacketKind::subscribe, flags, 0}, error);
}

GVariant *MonitorCore::figures(guint timeout_ms, GCancellable *cancellable, GError **error) {
  if (!check_connected(error)) return nullptr;
  const gint64 due_us = g_get_monotonic_time() + gint64{1000} * timeout_ms;
  if (!send({PacketKind::figures, 0, ++serial_}, error)) return nullptr;
  FiguresAnswer answer;
  bool complete = false;
  while (!complete) {
    const Received received = receive_into_queue(&answer, complete);
    if (received == Received::end || received == Received::malformed) return end_of_figures(received, error);
    const bool waits = received == Received::none || g_get_monotonic_time() >= due_us;
    if (waits && !complete && !wait_for_input(fd_.get(), due_us, cancellable, error)) break;
  }
  if (!queue_.empty()) emit_later();
  if (!complete) return nullptr;
  GVariant *figures = answer.finish();
  return figures != nullptr ? figures : end_of_figures(Received::malformed, error);
}

GVariant *MonitorCore::end_of_figures(Received received, GError **error) {
  close(true);
  if (was_busy_) {
    set_busy(error);
  } else if (received == Received::end) {
    g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_LOST, "the driver has closed the connection");
  } else {
    g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED,
                        "the monitor socket has sent a malformed packet");
  }
  return nullptr;
}

void MonitorCore::enqueue(MonitorFrame frame) {
  if (queue_.size() >= most_queued) {
    dropped_ += 1 + frame->lost;
    return;
  }
  frame->lost += std::exchange(dropped_, 0);
  queue_.push_back(std::move(frame));
}

void MonitorCore::emit_frame(MonitorFrame frame) { g_signal_emit_by_name(object_, "frame", frame.get()); }

void MonitorCore::emit_later() {
  if (later_ != nullptr) return;
  later_ = g_idle_source_new();
  g_source_set_priority(later_, G_PRIORITY_DEFAULT);
  g_source_set_callback(later_, on_later, this, nullptr);
  g_source_attach(later_, context_.get());
}

// A handler may call any function of the monitor, and may drop it: the caller holds a reference.
void MonitorCore::dispatch() {
  const GSource *source = source_;
  for (int count = 0; count < packets_per_dispatch; ++count) {
    while (!queue_.empty()) {
      MonitorFrame frame = std::move(queue_.front());
      queue_.pop_front();
      emit_frame(std::move(frame));
    }
    if (source_ == nullptr || source_ != source) break;
    bool complete = false;
    const Received received = receive_into_queue(nullptr, complete);
    if (received == Received::none) break;
    if (received == Received::packet) continue;
    if (received == Received::malformed) {
      syslog(LOG_WARNING, "the monitor socket '%s' has sent a malformed packet", path_.c_str());
    }
    close(true);
  }
}

gboolean MonitorCore::on_input(gint, GIOCondition, gpointer core) {
  auto &self = *static_cast<MonitorCore *>(core);
  const Object<PTZKitMonitor> alive(static_cast<PTZKitMonitor *>(g_object_ref(self.object_)));
  self.dispatch();
  return G_SOURCE_CONTINUE;
}

gboolean MonitorCore::on_later(gpointer core) {
  auto &self = *static_cast<MonitorCore *>(core);
  const Object<PTZKitMonitor> alive(static_cast<PTZKitMonitor *>(g_object_ref(self.object_)));
  g_source_unref(std::exchange(self.later_, nullptr));
  self.dispatch();
  if (std::exchange(self.has_closed_, false)) g_signal_emit_by_name(self.object_, "closed");
  return G_SOURCE_REMOVE;
}

}  // namespace ptz_kit
