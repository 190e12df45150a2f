#include <ptz_flag_types.h>

#include <cstdio>
#include <span>
#include <string>

#include "axis_members.h"
#include "commands.h"
#include "driver_axes.h"
#include "driver_commands.h"
#include "driver_connection.h"
#include "plain_text.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

using Name = tools::Handle<PTZKitGetDriverNameReply, ptz_kit_get_driver_name_reply_free>;
using DeviceTypes = tools::Handle<PTZKitGetDeviceTypesReply, ptz_kit_get_device_types_reply_free>;
using Capabilities = tools::Handle<PTZKitGetCapabilitiesReply, ptz_kit_get_capabilities_reply_free>;
using Parameters = tools::Handle<PTZKitGetDriverParametersReply, ptz_kit_get_driver_parameters_reply_free>;

int run_info(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows the driver's name and the devices that it is for.", ""}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto name = driver.ask<Name, ptz_kit_link_get_driver_name>();
  const auto reply = driver.ask<DeviceTypes, ptz_kit_link_get_device_types>();
  if (name == nullptr || reply == nullptr) return driver.status();
  const std::span types(reinterpret_cast<const char *const *>(reply->types->pdata), reply->types->len);
  if (options.as_json()) {
    const JsonLine json;
    json.member("name", std::string(name->name));
    json.begin_array("device_types");
    for (const char *type : types) json.element(type);
    json.end_array();
    json.print();
    return EXIT_SUCCESS;
  }
  std::printf("%s\n", painted(Look::heading, tools::plain_text(name->name)).c_str());
  for (const char *type : types) std::printf("  for %s\n", tools::plain_text(type).c_str());
  return EXIT_SUCCESS;
}

int run_caps(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows what the driver says that it can do.", " --json"}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto caps = driver.ask<Capabilities, ptz_kit_link_get_capabilities>();
  if (caps == nullptr) return driver.status();
  const struct {
    const char *title;
    guint32 bits;
    GType type;
  } rows[] = {{"move", caps->move, PTZ_TYPE_DRIVER_MOVE_CAPABILITIES},
              {"extra", caps->extra, PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES}};
  if (options.as_json()) {
    const JsonLine json;
    for (const auto &row : rows) {
      json.begin_array(row.title);
      for (const auto *name : names_of_bits(row.type, row.bits)) json.element(name);
      json.end_array();
    }
    json.print();
    return EXIT_SUCCESS;
  }
  for (const auto &row : rows) {
    std::printf("%-6s 0x%08x", row.title, row.bits);
    for (const auto *name : names_of_bits(row.type, row.bits)) std::printf(" %s", name);
    std::printf("\n");
  }
  return EXIT_SUCCESS;
}

int run_limits(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows how far and how fast each axis goes, in degrees and magnifications.", " --json"},
                  Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto limits = driver.ask<Limits, ptz_kit_link_query_limit_ranges>();
  const auto speeds = driver.ask<Speeds, ptz_kit_link_query_speed>();
  if (limits == nullptr || speeds == nullptr) return driver.status();
  if (options.as_json()) {
    const JsonLine json;
    add_axes(json, [&](std::size_t i) {
      json.member("minimum", shown(limits->minimum[i]));
      json.member("maximum", shown(limits->maximum[i]));
      json.member("maximum_speed", shown(speeds->maximum[i]));
    });
    json.print();
    return EXIT_SUCCESS;
  }
  for (std::size_t i = 0; i < axis_count; ++i) {
    std::printf("%-5s %10.2f to %10.2f %s, at most %.2f a second\n", axis_names[i], shown(limits->minimum[i]),
                shown(limits->maximum[i]), axis_units[i], shown(speeds->maximum[i]));
  }
  return EXIT_SUCCESS;
}

int run_params(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows the driver's parameters.", " --json"}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto reply = driver.ask<Parameters, ptz_kit_link_get_driver_parameters>();
  if (reply == nullptr) return driver.status();
  for (guint i = 0; i < reply->parameters->len; ++i) {
    const auto &each = *static_cast<const PTZKitParameter *>(g_ptr_array_index(reply->parameters, i));
    if (options.as_json()) {
      const JsonLine json;
      json.member("name", std::string(each.name));
      json.member("label", std::string(each.label));
      json.member("value", std::string(each.value));
      json.member("range", std::string(each.range));
      json.print();
    } else {
      std::printf("%-20s %-12s %-12s %s\n", each.name, each.value, each.range, each.label);
    }
  }
  return EXIT_SUCCESS;
}

}  // namespace

int run_driver(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {
      {"caps", "what it can do", run_caps},
      {"info", "its name and the devices that it is for", run_info},
      {"limits", "how far and how fast each axis goes", run_limits},
      {"list", "which drivers run", run_driver_list},
      {"move", "move the head", run_driver_move},
      {"params", "its parameters", run_params},
      {"position", "where each axis is", run_driver_position},
      {"presets", "list, store and go to presets", run_driver_presets},
      {"send", "any request, field by field", run_driver_send},
      {"stop", "stop every axis", run_driver_stop},
  };
  return run_one_of(subcommands, "Example: ptzctl driver info --driver sim-driver", words, argc, argv);
}

}  // namespace ptzctl
