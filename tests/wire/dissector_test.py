"""The Wireshark dissector against the decoder of the kit: dissector_test.py DISSECTOR GOLDEN_FOLDER"""
import json
import os
import pathlib
import random
import subprocess
import sys
import tempfile
import unittest

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import GLib, PTZKit  # noqa: E402
from pcapng import REPLY, REQUEST, START_NS, Recording  # noqa: E402

AXES = ['pan', 'tilt', 'zoom']
BETWEEN_VALUES, BETWEEN_FIELDS = '\x01', '\x02'


class Golden:
    def __init__(self, path):
        text, _, fields = path.read_text(encoding='utf-8').partition('\n\n')
        self.name = path.name
        self.direction = REQUEST if path.name.endswith('_request') else REPLY
        self.body = bytes.fromhex(text.replace('\n', ' '))
        self.fields = GLib.Variant.parse(GLib.VariantType('a{sv}'), fields.strip(), None, None).unpack()


def golden_bodies():
    return [Golden(path) for path in sorted(pathlib.Path(GOLDEN).iterdir())]


def values_by_path(fields):
    """The values of each field of the dissector, in the order of the body."""
    values = {}

    def add(path, value):
        if isinstance(value, dict):
            for key, entry in value.items():
                add(f'{path}.{key}', entry)
        elif isinstance(value, list) and len(value) == 3 and all(isinstance(entry, int) for entry in value):
            for axis, entry in zip(AXES, value):
                add(f'{path}.{axis}', entry)
        elif isinstance(value, list):
            values.setdefault(path, []).append(len(value))
            for entry in value:
                add(path if isinstance(entry, dict) else f'{path}.text', entry)
        else:
            values.setdefault(path, []).append(value)

    for key, entry in fields.items():
        if key != 'command':
            add(f'ptz.{fields["command"]}.{key}', entry)
    return values


class Tshark(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix='ptz-test-')
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.recording = Recording()

    def run_tshark(self, *words):
        path = os.path.join(self.folder, 'made-up.pcapng')
        self.recording.save(path)
        done = subprocess.run(['tshark', '-X', f'lua_script:{DISSECTOR}', '-r', path, *words], capture_output=True,
                              encoding='utf-8', check=False,
                              env={**os.environ, 'LC_ALL': 'C.UTF-8', 'WIRESHARK_CONFIG_DIR': self.folder})
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn('Lua', done.stderr.replace('running Lua', ''))
        return done.stdout

    def rows(self, *fields, options=()):
        words = [word for field in fields for word in ('-e', field)]
        text = self.run_tshark(*options, '-T', 'fields', '-E', f'separator={BETWEEN_FIELDS}', '-E',
                               f'aggregator={BETWEEN_VALUES}', *words)
        return [line.split(BETWEEN_FIELDS) for line in text.split('\n')[:-1]]


