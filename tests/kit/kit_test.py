"""The messages of the kit from Python."""
import unittest

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import GLib, PTZ, PTZKit  # noqa: E402

MOVE = bytes.fromhex('05000000 01000000 03 3200 28230000 18fcffff 00000000')


class Messages(unittest.TestCase):
    def test_to_bytes_of_message_made_from_fields(self):
        move = PTZKit.MoveRequest.new(PTZ.Move.ABSOLUTE, 3, 50, [9000, -1000, 0])
        self.assertEqual(move.to_bytes().get_data(), MOVE)

    def test_read_returns_fields(self):
        move = PTZKit.MoveRequest.read(MOVE)
        self.assertEqual((move.kind, move.axes, move.speed, list(move.value)), (1, 3, 50, [9000, -1000, 0]))

    def test_read_of_malformed_body_raises_error_of_kit(self):
        with self.assertRaises(GLib.Error) as raised:
            PTZKit.MoveRequest.read(MOVE[:-1])
        self.assertTrue(raised.exception.matches(PTZKit.error_quark(), PTZKit.Error.MALFORMED))
        self.assertIn('of zoom at byte 19', raised.exception.message)

    def test_validate_raises_out_of_range(self):
        with self.assertRaises(GLib.Error) as raised:
            PTZKit.MoveRequest.new(PTZ.Move.ABSOLUTE, 3, 0, [0, 0, 0]).validate()
        self.assertTrue(raised.exception.matches(PTZKit.error_quark(), PTZKit.Error.OUT_OF_RANGE))

    def test_lists_are_filled_and_read(self):
        reply = PTZKit.GetDevicePresetsReply.new()
        reply.add_preset(PTZKit.Preset.new(1, 'gate'))
        reply.add_preset(PTZKit.Preset.new(2, 'door'))
        read = PTZKit.GetDevicePresetsReply.read(reply.to_bytes().get_data())
        self.assertEqual([(preset.number, preset.name) for preset in read.presets], [(1, 'gate'), (2, 'door')])


class Bodies(unittest.TestCase):
    def test_body_is_read_as_dictionary(self):
        fields = PTZKit.body_to_variant(PTZKit.BodyKind.REQUEST, MOVE).unpack()
        self.assertEqual(fields, {'command': 'move', 'kind': 1, 'axes': 3, 'speed': 50, 'value': [9000, -1000, 0]})

    def test_dictionary_is_written_as_body(self):
        fields = PTZKit.body_to_variant(PTZKit.BodyKind.REQUEST, MOVE)
        self.assertEqual(PTZKit.body_from_variant(PTZKit.BodyKind.REQUEST, fields).get_data(), MOVE)

    def test_command_name(self):
        self.assertEqual(PTZKit.command_name(PTZ.Command.STOP), 'stop')


if __name__ == '__main__':
    unittest.main()
