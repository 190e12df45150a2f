#!/usr/bin/env python3
"""Usage: bindings_test.py SIM_DRIVER [UNITTEST OPTION]...

The library as Python has it from the introspection data, against the simulated driver.
"""
import os
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import gi

gi.require_version('PTZ', '0')
from gi.repository import GLib, PTZ  # noqa: E402 (the version comes first)

SOCK_STREAM = 1
PATIENCE_SECONDS = 30
sim_driver = None


def run_until(condition):
    """Runs the main loop until the condition holds."""
    context = GLib.MainContext.default()
    timer = GLib.timeout_add(10, lambda: True)  # so that the loop wakes to look at the time
    end = time.monotonic() + PATIENCE_SECONDS
    while not condition() and time.monotonic() < end:
        context.iteration(True)
    GLib.source_remove(timer)


def listens(path):
    """Whether somebody does; the file is there a moment before. A client that is refused would remove it."""
    with socket.socket(socket.AF_UNIX) as attempt:
        return attempt.connect_ex(path) == 0


class CommandChannel(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.path = os.path.join(self.folder.name, 'driver.socket')

    def connected_client(self):
        client = PTZ.SocketClientCommand.new(self.path, -1, SOCK_STREAM)
        replies = []
        client.register_callback(lambda request, body, length: replies.append((request, body, length)))
        return client, replies

    def start_driver(self):
        driver = subprocess.Popen([sim_driver, '--socket', self.path], stderr=subprocess.DEVNULL)
        self.addCleanup(driver.wait)
        self.addCleanup(driver.terminate)
        run_until(lambda: listens(self.path) or driver.poll() is not None)

    def test_a_request_to_the_driver_is_answered(self):
        self.start_driver()
        client, replies = self.connected_client()
        self.assertTrue(client.async_send(struct.pack('<i', PTZ.Command.GET_DRIVER_NAME), 7))
        run_until(lambda: replies)
        [(request, body, length)] = replies
        self.assertEqual((request, length), (7, len(body)))
        command, cursor = PTZ.deserialize_32bit(body, 0)
        name, cursor = PTZ.deserialize_string(body, cursor)
        self.assertEqual((command, name, cursor), (PTZ.Command.GET_DRIVER_NAME, 'sim-driver', length))

    def test_a_reply_names_its_request(self):
        self.start_driver()
        client, replies = self.connected_client()
        for request, command in [(1, PTZ.Command.QUERY_POSITION), (2, PTZ.Command.GET_DRIVER_NAME)]:
            self.assertTrue(client.async_send(struct.pack('<i', command), request))
        run_until(lambda: len(replies) == 2)
        self.assertEqual({request: struct.unpack_from('<i', body)[0] for request, body, _ in replies},
                         {1: PTZ.Command.QUERY_POSITION, 2: PTZ.Command.GET_DRIVER_NAME})

    def test_a_server_in_python_answers(self):
        server = PTZ.SocketServerCommand.new(self.path, SOCK_STREAM)
        server.register_callback(lambda reply_context, body, length: PTZ.SocketServer.send(reply_context, body[::-1]))
        client, replies = self.connected_client()
        client.async_send(b'left', 1)
        run_until(lambda: replies)
        self.assertEqual(replies, [(1, b'tfel', 4)])


class DynamicalProperties(unittest.TestCase):
    def test_a_property_is_watched(self):
        properties = PTZ.DynamicalProperties.new()
        changes = []
        properties.connect('notify_change', lambda changed, name: changes.append((name, changed.get(name))))
        self.assertEqual(properties.set_from_string('PanSpeed:int32:40'), 'PanSpeed')
        properties.set_from_string('PanSpeed:int32:40')
        properties.set_from_string('PanSpeed:int32:70')
        self.assertEqual(changes, [('PanSpeed', 40), ('PanSpeed', 70)])


class Vocabulary(unittest.TestCase):
    def test_an_enumeration_is_listed_with_its_texts(self):
        listed = {int(value): (value.value_name, value.value_nick) for value in PTZ.Command.__enum_values__.values()}
        self.assertEqual(len(listed), 31)
        self.assertEqual(listed[-1], ('Error reply', 'error reply'))
        self.assertEqual(listed[5], ('Move', 'move'))
        self.assertEqual(listed[25], ('Get driver property', 'set driver property'))

    def test_values_have_the_names_that_they_have_in_c(self):
        self.assertEqual(PTZ.Command.GET_DRIVER_NAME, 21)
        self.assertEqual(PTZ.MoveCmd.UP_LEFT, 4)
        self.assertEqual(PTZ.SocketCommand.SOCKET_COMMAND_QUEUE, 32)
        self.assertEqual(getattr(PTZ.BaudRate, '9600'), 9600)

    def test_flags_are_combined(self):
        both = PTZ.DriverMoveCapabilities.PAN | PTZ.DriverMoveCapabilities.TILT
        self.assertEqual(both.value_nicks, ['none', 'pan', 'tilt'])


class Firmware(unittest.TestCase):
    def test_a_failed_validation_is_an_exception_of_its_domain(self):
        with self.assertRaises(GLib.Error) as raised:
            PTZ.firmware_validate_majors('no tag', 'no tag either')
        self.assertEqual((raised.exception.domain, raised.exception.code), ('ptz_firmware_error_quark', 118))


if __name__ == '__main__':
    sim_driver = sys.argv.pop(1)
    unittest.main()
