#!/usr/bin/env python3
"""Makes from commands.toml, the one description of all messages:

  generate.py header COMMANDS   ptz_kit_messages.h, the public structures and functions
  generate.py source COMMANDS   ptz_kit_messages.cpp, the tables that message_codec.h interprets
  generate.py reply_header COMMANDS   ptz_kit_replies.h, a typed answer for each command of a driver
  generate.py reply_source COMMANDS   ptz_kit_replies.cpp
  generate.py json COMMANDS     commands.json, the description for tools

document.py makes the tables of docs/driver-commands.md.
"""
import json
import sys

sys.dont_write_bytecode = True
from description import LIMITS, camel, load, type_getter  # noqa: E402

# --- C ----------------------------------------------------------------------------------------------------------------

NOTICE = '/* Made by generate.py from commands.toml. */\n'

MOVE_CAPABILITIES = ('ZOOM', 'DIGITALZOOM')  # the others are of PTZDriverExtraCapabilities


def new_parameters(message):
    return ', '.join(field.c_parameter() for field in message.first_scalars) or 'void'


def parameter_docs(message):
    return ''.join(parameter_doc(field) for field in message.first_scalars)


def parameter_doc(field):
    annotation = ' (array fixed-size=3):' if field.group else ''
    copied = '; copied' if field.group or field.type == 'text' else ''
    return f' * @{field.name}:{annotation} {field.meaning()}{copied}\n'


def field_docs(message):
    lines = []
    for field in message.fields:
        annotation = ''
        if field.is_list:
            element = 'utf8' if field.element_type == 'text' else 'PTZKit' + camel(field.element_type)
            annotation = f' (element-type {element}):'
        elif field.group:
            annotation = ' (array fixed-size=3):'
        lines.append(f' * @{field.name}:{annotation} {field.meaning()}\n')
    return ''.join(lines)


def header_of_message(message):
    kind = 'A record of messages' if message.kind is None else f'The {message.kind} of `{message.command["value"]}`'
    prefix, c_type = message.prefix, message.c_type
    members = ''.join(f'  {field.c_member()};\n' for field in message.fields)
    text = f'''
#define {message.type_macro} ({prefix}_get_type ())

/**
 * {c_type}:
{field_docs(message)} *
 * {kind}. {message.doc}
 *
 * Since: 0.1
 */
typedef struct {{
{members}}} {c_type};

/**
 * {prefix}_get_type:
 *
 * Thread: any.
 *
 * Returns: the boxed type of #{c_type}
 */
PTZ_KIT_API GType {prefix}_get_type (void);

/**
 * {prefix}_new:
{parameter_docs(message)} *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): a new message, for {prefix}_free()
 */
PTZ_KIT_API {c_type} *{prefix}_new ({new_parameters(message)});

/**
 * {prefix}_copy:
 * @self: a message; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): a deep copy of @self
 */
PTZ_KIT_API {c_type} *{prefix}_copy (const {c_type} *self);

/**
 * {prefix}_free:
 * @self: (transfer full) (nullable): a message
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void {prefix}_free ({c_type} *self);

G_DEFINE_AUTOPTR_CLEANUP_FUNC ({c_type}, {prefix}_free)

/**
 * {prefix}_validate:
 * @self: a message; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Checks every field against the bounds of the description. Limits that depend on the head are not known here.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` if every field is within its bounds; `FALSE` with @error set to `PTZ_KIT_ERROR_OUT_OF_RANGE`
 */
PTZ_KIT_API gboolean {prefix}_validate (const {c_type} *self, GError **error);
'''
    for field in message.later_scalars:
        text += f'''
/**
 * {prefix}_set_{field.name}:
 * @self: a message; borrowed
{parameter_doc(field)} *
 * Thread: the one that uses @self.
 */
PTZ_KIT_API void {prefix}_set_{field.name} ({c_type} *self, {field.c_parameter()});
'''
    for field in message.lists:
        element = 'const gchar *' if field.element_type == 'text' else f'const PTZKit{camel(field.element_type)} *'
        text += f'''
/**
 * {prefix}_add_{field.element}:
 * @self: a message; borrowed
 * @{field.element}: the element to append; copied
 *
 * Thread: the one that uses @self.
 *
 * Since: 0.1
 */
PTZ_KIT_API void {prefix}_add_{field.element} ({c_type} *self, {element}{field.element});
'''
    if message.kind is None:
        return text
    return text + f'''
/**
 * {prefix}_write: (skip)
 * @self: a message; borrowed
 * @body: (element-type guint8): a byte array to append the whole body to, command word included;
 *   borrowed
 * @error: return location for an error, or `NULL`
 *
 * Fails if a text is not UTF-8 or the body would be longer than a frame may carry; @body is then unchanged.
 *
 * Thread: the one that uses @body.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set, in `PTZ_KIT_ERROR`
 */
PTZ_KIT_API gboolean {prefix}_write (const {c_type} *self, GArray *body, GError **error);

/**
 * {prefix}_to_bytes:
 * @self: a message; borrowed
 * @error: return location for an error, or `NULL`
 *
 * As {prefix}_write(), into new memory.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): the body; `NULL` with @error set on failure
 */
PTZ_KIT_API GBytes *{prefix}_to_bytes (const {c_type} *self, GError **error);

/**
 * {prefix}_read:
 * @body: (array length=length): a whole body, command word included; borrowed
 * @length: bytes in @body
 * @error: return location for an error, or `NULL`
 *
 * Reads bytes of a peer that may have sent anything. Bounds of values are not checked: see {prefix}_validate().
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): the message; `NULL` with @error set to `PTZ_KIT_ERROR_MALFORMED`, which names the
 *   field and its offset, if the body is anything but this message
 */
PTZ_KIT_API {c_type} *{prefix}_read (const guint8 *body, gsize length, GError **error);
'''


