#!/usr/bin/env python3
"""A daemon with several drivers. It pans each of them to 100 degrees whenever the driver is ready."""
import sys

import gi

gi.require_version('PTZ', '0')
gi.require_version('PTZKit', '0')
from gi.repository import GLib, PTZ, PTZKit  # noqa: E402


def tell(link, text):
    print(f'{link.props.socket_path}: {text}', flush=True)


def on_reply(link, result, finish):
    try:
        reply = finish(result)
    except GLib.Error as error:
        return tell(link, error.message)
    if reply is not True and reply.status[PTZKit.Axis.PAN] == PTZ.MoveStatus.MOVING:
        GLib.timeout_add(100, link.query_position_async, 1000, None, on_reply, link.query_position_finish)
    else:
        tell(link, 'the head moves' if reply is True else f'pan {reply.position[PTZKit.Axis.PAN] / 100:.2f} degrees')


def on_state(link, _):
    tell(link, link.props.state.value_nick)
    if link.props.state == PTZKit.LinkState.READY:
        request = PTZKit.MoveRequest.new(PTZ.Move.ABSOLUTE, 1 << PTZKit.Axis.PAN, 100, [10000, 0, 0])
        link.move_async(request, 1000, None, on_reply, link.move_finish)
        link.query_position_async(1000, None, on_reply, link.query_position_finish)


links = [PTZKit.Link.new(path) for path in sys.argv[1:]]
for link in links:
    link.connect('notify::state', on_state)
    link.open()
GLib.MainLoop().run()
