"""The description of all messages, commands.toml, as objects, and what is wrong with it."""
import collections
import sys
import tomllib

AXES = ['pan', 'tilt', 'zoom']
C_TYPES = {'u8': 'guint8', 'u16': 'guint16', 'u32': 'guint32', 'i32': 'gint32'}
LEAST_BYTES = {'u8': 1, 'u16': 2, 'u32': 4, 'i32': 4, 'text': 2}
VALUE_RANGE = {'u8': (0, 0xFF), 'u16': (0, 0xFFFF), 'u32': (0, 0xFFFFFFFF), 'i32': (-0x80000000, 0x7FFFFFFF)}
UNITS = {
    'axis': 'hundredths of a degree; of a magnification for zoom',
    'axis/s': 'hundredths of a degree per second; of a magnification for zoom',
    'degrees/100': 'hundredths of a degree',
    'percent': 'per cent',
    'permyriad': 'ten thousandths of the image',
    'magnification/100': 'hundredths of a magnification',
}
# Keys that a table must have, and keys that it may have.
PROTOCOL_KEYS = ({'version', 'limits', 'error', 'record', 'command', 'left_out'}, set())
ERROR_KEYS = ({'name', 'code', 'doc'}, set())
RECORD_KEYS = ({'name', 'doc', 'fields'}, set())
COMMAND_KEYS = ({'name', 'value', 'doc'}, {'capability', 'errors', 'request', 'reply', 'since'})
LEFT_OUT_KEYS = ({'value', 'reason'}, set())
FIELD_KEYS = ({'name', 'type', 'doc'},
              {'unit', 'min', 'max', 'enum', 'flags', 'bytes', 'per_axis', 'inline', 'element', 'since', 'default'})
NUMBER_KEYS = {'unit', 'min', 'max', 'enum', 'flags', 'per_axis'}
LIMITS = {
    'body_bytes': 'most bytes of a body',
    'presets': 'number of presets: the largest number of one',
    'preset_name_bytes': 'most bytes of a preset\'s name',
}


class DescriptionError(Exception):
    """The description contradicts itself."""


def check(condition, where, problem):
    if not condition:
        raise DescriptionError(f'{where}: {problem}')


def check_keys(where, table, keys):
    required, optional = keys
    missing, unknown = sorted(required - set(table)), sorted(set(table) - required - optional)
    check(not missing, where, 'missing keys: ' + ', '.join(missing))
    check(not unknown, where, 'unknown keys: ' + ', '.join(unknown))


def check_unique(where, values):
    twice = [str(value) for value, count in collections.Counter(values).items() if count > 1]
    check(not twice, where, 'more than once: ' + ', '.join(twice))


def camel(name):
    return ''.join(part.capitalize() for part in name.split('_'))


def type_getter(name):
    """PTZMoveCmd -> ptz_move_cmd_get_type"""
    words = ''.join('_' + c.lower() if c.isupper() else c for c in name.removeprefix('PTZ'))
    return f'ptz{words}_get_type'


