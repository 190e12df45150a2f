// Device presets. Stores under numbers that were free, of which a driver that keeps presets has two more afterwards.
#include "head.h"
#include "presets.h"

namespace compliance {

namespace {

void store_and_return(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_RELATIVE);
  head.make_room(axis);
  const guint32 number = free_preset(head.link());
  store_preset(head.link(), number, preset_name);
  const Positions there = head.where();
  head.order(Head::move(PTZ_MOVE_RELATIVE, axis, head.step(axis)));
  head.arrive();
  head.order(make_body(PTZKitGotoDevicePresetRequest{number, full_speed}));
  const Positions back = head.arrive();
  for (const AxisIndex each : head.axes()) {
    probe.fail_unless(there.position[each] == back.position[each], "preset %u was stored with %s at %d and leads to %d",
                      number, axis_names[each], there.position[each], back.position[each]);
  }
}

void is_listed(Probe &probe) {
  Link link = probe.connect();
  const guint32 number = free_preset(link);
  store_preset(link, number, preset_name);
  const Presets list(link);
  const PTZKitPreset *const found = list.find(number);
  if (found == nullptr) return probe.fail("preset %u was stored and is not listed", number);
  probe.fail_unless(g_str_equal(found->name, preset_name), "preset %u was stored as \"%s\" and is listed as \"%s\"",
                    number, preset_name, found->name);
}

void is_replaced(Probe &probe) {
  Link link = probe.connect();
  const guint32 number = free_preset(link);
  store_preset(link, number, preset_name);
  store_preset(link, number, other_name);
  const Presets list(link);
  const std::size_t entries = list.count(number);
  probe.fail_unless(entries <= 1, "preset %u was stored twice and is listed %zu times", number, entries);
  const PTZKitPreset *const found = list.find(number);
  if (found == nullptr) return;  // that is another check's
  const bool old = g_str_equal(found->name, preset_name) != FALSE;
  store_preset(link, number, preset_name);
  probe.fail_unless(!old, "preset %u keeps its old name when it is stored again", number);
}

void in_order(Probe &probe) {
  Link link = probe.connect();
  const guint32 higher = free_preset(link);
  const guint32 lower = free_preset(link, higher);
  store_preset(link, higher, preset_name);
  store_preset(link, lower, preset_name);
  const Presets list(link);
  for (std::size_t index = 1; index < list.size(); ++index) {
    probe.fail_unless(list[index - 1].number <= list[index].number, "the presets are not listed by their numbers");
  }
}

void unknown_is_refused(Probe &probe) {
  Link link = probe.connect();
  expect_refused(link, make_body(PTZKitGotoDevicePresetRequest{G_MAXUINT32, full_speed}),
                 "going to a preset that was not stored");
}

void bad_number(Probe &probe) {
  Link link = probe.connect();
  for (const guint32 number : {0U, G_MAXUINT32}) {
    expect_refused(link, make_preset_body(number, preset_name), ("storing preset " + std::to_string(number)).c_str());
  }
}

void bad_name(Probe &probe) {
  Link link = probe.connect();
  const guint32 number = free_preset(link);
  for (const std::size_t length : {std::size_t{0}, longest_preset_name + 1}) {
    expect_refused(link, make_preset_body(number, std::string(length, 'x').c_str()),
                   ("a name of " + std::to_string(length) + " bytes").c_str());
  }
}

constexpr Check rows[] = {
    {"presets.store-and-return", "a preset leads back to where it was stored", store_and_return},
    {"presets.is-listed", "a preset that was stored is listed, with its name", is_listed},
    {"presets.is-replaced", "a preset that is stored again replaces the one before", is_replaced},
    {"presets.in-order", "presets are listed by their numbers", in_order},
    {"presets.unknown-is-refused", "going to a preset that was not stored is answered with an error",
     unknown_is_refused},
    {"presets.bad-number", "storing a preset 0 or 4294967295 is answered with an error", bad_number},
    {"presets.bad-name", "a name of 0 or 33 bytes is answered with an error", bad_name},
};

}  // namespace

const Checks preset_checks(rows);

}  // namespace compliance