class Decoding(Tshark):
    def test_golden_bodies_have_values_of_kit(self):
        bodies = golden_bodies()
        for number, golden in enumerate(bodies):
            self.recording.add(golden.direction, number, golden.body)
        paths = sorted({path for golden in bodies for path in values_by_path(golden.fields)})
        rows = self.rows('_ws.malformed', 'ptz.malformed', 'ptz.command', *paths)
        self.assertEqual(len(rows), len(bodies))
        for golden, row in zip(bodies, rows):
            with self.subTest(golden.name):
                self.assertEqual(row[:2], ['', ''])
                self.assertEqual(int(row[2]), int.from_bytes(golden.body[:4], 'little', signed=True))
                expected = values_by_path(golden.fields)
                for path, cell in zip(paths, row[3:]):
                    shown = cell.split(BETWEEN_VALUES) if cell else []
                    wanted = expected.get(path, [])
                    if any(isinstance(value, str) for value in wanted):
                        self.assertEqual(cell.split(BETWEEN_VALUES), wanted, path)
                    else:
                        self.assertEqual([int(value, 0) for value in shown], wanted, path)

    def test_command_words_alone_are_decoded(self):
        commands = [number for number in range(100) if PTZKit.command_name(number)]
        for number in commands:
            self.recording.add(REQUEST, number, number.to_bytes(4, 'little'))
        names = [row[0] for row in self.rows('_ws.col.Info')]
        expected = [PTZKit.command_name(number).replace('_', ' ') for number in commands]
        self.assertEqual([name.split(':')[0].lower() for name in names], expected)

    def test_json_has_fields(self):
        golden = next(each for each in golden_bodies() if each.name == 'query_position_reply')
        self.recording.add(REPLY, 0, golden.body, client=7)
        layer = json.loads(self.run_tshark('-T', 'json'))[0]['_source']['layers']['ptz']
        self.assertEqual(layer['ptz.query_position.position.pan'], str(golden.fields['position'][0]))
        self.assertNotIn('_ws.expert', json.dumps(layer))

    def test_units_and_names_are_shown(self):
        move = bytes.fromhex('05000000 01000000 03 3200 28230000 18fcffff 00000000')
        self.recording.add(REQUEST, 0, move)
        text = self.run_tshark('-V')
        for line in ('kind: Absolute (1)', 'axes: 0x03 (pan tilt)', 'speed: 50 (50 %)', 'value.pan: 9000 (90.00 degrees)',
                     'value.tilt: -1000 (-10.00 degrees)'):
            self.assertIn(f' {line}\n', text)


class Malformed(Tshark):
    def test_bodies_are_malformed_if_and_only_if_they_are_for_kit(self):
        generator = random.Random(1)
        bodies = []
        for golden in golden_bodies():
            kind = PTZKit.BodyKind.REQUEST if golden.direction == REQUEST else PTZKit.BodyKind.REPLY
            for _ in range(40):
                body = bytearray(golden.body)
                change = generator.randrange(4)
                if change == 0:
                    del body[generator.randrange(len(body)):]
                elif change == 1:
                    body += generator.randbytes(generator.randrange(1, 9))
                else:
                    for _ in range(generator.randrange(1, 4)):
                        body[generator.randrange(len(body))] = generator.randrange(256)
                bodies.append((golden.direction, kind, bytes(body)))
        for _ in range(600):
            kind = generator.choice([PTZKit.BodyKind.REQUEST, PTZKit.BodyKind.REPLY])
            word = generator.randrange(-2, 50).to_bytes(4, 'little', signed=True)
            body = word + generator.randbytes(generator.randrange(60))
            bodies.append((int(kind == PTZKit.BodyKind.REPLY), kind, body))
        for number, (direction, _, body) in enumerate(bodies):
            self.recording.add(direction, number % 7, body)
        rows = self.rows('ptz.malformed', 'ptz.unknown_command', '_ws.malformed')
        self.assertEqual(len(rows), len(bodies))
        decoded = 0
        for (_, kind, body), row in zip(bodies, rows):
            try:
                PTZKit.body_to_variant(kind, body)
                is_decoded = True
            except GLib.Error:
                is_decoded = False
            decoded += is_decoded
            self.assertEqual(is_decoded, not any(row), body.hex())
        self.assertGreater(decoded, 100)

    def test_random_packets_do_not_disturb_dissector(self):
        generator = random.Random(2)
        for _ in range(500):
            data = generator.randbytes(generator.randrange(1, 80))
            self.recording.add_packet(b'PTZ1\x00' + data if generator.random() < 0.5 else data)
        text = self.run_tshark('-V')
        self.assertNotIn('Lua Error', text)
        self.assertEqual(text.count('Pan-tilt-zoom driver\n'), 500)

    def test_frame_of_other_length_is_marked(self):
        self.recording.add(REQUEST, 0, bytes(4), length=11)
        self.recording.add(REQUEST, 0, bytes(4), length=0xFFFFFFFF)
        self.recording.add(REQUEST, 0, bytes(4))
        self.assertEqual([bool(row[0]) for row in self.rows('ptz.malformed_frame')], [True, True, False])

    def test_lost_frames_and_unsent_replies_are_marked(self):
        name = bytes.fromhex('15000000')
        self.recording.add(REQUEST, 0, name, lost=3)
        self.recording.add(REPLY, 0, name + b'\x01\x00a', flags=2)
        self.recording.add(REQUEST, 1, name, flags=1)
        rows = self.rows('ptz.frames_lost', 'ptz.reply_unsent', 'ptz.lost', 'ptz.past')
        self.assertEqual([[bool(row[0]), bool(row[1]), *row[2:]] for row in rows],
                         [[True, False, '3', '0'], [False, True, '0', '0'], [False, False, '0', '1']])


