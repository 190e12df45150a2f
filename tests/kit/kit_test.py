"""The messages of the kit from Python, a driver without a socket, and the monitor of one with a socket."""
import os
import select
import socket
import struct
import tempfile
import threading
import time
import unittest

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import Gio, GLib, PTZ, PTZKit  # noqa: E402

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


class Head(PTZKit.Driver):
    complaint = None
    starts = 0

    def do_check_settings(self):
        if self.complaint:
            raise GLib.Error(self.complaint, 'tests', 1)
        return True

    def do_open(self):
        self.set_axis(PTZKit.Axis.PAN, -100, 100, 10, 0)
        return True

    def do_started(self):
        self.starts += 1
        return True

    def do_move(self, request, reply):
        reply.ok()


class DriverWithoutSocket(unittest.TestCase):
    def setUp(self):
        self.driver = Head(name='head')
        self.changes = []
        self.driver.connect('preset-changed', self.on_change)
        self.driver.start()
        self.addCleanup(self.driver.stop)

    def on_change(self, _driver, number, before, after):
        self.changes.append((number, before and before.name, after and after.name))

    def preset(self, number, name, pan=0):
        return PTZKit.SetPresetRequest.new(number, name, 1, [pan, 0, 0])

    def test_request_is_answered(self):
        request = GLib.Variant('a{sv}', {'command': GLib.Variant('s', 'get_driver_name')})
        reply = self.driver.answer(PTZKit.body_from_variant(PTZKit.BodyKind.REQUEST, request))
        fields = PTZKit.body_to_variant(PTZKit.BodyKind.REPLY, reply.get_data()).unpack()
        self.assertEqual(fields, {'command': 'get_driver_name', 'name': 'head'})

    def test_started_is_called_once(self):
        self.assertEqual(self.driver.starts, 1)

    def test_complaint_about_settings_is_raised(self):
        self.driver.complaint = 'too fast'
        with self.assertRaises(GLib.Error) as raised:
            self.driver.load_settings([])
        self.assertEqual(raised.exception.message, 'too fast')

    def test_presets_are_stored_listed_and_removed(self):
        self.driver.store_preset(self.preset(2, 'gate', 7))
        self.driver.store_preset(self.preset(1, 'door'))
        presets = self.driver.get_presets()
        self.driver.remove_preset(2)
        self.assertEqual([(each.number, each.name, each.position[0]) for each in presets], [(1, 'door', 0), (2, 'gate', 7)])
        self.assertEqual(self.changes, [(2, None, 'gate'), (1, None, 'door'), (2, 'gate', None)])

    def test_preset_that_cannot_be_raises_out_of_range(self):
        with self.assertRaises(GLib.Error) as raised:
            self.driver.store_preset(self.preset(33, 'far'))
        self.assertTrue(raised.exception.matches(PTZKit.error_quark(), PTZKit.Error.OUT_OF_RANGE))


class Monitor(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, 'head')
        self.driver = Head(name='head', socket_path=self.path)
        self.driver.start()
        self.addCleanup(self.driver.stop)
        self.client = socket.socket(socket.AF_UNIX)
        self.addCleanup(self.client.close)
        self.client.connect(self.path)

    def run_until(self, condition):
        deadline = time.monotonic() + 10
        while not condition() and time.monotonic() < deadline:
            GLib.MainContext.default().iteration(False)
        self.assertTrue(condition())

    def ask_for_name(self):
        self.client.send(struct.pack('=III', 12, 7, PTZ.Command.GET_DRIVER_NAME))

    def test_frames_are_received(self):
        frames = []
        monitor = PTZKit.Monitor.new(self.path)
        monitor.connect('frame', lambda _monitor, frame: frames.append(
            (frame.direction, frame.message_id, frame.pid, frame.program, frame.body.get_data())))
        monitor.open()
        monitor.subscribe(False)
        self.run_until(lambda: not GLib.MainContext.default().pending())
        self.ask_for_name()
        self.run_until(lambda: len(frames) == 2)
        name = struct.pack('<IH', PTZ.Command.GET_DRIVER_NAME, 4) + b'head'
        ends = (os.getpid(), os.readlink('/proc/self/exe'))
        self.assertEqual(frames, [(PTZKit.FrameDirection.REQUEST, 7, *ends, name[:4]),
                                  (PTZKit.FrameDirection.REPLY, 7, *ends, name)])

    def test_figures_are_a_dictionary(self):
        figures = []

        def ask():
            context = GLib.MainContext.new()  # the other thread runs the default one
            context.push_thread_default()
            monitor = PTZKit.Monitor.new(self.path)
            monitor.open()
            figures.append(monitor.get_figures(10_000, None).unpack())
            context.pop_thread_default()

        self.ask_for_name()
        self.run_until(lambda: select.select([self.client], [], [], 0)[0])  # the reply is there
        thread = threading.Thread(target=ask)
        thread.start()
        self.run_until(lambda: not thread.is_alive())
        thread.join()
        self.assertEqual((figures[0]['name'], figures[0]['requests']), ('head', 1))
        self.assertEqual([client['requests'] for client in figures[0]['clients']], [1])
        quantile = PTZKit.latency_quantile(GLib.Variant('au', figures[0]['latency']), 0.5)
        self.assertGreaterEqual(quantile, 0)

    def test_missing_driver_raises_not_found(self):
        with self.assertRaises(GLib.Error) as raised:
            PTZKit.Monitor.new(self.path + '-other').open()
        self.assertTrue(raised.exception.matches(Gio.io_error_quark(), Gio.IOErrorEnum.NOT_FOUND))


if __name__ == '__main__':
    unittest.main()