class Field:
    """A field of a message that exists since the protocol version `first`."""

    def __init__(self, owner, description, first=1):
        check_keys(f'{owner}: field {description.get("name", "without a name")}', description, FIELD_KEYS)
        self.name = description['name']
        self.type = description['type']
        self.doc = description['doc']
        self.unit = description.get('unit')
        self.enum = description.get('enum')
        self.flags = description.get('flags')
        self.group = description.get('per_axis')
        self.element = description.get('element')
        self.since = description.get('since', first)
        self.is_later = self.since > first
        self.default = description.get('default')
        self.least_bytes, self.most_bytes = description.get('bytes', (0, 0xFFFF))
        self.bounds = (description.get('min'), description.get('max'))
        self.where = f'{owner}: field {self.name}'
        self.check_consistency(set(description))

    def check_consistency(self, keys):
        where = self.where
        check(self.type in LEAST_BYTES or self.is_list, where, f'unknown type {self.type}')
        check(self.unit is None or self.unit in UNITS, where, f'unknown unit {self.unit}')
        check(self.is_list == ('element' in keys), where, 'a list, and nothing else, has the name of its elements')
        check(self.type == 'text' or 'bytes' not in keys, where, 'only a text has a length in bytes')
        check(self.least_bytes <= self.most_bytes, where, 'no length is within its bounds')
        check(self.is_later == ('default' in keys), where, 'a field that is newer than its message, and no other, has a default')
        if self.type not in VALUE_RANGE:
            check(not keys & NUMBER_KEYS, where, 'only a number has ' + ', '.join(sorted(keys & NUMBER_KEYS)))
            empty = [] if self.is_list else ''
            check(not self.is_later or self.default == empty and self.least_bytes == 0, where, 'its default must be empty')
            return
        check(not self.group or self.type == 'i32', where, 'a field per axis is an i32')
        (least, most), (first, last) = self.range(), VALUE_RANGE[self.type]
        check(first <= least <= most <= last, where, f'{least} to {most} is no range of {self.type}')
        check(least <= 0x7FFFFFFF, where, 'the tables have no room for such a large minimum')
        check(not self.is_later or least <= self.default <= min(most, 0x7FFFFFFF), where, 'its default is out of range')

    @property
    def is_list(self):
        return self.type.startswith('list:')

    @property
    def element_type(self):
        return self.type.removeprefix('list:')

    def range(self):
        least, most = VALUE_RANGE[self.type]
        if self.flags == 'axes':
            most = 7
        given_least, given_most = self.bounds
        return (least if given_least is None else given_least, most if given_most is None else given_most)

    def c_member(self):
        if self.is_list:
            return f'GPtrArray *{self.name}'
        if self.type == 'text':
            return f'gchar *{self.name}'
        return f'{C_TYPES[self.type]} {self.name}' + ('[PTZ_KIT_N_AXES]' if self.group else '')

    def c_parameter(self):
        if self.type == 'text':
            return f'const gchar *{self.name}'
        return f'const {C_TYPES[self.type]} *{self.name}' if self.group else f'{C_TYPES[self.type]} {self.name}'

    def meaning(self):
        """The documentation with everything that bounds the value."""
        parts = [self.doc]
        if self.enum:
            parts.append(f'a #{self.enum}')
        if self.flags == 'axes':
            parts.append('the sum of 1 for pan, 2 for tilt and 4 for zoom')
        elif self.flags:
            parts.append(f'bits of #{self.flags}')
        if self.unit:
            parts.append('in ' + UNITS[self.unit])
        least, most = self.bounds
        if least is not None and most is not None:
            parts.append(f'{least} to {most}')
        elif most is not None:
            parts.append(f'at most {most}')
        elif least is not None:
            parts.append(f'at least {least}')
        if self.most_bytes != 0xFFFF:
            parts.append(f'{self.least_bytes} to {self.most_bytes} bytes')
        if self.is_later:
            absent = 'empty' if self.default in ('', []) else self.default
            parts.append(f'since protocol version {self.since}, {absent} if absent')
        return '; '.join(parts)


class Message:
    """A record, or the request or the reply of a command."""

    def __init__(self, name, doc, fields, command=None, kind=None):
        self.name = name
        self.doc = doc
        self.fields = fields
        self.command = command
        self.kind = kind
        check(fields, name, 'no fields')
        check_unique(name, [field.name for field in fields])
        check_unique(f'{name}: groups of fields that are not neighbours', self.groups())
        versions = [field.since for field in fields]
        check(versions == sorted(versions), name, 'newer fields must stand at the end')
        check(not fields[0].is_later, name, 'a message without fields cannot grow')
        check_unique(f'{name}: groups of fields of several versions',
                     [group for group, _ in {(field.group, field.since) for field in fields if field.group}])

    def groups(self):
        """The groups of neighbouring fields, in the order of the fields."""
        neighbours = zip([None] + [field.group for field in self.fields], [field.group for field in self.fields])
        return [group for before, group in neighbours if group and group != before]

    @property
    def c_type(self):
        return 'PTZKit' + camel(self.name)

    @property
    def prefix(self):
        return 'ptz_kit_' + self.name

    @property
    def type_macro(self):
        return 'PTZ_KIT_TYPE_' + self.name.upper()

    @property
    def scalars(self):
        return [field for field in self.fields if not field.is_list]

    @property
    def first_scalars(self):
        """The arguments of the constructor, which stay the same in every version."""
        return [field for field in self.scalars if not field.is_later]

    @property
    def later_scalars(self):
        return [field for field in self.scalars if field.is_later]

    @property
    def lists(self):
        return [field for field in self.fields if field.is_list]

    @property
    def title(self):
        return self.name.replace('_', ' ')

    def wire_order(self):
        """(field, axis or None) in the order of the bytes."""
        order = []
        rest = list(self.fields)
        while rest:
            first = rest[0]
            if not first.group:
                order.append((rest.pop(0), None))
                continue
            group = []
            while rest and rest[0].group == first.group:
                group.append(rest.pop(0))
            order.extend((field, axis) for axis in range(len(AXES)) for field in group)
        return order

    def required(self):
        """The number of items that every body has."""
        return sum(not field.is_later for field, _ in self.wire_order())

    def least_bytes(self):
        return sum(LEAST_BYTES.get(field.type, 4) for field, _ in self.wire_order() if not field.is_later)


