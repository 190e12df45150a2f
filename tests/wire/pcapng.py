"""Writes recordings as ptzctl record does, also of frames that no client would send."""
import struct

START_NS = 1_700_000_000_000_000_000
REQUEST, REPLY = 0, 1


def block(kind, contents):
    length = struct.pack('<I', len(contents) + 12)
    return struct.pack('<I', kind) + length + contents + length


def padded(data):
    return data + b'\0' * (-len(data) % 4)


def option(code, value):
    return struct.pack('<HH', code, len(value)) + padded(value)


def head():
    section = struct.pack('<IHHq', 0x1A2B3C4D, 1, 0, -1)
    interface = struct.pack('<HHI', 147, 0, 0) + option(9, b'\x09') + option(0, b'')
    return block(0x0A0D0D0A, section) + block(1, interface)


def packet(time_ns, data):
    return block(6, struct.pack('<IIIII', 0, time_ns >> 32, time_ns & 0xFFFFFFFF, len(data), len(data)) + padded(data))


def pseudo_header(direction, client=1, flags=0, lost=0):
    return b'PTZ1' + struct.pack('<BBHIiII', direction, flags, 0, client, 4711, 1000, lost)


def frame(message_id, body, length=None):
    return struct.pack('=II', 8 + len(body) if length is None else length, message_id) + body


class Recording:
    def __init__(self):
        self.data = head()
        self.count = 0

    def add_packet(self, data, time_ns=None):
        self.data += packet(START_NS + self.count * 1_000_000 if time_ns is None else time_ns, data)
        self.count += 1

    def add(self, direction, message_id, body, time_ns=None, length=None, **header):
        self.add_packet(pseudo_header(direction, **header) + frame(message_id, body, length), time_ns)

    def save(self, path):
        with open(path, 'wb') as file:
            file.write(self.data)
