// driver_connection.h - ptzctl's link to one driver: each call has its reply, or the user is told why there is none.
#pragma once
#include <ptz_kit_link.h>
#include <ptz_kit_link_calls.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "handles.h"
#include "subcommand.h"

namespace ptzctl {

using Positions = tools::Handle<PTZKitQueryPositionReply, ptz_kit_query_position_reply_free>;
using Speeds = tools::Handle<PTZKitQuerySpeedReply, ptz_kit_query_speed_reply_free>;
using Limits = tools::Handle<PTZKitQueryLimitRangesReply, ptz_kit_query_limit_ranges_reply_free>;

class DriverConnection {
  const Options &options_;
  std::string path_;
  guint timeout_ms_;
  tools::Object<PTZKitLink> link_;
  int status_ = EXIT_SUCCESS;
  std::function<std::string()> explain_range_;

  // Connects at the first call. False if the driver cannot be asked; the user was told.
  [[nodiscard]] bool is_ready();
  [[nodiscard]] bool is_listened_on();
  [[nodiscard]] bool is_handshake_done();
  void complain_of(const GError &error);
  void complain_of_refusal(const GError &error);

 public:
  explicit DriverConnection(const Options &options) : options_(options), timeout_ms_(options.timeout_ms()) {}
  // The exit status for what was asked: that of what has failed.
  [[nodiscard]] int status() const { return status_; }

  // A driver that refuses a value tells its range in the unit of the message. The function may ask the driver, and
  // returns what the user is told instead; nothing if the driver's text is the better one.
  void explain_range(std::function<std::string()> explain) { explain_range_ = std::move(explain); }

  // A blocking function of the kit, such as ptz_kit_link_query_position: its reply, or null.
  template <typename Reply, auto function, typename... Request>
  [[nodiscard]] Reply ask(const Request *...request) {
    if (!is_ready()) return nullptr;
    tools::Error error;
    Reply reply(function(link_.get(), request..., timeout_ms_, nullptr, tools::out(error)));
    if (error != nullptr) complain_of(*error);
    return reply;
  }
  // As ask(), but a driver need not serve it: then there is nothing to tell.
  template <typename Reply, auto function>
  [[nodiscard]] Reply ask_if_served() {
    if (!is_ready()) return nullptr;
    tools::Error error;
    Reply reply(function(link_.get(), timeout_ms_, nullptr, tools::out(error)));
    const bool is_refused = error != nullptr && error->domain == PTZ_KIT_REFUSAL;
    if (error != nullptr && !is_refused) complain_of(*error);
    return reply;
  }
  // A command whose reply has no fields.
  template <auto function, typename... Request>
  [[nodiscard]] bool is_obeyed(const Request *...request) {
    if (!is_ready()) return false;
    tools::Error error;
    const bool is_done = function(link_.get(), request..., timeout_ms_, nullptr, tools::out(error)) != FALSE;
    if (error != nullptr) complain_of(*error);
    return is_done;
  }
  // Any request, as a body.
  [[nodiscard]] tools::Bytes ask(GBytes *request);
};

}  // namespace ptzctl
