"""A driver in Python, for driver_test.py: pan and tilt that arrive at once, and auxiliaries that fail in every way."""
import sys

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import GLib, PTZ, PTZKit  # noqa: E402


class Driver(PTZKit.Driver):
    def do_open(self):
        limit = self.get_integer('Head', 'Limit')
        if limit == 1:
            raise GLib.Error('the limit is too small', 'tests', 1)
        if limit == 2:
            raise RuntimeError('this is meant to fail')
        self.set_axis(PTZKit.Axis.PAN, -limit, limit, 12000, 0)
        self.set_axis(PTZKit.Axis.TILT, -2000, 9000, 9000, 0)
        return True

    def do_move(self, request, reply):
        for axis in (PTZKit.Axis.PAN, PTZKit.Axis.TILT):
            if request.axes & 1 << axis:
                self.report_axis(axis, request.value[axis], False)
        reply.ok()

    def do_auxiliary(self, request, reply):
        if request.name == 'raise':
            raise RuntimeError('this is meant to fail')
        if request.name == 'later':
            reply.defer()
            GLib.timeout_add(20, self.answer, request.name, reply)
        elif request.name == 'light':
            self.answer(request.name, reply)
        else:
            reply.error(PTZKit.ErrorCode.NOT_FOUND, 'no such auxiliary')

    def answer(self, name, reply):
        reply.auxiliary(PTZKit.AuxiliaryReply.new(name, PTZ.Enable.ON))
        return GLib.SOURCE_REMOVE


driver = Driver(name='python-driver', device_types=['Head of the tests'])
driver.add_setting('Head', 'Limit', PTZKit.SettingKind.INTEGER, '17000', 1, 36000, 'Limit of pan on both sides')
sys.exit(driver.run(sys.argv))
