// tour.h - a short tour of a driver: every request once, its reply checked, and shown on the terminal.
#pragma once
#include <ptz_kit.h>

#include <array>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "describe.h"
#include "interruption.h"
#include "terminal.h"

namespace example {

struct TourOptions {
  std::string cue;  // file that tells when the driver is to be killed and started anew; empty leaves that step out
  std::optional<gint32> pan_limit;  // what the driver's greatest pan position is to be
  guint driver_limit_ms;            // how long to wait for the driver; 0 for ever
};

using PerAxis = std::array<gint32, PTZ_KIT_N_AXES>;  // pan, tilt, zoom

// Runs on a thread of its own: most of its requests wait for their replies.
class Tour {
  using Positions = Owned<PTZKitQueryPositionReply, ptz_kit_query_position_reply_free>;
  using Parameters = Owned<PTZKitGetDriverParametersReply, ptz_kit_get_driver_parameters_reply_free>;

  PTZKitLink *const link_;
  Terminal &terminal_;
  const Interruption &interruption_;
  const TourOptions options_;
  int step_ = 0;
  PerAxis viewpoint_{};  // stored in the preset, and returned to after the restart
  gint32 pan_end_ = 0;
  std::string live_setting_;  // one that can be switched; empty if there is none

  void begin_step(const std::string &text);
  bool fail(const std::string &text);
  // Reports a call of the kit that returned no reply, or FALSE.
  template <typename Result>
  Result checked(Result result, const Problem &problem) {
    if (!result) fail(describe_failure(problem));
    return result;
  }
  // A blocking call without fields in its request. Its result is an owned reply; empty if it has failed.
  template <auto call, auto free>
  auto ask() {
    Problem problem;
    using Reply = std::remove_pointer_t<decltype(call(link_, 0, nullptr, nullptr))>;
    return checked(Owned<Reply, free>(call(link_, 0, nullptr, problem.out())), problem);
  }
  Positions ask_position() { return ask<ptz_kit_link_query_position, ptz_kit_query_position_reply_free>(); }
  Parameters ask_parameters() {
    return ask<ptz_kit_link_get_driver_parameters, ptz_kit_get_driver_parameters_reply_free>();
  }
  bool move(const PTZKitMoveRequest &request);
  bool expect_refusal(bool obeyed, const Problem &problem, PTZKitErrorCode code, const std::string &what);
  bool expect_refusal_of(const std::vector<guint8> &body, PTZKitErrorCode code, const std::string &what);
  Positions watch_until(const std::function<bool(const PTZKitQueryPositionReply &)> &reached);
  Positions watch_until_idle();
  bool wait_until_ready();
  bool arrive_at(const PerAxis &target);

  bool show_driver();
  bool show_parameters();
  bool show_limits();
  bool move_absolutely();
  bool switch_live_setting();
  bool use_preset();
  bool return_to_preset();
  bool run_and_stop();
  bool ask_many_at_once();
  bool be_refused();
  bool survive_restart();
  bool wait_until_killed(const std::function<bool()> &was_lost);

 public:
  Tour(PTZKitLink *link, Terminal &terminal, const Interruption &interruption, TourOptions options)
      : link_(link), terminal_(terminal), interruption_(interruption), options_(std::move(options)) {}
  // Whether every step did what it should.
  bool run();
};

}  // namespace example
