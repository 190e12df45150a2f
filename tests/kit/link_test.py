"""Links of the kit from Python, to a driver process: link_test.py SIM_DRIVER"""
import os
import subprocess
import sys
import tempfile
import time
import unittest

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import Gio, GLib, PTZ, PTZKit  # noqa: E402

DRIVER = sys.argv.pop()


class Links(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix='ptz-test-')
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, 'driver')
        self.driver = None
        self.addCleanup(self.kill_driver)
        self.start_driver()
        self.link = PTZKit.Link.new(self.path)
        self.addCleanup(self.link.close)
        self.loop = GLib.MainLoop()

    def start_driver(self):
        self.driver = subprocess.Popen([DRIVER, '--socket', self.path])

    def kill_driver(self):
        self.driver.kill()
        self.driver.wait()

    def run_until(self, condition, limit_s=10):
        end = time.monotonic() + limit_s
        wake = GLib.timeout_add(20, lambda: GLib.SOURCE_CONTINUE)
        while not condition() and time.monotonic() < end:
            GLib.MainContext.default().iteration(True)
        GLib.source_remove(wake)
        self.assertTrue(condition())

    def test_state_is_notified_on_glib_loop(self):
        states = []

        def on_state(link, _):
            states.append(link.props.state)
            if link.props.state == PTZKit.LinkState.READY:
                self.loop.quit()
        self.link.connect('notify::state', on_state)
        self.link.open()
        self.loop.run()
        self.assertEqual(states, [PTZKit.LinkState.CONNECTING, PTZKit.LinkState.READY])
        self.assertEqual(self.link.props.driver_name, 'sim-driver')
        self.assertEqual(self.link.props.protocol_version, 1)
        self.assertTrue(self.link.props.move_capabilities)

    def test_async_wait_ends_when_link_is_ready(self):
        ready = []

        def on_ready(link, result):
            ready.append(link.wait_ready_finish(result))
            self.loop.quit()
        self.link.open()
        self.link.wait_ready_async(0, None, on_ready)
        self.loop.run()
        self.assertEqual(ready, [True])
        self.assertEqual(self.link.props.state, PTZKit.LinkState.READY)

    def test_blocking_call_returns_reply(self):
        self.link.open()
        self.link.wait_ready(0)
        self.assertTrue(self.link.move(PTZKit.MoveRequest.new(PTZ.Move.ABSOLUTE, 1, 100, [100, 0, 0]), 1000, None))
        self.assertEqual(len(self.link.query_position(1000, None).position), 3)

    def test_refusal_is_raised_with_code_of_driver(self):
        self.link.open()
        self.link.wait_ready(0)
        with self.assertRaises(GLib.Error) as raised:
            self.link.goto_device_preset(PTZKit.GotoDevicePresetRequest.new(9, 50), 1000, None)
        self.assertTrue(raised.exception.matches(PTZKit.refusal_quark(), PTZKit.ErrorCode.NOT_FOUND))

    def test_async_call_ends_in_callback(self):
        replies = []

        def on_limits(link, result):
            replies.append(link.query_limit_ranges_finish(result))
            self.loop.quit()
        self.link.open()
        self.link.wait_ready(0)
        self.link.query_limit_ranges_async(1000, None, on_limits)
        self.loop.run()
        self.assertLess(replies[0].minimum[0], replies[0].maximum[0])

    def test_cancelled_call_raises_cancelled(self):
        errors = []

        def on_end(link, result):
            try:
                link.query_position_finish(result)
            except GLib.Error as error:
                errors.append(error)
            self.loop.quit()
        self.link.open()
        self.link.wait_ready(0)
        cancellable = Gio.Cancellable()
        cancellable.cancel()
        self.link.query_position_async(1000, cancellable, on_end)
        self.loop.run()
        self.assertTrue(errors[0].matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED))

    def test_restarted_driver_is_ready_again(self):
        self.link.open()
        self.link.wait_ready(0)
        self.kill_driver()
        self.run_until(lambda: self.link.props.state != PTZKit.LinkState.READY)
        with self.assertRaises(GLib.Error) as raised:
            self.link.stop(1000, None)
        self.assertTrue(raised.exception.matches(PTZKit.error_quark(), PTZKit.Error.NOT_CONNECTED))
        self.start_driver()
        self.run_until(lambda: self.link.props.state == PTZKit.LinkState.READY, 2)
        self.assertTrue(self.link.stop(1000, None))

    def test_call_of_body_returns_body(self):
        self.link.open()
        self.link.wait_ready(0)
        reply = self.link.call(GLib.Bytes.new(bytes([PTZ.Command.GET_DRIVER_NAME, 0, 0, 0])), 1000, None)
        self.assertEqual(PTZKit.GetDriverNameReply.read(reply.get_data()).name, 'sim-driver')


if __name__ == '__main__':
    unittest.main()
