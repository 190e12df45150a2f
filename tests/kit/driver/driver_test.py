"""Drivers in Python, as processes of their own: virtual functions, exceptions, late replies, settings, the end."""
import ctypes
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import GLib, PTZ, PTZKit  # noqa: E402

FOLDER = os.path.dirname(os.path.abspath(__file__))
PROGRAM = os.path.join(FOLDER, 'python_driver.py')
EXAMPLE = os.path.join(FOLDER, '../../../examples/kit-driver/kit_driver.py')
COMPLIANCE = os.environ.get('PTZ_COMPLIANCE')


def body_of(command, **fields):
    entries = {'command': GLib.Variant('s', command)}
    for name, value in fields.items():
        kind = 's' if isinstance(value, str) else 'ai' if isinstance(value, list) else 'i'
        entries[name] = GLib.Variant(kind, value)
    return PTZKit.body_from_variant(PTZKit.BodyKind.REQUEST, GLib.Variant('a{sv}', entries)).get_data()


class Driver(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.path = os.path.join(self.folder.name, 'socket')
        self.id = 0

    def start(self, *more):
        environment = os.environ | {'PTZ_PLATFORM_RUNTIME_DIR': self.folder.name}
        self.log = open(os.path.join(self.folder.name, 'log'), 'w+', encoding='utf-8')
        self.addCleanup(self.log.close)
        self.driver = subprocess.Popen([sys.executable, PROGRAM, '--socket', self.path, *more], env=environment,
                                       stderr=self.log)
        self.addCleanup(self.driver.wait)
        self.addCleanup(self.driver.kill)

    def connect(self):
        self.client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(self.client.close)
        self.client.settimeout(20)
        deadline = time.monotonic() + 20
        while True:
            try:
                return self.client.connect(self.path)
            except OSError:
                self.assertIsNone(self.driver.poll())
                self.assertLess(time.monotonic(), deadline)
                time.sleep(0.005)

    def logged(self):
        self.log.seek(0)
        return self.log.read()

    def receive(self, length):
        data = b''
        while len(data) < length:
            more = self.client.recv(length - len(data))
            self.assertTrue(more, 'the driver has closed the connection')
            data += more
        return data

    def ask(self, command, **fields):
        body = body_of(command, **fields)
        self.id += 1
        self.client.sendall(struct.pack('=II', len(body) + 8, self.id) + body)
        length, identity = struct.unpack('=II', self.receive(8))
        self.assertEqual(identity, self.id)
        return PTZKit.body_to_variant(PTZKit.BodyKind.REPLY, self.receive(length - 8)).unpack()

    def test_overridden_function_receives_typed_request(self):
        self.start()
        self.connect()
        reply = self.ask('move', kind=PTZ.Move.ABSOLUTE, axes=3, speed=100, value=[9000, -1000, 0])
        self.assertEqual(reply, {'command': 'move'})
        self.assertEqual(self.ask('query_position')['position'], [9000, -1000, 0])

    def test_exception_is_answered_as_internal_error_and_driver_goes_on(self):
        self.start()
        self.connect()
        for _ in range(3):
            reply = self.ask('auxiliary', name='raise', state=PTZ.Enable.ON)
            self.assertEqual((reply['command'], reply['code']), ('error', PTZKit.ErrorCode.INTERNAL))
        self.assertIn('this is meant to fail', self.logged())
        self.assertEqual(self.ask('auxiliary', name='light', state=1)['state'], PTZ.Enable.ON)

    def test_deferred_reply_is_answered_later(self):
        self.start()
        self.connect()
        self.assertEqual(self.ask('auxiliary', name='later', state=1),
                         {'command': 'auxiliary', 'name': 'later', 'state': 1})

    def test_error_has_code_and_text(self):
        self.start()
        self.connect()
        self.assertEqual(self.ask('auxiliary', name='wiper', state=1),
                         {'command': 'error', 'code': 5, 'text': 'no such auxiliary'})

    def test_capabilities_follow_from_overridden_functions(self):
        self.start()
        self.connect()
        extra = self.ask('get_capabilities')['extra']
        self.assertTrue(extra & PTZ.DriverExtraCapabilities.AUX)
        self.assertFalse(extra & PTZ.DriverExtraCapabilities.OSDMENU)

    def start_with_limit(self, limit):
        settings = os.path.join(self.folder.name, 'settings')
        with open(settings, 'w', encoding='ascii') as file:
            file.write(f'[Head]\n\nLimit={limit}\n')
        self.start('--config', settings)
        return settings

    def test_settings_are_read_before_open(self):
        self.start_with_limit(9000)
        self.connect()
        self.assertEqual(self.ask('query_limit_ranges')['maximum'], [9000, 9000, 0])

    def test_bad_setting_ends_with_status_2(self):
        settings = self.start_with_limit('none')
        self.assertEqual(self.driver.wait(20), 2)
        self.assertIn(settings + ':3: [Head] Limit: "none" is not a whole number', self.logged())

    def test_error_of_open_ends_with_status_1_and_its_text(self):
        self.start_with_limit(1)
        self.assertEqual(self.driver.wait(20), 1)
        self.assertIn('python-driver: the limit is too small', self.logged())

    def test_exception_in_open_ends_with_status_1(self):
        self.start_with_limit(2)
        self.assertEqual(self.driver.wait(20), 1)
        self.assertIn('this is meant to fail', self.logged())

    def test_reported_position_is_published(self):
        self.start('--instance', '7')
        self.connect()
        self.ask('move', kind=PTZ.Move.ABSOLUTE, axes=1, speed=100, value=[9000, 0, 0])
        deadline = time.monotonic() + 20  # the status follows the reply
        while self.published_pan(7) != 90:
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.005)

    def published_pan(self, instance):
        """The status cache has no introspection data."""
        os.environ['PTZ_PLATFORM_RUNTIME_DIR'] = self.folder.name
        library = ctypes.CDLL('libptznimbo_common.so.0')
        library.ptz_status_cache_setup_group.restype = ctypes.c_void_p
        group = ctypes.c_void_p(library.ptz_status_cache_setup_group(PTZ.SCGroup.POSITION, instance, 1))
        pan = ctypes.c_float()
        library.ptz_status_cache_add_param(group, PTZ.SCParam.POSITION_PAN, ctypes.byref(pan))
        self.assertTrue(library.ptz_status_cache_fetch_group(group))
        library.ptz_status_cache_free_group(group)
        return pan.value

    def test_sigterm_ends_with_status_0_and_removes_socket(self):
        self.start()
        self.connect()
        self.ask('query_position')
        self.driver.send_signal(signal.SIGTERM)
        self.assertEqual(self.driver.wait(20), 0)
        self.assertFalse(os.path.exists(self.path))

    @unittest.skipUnless(COMPLIANCE, 'the tools are not built')
    def test_compliance_tool_has_no_complaint_about_example(self):
        environment = os.environ | {'PTZ_PLATFORM_RUNTIME_DIR': self.folder.name}
        tool = subprocess.run([COMPLIANCE, '--instance', '1', '--', sys.executable, EXAMPLE, '--instance', '1',
                               '--socket', '{socket}'], env=environment, capture_output=True, text=True, check=False)
        self.assertEqual(tool.returncode, 0, tool.stdout + tool.stderr)
        self.assertIn('3 not applicable', tool.stdout)


if __name__ == '__main__':
    unittest.main()
