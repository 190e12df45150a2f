#!/usr/bin/env python3
"""A driver of a simulated head with pan, tilt and a wiper. A real one sends orders to its device in do_move()."""
import sys
import time

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import PTZ, PTZKit  # noqa: E402

AXES = {PTZKit.Axis.PAN: (-17000, 17000, 12000), PTZKit.Axis.TILT: (-2000, 9000, 9000)}


class Motion:
    """On the way from one place to another, in hundredths of a degree, since a moment."""
    begin = target = speed = since = 0

    def place(self):
        done, way = (time.monotonic() - self.since) * self.speed, self.target - self.begin
        return self.target if done >= abs(way) else self.begin + (done if way > 0 else -done)


class Driver(PTZKit.Driver):
    def __init__(self):
        super().__init__(name='kit-driver', device_types=['Simulated head'])
        self.motions = {axis: Motion() for axis in AXES}
        self.wiper = PTZ.Enable.OFF
        self.add_setting('Head', 'SpeedPercent', PTZKit.SettingKind.INTEGER, '100', 1, 100,
                         'Share of the maximum speed that the head may use')

    def do_open(self):
        self.share = self.get_integer('Head', 'SpeedPercent') / 100
        for axis, (minimum, maximum, max_speed) in AXES.items():
            self.set_axis(axis, minimum, maximum, int(max_speed * self.share), 0)
        return True

    def do_update(self):
        for axis, motion in self.motions.items():
            place = motion.place()
            self.report_axis(axis, round(place), place != motion.target)

    def do_move(self, request, reply):
        for axis, (minimum, maximum, max_speed) in AXES.items():
            if not request.axes & 1 << axis:
                continue
            motion, value = self.motions[axis], request.value[axis]
            motion.begin, motion.since = motion.place(), time.monotonic()
            motion.speed = max_speed * self.share * request.speed / 100
            motion.target = value + (self.get_position(axis) if request.kind == PTZ.Move.RELATIVE else 0)
            if request.kind == PTZ.Move.CONTINUOUS:
                motion.target = maximum if value > 0 else minimum if value < 0 else motion.begin
                motion.speed = abs(value) * request.speed / 100
        self.do_update()
        reply.ok()

    def do_auxiliary(self, request, reply):
        if request.name != 'wiper':
            return reply.error(PTZKit.ErrorCode.NOT_FOUND, 'there is no auxiliary of this name')
        self.wiper = request.state or self.wiper
        reply.auxiliary(PTZKit.AuxiliaryReply.new(request.name, self.wiper))


sys.exit(Driver().run(sys.argv))
