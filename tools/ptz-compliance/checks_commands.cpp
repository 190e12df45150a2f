// Bodies that no daemon should send: each is answered with an error and changes nothing.
#include <ptz_serialize.h>

#include <random>

#include "head.h"

namespace compliance {

namespace {

constexpr int random_bodies = 200;
constexpr std::size_t longest_random_tail = 300;

Body text_request(PTZCommand command, guint32 number, guint16 claimed_length, std::string_view bytes) {
  Body body = make_body(command);
  ptz_serialize_32bit(body.get(), number);
  ptz_serialize_16bit(body.get(), claimed_length);
  ptz_serialize_blob(body.get(), bytes.data(), static_cast<guint32>(bytes.size()));
  return body;
}

Body cut(const Body &body, guint32 length) {
  Body shorter(ptz_serialize_create_array());
  ptz_serialize_blob(shorter.get(), body->data, length);
  return shorter;
}

// Moves an axis that is announced by nothing, brakes it, or sends it to where it is: a driver that obeys what it should
// have refused does little harm.
PTZKitMoveRequest idle_move(Link &link) {
  const Capabilities capabilities = *query<Capabilities>(link);
  for (const PTZMove kind : {PTZ_MOVE_RELATIVE, PTZ_MOVE_CONTINUOUS, PTZ_MOVE_ABSOLUTE}) {
    for (const AxisIndex axis : all_axes) {
      if ((capabilities.move & move_capability(kind, axis)) == 0) continue;
      PTZKitMoveRequest move{static_cast<guint32>(kind), axis_bit(axis), full_speed, {}};
      if (kind == PTZ_MOVE_ABSOLUTE) move.value[axis] = query<Positions>(link)->position[axis];
      return move;
    }
  }
  link.probe().not_applicable(describe_moves(capabilities), "the driver announces no moves");
  return {};
}

// The driver obeys this request, so that only what is wrong with another one can be why that one is refused.
class WellFormed {
  std::optional<Refusal> last_;
  bool any_ = false;

