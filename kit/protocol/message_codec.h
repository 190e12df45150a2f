// kit/protocol/message_codec.h - writes, reads and checks messages by the tables that generate.py makes.
//
// A message is a C structure, and its layout is a table: one element for each item of the body, in the order of the
// bytes. Scalars lie in the structure itself, texts are owned `gchar *`, lists are owned `GPtrArray *` of texts or of
// records. Readers take bytes from a peer: every length is checked against what is left before a byte of it is used,
// and nothing is returned unless the whole body is the message.
#pragma once
#include <glib-object.h>
#include <ptz_enum_types.h>

#include <span>

namespace ptz_kit {

using TypeGetter = GType (*)();

enum class Kind : guint8 { u8, u16, u32, i32, text, list };

struct Element {
  Kind kind;
  guint8 enumeration;  // the values that there are: 1 for the first of Tables::type_getters; 0 for any
  guint8 element;      // of a list: 1 for the first of Tables::layouts, which are its records; 0 for texts
  guint8 axis;         // 0 if the field is not per axis; else 1 for pan, 2 for tilt, 3 for zoom
  guint16 offset;      // in the structure
  guint16 name;        // in Tables::names
  gint32 least;        // bounds of a value, or of the bytes of a text
  guint32 most;
  gint32 initial;  // of a number that is absent; an absent text or list is empty
};

constexpr gint32 no_command = G_MININT32;  // records have no command word

struct Layout {
  gint32 command;
  guint16 size;
  guint16 least_bytes;  // of the body, without the command word
  guint16 title;        // in Tables::names
  guint16 first;        // in Tables::elements
  guint16 count;
  guint16 required;  // elements that every body has; the others are of later protocol versions
};

struct Command {
  gint32 value;    // a PTZCommand
  guint16 name;    // in Tables::names
  guint8 request;  // 1 for the first of Tables::layouts; 0 if the body is the command word alone
  guint8 reply;
  guint32 move, extra;  // capabilities without which the command is not served
};

// Offsets and numbers instead of pointers: the tables are read-only data without relocations.
struct Tables {
  const char *names;
  const TypeGetter *type_getters;
  const Element *elements;
  const Layout *layouts;
  std::span<const Command> commands;
};
extern const Tables tables;

[[nodiscard]] const Command *find_command(gint32 value);

// The boxed type of a message, registered at the first call.
[[nodiscard]] GType message_type(gsize &type, const char *name, GBoxedCopyFunc copy, GBoxedFreeFunc free);
// NULL for a message is a programmer's error in all of these but free_message(): a critical warning.
[[nodiscard]] gpointer make_message(const Layout &layout);
[[nodiscard]] gpointer copy_message(const Layout &layout, gconstpointer message);
void free_message(const Layout &layout, gpointer message);
[[nodiscard]] gboolean validate_message(const Layout &layout, gconstpointer message, GError **error);
[[nodiscard]] gboolean write_message(const Layout &layout, gconstpointer message, GArray *body, GError **error);
[[nodiscard]] GBytes *message_to_bytes(const Layout &layout, gconstpointer message, GError **error);
[[nodiscard]] gpointer read_message(const Layout &layout, std::span<const guint8> body, GError **error);

}  // namespace ptz_kit
