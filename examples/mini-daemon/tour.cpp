#include "tour.h"

#include <ptz_flags_utils.h>
#include <ptz_serialize.h>

#include <algorithm>
#include <cstdlib>

#include "reply.h"

namespace example {

namespace {

using namespace std::chrono_literals;

constexpr auto watch_interval = 100ms;
constexpr auto answer_limit = 2s;  // for requests of the main loop, whose own limit is 360 s
constexpr int most_watches = 100;  // ten seconds: longer than any motion of the tour
constexpr gint64 kill_limit_us = gint64{10} * G_USEC_PER_SEC;
constexpr int queries_at_once = 20;
constexpr guint32 preset_number = 3;
constexpr const char *preset_name = "entrance";
constexpr PerAxis entrance = {90'00, 30'00, 5'00};
constexpr PerAxis gate = {-45'00, 10'00, 2'00};

// What the main loop's replies are waited for in.
class Mailbox {
  std::mutex lock_;
  std::condition_variable arrived_;
  std::vector<Answer> answers_;

 public:
  void put(Answer answer) {
    const std::lock_guard guard(lock_);
    answers_.push_back(std::move(answer));
    arrived_.notify_all();
  }
  // Fewer than wanted when the time is over.
  std::vector<Answer> take(std::size_t wanted) {
    std::unique_lock guard(lock_);
    arrived_.wait_for(guard, answer_limit, [&] { return answers_.size() >= wanted; });
    return std::exchange(answers_, {});
  }
};

std::string flag_names(GType type, guint32 flags) {
  const auto *const flags_class = static_cast<GFlagsClass *>(g_type_class_ref(type));
  std::string names;
  for (guint row = 0; row < flags_class->n_values; ++row) {
    const GFlagsValue &value = flags_class->values[row];
    if (value.value != 0 && (flags & value.value) != 0)
      names += std::string(names.empty() ? "" : " ") + value.value_name;
  }
  return names;
}

std::string seconds_since(gint64 start_us) {
  const Text text(g_strdup_printf("%.1f s", static_cast<double>(g_get_monotonic_time() - start_us) / G_USEC_PER_SEC));
  return text.get();
}

std::string table_row(std::string name, const std::string &from, const std::string &to, const std::string &speed) {
  name.resize(4, ' ');
  return name + right_aligned(from, 12) + right_aligned(to, 12) + right_aligned(speed, 14);
}

bool is_switch(const DriverParameter &parameter) {
  return parameter.group == PTZ_PARAMETER_GROUP_AUX_BUTTON && parameter.kind == PTZ_PARAMETER_BOOLEAN;
}

std::string in_words(const DriverParameter &parameter) {
  const GEnumValue *const group = g_enum_get_value(
      static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_PARAMETER_GROUP)), static_cast<gint>(parameter.group));
  std::string words = group != nullptr ? group->value_name : std::to_string(parameter.group);
  words.resize(std::max<std::size_t>(words.size(), 12), ' ');
  words += parameter.label + " (" + parameter.name + "): " + parameter.value;
  return parameter.range.empty() ? words : words + ", of " + parameter.range;
}

Body move_to(const PerAxis &target) {
  return make_body(PTZ_COMMAND_MOVE, MoveRequest{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, target});
}

}  // namespace

bool Tour::run() {
  if (!link_.wait_until_connected(options_.driver_limit)) return fail("no driver listens");
  return show_driver() && show_limits() && switch_live_setting() && move_absolutely() && use_preset() &&
         run_and_stop() && ask_many_at_once() && be_refused() && (options_.cue.empty() || survive_restart());
}

void Tour::begin_step(const std::string &text) { terminal_.heading(std::to_string(++step_) + ". " + text); }

bool Tour::fail(const std::string &text) {
  terminal_.bad(text);
  return false;
}

template <typename Message>
std::optional<Message> Tour::ask(PTZCommand command, const Body &request) {
  const Answer answer = link_.ask(request);
  auto message = read_reply<Message>(answer, command);
  if (!message) fail(describe_failure(answer));
  return message;
}

bool Tour::order(PTZCommand command, const Body &request) { return ask<Done>(command, request).has_value(); }

bool Tour::expect_refusal(const Body &request, ErrorCode code, const std::string &what) {
  const Answer answer = link_.ask(request);
  const auto refusal = read_refusal(answer);
  if (!refusal) return fail(what + (answer.outcome == Outcome::answered ? ": was not refused" : ": no answer"));
  const std::string told = what + ": " + describe_failure(answer);
  if (refusal->code != code) return fail(told);
  terminal_.good(told);
  return true;
}

std::optional<Positions> Tour::watch_until(const std::function<bool(const Positions &)> &reached) {
  const gint64 start_us = g_get_monotonic_time();
  for (int watched = 0; watched < most_watches; ++watched) {
    const auto mailbox = std::make_shared<Mailbox>();
    link_.ask_later(make_body(PTZ_COMMAND_QUERY_POSITION),
                    [mailbox](Answer answer) { mailbox->put(std::move(answer)); });
    const std::vector<Answer> answers = mailbox->take(1);
    const auto positions =
        answers.empty() ? std::nullopt : read_reply<Positions>(answers.front(), PTZ_COMMAND_QUERY_POSITION);
    if (!positions) {
      fail(answers.empty() ? "no answer in time" : describe_failure(answers.front()));
      return std::nullopt;
    }
    const bool there = reached(*positions);
    // Where lines stay, a few of them tell as much.
    if (terminal_.interactive() || there || watched % 4 == 0) {
      terminal_.live(seconds_since(start_us) + "  " + in_columns(positions->position) +
                     (positions->idle() ? "  idle" : "  moving"));
    }
    if (there) return positions;
    if (!link_.sleep(watch_interval)) return std::nullopt;
  }
  fail("the head does not get there");
  return std::nullopt;
}

std::optional<Positions> Tour::watch_until_idle() { return watch_until(&Positions::idle); }

bool Tour::arrive_at(const PerAxis &target) {
  const gint64 start_us = g_get_monotonic_time();
  const auto positions = watch_until_idle();
  if (!positions) return false;
  if (positions->position != target) return fail("it should be at " + describe(target));
  terminal_.good("there after " + seconds_since(start_us) + ", to the hundredth");
  return true;
}

bool Tour::show_driver() {
  begin_step("What is it, and what can it do?");
  const auto name = ask<Name>(PTZ_COMMAND_GET_DRIVER_NAME);
  if (!name) return false;
  const auto types = ask<DeviceTypes>(PTZ_COMMAND_GET_DEVICE_TYPES);
  if (!types) return false;
  auto capabilities = ask<Capabilities>(PTZ_COMMAND_GET_CAPABILITIES);
  if (!capabilities) return false;
  const auto parameters = ask<ParameterList>(PTZ_COMMAND_GET_DRIVER_PARAMETERS);
  if (!parameters) return false;
  std::string devices;
  for (const Name &type : types->elements) devices += " \"" + type.text + "\"";
  terminal_.line("driver  " + name->text + ", for:" + devices);
  terminal_.line("moves   " + flag_names(PTZ_TYPE_DRIVER_MOVE_CAPABILITIES, capabilities->words.move));
  terminal_.line("offers  " + flag_names(PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES, capabilities->words.extra));
  terminal_.line("has     " + std::to_string(parameters->elements.size()) + " parameters");
  for (const DriverParameter &parameter : parameters->elements) {
    if (live_setting_.empty() && is_switch(parameter)) live_setting_ = parameter.name;
    terminal_.line("          " + in_words(parameter));
  }
  if (!ptz_flags_utils_ptz_usable(&capabilities->words)) return fail("the driver is of no use");
  terminal_.good("usable");
  return true;
}

bool Tour::show_limits() {
  begin_step("How far, and how fast?");
  const auto limits = ask<Limits>(PTZ_COMMAND_QUERY_LIMIT_RANGES);
  if (!limits) return false;
  const auto speeds = ask<Speeds>(PTZ_COMMAND_QUERY_SPEED);
  if (!speeds) return false;
  terminal_.line(table_row("", "from", "to", "at most"));
  for (const auto &[axis, name] : {std::pair{pan, "pan"}, {tilt, "tilt"}, {zoom, "zoom"}}) {
    if (limits->minimum[axis] >= limits->maximum[axis]) return fail("the limits make no sense");
    terminal_.line(table_row(name, in_unit(axis, limits->minimum[axis]), in_unit(axis, limits->maximum[axis]),
                             in_unit(axis, speeds->maximum[axis]) + "/s"));
  }
  limits_ = *limits;
  if (!options_.pan_limit) return true;
  const std::string wanted = in_degrees(*options_.pan_limit);
  if (limits->maximum[pan] != *options_.pan_limit) return fail("pan should end at " + wanted);
  terminal_.good("pan ends at " + wanted + ", where the driver's settings end it");
  return true;
}

// The reply of the auxiliary command says that it was switched; the parameters show that others hear of it.
bool Tour::switch_live_setting() {
  if (live_setting_.empty()) return true;
  begin_step("A live setting, switched on and off");
  for (const auto &[state, expected] : {std::pair{PTZ_ENABLE_ON, "true"}, {PTZ_ENABLE_OFF, "false"}}) {
    const Auxiliary wanted{live_setting_, static_cast<guint32>(state)};
    if (!ask<Auxiliary>(PTZ_COMMAND_AUXILIARY, make_body(PTZ_COMMAND_AUXILIARY, wanted))) return false;
    const auto parameters = ask<ParameterList>(PTZ_COMMAND_GET_DRIVER_PARAMETERS);
    if (!parameters) return false;
    const auto shown = std::ranges::find(parameters->elements, live_setting_, &DriverParameter::name);
    if (shown == parameters->elements.end() || shown->value != expected) {
      return fail("the parameter " + live_setting_ + " should be " + expected);
    }
    terminal_.line(in_words(*shown));
  }
  terminal_.good("the parameters follow it");
  return true;
}

bool Tour::move_absolutely() {
  begin_step("An absolute move, watched until the head is idle");
  terminal_.line("to " + describe(entrance));
  return order(PTZ_COMMAND_MOVE, move_to(entrance)) && arrive_at(entrance);
}

bool Tour::use_preset() {
  begin_step("A device preset: stored, left, returned to");
  const auto stored = ask<PresetNumber>(PTZ_COMMAND_SET_DEVICE_PRESET,
                                        make_body(PTZ_COMMAND_SET_DEVICE_PRESET, Preset{preset_number, preset_name}));
  if (!stored) return false;
  viewpoint_ = entrance;
  terminal_.line("stored; away to " + describe(gate));
  return order(PTZ_COMMAND_MOVE, move_to(gate)) && arrive_at(gate) && return_to_preset();
}

bool Tour::return_to_preset() {
  const auto presets = ask<PresetList>(PTZ_COMMAND_GET_DEVICE_PRESETS);
  if (!presets) return false;
  std::string listed;
  bool found = false;
  for (const Preset &preset : presets->elements) {
    listed += " " + std::to_string(preset.number) + " \"" + preset.name + "\"";
    found = found || (preset.number == preset_number && preset.name == preset_name);
  }
  terminal_.line("presets:" + listed);
  if (!found) return fail("the preset that was stored is missing");
  terminal_.line("to preset " + std::to_string(preset_number));
  return order(PTZ_COMMAND_GOTO_DEVICE_PRESET,
               make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, GotoPresetRequest{preset_number, full_speed})) &&
         arrive_at(viewpoint_);
}