 public:
  bool is_obeyed(Link &link, const Body &request) {
    last_ = error_of(link.ask(request));
    any_ = any_ || !last_;
    return !last_;
  }
  void expect_any(Probe &probe) const {
    if (any_ || !last_) return;
    probe.not_applicable("error " + std::to_string(last_->code) + ": " + last_->text,
                         "the driver refuses the well-formed requests, too");
  }
};

void unknown_is_refused(Probe &probe) {
  Link link = probe.connect();
  for (const gint32 command : {29, 31, 32, 1000, -2, G_MININT32}) {
    const Body reply = link.ask(make_body(static_cast<PTZCommand>(command)));
    if (probe.decided()) return;
    probe.fail_unless(command_of(reply) == PTZ_COMMAND_ERROR_REPLY, "command %d, which there is not, is not refused",
                      command);
  }
}

void unknown_and_unsupported(Probe &probe) {
  Link link = probe.connect();
  const Body reply = link.ask(unknown_request());
  const auto unknown = error_of(reply);
  if (!unknown) {
    return probe.not_applicable("the command word " + std::to_string(command_of(reply)),
                                "the driver does not refuse unknown commands");
  }
  probe.fail_unless(unknown->code == PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND, "an unknown command is refused with %s",
                    describe(*unknown).c_str());
  const auto reserved = error_of(link.ask(make_body(PTZ_COMMAND_QUERY_ATTRIBUTES)));
  probe.fail_unless(!reserved || reserved->code != PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND, "\"%s\" is refused with %s",
                    command_name(PTZ_COMMAND_QUERY_ATTRIBUTES).c_str(), reserved ? describe(*reserved).c_str() : "");
}

void every_command(Probe &probe) {
  Link link = probe.connect();
  for (gint32 command = PTZ_COMMAND_SET_PRESET; command <= PTZ_COMMAND_GET_DRIVER_PARAMETERS; ++command) {
    // A driver may well obey these without an argument.
    if (command == PTZ_COMMAND_UNREGISTER || command == PTZ_COMMAND_CHANGE_PORT) continue;
    const guint32 id = link.request(make_body(static_cast<PTZCommand>(command)));
    bool answered = false;
    while (const auto frame = link.receive(probe.timeout_ms())) {
      answered = frame->id == id;
      if (answered) break;
    }
    probe.fail_unless(answered, "\"%s\" has no reply at all", command_name(command).c_str());
  }
}

void no_command_word(Probe &probe) {
  Link link = probe.connect();
  for (const guint32 length : {1U, 2U, 3U}) {
    const Body reply = link.ask(cut(harmless_request(), length));
    probe.fail_unless(error_of(reply).has_value(), "a body of %u bytes is not refused", length);
  }
}

void truncated_body(Probe &probe) {
  Link link = probe.connect();
  WellFormed well_formed;
  for (const Body &whole : {make_body(idle_move(link)), Head::move_command(PTZ_MOVE_CMD_STOP)}) {
    if (!well_formed.is_obeyed(link, whole)) continue;
    for (guint32 length = sizeof(gint32); length < whole->len; ++length) {
      const std::string what = "\"" + command_name(command_of(whole)) + "\" without its last " +
                               std::to_string(whole->len - length) + " bytes";
      expect_refused(link, cut(whole, length), what.c_str());
    }
  }
  well_formed.expect_any(probe);
}

void trailing_bytes(Probe &probe) {
  Link link = probe.connect();
  WellFormed well_formed;
  for (const PTZCommand command : {PTZ_COMMAND_QUERY_POSITION, PTZ_COMMAND_GET_CAPABILITIES, PTZ_COMMAND_STOP}) {
    const Body request = make_body(command);
    ptz_serialize_8bit(request.get(), 0);
    const std::string what = "\"" + command_name(command) + "\" with a byte too many";
    if (well_formed.is_obeyed(link, make_body(command))) expect_refused(link, request, what.c_str());
  }
  well_formed.expect_any(probe);
}

void long_text(Probe &probe) {
  Link link = probe.connect();
  expect_refused(link, text_request(PTZ_COMMAND_SET_DEVICE_PRESET, 1, 0xffff, "gate"),
                 "a text that claims more bytes than there are");
}

void invalid_text(Probe &probe) {
  Link link = probe.connect();
  expect_refused(link, text_request(PTZ_COMMAND_SET_DEVICE_PRESET, 1, 4, "ga\xff\xfe"), "a text that is no UTF-8");
}

void text_with_nul(Probe &probe) {
  Link link = probe.connect();
  expect_refused(link, text_request(PTZ_COMMAND_SET_DEVICE_PRESET, 1, 4, std::string_view("ga\0e", 4)),
                 "a text with a NUL in it");
}

void random_tails(Probe &probe) {
  Link link = probe.connect();
  std::minstd_rand random(1);  // NOLINT: every run is to send the same
  for (int count = 0; count < random_bodies && !probe.decided(); ++count) {
    constexpr PTZCommand harmless[] = {PTZ_COMMAND_QUERY_SPEED,        PTZ_COMMAND_QUERY_POSITION,
                                       PTZ_COMMAND_QUERY_LIMIT_RANGES, PTZ_COMMAND_GET_DRIVER_NAME,
                                       PTZ_COMMAND_GET_CAPABILITIES,   PTZ_COMMAND_GET_DEVICE_PRESETS};
    const Body body = make_body(harmless[random() % std::size(harmless)]);
    for (std::size_t left = random() % longest_random_tail; left > 0; --left) {
      ptz_serialize_8bit(body.get(), static_cast<guint8>(random() >> 8));
    }
    link.ask(body);
  }
}

void bad_kind(Probe &probe) {
  Link link = probe.connect();
  PTZKitMoveRequest move = idle_move(link);
  for (const guint32 kind : {0U, 4U, 0xffffffffU}) {
    move.kind = kind;
    expect_refused(link, make_body(move), ("a move of kind " + std::to_string(kind)).c_str());
  }
}

void bad_axes(Probe &probe) {
  Link link = probe.connect();
  PTZKitMoveRequest move = idle_move(link);
  for (const guint8 axes : {0, 8, 0x81}) {
    move.axes = axes;
    expect_refused(link, make_body(move), ("a move of axes " + std::to_string(axes)).c_str());
  }
}

void bad_speed(Probe &probe) {
  Link link = probe.connect();
  PTZKitMoveRequest move = idle_move(link);
  for (const guint16 speed : {0, 101, 0xffff}) {
    move.speed = speed;
    const std::string what = "a speed of " + std::to_string(speed) + " per cent";
    expect_refused(link, make_body(move), what.c_str());
  }
}

void bad_direction(Probe &probe) {
  Link link = probe.connect();
  for (const guint32 direction : {10U, 0xffffffffU}) {
    expect_refused(link, make_body(PTZKitMoveCommandRequest{direction, full_speed}),
                   ("direction " + std::to_string(direction)).c_str());
  }
}

void refused_changes_nothing(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_RELATIVE);
  head.make_room(axis);
  const gint32 before = head.position(axis);
  // Good as far as this axis goes, and then a byte too many.
  const Body request = Head::move(PTZ_MOVE_RELATIVE, axis, head.step(axis));
  ptz_serialize_8bit(request.get(), 0);
  if (!error_of(head.link().ask(request))) {
    return probe.not_applicable("no error to \"Move\" with a byte too many",
                                "the driver obeys a body that is too long");
  }
  const bool still = head.stays(axis) && head.position(axis) == before;
  probe.fail_unless(still, "%s moves although the request was refused", axis_names[axis]);
}

constexpr Check rows[] = {
    {"commands.unknown-is-refused", "a command that there is not is answered with an error", unknown_is_refused},
    {"commands.unknown-and-unsupported-differ", "an unknown command is error 1, one that is not served is not",
     unknown_and_unsupported},
    {"commands.every-command-is-answered", "each command has some answer, if only an error", every_command},
    {"commands.no-command-word", "a body of one to three bytes is answered with an error", no_command_word},
    {"commands.truncated-body", "a body that ends too early is answered with an error", truncated_body},
    {"commands.trailing-bytes", "a body with bytes left over is answered with an error", trailing_bytes},
    {"commands.text-beyond-the-body", "a text that claims more bytes than there are is answered with an error",
     long_text},
    {"commands.invalid-text", "a text that is no UTF-8 is answered with an error", invalid_text},
    {"commands.text-with-nul", "a text with a NUL in it is answered with an error", text_with_nul},
    {"commands.random-bodies", "200 random bodies are all answered", random_tails},
    {"commands.bad-kind-of-move", "a kind of move that there is not is answered with an error", bad_kind},
    {"commands.bad-axes", "no axis, or one that there is not, is answered with an error", bad_axes},
    {"commands.bad-speed", "a speed outside 1 to 100 per cent is answered with an error", bad_speed},
    {"commands.bad-direction", "a direction that there is not is answered with an error", bad_direction},
    {"commands.refused-changes-nothing", "a move that is answered with an error moves nothing",
     refused_changes_nothing},
};

}  // namespace

const Checks command_checks(rows);

}  // namespace compliance
