// tests/kit/monitor/monitored_driver.h - a driver that serves in the test program, clients of it, and a monitor.
#pragma once
#include <gio/gio.h>
#include <ptz_kit.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "../driver/running_driver.h"

// Counts and keeps the frames of a PTZKitMonitor.
class Monitor {
  struct FrameDeleter {
    void operator()(PTZKitMonitorFrame *frame) const { ptz_kit_monitor_frame_free(frame); }
  };
  PTZKitMonitor *monitor_;

 public:
  std::vector<std::unique_ptr<PTZKitMonitorFrame, FrameDeleter>> frames;
  int closed = 0;

  explicit Monitor(const std::string &driver_path) : monitor_(ptz_kit_monitor_new(driver_path.c_str())) {
    const auto keep = +[](PTZKitMonitor *, const PTZKitMonitorFrame *frame, Monitor *self) {
      self->frames.emplace_back(ptz_kit_monitor_frame_copy(frame));
    };
    const auto count = +[](PTZKitMonitor *, Monitor *self) { ++self->closed; };
    g_signal_connect(monitor_, "frame", G_CALLBACK(keep), this);
    g_signal_connect(monitor_, "closed", G_CALLBACK(count), this);
  }
  Monitor(const Monitor &) = delete;
  ~Monitor() { g_object_unref(monitor_); }
  [[nodiscard]] PTZKitMonitor *get() const { return monitor_; }

  // The domain and code of the error, such as "g-io-error-quark 1"; empty on success.
  static std::string text_of(GError *error) {
    if (error == nullptr) return {};
    const std::string text = std::string(g_quark_to_string(error->domain)) + " " + std::to_string(error->code);
    g_error_free(error);
    return text;
  }
  std::string open() {
    GError *error = nullptr;
    const bool connected = ptz_kit_monitor_open(monitor_, &error) != FALSE;
    EXPECT_EQ(connected, error == nullptr);
    return text_of(error);
  }
  std::string subscribe(bool with_past = false) {
    GError *error = nullptr;
    const bool subscribed = ptz_kit_monitor_subscribe(monitor_, with_past ? TRUE : FALSE, &error) != FALSE;
    EXPECT_EQ(subscribed, error == nullptr);
    return text_of(error);
  }
};

inline std::string io_error(int code) { return "g-io-error-quark " + std::to_string(code); }
inline std::string kit_error(int code) {
  return std::string(g_quark_to_string(PTZ_KIT_ERROR)) + " " + std::to_string(code);
}

// A number of the figures, of any integer type.
inline gint64 number_in(GVariant *figures, const char *key) {
  const Variant value(g_variant_lookup_value(figures, key, nullptr));
  if (value == nullptr) return -1;
  switch (g_variant_classify(value.get())) {
    case G_VARIANT_CLASS_UINT64:
      return static_cast<gint64>(g_variant_get_uint64(value.get()));
    case G_VARIANT_CLASS_INT64:
      return g_variant_get_int64(value.get());
    case G_VARIANT_CLASS_UINT32:
      return g_variant_get_uint32(value.get());
    case G_VARIANT_CLASS_INT32:
      return g_variant_get_int32(value.get());
    default:
      return -1;
  }
}
inline std::string text_in(GVariant *figures, const char *key) {
  const gchar *text = nullptr;
  return g_variant_lookup(figures, key, "&s", &text) != FALSE ? text : "(none)";
}
inline guint64 sum_of(GVariant *histogram) {
  gsize count = 0;
  const auto *buckets = static_cast<const guint32 *>(g_variant_get_fixed_array(histogram, &count, sizeof(guint32)));
  guint64 sum = 0;
  for (gsize i = 0; i < count; ++i) sum += buckets[i];
  return sum;
}
inline std::vector<Variant> clients_in(GVariant *figures) {
  const Variant list(g_variant_lookup_value(figures, "clients", G_VARIANT_TYPE("aa{sv}")));
  std::vector<Variant> clients;
  for (gsize i = 0; list != nullptr && i < g_variant_n_children(list.get()); ++i) {
    clients.emplace_back(g_variant_get_child_value(list.get(), i));
  }
  return clients;
}

// The driver runs in the main thread, so its figures are asked for by another one.
class MonitoredDriver : public RunningDriver {
 protected:
  const std::string monitor_path_ = path_ + ".monitor";

  struct Answer {
    Variant figures;
    std::string error;
    bool done = false;
  };
  // With a monitor of its own, unless one is given.
  static Variant figures_of(const std::string &path, std::string *error = nullptr) {
    struct Call {
      const std::string &path;
      Answer answer;
      gint done = 0;
    } call{path, {}, 0};
    GThread *thread = g_thread_new(
        "monitor",
        [](gpointer data) -> gpointer {
          auto &asked = *static_cast<Call *>(data);
          GMainContext *context = g_main_context_new();
          g_main_context_push_thread_default(context);
          PTZKitMonitor *monitor = ptz_kit_monitor_new(asked.path.c_str());
          GError *problem = nullptr;
          if (ptz_kit_monitor_open(monitor, &problem) != FALSE) {
            asked.answer.figures.reset(ptz_kit_monitor_get_figures(monitor, 10'000, nullptr, &problem));
          }
          asked.answer.error = Monitor::text_of(problem);
          g_object_unref(monitor);
          g_main_context_pop_thread_default(context);
          g_main_context_unref(context);
          g_atomic_int_set(&asked.done, 1);
          return nullptr;
        },
        &call);
    ptz_test::run_until([&] { return g_atomic_int_get(&call.done) != 0; });
    g_thread_join(thread);
    if (error != nullptr) *error = call.answer.error;
    return std::move(call.answer.figures);
  }
  Variant figures() { return figures_of(path_); }

  // Another client, and its requests.
  static void send_to(const ptz_test::Descriptor &client, std::uint32_t id, const char *request) {
    ptz_test::send_all(client.get(), ptz_test::frame(id, bytes_of(request)));
  }
  static std::string receive_from(const ptz_test::Descriptor &client) {
    EXPECT_TRUE(ptz_test::run_until([&] { return ptz_test::is_readable(client.get()); }));
    const auto frame = ptz_test::receive_frame(client.get());
    return frame ? frame->body : "";
  }
};
