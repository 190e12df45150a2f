// driver_messages.h - the bodies that the daemon and a driver exchange. docs/driver-commands.md has them as tables.
#pragma once
#include <ptz_enum_types.h>
#include <ptz_flag_types.h>

#include <array>
#include <string>
#include <vector>

#include "body_reader.h"
#include "owned.h"

namespace example {

// Wherever a body holds something of every axis, this is the order. Pan and tilt are in hundredths of a degree (right
// and up are positive), zoom is the magnification times 100; speeds are these units per second.
enum AxisIndex : std::size_t { pan, tilt, zoom };
constexpr std::size_t axis_count = 3;
using PerAxis = std::array<gint32, axis_count>;

constexpr guint8 axis_bit(AxisIndex axis) { return static_cast<guint8>(1U << axis); }
constexpr guint8 all_axes = axis_bit(pan) | axis_bit(tilt) | axis_bit(zoom);

constexpr guint16 full_speed = 100;  // per cent
constexpr guint32 most_presets = 32;
constexpr std::size_t longest_preset_name = 32;  // bytes

enum class ErrorCode : guint32 {
  unknown_command = 1,  // no command of the framework has this number
  unsupported = 2,      // a command of the framework that this driver does not serve
  malformed = 3,        // the body is too short, too long, or holds a text that is none
  out_of_range = 4,     // a field has a value that it cannot have
  not_found = 5,        // nothing has this number or name
  not_kept = 6,         // it cannot be written to where the driver keeps it
};

// Each message is what follows the command word in a body. read() leaves it to the caller to ask finished().

struct ErrorReply {
  ErrorCode code;
  std::string text;
  void write(GArray *body) const;
  static ErrorReply read(BodyReader &reader);
};

struct MoveRequest {
  guint32 kind;  // PTZMove
  guint8 axes;   // axis_bit() of each axis that moves; the values of the others are ignored
  guint16 speed;
  PerAxis values;  // positions, differences or velocities, according to the kind
  void write(GArray *body) const;
  static MoveRequest read(BodyReader &reader);
};

struct MoveCommandRequest {
  guint32 direction;  // PTZMoveCmd
  guint16 speed;
  void write(GArray *body) const;
  static MoveCommandRequest read(BodyReader &reader);
};

struct Preset {
  guint32 number;
  std::string name;
  void write(GArray *body) const;
  static Preset read(BodyReader &reader);
};

struct PresetNumber {
  guint32 number;
  void write(GArray *body) const;
  static PresetNumber read(BodyReader &reader);
};

struct GotoPresetRequest {
  guint32 number;
  guint16 speed;
  void write(GArray *body) const;
  static GotoPresetRequest read(BodyReader &reader);
};

struct Auxiliary {
  std::string name;
  guint32 state;  // PTZEnable
  void write(GArray *body) const;
  static Auxiliary read(BodyReader &reader);
};

struct Positions {
  PerAxis position;
  PerAxis status;  // PTZMoveStatus
  void write(GArray *body) const;
  static Positions read(BodyReader &reader);
  [[nodiscard]] bool idle() const;
};

struct Speeds {
  PerAxis current;
  PerAxis maximum;
  void write(GArray *body) const;
  static Speeds read(BodyReader &reader);
};

struct Limits {
  PerAxis minimum;
  PerAxis maximum;
  void write(GArray *body) const;
  static Limits read(BodyReader &reader);
};

struct Capabilities {
  PTZDriverCapabilities words;
  void write(GArray *body) const;
  static Capabilities read(BodyReader &reader);
};

struct Name {
  std::string text;
  void write(GArray *body) const;
  static Name read(BodyReader &reader);
};

// A driver parameter item record.
struct DriverParameter {
  guint32 group;  // PTZParameterGroup
  std::string name;
  std::string label;
  std::string value;
  guint32 kind;   // PTZParameter
  guint32 flags;  // none are in use: 0
  std::string range;
  void write(GArray *body) const;
  static DriverParameter read(BodyReader &reader);
};

// A list, as ptz_serialize_glist() writes one. That function refuses an empty list, and an answer may well be one.
template <typename Element, guint32 smallest_element>
struct List {
  std::vector<Element> elements;
  void write(GArray *body) const;
  static List read(BodyReader &reader);
};
using DeviceTypes = List<Name, 2>;
using PresetList = List<Preset, 6>;
using ParameterList = List<DriverParameter, 20>;

// A body that holds the command word alone.
Body make_body(PTZCommand command);

template <typename Message>
Body make_body(PTZCommand command, const Message &message) {
  Body body = make_body(command);
  message.write(body.get());
  return body;
}

}  // namespace example