bool Tour::run_and_stop() {
  begin_step("A continuous move, stopped");
  const auto speeds = ask<Speeds>(PTZ_COMMAND_QUERY_SPEED);
  if (!speeds) return false;
  const gint32 velocity = speeds->maximum[pan] / 3;
  terminal_.line("pan to the left at " + in_degrees(velocity) + "/s");
  const MoveRequest to_the_left{PTZ_MOVE_CONTINUOUS, axis_bit(pan), full_speed, {-velocity, 0, 0}};
  if (!order(PTZ_COMMAND_MOVE, make_body(PTZ_COMMAND_MOVE, to_the_left))) return false;
  const gint32 far_enough = viewpoint_[pan] - 25'00;
  if (!watch_until([&](const Positions &now) { return now.position[pan] <= far_enough; })) return false;

  terminal_.line("stop");
  if (!order(PTZ_COMMAND_STOP, make_body(PTZ_COMMAND_STOP))) return false;
  const auto at_rest = watch_until_idle();
  if (!at_rest || !link_.sleep(watch_interval)) return false;
  const auto later = ask<Positions>(PTZ_COMMAND_QUERY_POSITION);
  if (!later) return false;
  if (later->position != at_rest->position) return fail("it still moves");
  terminal_.good("stands still, " + in_degrees(viewpoint_[pan] - later->position[pan]) + " further left");
  return true;
}

