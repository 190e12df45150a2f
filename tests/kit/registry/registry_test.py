"""The registry of drivers from Python."""
import os
import tempfile
import unittest

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import Gio, GLib, PTZKit  # noqa: E402


class Registry(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = directory.name
        os.environ['PTZ_PLATFORM_RUNTIME_DIR'] = directory.name
        self.registry = PTZKit.Registry.new(None)

    def start(self, name, instance=0):
        driver = PTZKit.Driver(name=name, instance=instance, socket_path=f'{self.path}/{name}.socket')
        driver.start()
        self.addCleanup(driver.stop)
        return driver

    def run_until(self, condition):
        timer = GLib.timeout_add(5000, lambda: self.fail('nothing happened'))
        while not condition():
            GLib.MainContext.default().iteration(True)
        GLib.source_remove(timer)

    def test_list_returns_entries(self):
        self.assertEqual(self.registry.list(), [])
        self.start('gate', 4)
        first, = self.registry.list()
        self.assertEqual((first.name, first.pid, first.uid, first.instance, first.protocol_version),
                         ('gate', os.getpid(), os.getuid(), 4, 1))
        self.assertEqual(first.socket_path, os.path.realpath(self.path) + '/gate.socket')
        self.assertEqual(first.liveness, PTZKit.DriverLiveness.LIVE)

    def test_find_returns_entry_or_raises(self):
        self.start('gate', 4)
        self.assertEqual(self.registry.find('gate').instance, 4)
        self.assertEqual(self.registry.find('4').name, 'gate')
        with self.assertRaises(GLib.Error) as raised:
            self.registry.find('yard')
        self.assertTrue(raised.exception.matches(Gio.io_error_quark(), Gio.IOErrorEnum.NOT_FOUND))
        self.assertIn('gate:4', raised.exception.message)

    def test_start_of_second_driver_raises_with_pid_of_first(self):
        self.start('gate')
        with self.assertRaises(GLib.Error) as raised:
            PTZKit.Driver(name='other', socket_path=f'{self.path}/gate.socket').start()
        self.assertIn(f"driver 'gate', process {os.getpid()}", raised.exception.message)

    def test_watch_signals_start_and_stop(self):
        seen = []
        self.registry.connect('driver-appeared', lambda _, entry: seen.append('+' + entry.name))
        self.registry.connect('driver-gone', lambda _, entry: seen.append('-' + entry.name))
        self.registry.watch()
        driver = self.start('gate')
        self.run_until(lambda: seen == ['+gate'])
        driver.stop()
        self.run_until(lambda: seen == ['+gate', '-gate'])

    def test_entry_outlives_list(self):
        self.start('gate')
        copy = self.registry.list()[0].copy()
        self.assertEqual(copy.name, 'gate')


if __name__ == '__main__':
    unittest.main()
