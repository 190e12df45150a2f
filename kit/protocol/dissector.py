#!/usr/bin/env python3
"""Writes the Wireshark dissector of recordings to standard output:

  dissector.py COMMANDS TEMPLATE HEADER...

The headers have the values of the commands and of the enumerations: include/ptz_enum_types.h, include/ptz_flag_types.h.
"""
import pathlib
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))
from description import AXES, LEAST_BYTES, check, load  # noqa: E402
from document import Vocabulary  # noqa: E402

MARKER = '-- @TABLES@\n'
FRAME_HEADER_BYTES = 8
# For people: the divisor and the unit of a value; the unit of an axis depends on the axis.
SHOWN_UNITS = {
    'axis': (100, ''),
    'axis/s': (100, '/s'),
    'degrees/100': (100, 'degrees'),
    'percent': (None, '%'),
    'permyriad': (100, '% of the image'),
    'magnification/100': (100, 'times'),
}
AXIS_UNITS = ['degrees', 'degrees', 'times']


def literal(value):
    """A Lua expression for texts, numbers, lists and dictionaries."""
    if isinstance(value, bool):
        return str(value).lower()
    if isinstance(value, int):
        return str(value)
    if isinstance(value, str):
        return '"' + value.replace('\\', '\\\\').replace('"', '\\"').replace('\n', '\\n') + '"'
    if isinstance(value, list):
        return '{' + ', '.join(map(literal, value)) + '}'
    pairs = (f'[{literal(key)}] = {literal(entry)}' if isinstance(key, int) else f'{key} = {literal(entry)}'
             for key, entry in value.items())
    return '{' + ', '.join(pairs) + '}'


class Dissector:
    def __init__(self, protocol, vocabulary):
        self.protocol = protocol
        self.vocabulary = vocabulary
        self.enumerations = {}

    def least_bytes(self, field):
        record = self.protocol.records.get(field.element_type)
        return record.least_bytes() if record else LEAST_BYTES['text']

    def item(self, field, axis):
        item = {'name': field.name, 'kind': 'list' if field.is_list else field.type}
        if axis is not None:
            item['axis'] = axis + 1
        if field.is_later:
            item['later'] = True
        if field.is_list:
            item['least'] = self.least_bytes(field)
            if field.element_type in self.protocol.records:
                item['record'] = field.element_type
        if field.enum:
            item['enum'] = field.enum
            self.enumerations[field.enum] = {number: self.vocabulary.names[value]
                                             for value, number in self.vocabulary.types[field.enum]}
        if field.flags == 'axes':
            item['bits'] = [[1 << number, name] for number, name in enumerate(AXES)]
        elif field.flags:
            item['bits'] = [[number, self.vocabulary.names[value]]
                            for value, number in self.vocabulary.types[field.flags] if number]
        if field.unit:
            divisor, unit = SHOWN_UNITS[field.unit]
            if divisor:
                item['divisor'] = divisor
            item['unit'] = (AXIS_UNITS[axis] if axis is not None and field.unit.startswith('axis') else '') + unit
        return item

    def items(self, message):
        return [self.item(field, axis) for field, axis in message.wire_order()] if message else []

    def check_shared_fields(self):
        """A field of a request and one of the reply with the same name are one field of the dissector."""
        for command in self.protocol.commands:
            kinds = {}
            for message in (each for each in self.protocol.messages if each.command is command):
                for field in message.fields:
                    kind = (field.type, field.enum, field.flags)
                    check(kinds.setdefault(field.name, kind) == kind, field.where,
                          'the request and the reply have it with different types')

    def lines(self):
        self.check_shared_fields()
        protocol, values = self.protocol, self.vocabulary.values
        messages = {(id(message.command), message.kind): message for message in protocol.messages}
        records = {name: self.items(record) for name, record in protocol.records.items()}
        commands = {values[command['value']]: {
            'name': command['name'],
            'request': self.items(messages.get((id(command), 'request'))),
            'reply': self.items(messages.get((id(command), 'reply'))),
        } for command in protocol.commands}
        titles = {values[command['value']]: self.vocabulary.names[command['value']] for command in protocol.commands}
        yield f'local most_frame_bytes = {protocol.limits["body_bytes"] + FRAME_HEADER_BYTES}'
        yield f'local axes = {literal(AXES)}'
        yield f'local error_names = {literal({e["code"]: e["name"].replace("_", " ") for e in protocol.errors})}'
        yield f'local command_titles = {literal(titles)}'
        yield from self.table('enumerations', self.enumerations)
        yield from self.table('records', records)
        yield from self.table('commands', commands)

    @staticmethod
    def table(name, entries):
        yield f'local {name} = {{'
        for key, entry in entries.items():
            yield '  ' + literal({key: entry})[1:-1] + ','
        yield '}'


def main(arguments):
    if len(arguments) < 3:
        sys.exit(__doc__)
    commands, template, *headers = arguments
    made = '\n'.join(Dissector(load(commands), Vocabulary(headers)).lines())
    before, marker, after = pathlib.Path(template).read_text(encoding='utf-8').partition(MARKER)
    if not marker:
        sys.exit(f'{template}: it has no marker of the tables')
    print(before + made + after, end='')


if __name__ == '__main__':
    main(sys.argv[1:])