bool Tour::ask_many_at_once() {
  begin_step("Many requests at once, from two threads");
  const auto mailbox = std::make_shared<Mailbox>();
  for (int query = 0; query < queries_at_once; ++query) {
    link_.ask_later(make_body(PTZ_COMMAND_QUERY_POSITION),
                    [mailbox](Answer answer) { mailbox->put(std::move(answer)); });
  }
  if (!ask<Limits>(PTZ_COMMAND_QUERY_LIMIT_RANGES)) return false;
  int answered = 0;
  for (const Answer &answer : mailbox->take(queries_at_once)) {
    answered += read_reply<Positions>(answer, PTZ_COMMAND_QUERY_POSITION) ? 1 : 0;
  }
  const std::string told = std::to_string(answered) + " of " + std::to_string(queries_at_once) +
                           " asynchronous queries answered while a synchronous one was, too";
  if (answered != queries_at_once) return fail(told);
  terminal_.good(told);
  return true;
}

bool Tour::be_refused() {
  begin_step("What the driver refuses, and lives on");
  Body unknown(ptz_serialize_create_array());
  ptz_serialize_32bit(unknown.get(), 29);
  Body cut_short = move_to(gate);
  g_array_set_size(cut_short.get(), cut_short->len - 3);
  const auto beyond = static_cast<gint32>(std::min<gint64>(gint64{limits_.maximum[pan]} + 1, G_MAXINT32));
  return expect_refusal(unknown, ErrorCode::unknown_command, "command 29") &&
         expect_refusal(make_body(PTZ_COMMAND_OSD_MENU), ErrorCode::unsupported, "OSD menu") &&
         expect_refusal(cut_short, ErrorCode::malformed, "a move without its last bytes") &&
         expect_refusal(move_to({beyond, 0, 1'00}), ErrorCode::out_of_range, "a move beyond the limit") &&
         expect_refusal(make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, GotoPresetRequest{7, full_speed}),
                        ErrorCode::not_found, "a preset that nobody stored");
}

bool Tour::survive_restart() {
  begin_step("The driver is killed and started again");
  if (!g_file_set_contents(options_.cue.c_str(), "kill\n", -1, nullptr)) {
    return fail("the cue cannot be given");
  }
  const gint64 cue_us = g_get_monotonic_time();
  Answer answer;
  do {
    if (g_get_monotonic_time() - cue_us > kill_limit_us) return fail("nobody killed it");
    if (!link_.sleep(20ms)) return false;
    answer = link_.ask(make_body(PTZ_COMMAND_QUERY_POSITION));
  } while (answer.outcome == Outcome::answered);
  terminal_.line("noticed: " + describe_failure(answer));

  const gint64 lost_us = g_get_monotonic_time();
  // The kernel may close the dying driver's connections before the socket that it listens on: that still connects.
  do {
    if (!link_.wait_until_connected(options_.driver_limit)) return fail("it did not come back");
    answer = link_.ask(make_body(PTZ_COMMAND_GET_DRIVER_NAME));
  } while (answer.outcome != Outcome::answered && g_get_monotonic_time() - lost_us < kill_limit_us);
  const auto name = read_reply<Name>(answer, PTZ_COMMAND_GET_DRIVER_NAME);
  if (!name) return fail(describe_failure(answer));
  terminal_.line(name->text + " listens again after " + seconds_since(lost_us));
  const auto positions = ask<Positions>(PTZ_COMMAND_QUERY_POSITION);
  if (!positions) return false;
  terminal_.line("a new process, at " + describe(positions->position));
  return return_to_preset();
}

}  // namespace example
