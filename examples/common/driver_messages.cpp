#include "driver_messages.h"

#include <ptz_driver_parameter_item.h>
#include <ptz_serialize.h>

#include <algorithm>

namespace example {

namespace {

void write_i32(GArray *body, gint32 value) { ptz_serialize_32bit(body, static_cast<guint32>(value)); }
void write_text(GArray *body, const std::string &text) { ptz_serialize_string(body, text.c_str()); }

// Two numbers of each axis: those of pan, then those of tilt, then those of zoom.
void write_pairs(GArray *body, const PerAxis &first, const PerAxis &second) {
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    write_i32(body, first[axis]);
    write_i32(body, second[axis]);
  }
}

template <typename Message>
Message read_pairs(BodyReader &reader) {
  PerAxis first;
  PerAxis second;
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    first[axis] = reader.i32();
    second[axis] = reader.i32();
  }
  return Message{first, second};
}

}  // namespace

// Braces fix the order in which the members are read: it is that of the bytes.

void ErrorReply::write(GArray *body) const {
  ptz_serialize_32bit(body, static_cast<guint32>(code));
  write_text(body, text);
}
ErrorReply ErrorReply::read(BodyReader &reader) { return {static_cast<ErrorCode>(reader.u32()), reader.text()}; }

void MoveRequest::write(GArray *body) const {
  ptz_serialize_32bit(body, kind);
  ptz_serialize_8bit(body, axes);
  ptz_serialize_16bit(body, speed);
  for (const gint32 value : values) write_i32(body, value);
}
MoveRequest MoveRequest::read(BodyReader &reader) {
  return {reader.u32(), reader.u8(), reader.u16(), {reader.i32(), reader.i32(), reader.i32()}};
}

void MoveCommandRequest::write(GArray *body) const {
  ptz_serialize_32bit(body, direction);
  ptz_serialize_16bit(body, speed);
}
MoveCommandRequest MoveCommandRequest::read(BodyReader &reader) { return {reader.u32(), reader.u16()}; }

void Preset::write(GArray *body) const {
  ptz_serialize_32bit(body, number);
  write_text(body, name);
}
Preset Preset::read(BodyReader &reader) { return {reader.u32(), reader.text()}; }

void PresetNumber::write(GArray *body) const { ptz_serialize_32bit(body, number); }
PresetNumber PresetNumber::read(BodyReader &reader) { return {reader.u32()}; }

void GotoPresetRequest::write(GArray *body) const {
  ptz_serialize_32bit(body, number);
  ptz_serialize_16bit(body, speed);
}
GotoPresetRequest GotoPresetRequest::read(BodyReader &reader) { return {reader.u32(), reader.u16()}; }

void Auxiliary::write(GArray *body) const {
  write_text(body, name);
  ptz_serialize_32bit(body, state);
}
Auxiliary Auxiliary::read(BodyReader &reader) { return {reader.text(), reader.u32()}; }

void Positions::write(GArray *body) const { write_pairs(body, position, status); }
Positions Positions::read(BodyReader &reader) { return read_pairs<Positions>(reader); }
bool Positions::idle() const {
  return std::ranges::all_of(status, [](gint32 axis) { return axis == PTZ_MOVE_STATUS_IDLE; });
}

void Speeds::write(GArray *body) const { write_pairs(body, current, maximum); }
Speeds Speeds::read(BodyReader &reader) { return read_pairs<Speeds>(reader); }

void Limits::write(GArray *body) const { write_pairs(body, minimum, maximum); }
Limits Limits::read(BodyReader &reader) { return read_pairs<Limits>(reader); }

void Capabilities::write(GArray *body) const {
  ptz_serialize_32bit(body, words.move);
  ptz_serialize_32bit(body, words.extra);
}
Capabilities Capabilities::read(BodyReader &reader) { return {{reader.u32(), reader.u32()}}; }

void Name::write(GArray *body) const { write_text(body, text); }
Name Name::read(BodyReader &reader) { return {reader.text()}; }

// Nothing of it is changed: the library's record has no const strings, because reading makes new ones.
void DriverParameter::write(GArray *body) const {
  const auto text_of = [](const std::string &text) { return const_cast<gchar *>(text.c_str()); };
  const PTZDriverParameterItem item = {group, text_of(name), text_of(label), text_of(value),
                                       kind,  flags,         text_of(range)};
  ptz_driver_parameter_item_serialize(&item, body);
}
// Field by field: ptz_driver_parameter_item_deserialize() ends the process on a record that is cut short.
DriverParameter DriverParameter::read(BodyReader &reader) {
  return {reader.u32(), reader.text(), reader.text(), reader.text(), reader.u32(), reader.u32(), reader.text()};
}

template <typename Element, guint32 smallest_element>
void List<Element, smallest_element>::write(GArray *body) const {
  ptz_serialize_32bit(body, static_cast<guint32>(elements.size()));
  for (const Element &element : elements) element.write(body);
}
template <typename Element, guint32 smallest_element>
List<Element, smallest_element> List<Element, smallest_element>::read(BodyReader &reader) {
  List list;
  for (guint32 left = reader.count(smallest_element); left > 0 && !reader.failed(); --left) {
    list.elements.push_back(Element::read(reader));
  }
  return list;
}
template struct List<Name, 2>;
template struct List<Preset, 6>;
template struct List<DriverParameter, 20>;

Body make_body(PTZCommand command) {
  Body body(ptz_serialize_create_array());
  write_i32(body.get(), command);
  return body;
}

}  // namespace example
