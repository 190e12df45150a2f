// tour.h - a short tour of a driver: every request once, its reply checked, and told to whoever watches.
#pragma once
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "driver_link.h"
#include "driver_messages.h"
#include "terminal.h"

namespace example {

struct TourOptions {
  std::string cue;  // file that tells when the driver is to be killed and started anew; empty leaves that step out
  std::optional<gint32> pan_limit;  // what the driver's greatest pan position is to be
  std::chrono::milliseconds driver_limit;
};

// Runs on a thread of its own: most of its requests wait for their replies.
class Tour {
  DriverLink &link_;
  Terminal &terminal_;
  const TourOptions options_;
  int step_ = 0;
  PerAxis viewpoint_{};  // stored in the preset, and returned to after the restart
  Limits limits_{};
  std::string live_setting_;  // one that can be switched; empty where there is none

  void begin_step(const std::string &text);
  bool fail(const std::string &text);
  template <typename Message>
  std::optional<Message> ask(PTZCommand command, const Body &request);
  template <typename Message>
  std::optional<Message> ask(PTZCommand command) {
    return ask<Message>(command, make_body(command));
  }
  bool order(PTZCommand command, const Body &request);
  bool expect_refusal(const Body &request, ErrorCode code, const std::string &what);
  std::optional<Positions> watch_until(const std::function<bool(const Positions &)> &reached);
  std::optional<Positions> watch_until_idle();
  bool arrive_at(const PerAxis &target);

  bool show_driver();
  bool show_limits();
  bool move_absolutely();
  bool switch_live_setting();
  bool use_preset();
  bool return_to_preset();
  bool run_and_stop();
  bool ask_many_at_once();
  bool be_refused();
  bool survive_restart();

 public:
  Tour(DriverLink &link, Terminal &terminal, TourOptions options)
      : link_(link), terminal_(terminal), options_(std::move(options)) {}
  // Whether every step did what it should.
  bool run();
};

}  // namespace example