def constants(protocol):
    values = [('PROTOCOL_VERSION', 'version of the command protocol that this header describes', protocol.version)]
    values += [('MAX_' + name.upper(), doc, protocol.limits[name]) for name, doc in LIMITS.items()]
    return ''.join(f'''
/**
 * PTZ_KIT_{name}:
 *
 * The {doc}.
 *
 * Since: 0.1
 */
#define PTZ_KIT_{name} {value}
''' for name, doc, value in values)


def make_header(protocol):
    codes = ''.join(f'  PTZ_KIT_ERROR_CODE_{error["name"].upper()} = {error["code"]},\n' for error in protocol.errors)
    docs = ''.join(f' * @PTZ_KIT_ERROR_CODE_{error["name"].upper()}: {error["doc"]}\n' for error in protocol.errors)
    body = ''.join(header_of_message(message) for message in protocol.everything)
    return f'''{NOTICE}/* ptz_kit_messages.h - the messages between the daemon and a driver as typed structures.
 *
 * A message is allocated by its functions _new(), _read() and _copy() only, never on the stack or in an array: a later
 * version may append fields to the structure. docs/wire-compat.md tells how messages change.
 */
#pragma once

#include <ptz_kit_types.h>

G_BEGIN_DECLS
{constants(protocol)}
/**
 * PTZKitErrorCode:
{docs} *
 * What an error reply says about a request.
 *
 * Since: 0.1
 */
typedef enum {{
{codes}}} PTZKitErrorCode;
{body}
G_END_DECLS
'''


def c_text(text):
    return json.dumps(text)


class Pool:
    """All texts of the tables in one array, so that the tables hold offsets and need no relocation."""

    def __init__(self):
        self.texts = []
        self.offsets = {}
        self.length = 0

    def offset(self, text):
        if text not in self.offsets:
            self.offsets[text] = self.length
            self.texts.append(text)
            self.length += len(text.encode()) + 1
        return self.offsets[text]

    def definition(self):
        lines = ''.join(f'    {c_text(text)} "\\0"\n' for text in self.texts)
        return f'constexpr char names[] =\n{lines}    ;\n'


def element_of(message, field, axis, pool, enumerations, record_numbers):
    at = f'offsetof({message.c_type}, {field.name})'
    if axis:
        at += f' + {axis} * sizeof(gint32)'
    name = pool.offset(field.name)
    least, most, enumeration, element = 0, 0, 0, 0
    if field.is_list:
        kind = 'list'
        element = 0 if field.element_type == 'text' else record_numbers[field.element_type]
    elif field.type == 'text':
        kind, least, most = 'text', field.least_bytes, field.most_bytes
    else:
        kind = field.type
        least, most = field.range()
        if field.enum:
            if field.enum not in enumerations:
                enumerations.append(field.enum)
            enumeration = enumerations.index(field.enum) + 1
    least_text = 'G_MININT32' if least == -0x80000000 else least
    return (f'{{Kind::{kind}, {enumeration}, {element}, {0 if axis is None else axis + 1}, {at}, {name}, {least_text}, '
            f'static_cast<guint32>({most}), {field.default or 0}}}')