class Links(Tshark):
    def test_reply_is_linked_to_request_of_its_client(self):
        name = bytes.fromhex('15000000')
        self.recording.add(REQUEST, 5, name, START_NS, client=1)
        self.recording.add(REQUEST, 5, name, START_NS + 1_000_000, client=2)
        self.recording.add(REPLY, 5, name + b'\x01\x00b', START_NS + 3_000_000, client=2)
        self.recording.add(REPLY, 5, name + b'\x01\x00a', START_NS + 5_000_123, client=1)
        rows = self.rows('ptz.reply_in', 'ptz.request_in', 'ptz.latency', options=['-2'])
        self.assertEqual(rows, [['4', '', ''], ['3', '', ''], ['', '2', '0.002000000'], ['', '1', '0.005000123']])

    def test_refusal_names_command_and_error(self):
        self.recording.add(REQUEST, 0, bytes.fromhex('03000000 09000000 3200'))
        self.recording.add(REPLY, 0, bytes.fromhex('ffffffff 05000000 0300') + b'out')
        rows = self.rows('_ws.col.Info', 'ptz.refused')
        self.assertEqual(rows[1][0], 'Goto preset refused: error 5 (not found): out')
        self.assertTrue(rows[1][1])

    def test_field_of_command_is_in_requests_replies_and_refusals(self):
        move = bytes.fromhex('05000000 01000000 03 3200 28230000 18fcffff 00000000')
        self.recording.add(REQUEST, 0, move)
        self.recording.add(REPLY, 0, bytes.fromhex('05000000'))
        self.recording.add(REQUEST, 1, move)
        self.recording.add(REPLY, 1, bytes.fromhex('ffffffff 04000000 0300') + b'out')
        self.recording.add(REQUEST, 2, bytes.fromhex('0d000000'))
        rows = self.rows('frame.number', 'ptz.refused_command', options=['-Y', 'ptz.move'])
        self.assertEqual(rows, [['1', ''], ['2', ''], ['3', ''], ['4', '5']])
        self.assertEqual(self.rows('frame.number', options=['-Y', 'ptz.refused_command == 5']), [['4']])
        self.assertEqual(self.rows('frame.number', options=['-Y', 'ptz.query_position']), [['5']])

    def test_column_leaves_out_axes_that_are_not_named(self):
        self.recording.add(REQUEST, 0, bytes.fromhex('05000000 01000000 01 3200 28230000 18fcffff 00000000'))
        info = self.rows('_ws.col.Info')[0][0]
        self.assertIn('value.pan=90.00 degrees', info)
        self.assertNotIn('value.tilt', info)
        self.assertNotIn('value.zoom', info)

    def test_columns_name_both_ends(self):
        self.recording.add(REQUEST, 0, bytes.fromhex('0d000000'), client=12)
        self.assertEqual(self.rows('_ws.col.Protocol', '_ws.col.Source', '_ws.col.Destination', '_ws.col.Info'),
                         [['PTZ', 'client 12', 'driver', 'Query position']])


if __name__ == '__main__':
    DISSECTOR, GOLDEN = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1])
