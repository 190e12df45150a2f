"""The description of all messages, commands.toml, as objects, and what is wrong with it."""
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
FIELD_KEYS = {
    'name', 'type', 'doc', 'unit', 'min', 'max', 'enum', 'flags', 'bytes', 'per_axis', 'inline', 'element', 'since',
}


class DescriptionError(Exception):
    """The description contradicts itself."""


def camel(name):
    return ''.join(part.capitalize() for part in name.split('_'))


def type_getter(name):
    """PTZMoveCmd -> ptz_move_cmd_get_type"""
    words = ''.join('_' + c.lower() if c.isupper() else c for c in name.removeprefix('PTZ'))
    return f'ptz{words}_get_type'


class Field:
    def __init__(self, owner, description):
        unknown = set(description) - FIELD_KEYS
        if unknown:
            raise DescriptionError(f'{owner}: unknown keys {sorted(unknown)}')
        self.name = description['name']
        self.type = description['type']
        self.doc = description['doc']
        self.unit = description.get('unit')
        self.enum = description.get('enum')
        self.flags = description.get('flags')
        self.group = description.get('per_axis')
        self.element = description.get('element')
        self.since = description.get('since', 1)
        self.least_bytes, self.most_bytes = description.get('bytes', (0, 0xFFFF))
        self.bounds = (description.get('min'), description.get('max'))
        self.where = f'{owner}: field {self.name}'
        if self.unit and self.unit not in UNITS:
            raise DescriptionError(f'{self.where}: unknown unit {self.unit}')
        if self.type not in LEAST_BYTES and not self.type.startswith('list:'):
            raise DescriptionError(f'{self.where}: unknown type {self.type}')
        if self.is_list and not self.element:
            raise DescriptionError(f'{self.where}: a list needs the name of its elements')

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
        return '; '.join(parts)


class Message:
    """A record, or the request or the reply of a command."""

    def __init__(self, name, doc, fields, command=None, kind=None):
        self.name = name
        self.doc = doc
        self.fields = fields
        self.command = command
        self.kind = kind
        names = [field.name for field in fields]
        if len(set(names)) != len(names):
            raise DescriptionError(f'{name}: two fields have the same name')

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

    def least_bytes(self):
        return sum(LEAST_BYTES.get(field.type, 4) for field, _ in self.wire_order())


class Protocol:
    def __init__(self, description):
        self.version = description['version']
        self.limits = description['limits']
        self.errors = description['error']
        self.commands = description['command']
        self.left_out = description['left_out']
        self.records = {}
        for record in description['record']:
            fields = [Field(record['name'], field) for field in record['fields']]
            self.records[record['name']] = Message(record['name'], record['doc'], fields)
        self.messages = []
        known_errors = {error['name'] for error in self.errors}
        for command in self.commands:
            unknown = set(command.get('errors', [])) - known_errors
            if unknown:
                raise DescriptionError(f'{command["name"]}: unknown errors {sorted(unknown)}')
            for kind in ('request', 'reply'):
                if kind not in command:
                    continue
                name = f'{command["name"]}_{kind}'
                fields = list(self.expand(name, command[kind]))
                self.messages.append(Message(name, command['doc'], fields, command, kind))
        for message in self.messages:
            for field in message.lists:
                if field.element_type != 'text' and field.element_type not in self.records:
                    raise DescriptionError(f'{field.where}: no record {field.element_type}')

    def expand(self, owner, descriptions):
        for description in descriptions:
            if not description.get('inline'):
                yield Field(owner, description)
            elif description['type'] in self.records:
                yield from self.records[description['type']].fields
            else:
                raise DescriptionError(f'{owner}: no record {description["type"]}')

    @property
    def everything(self):
        return list(self.records.values()) + self.messages