def make_tables_in_c(protocol):
    pool, enumerations, elements, layouts = Pool(), [], [], []
    record_numbers = {name: number for number, name in enumerate(protocol.records, 1)}
    for message in protocol.everything:
        order = message.wire_order()
        command = message.command['value'] if message.kind else 'no_command'
        layouts.append(f'    {{{command}, sizeof({message.c_type}), {message.least_bytes()}, {pool.offset(message.title)}, '
                       f'{len(elements)}, {len(order)}, {message.required()}}},\n')
        elements += [element_of(message, field, axis, pool, enumerations, record_numbers) for field, axis in order]
    numbers = {message.name: number for number, message in enumerate(protocol.everything, 1)}
    commands = ''
    for command in protocol.commands:
        commands += (f'    {{{command["value"]}, {pool.offset(command["name"])}, {numbers.get(command["name"] + "_request", 0)}, '
                     f'{numbers.get(command["name"] + "_reply", 0)}, {needed_capabilities(command)}}},\n')
    element_rows = ''.join(f'    {element},\n' for element in elements)
    getters = ''.join(f'    {type_getter(name)},\n' for name in enumerations)
    return f'''
{pool.definition()}
constexpr TypeGetter type_getters[] = {{
{getters}}};

constexpr Element elements[] = {{
{element_rows}}};

constexpr Layout layouts[] = {{
{''.join(layouts)}}};

constexpr Command commands[] = {{
{commands}}};
'''


def needed_capabilities(command):
    name = command.get('capability')
    if name is None:
        return '0, 0'
    if name in MOVE_CAPABILITIES:
        return f'PTZ_DRIVER_MOVE_CAPABILITIES_{name}, 0'
    return f'0, PTZ_DRIVER_EXTRA_CAPABILITIES_{name}'


def assignment(field):
    if field.type == 'text':
        return f'  self->{field.name} = g_strdup({field.name});\n'
    if field.group:
        return f'  copy_axes({field.name}, self->{field.name});\n'
    return f'  self->{field.name} = {field.name};\n'


def functions_of(message, number):
    prefix, c_type, layout = message.prefix, message.c_type, f'layouts[{number}]'
    assignments = ''.join(map(assignment, message.first_scalars))
    new = f'  auto *self = static_cast<{c_type} *>(make_message({layout}));\n{assignments}  return self;\n'
    text = f'''
GType {prefix}_get_type(void) {{
  static gsize type;
  return message_type(type, "{c_type}", reinterpret_cast<GBoxedCopyFunc>({prefix}_copy),
                      reinterpret_cast<GBoxedFreeFunc>({prefix}_free));
}}
{c_type} *{prefix}_new({new_parameters(message)}) {{
{new}}}
{c_type} *{prefix}_copy(const {c_type} *self) {{ return static_cast<{c_type} *>(copy_message({layout}, self)); }}
void {prefix}_free({c_type} *self) {{ free_message({layout}, self); }}
gboolean {prefix}_validate(const {c_type} *self, GError **error) {{ return validate_message({layout}, self, error); }}
'''
    for field in message.later_scalars:
        free = f'  g_free(self->{field.name});\n' if field.type == 'text' else ''
        text += f'''void {prefix}_set_{field.name}({c_type} *self, {field.c_parameter()}) {{
  g_return_if_fail(self != NULL);
{free}{assignment(field)}}}
'''
    for field in message.lists:
        if field.element_type == 'text':
            element, copy = 'const gchar *', f'g_strdup({field.element})'
        else:
            element = f'const PTZKit{camel(field.element_type)} *'
            copy = f'ptz_kit_{field.element_type}_copy({field.element})'
        text += f'''void {prefix}_add_{field.element}({c_type} *self, {element}{field.element}) {{
  g_return_if_fail(self != NULL);
  g_return_if_fail({field.element} != NULL);
  g_ptr_array_add(self->{field.name}, {copy});
}}
'''
    if message.kind is None:
        return text
    return text + f'''gboolean {prefix}_write(const {c_type} *self, GArray *body, GError **error) {{
  return write_message({layout}, self, body, error);
}}
GBytes *{prefix}_to_bytes(const {c_type} *self, GError **error) {{ return message_to_bytes({layout}, self, error); }}
{c_type} *{prefix}_read(const guint8 *body, gsize length, GError **error) {{
  return static_cast<{c_type} *>(read_message({layout}, {{body, length}}, error));
}}
'''


