#!/usr/bin/env python3
"""Writes the tables of docs/driver-commands.md, between their markers:

  document.py write COMMANDS DOCUMENT HEADER...   replaces the tables
  document.py check COMMANDS DOCUMENT HEADER...   fails if they are not those of COMMANDS

The headers have the values of the commands and of the enumerations: include/ptz_enum_types.h, include/ptz_flag_types.h.
"""
import pathlib
import re
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))
from description import load  # noqa: E402

BEGIN = '<!-- The tables below are made by kit/protocol/document.py. -->\n'
END = '<!-- End of the tables that are made by kit/protocol/document.py. -->\n'
ENUMERATION = re.compile(r'typedef enum \{(.*?)\} (\w+);', re.DOTALL)
VALUE = re.compile(r'(\w+) = (-?\w+)')
NAME = re.compile(r'\* @(\w+): "([^"]+)"')


class Vocabulary:
    """The enumerations of the public headers."""

    def __init__(self, paths):
        text = ''.join(pathlib.Path(path).read_text(encoding='utf-8') for path in paths)
        self.names = {match[1]: match[2] for match in NAME.finditer(text)}
        self.types = {match[2]: [(each[1], int(each[2], 0)) for each in VALUE.finditer(match[1])]
                      for match in ENUMERATION.finditer(text)}
        self.values = dict(pair for pairs in self.types.values() for pair in pairs)

    def row(self, name):
        numbers = '#x' if name.endswith('Capabilities') else 'd'
        return ', '.join(f'{number:{numbers}}: {self.names[value]}' for value, number in self.types[name])


class Document:
    def __init__(self, protocol, vocabulary):
        self.protocol = protocol
        self.vocabulary = vocabulary
        self.used = set()

    def title(self, command):
        return self.vocabulary.names[command['value']]

    def message(self, command, kind):
        return next((m for m in self.protocol.messages if m.command is command and m.kind == kind), None)

    @staticmethod
    def anchor(text):
        return '#' + text.lower().replace(' ', '-')

    def type_of(self, field):
        if field.is_list:
            known = field.element_type in self.protocol.records
            return f'list of [{field.element_type}](#record-{field.element_type})' if known else 'list of text'
        return field.type + (' per axis' if field.group else '')

    def summary(self, message):
        """The fields in the order of the bytes."""
        if message is None:
            return '—'
        parts, rest = [], list(message.fields)
        while rest:
            group = [rest.pop(0)]
            while group[0].group and rest and rest[0].group == group[0].group:
                group.append(rest.pop(0))
            fields = ', '.join(f'{field.name} {self.type_of(field).removesuffix(" per axis")}' for field in group)
            parts.append(f'per axis: {fields}' if group[0].group else fields)
        return '; '.join(parts)

    def field_table(self, message):
        lines = ['| Field | Type | Meaning |', '|---|---|---|']
        for field in message.fields:
            meaning = field.meaning()
            for name in filter(None, (field.enum, None if field.flags == 'axes' else field.flags)):
                self.used.add(name)
                meaning = meaning.replace(f'#{name}', f'[`{name}`](#enumerations)')
            lines.append(f'| {field.name} | {self.type_of(field)} | {meaning} |')
        return lines

    def overview(self):
        codes = {error['name']: str(error['code']) for error in self.protocol.errors}
        lines = ['| Value | Command | Request | Reply | Errors |', '|---|---|---|---|---|']
        for command in self.protocol.commands:
            title = self.title(command)
            errors = ', '.join(sorted(codes[name] for name in command.get('errors', [])))
            lines.append(f'| {self.vocabulary.values[command["value"]]} | [{title}]({self.anchor(title)}) '
                         f'| {self.summary(self.message(command, "request"))} '
                         f'| {self.summary(self.message(command, "reply"))} | {errors} |')
        return lines

    def section(self, command):
        lines = [f'### {self.title(command)}', '', command['doc']]
        if 'capability' in command:
            lines[-1] += f' The driver announces it with the capability `{command["capability"]}`.'
        for kind in ('request', 'reply'):
            message = self.message(command, kind)
            if message is not None:
                lines += ['', f'The {kind}:', ''] + self.field_table(message)
        return lines + ['']

    def lines(self):
        protocol = self.protocol
        lines = ['## Errors', '', '| Code | Name | When |', '|---|---|---|']
        lines += [f'| {error["code"]} | {error["name"].replace("_", " ")} | {error["doc"]} |' for error in protocol.errors]
        lines += ['', '## Requests and replies', '', '"—" is a body of the command word alone. Any request can be answered '
                  'with the codes 1, 2, 3 and 7; the other codes', 'are listed.', '']
        lines += self.overview() + ['']
        for command in protocol.commands:
            lines += self.section(command)
        lines += ['## Records', '']
        for record in protocol.records.values():
            lines += [f'### Record {record.title}', '', record.doc, ''] + self.field_table(record) + ['']
        lines += ['## Enumerations', '', '| Type | Values |', '|---|---|']
        lines += [f'| `{name}` | {self.vocabulary.row(name)} |' for name in sorted(self.used)]
        lines += ['', '## What a driver does not serve', '', '| Value | Reason |', '|---|---|']
        for entry in protocol.left_out:
            lines.append(f'| `{entry["value"]}` | {entry["reason"]} |')
        return lines

    def check(self):
        """Every command is described or left out, and nothing else is."""
        known = set(self.vocabulary.values) | set(self.vocabulary.types)
        told = {entry['value'] for entry in self.protocol.commands + self.protocol.left_out}
        problems = [f'{value} is not in the vocabulary' for value in sorted(told - known)]
        problems += [f'{value} is neither described nor left out'
                     for value, _ in self.vocabulary.types['PTZCommand'] if value not in told]
        if problems:
            sys.exit('\n'.join(problems))


def main(arguments):
    if len(arguments) < 4 or arguments[0] not in ('write', 'check'):
        sys.exit(__doc__)
    mode, commands, document, *headers = arguments
    tables = Document(load(commands), Vocabulary(headers))
    tables.check()
    made = '\n'.join(tables.lines())
    path = pathlib.Path(document)
    present = path.read_text(encoding='utf-8')
    before, begin, rest = present.partition(BEGIN)
    old, end, after = rest.partition(END)
    if not begin or not end:
        sys.exit(f'{document}: it has no markers of tables')
    wanted = f'{before}{BEGIN}\n{made}\n\n{END}{after}'
    if mode == 'write':
        path.write_text(wanted, encoding='utf-8')
    elif present != wanted:
        sys.exit(f'{document} has old tables; write them anew: python3 {sys.argv[0]} write ' + ' '.join(arguments[1:]))


if __name__ == '__main__':
    main(sys.argv[1:])
