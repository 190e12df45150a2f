#include "tour.h"

#include <ptz_flags_utils.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

namespace example {

namespace {

using namespace std::chrono_literals;

constexpr auto watch_interval = 100ms;
constexpr auto answer_limit = 2s;
constexpr int most_watches = 100;  // ten seconds: longer than any motion of the tour
constexpr gint64 kill_limit_us = gint64{10} * G_USEC_PER_SEC;
constexpr int queries_at_once = 20;
constexpr guint16 full_speed = 100;  // per cent
constexpr guint32 preset_number = 3;
constexpr const char *preset_name = "entrance";
constexpr PerAxis entrance = {90'00, 30'00, 5'00};
constexpr PerAxis gate = {-45'00, 10'00, 2'00};

// Counts the replies that arrive on the main loop, for the thread that waits for them.
class Mailbox {
  std::mutex lock_;
  std::condition_variable arrived_;
  int answered_ = 0;
  int arrivals_ = 0;

 public:
  void put(bool answered) {
    const std::lock_guard guard(lock_);
    answered_ += answered ? 1 : 0;
    ++arrivals_;
    arrived_.notify_all();
  }
  // The number of good replies when all have arrived, or when the time is over.
  int wait_for(int wanted) {
    std::unique_lock guard(lock_);
    arrived_.wait_for(guard, answer_limit, [&] { return arrivals_ >= wanted; });
    return answered_;
  }
};

// Notices a change of a link's state, of which signals tell on the main loop: also while this object goes.
class StateChange {
  using Flag = std::shared_ptr<std::atomic<bool>>;

  PTZKitLink *const link_;
  const Flag seen_ = std::make_shared<std::atomic<bool>>(false);
  const gulong handler_;

  static void on_change(PTZKitLink *, GParamSpec *, gpointer seen) { **static_cast<Flag *>(seen) = true; }
  static void on_end(gpointer seen, GClosure *) { delete static_cast<Flag *>(seen); }

 public:
  explicit StateChange(PTZKitLink *link)
      : link_(link),
        handler_(g_signal_connect_data(link, "notify::state", G_CALLBACK(on_change), new Flag(seen_), on_end,
                                       GConnectFlags(0))) {}
  StateChange(const StateChange &) = delete;
  ~StateChange() { g_signal_handler_disconnect(link_, handler_); }
  [[nodiscard]] bool seen() const { return *seen_; }
};

template <typename Element>
std::span<Element *> elements_of(const GPtrArray *list) {
  return {reinterpret_cast<Element **>(list->pdata), list->len};
}

bool is_switch(const PTZKitParameter &parameter) {
  return parameter.group == PTZ_PARAMETER_GROUP_AUX_BUTTON && parameter.kind == PTZ_PARAMETER_BOOLEAN;
}

using MoveRequest = Owned<PTZKitMoveRequest, ptz_kit_move_request_free>;
using GotoRequest = Owned<PTZKitGotoDevicePresetRequest, ptz_kit_goto_device_preset_request_free>;

MoveRequest move_to(const PerAxis &target) {
  return MoveRequest(ptz_kit_move_request_new(PTZ_MOVE_ABSOLUTE, 0b111, full_speed, target.data()));
}

GotoRequest go_to_preset(guint32 number) {
  return GotoRequest(ptz_kit_goto_device_preset_request_new(number, full_speed));
}

}  // namespace

bool Tour::run() {
  if (!wait_until_ready()) return fail("no driver listens");
  return show_driver() && show_limits() && switch_live_setting() && move_absolutely() && use_preset() &&
         run_and_stop() && ask_many_at_once() && be_refused() && (options_.cue.empty() || survive_restart());
}

void Tour::begin_step(const std::string &text) { terminal_.heading(std::to_string(++step_) + ". " + text); }

bool Tour::fail(const std::string &text) {
  terminal_.bad(text);
  return false;
}

bool Tour::wait_until_ready() {
  const guint limit_ms = options_.driver_limit_ms != 0 ? options_.driver_limit_ms : G_MAXUINT;
  return ptz_kit_link_wait_ready(link_, limit_ms, nullptr) != FALSE;
}

bool Tour::move(const PTZKitMoveRequest &request) {
  Problem problem;
  return checked(ptz_kit_link_move(link_, &request, 0, nullptr, problem.out()), problem) != FALSE;
}

bool Tour::expect_refusal(bool obeyed, const Problem &problem, PTZKitErrorCode code, const std::string &what) {
  if (obeyed) return fail(what + ": was not refused");
  const std::string shown = what + ": " + describe_failure(problem);
  if (!problem.is(PTZ_KIT_REFUSAL, code)) return fail(shown);
  terminal_.good(shown);
  return true;
}

// A body that no function of the kit writes.
bool Tour::expect_refusal_of(const std::vector<guint8> &body, PTZKitErrorCode code, const std::string &what) {
  Problem problem;
  const Bytes request(g_bytes_new(body.data(), body.size()));
  const Bytes reply(ptz_kit_link_call(link_, request.get(), 0, nullptr, problem.out()));
  return expect_refusal(reply != nullptr, problem, code, what);
}

Tour::Positions Tour::watch_until(const std::function<bool(const PTZKitQueryPositionReply &)> &reached) {
  const gint64 start_us = g_get_monotonic_time();
  for (int watched = 0; watched < most_watches; ++watched) {
    Positions positions = ask_position();
    if (!positions) return nullptr;
    const bool there = reached(*positions);
    // On a terminal the line is replaced; elsewhere a few lines are enough.
    if (terminal_.interactive() || there || watched % 4 == 0) {
      terminal_.live(seconds_since(start_us) + "  " + in_columns(positions->position) +
                     (is_idle(*positions) ? "  idle" : "  moving"));
    }
    if (there) return positions;
    if (!interruption_.sleep(watch_interval)) return nullptr;
  }
  fail("the head does not get there");
  return nullptr;
}

Tour::Positions Tour::watch_until_idle() { return watch_until(is_idle); }

bool Tour::arrive_at(const PerAxis &target) {
  const gint64 start_us = g_get_monotonic_time();
  const Positions positions = watch_until_idle();
  if (!positions) return false;
  if (!std::ranges::equal(positions->position, target)) return fail("it should be at " + describe(target.data()));
  terminal_.good("there after " + seconds_since(start_us) + ", to the hundredth");
  return true;
}

bool Tour::show_driver() {
  begin_step("What is it, and what can it do?");
  const auto name = ask<ptz_kit_link_get_driver_name, ptz_kit_get_driver_name_reply_free>();
  if (!name) return false;
  const auto types = ask<ptz_kit_link_get_device_types, ptz_kit_get_device_types_reply_free>();
  if (!types) return false;
  const auto capabilities = ask<ptz_kit_link_get_capabilities, ptz_kit_get_capabilities_reply_free>();
  if (!capabilities) return false;
  std::string devices;
  for (const char *type : elements_of<char>(types->types)) devices += " \"" + std::string(type) + "\"";
  terminal_.line("driver  " + std::string(name->name) + ", for:" + devices);
  terminal_.line("moves   " + flag_names(PTZ_TYPE_DRIVER_MOVE_CAPABILITIES, capabilities->move));
  terminal_.line("offers  " + flag_names(PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES, capabilities->extra));
  if (!show_parameters()) return false;
  PTZDriverCapabilities words{capabilities->move, capabilities->extra};
  if (!ptz_flags_utils_ptz_usable(&words)) return fail("the driver is of no use");
  terminal_.good("usable");
  return true;
}

bool Tour::show_parameters() {
  const Parameters parameters = ask_parameters();
  if (!parameters) return false;
  terminal_.line("has     " + std::to_string(parameters->parameters->len) + " parameters");
  for (const PTZKitParameter *parameter : elements_of<PTZKitParameter>(parameters->parameters)) {
    if (live_setting_.empty() && is_switch(*parameter)) live_setting_ = parameter->name;
    terminal_.line("          " + in_words(*parameter));
  }
  return true;
}

bool Tour::show_limits() {
  begin_step("How far, and how fast?");
  const auto limits = ask<ptz_kit_link_query_limit_ranges, ptz_kit_query_limit_ranges_reply_free>();
  if (!limits) return false;
  const auto speeds = ask<ptz_kit_link_query_speed, ptz_kit_query_speed_reply_free>();
  if (!speeds) return false;
  terminal_.line(table_row("", "from", "to", "at most"));
  for (const auto &[axis, name] :
       {std::pair{PTZ_KIT_AXIS_PAN, "pan"}, {PTZ_KIT_AXIS_TILT, "tilt"}, {PTZ_KIT_AXIS_ZOOM, "zoom"}}) {
    if (limits->minimum[axis] >= limits->maximum[axis]) return fail("a limit range is empty");
    terminal_.line(table_row(name, in_unit(axis, limits->minimum[axis]), in_unit(axis, limits->maximum[axis]),
                             in_unit(axis, speeds->maximum[axis]) + "/s"));
  }
  pan_end_ = limits->maximum[PTZ_KIT_AXIS_PAN];
  if (!options_.pan_limit) return true;
  const std::string wanted = in_degrees(*options_.pan_limit);
  if (limits->maximum[PTZ_KIT_AXIS_PAN] != *options_.pan_limit) return fail("pan should end at " + wanted);
  terminal_.good("pan ends at " + wanted + ", where the driver's settings end it");
  return true;
}

// The reply of the auxiliary command says that it was switched; the parameters show that other clients see it.
bool Tour::switch_live_setting() {
  if (live_setting_.empty()) return true;
  begin_step("A live setting, switched on and off");
  for (const auto &[state, expected] : {std::pair{PTZ_ENABLE_ON, "true"}, {PTZ_ENABLE_OFF, "false"}}) {
    const Owned<PTZKitAuxiliaryRequest, ptz_kit_auxiliary_request_free> wanted(
        ptz_kit_auxiliary_request_new(live_setting_.data(), static_cast<guint32>(state)));
    Problem problem;
    const Owned<PTZKitAuxiliaryReply, ptz_kit_auxiliary_reply_free> reply(
        ptz_kit_link_auxiliary(link_, wanted.get(), 0, nullptr, problem.out()));
    if (!reply) return fail(describe_failure(problem));
    const Parameters parameters = ask_parameters();
    if (!parameters) return false;
    const auto list = elements_of<PTZKitParameter>(parameters->parameters);
    const auto shown = std::ranges::find_if(list, [&](const auto *each) { return each->name == live_setting_; });
    if (shown == list.end() || (*shown)->value != std::string(expected)) {
      return fail("the parameter " + live_setting_ + " should be " + expected);
    }
    terminal_.line(in_words(**shown));
  }
  terminal_.good("the parameters follow it");
  return true;
}

bool Tour::move_absolutely() {
  begin_step("An absolute move, watched until the head is idle");
  terminal_.line("to " + describe(entrance.data()));
  return move(*move_to(entrance)) && arrive_at(entrance);
}

bool Tour::use_preset() {
  begin_step("A device preset: stored, left, returned to");
  const Owned<PTZKitSetDevicePresetRequest, ptz_kit_set_device_preset_request_free> preset(
      ptz_kit_set_device_preset_request_new(preset_number, preset_name));
  Problem problem;
  const Owned<PTZKitSetDevicePresetReply, ptz_kit_set_device_preset_reply_free> stored(
      ptz_kit_link_set_device_preset(link_, preset.get(), 0, nullptr, problem.out()));
  if (!stored) return fail(describe_failure(problem));
  viewpoint_ = entrance;
  terminal_.line("stored; away to " + describe(gate.data()));
  return move(*move_to(gate)) && arrive_at(gate) && return_to_preset();
}

bool Tour::return_to_preset() {
  const auto presets = ask<ptz_kit_link_get_device_presets, ptz_kit_get_device_presets_reply_free>();
  if (!presets) return false;
  std::string listed;
  bool found = false;
  for (const PTZKitPreset *preset : elements_of<PTZKitPreset>(presets->presets)) {
    listed += " " + std::to_string(preset->number) + " \"" + preset->name + "\"";
    found = found || (preset->number == preset_number && preset->name == std::string(preset_name));
  }
  terminal_.line("presets:" + listed);
  if (!found) return fail("the preset that was stored is missing");
  terminal_.line("to preset " + std::to_string(preset_number));
  Problem problem;
  return checked(ptz_kit_link_goto_device_preset(link_, go_to_preset(preset_number).get(), 0, nullptr, problem.out()),
                 problem) &&
         arrive_at(viewpoint_);
}

bool Tour::run_and_stop() {
  begin_step("A continuous move, stopped");
  const auto speeds = ask<ptz_kit_link_query_speed, ptz_kit_query_speed_reply_free>();
  if (!speeds) return false;
  const gint32 velocity = speeds->maximum[PTZ_KIT_AXIS_PAN] / 3;
  terminal_.line("pan to the left at " + in_degrees(velocity) + "/s");
  if (!move({PTZ_MOVE_CONTINUOUS, 1U << PTZ_KIT_AXIS_PAN, full_speed, {-velocity, 0, 0}})) return false;
  const gint32 far_enough = viewpoint_[PTZ_KIT_AXIS_PAN] - 25'00;
  if (!watch_until([&](const auto &now) { return now.position[PTZ_KIT_AXIS_PAN] <= far_enough; })) return false;

  terminal_.line("stop");
  Problem problem;
  if (!checked(ptz_kit_link_stop(link_, 0, nullptr, problem.out()), problem)) return false;
  const Positions at_rest = watch_until_idle();
  if (!at_rest || !interruption_.sleep(watch_interval)) return false;
  const Positions later = ask_position();
  if (!later) return false;
  if (!std::ranges::equal(later->position, at_rest->position)) return fail("it still moves");
  const gint32 way = viewpoint_[PTZ_KIT_AXIS_PAN] - later->position[PTZ_KIT_AXIS_PAN];
  terminal_.good("stands still, " + in_degrees(way) + " further left");
  return true;
}

// The callbacks of the asynchronous calls run on the main loop: this thread has no main context of its own.
bool Tour::ask_many_at_once() {
  begin_step("Many requests at once, from two threads");
  const auto mailbox = std::make_shared<Mailbox>();
  for (int query = 0; query < queries_at_once; ++query) {
    ptz_kit_link_query_position_async(
        link_, 0, nullptr,
        [](GObject *link, GAsyncResult *result, gpointer user_data) {
          const std::unique_ptr<std::shared_ptr<Mailbox>> box(static_cast<std::shared_ptr<Mailbox> *>(user_data));
          const Positions reply(ptz_kit_link_query_position_finish(PTZ_KIT_LINK(link), result, nullptr));
          (*box)->put(reply != nullptr);
        },
        new std::shared_ptr<Mailbox>(mailbox));
  }
  if (!ask<ptz_kit_link_query_limit_ranges, ptz_kit_query_limit_ranges_reply_free>()) return false;
  const int answered = mailbox->wait_for(queries_at_once);
  const std::string shown = std::to_string(answered) + " of " + std::to_string(queries_at_once) +
                            " asynchronous queries answered while a synchronous one was, too";
  if (answered != queries_at_once) return fail(shown);
  terminal_.good(shown);
  return true;
}

bool Tour::be_refused() {
  begin_step("What the driver refuses, and lives on");
  const std::vector<guint8> unknown = {29, 0, 0, 0};
  const std::vector<guint8> cut_short = {PTZ_COMMAND_MOVE, 0, 0, 0, PTZ_MOVE_ABSOLUTE, 0, 0, 0, 0b111, full_speed, 0};
  const Owned<PTZKitOsdMenuRequest, ptz_kit_osd_menu_request_free> menu(
      ptz_kit_osd_menu_request_new(PTZ_OSD_MENU_OPEN));
  const auto beyond = static_cast<gint32>(std::min<gint64>(gint64{pan_end_} + 1, G_MAXINT32));
  const MoveRequest too_far = move_to({beyond, 0, 1'00});
  const GotoRequest to_nowhere = go_to_preset(7);
  Problem problem;
  return expect_refusal_of(unknown, PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND, "command 29") &&
         expect_refusal(ptz_kit_link_osd_menu(link_, menu.get(), 0, nullptr, problem.out()), problem,
                        PTZ_KIT_ERROR_CODE_UNSUPPORTED, "OSD menu") &&
         expect_refusal_of(cut_short, PTZ_KIT_ERROR_CODE_MALFORMED, "a move without its last bytes") &&
         expect_refusal(ptz_kit_link_move(link_, too_far.get(), 0, nullptr, problem.out()), problem,
                        PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "a move beyond the limit") &&
         expect_refusal(ptz_kit_link_goto_device_preset(link_, to_nowhere.get(), 0, nullptr, problem.out()), problem,
                        PTZ_KIT_ERROR_CODE_NOT_FOUND, "a preset that was never stored");
}

// A driver that is started again at once may answer every query: then only the link has seen it go.
bool Tour::wait_until_killed(const std::function<bool()> &was_lost) {
  const gint64 cue_us = g_get_monotonic_time();
  Problem problem;
  while (const Positions reply{ptz_kit_link_query_position(link_, 0, nullptr, problem.out())}) {
    if (was_lost()) {
      terminal_.line("noticed: the link has lost the driver");
      return true;
    }
    if (g_get_monotonic_time() - cue_us > kill_limit_us) return fail("the driver was not killed");
    if (!interruption_.sleep(20ms)) return false;
  }
  terminal_.line("noticed: " + describe_failure(problem));
  return true;
}

bool Tour::survive_restart() {
  begin_step("The driver is killed and started again");
  const StateChange change(link_);
  if (!g_file_set_contents(options_.cue.c_str(), "kill\n", -1, nullptr)) return fail("the cue cannot be given");
  if (!wait_until_killed([&] { return change.seen(); })) return false;
  const gint64 lost_us = g_get_monotonic_time();
  if (!wait_until_ready()) return fail("it did not come back");
  const Text name(ptz_kit_link_dup_driver_name(link_));
  terminal_.line(std::string(name.get()) + " listens again after " + seconds_since(lost_us));
  const Positions positions = ask_position();
  if (!positions) return false;
  terminal_.line("a new process, at " + describe(positions->position));
  return return_to_preset();
}

}  // namespace example