class Protocol:
    def __init__(self, description):
        check_keys('description', description, PROTOCOL_KEYS)
        self.version = description['version']
        self.limits = description['limits']
        self.errors = description['error']
        self.commands = description['command']
        self.left_out = description['left_out']
        check(set(self.limits) == set(LIMITS), 'limits', 'they are not ' + ', '.join(LIMITS))
        self.check_tables(description)
        self.records = {}
        for record in description['record']:
            fields = [Field(record['name'], field) for field in record['fields']]
            for field in fields:
                check(not field.is_later, field.where, 'a record cannot grow, because its elements lie side by side in lists')
            self.records[record['name']] = Message(record['name'], record['doc'], fields)
        self.messages = []
        for command in self.commands:
            for kind in ('request', 'reply'):
                if kind not in command:
                    continue
                name = f'{command["name"]}_{kind}'
                fields = list(self.expand(name, command[kind], command.get('since', 1)))
                self.messages.append(Message(name, command['doc'], fields, command, kind))
        for message in self.everything:
            for field in message.fields:
                check(1 <= field.since <= self.version, field.where, f'since is not within 1 to {self.version}')
            for field in message.lists:
                known = field.element_type == 'text' or field.element_type in self.records
                check(known, field.where, f'no record {field.element_type}')

    def check_tables(self, description):
        for key, keys in (('error', ERROR_KEYS), ('record', RECORD_KEYS), ('command', COMMAND_KEYS),
                          ('left_out', LEFT_OUT_KEYS)):
            for table in description[key]:
                check_keys(f'{key} {table.get("name", table.get("value", "without a name"))}', table, keys)
        check_unique('names of errors', [error['name'] for error in self.errors])
        check_unique('codes of errors', [error['code'] for error in self.errors])
        check_unique('names of records', [record['name'] for record in description['record']])
        check_unique('names of commands', [command['name'] for command in self.commands])
        check_unique('values of commands', [entry['value'] for entry in self.commands + self.left_out])
        for error in self.errors:
            check(error['code'] >= 1, f'error {error["name"]}', 'its code is below 1')
        known = {error['name'] for error in self.errors}
        for command in self.commands:
            unknown = sorted(set(command.get('errors', [])) - known)
            check(not unknown, f'command {command["name"]}', 'no error ' + ', '.join(unknown))

    def expand(self, owner, descriptions, first):
        for description in descriptions:
            if not description.get('inline'):
                yield Field(owner, description, first)
                continue
            check_keys(owner, description, ({'name', 'type', 'inline', 'doc'}, set()))
            check(description['type'] in self.records, owner, f'no record {description["type"]}')
            yield from self.records[description['type']].fields

    @property
    def everything(self):
        return list(self.records.values()) + self.messages


def load(path):
    """The protocol of a file. A bad one ends the program with one line that tells what is wrong."""
    try:
        with open(path, 'rb') as file:
            return Protocol(tomllib.load(file))
    except OSError as error:
        sys.exit(str(error))
    except (tomllib.TOMLDecodeError, DescriptionError) as error:
        sys.exit(f'{path}: {error}')