def make_source(protocol):
    functions = ''.join(functions_of(message, number) for number, message in enumerate(protocol.everything))
    return f'''{NOTICE}#include "ptz_kit_messages.h"

#include <algorithm>
#include <cstddef>

#include "protocol/message_codec.h"

using namespace ptz_kit;

namespace {{
{make_tables_in_c(protocol)}
void copy_axes(const gint32 *from, gint32 *to) {{
  if (from != nullptr) std::copy_n(from, PTZ_KIT_N_AXES, to);
}}

}}  // namespace

const ptz_kit::Tables ptz_kit::tables = {{names, type_getters, elements, layouts, commands}};
{functions}'''


# --- typed answers ----------------------------------------------------------------------------------------------------

def replies(protocol):
    """The error reply has functions of its own, by hand."""
    return [message for message in protocol.messages if message.kind == 'reply' and message.command['name'] != 'error']


def make_reply_header(protocol):
    functions = ''
    for message in replies(protocol):
        name = 'ptz_kit_reply_' + message.command['name']
        functions += f'''
/**
 * {name}:
 * @self: a reply to `{message.command["value"]}`
 * @answer: the fields of the reply; borrowed
 *
 * Answers the request. If @answer cannot be written, the log says why and the request is answered with
 * `PTZ_KIT_ERROR_CODE_INTERNAL`.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void {name} (PTZKitReply *self, const {message.c_type} *answer);
'''
    return f'''{NOTICE}/* ptz_kit_replies.h - answers a request with the fields of its reply. */
#pragma once

#include <ptz_kit_messages.h>
#include <ptz_kit_reply.h>

G_BEGIN_DECLS
{functions}
G_END_DECLS
'''


def make_reply_source(protocol):
    functions = ''.join(
        f'void ptz_kit_reply_{message.command["name"]}(PTZKitReply *self, const {message.c_type} *answer) {{\n'
        f'  ptz_kit::answer(self, {message.command["value"]}, answer);\n}}\n' for message in replies(protocol))
    return f'{NOTICE}#include "ptz_kit_replies.h"\n\n#include "driver/reply.h"\n\n{functions}'


# --- data -----------------------------------------------------------------------------------------------------------

def make_json(protocol):
    def fields_of(message):
        result = []
        for field in message.fields:
            entry = {'name': field.name, 'type': field.type, 'doc': field.doc, 'since': field.since}
            for key, value in (('unit', field.unit), ('enum', field.enum), ('flags', field.flags),
                               ('per_axis', field.group), ('min', field.bounds[0]), ('max', field.bounds[1])):
                if value is not None:
                    entry[key] = value
            if field.is_later:
                entry['default'] = field.default
            if field.type == 'text':
                entry['bytes'] = [field.least_bytes, field.most_bytes]
            result.append(entry)
        return result

    commands = []
    for command in protocol.commands:
        entry = {key: command[key] for key in ('name', 'value', 'doc', 'capability') if key in command}
        entry['since'] = command.get('since', 1)
        entry['errors'] = command.get('errors', [])
        for message in protocol.messages:
            if message.command is command:
                entry[message.kind] = fields_of(message)
        commands.append(entry)
    records = [{'name': record.name, 'doc': record.doc, 'fields': fields_of(record)}
               for record in protocol.records.values()]
    return json.dumps({'version': protocol.version, 'limits': protocol.limits, 'errors': protocol.errors,
                       'records': records, 'commands': commands, 'left_out': protocol.left_out}, indent=1) + '\n'


MAKERS = {'header': make_header, 'source': make_source, 'reply_header': make_reply_header,
          'reply_source': make_reply_source, 'json': make_json}


def main(arguments):
    if len(arguments) != 2 or arguments[0] not in MAKERS:
        sys.exit(__doc__)
    sys.stdout.write(MAKERS[arguments[0]](load(arguments[1])))


if __name__ == '__main__':
    main(sys.argv[1:])
