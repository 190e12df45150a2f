"""Chromium without a window, driven over a pipe: no network and no port is used."""
import base64
import json
import os
import select
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import zlib

# A crowded machine may take long; a browser that hangs must not take forever.
LIMIT_S = 60
PROGRAM = shutil.which("chromium")
OPTIONS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage", "--remote-debugging-pipe",
]


class BrowserError(Exception):
    """The browser has refused a command, has ended, or does not answer."""


class Browser:
    """One browser with one page. Commands are those of the DevTools protocol."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="report-browser-")
        self.deadline = 0.0
        to_browser, self.output = os.pipe()
        self.input, from_browser = os.pipe()
        self.buffer = b""
        self.number = 0
        self.session = None
        self.events = []
        with open(os.path.join(self.folder.name, "log"), "wb") as log:
            self.process = subprocess.Popen(
                ["sh", "-c", f'exec "$@" 3<&{to_browser} 4>&{from_browser}', "sh", PROGRAM, *OPTIONS,
                 f"--user-data-dir={self.folder.name}/profile"],
                pass_fds=[to_browser, from_browser], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                env={**os.environ, "HOME": self.folder.name}, start_new_session=True)
        os.close(to_browser)
        os.close(from_browser)
        target = self.command("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.command("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Log", "Runtime", "Network"):
            self.command(domain + ".enable")

    def close(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        os.close(self.input)
        os.close(self.output)
        for _ in range(50):  # its helpers end a moment later, and write until then
            try:
                self.folder.cleanup()
                return
            except OSError:
                time.sleep(0.1)

    def _message(self):
        while b"\0" not in self.buffer:
            left = self.deadline - time.monotonic()
            ready = left > 0 and select.select([self.input], [], [], left)[0]
            data = os.read(self.input, 1 << 16) if ready else b""
            if not data:
                with open(os.path.join(self.folder.name, "log"), encoding="utf-8", errors="replace") as log:
                    raise BrowserError(("it has ended" if ready else "it does not answer") + "\n" + log.read()[-2000:])
            self.buffer += data
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    def command(self, method, **parameters):
        self.deadline = time.monotonic() + LIMIT_S
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.output, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._message()
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise BrowserError(f"{method}: {answer['error']}")
                return answer["result"]
            self.events.append(answer)

    def open(self, path, width, height=900, scheme="light"):
        """Opens the file in a window of this size; returns what the console and the network have reported."""
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                     mobile=width < 600)
        self.command("Emulation.setEmulatedMedia", media="screen",
                     features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.events.clear()
        self.command("Page.navigate", url="file://" + os.path.abspath(path))
        while not any(event.get("method") == "Page.loadEventFired" for event in self.events):
            self.events.append(self._message())
        return self.events

    def evaluate(self, expression):
        result = self.command("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in result:
            raise BrowserError(json.dumps(result["exceptionDetails"]))
        return result["result"].get("value")

    def screenshot(self, left, top, width, height):
        """A part of the page as a PNG file."""
        clip = {"x": left, "y": top, "width": width, "height": height, "scale": 1}
        return base64.b64decode(self.command("Page.captureScreenshot", clip=clip, captureBeyondViewport=True)["data"])

    def page_size(self):
        size = self.command("Page.getLayoutMetrics")["cssContentSize"]
        return size["width"], size["height"]

    def pdf(self):
        return base64.b64decode(self.command("Page.printToPDF", preferCSSPageSize=True)["data"])


def pixels(png):
    """The picture of a PNG file of 8 bits a channel, without interlacing, as this browser writes it."""
    position, data, width, height, channels = 8, b"", 0, 0, 0
    while position < len(png):
        length, kind = struct.unpack(">I4s", png[position:position + 8])
        chunk = png[position + 8:position + 8 + length]
        if kind == b"IHDR":
            width, height, _, colour = struct.unpack(">IIBB", chunk[:10])
            channels = {2: 3, 6: 4}[colour]
        elif kind == b"IDAT":
            data += chunk
        position += length + 12
    data = zlib.decompress(data)
    stride, rows, before = width * channels, [], bytearray(width * channels)
    for y in range(height):
        start = y * (stride + 1)
        row = unfiltered(data[start], bytearray(data[start + 1:start + 1 + stride]), before, channels)
        rows.append(row)
        before = row
    return Picture(width, height, channels, rows)


def unfiltered(kind, row, before, channels):
    if kind == 2:
        return bytearray((a + b) & 255 for a, b in zip(row, before))
    if kind == 0:
        return row
    for i in range(len(row)):
        left = row[i - channels] if i >= channels else 0
        above, corner = before[i], before[i - channels] if i >= channels else 0
        if kind == 1:
            guess = left
        elif kind == 3:
            guess = (left + above) // 2
        else:
            estimate = left + above - corner
            guess = min((abs(estimate - left), 0, left), (abs(estimate - above), 1, above),
                        (abs(estimate - corner), 2, corner))[2]
        row[i] = (row[i] + guess) & 255
    return row


class Picture:
    def __init__(self, width, height, channels, rows):
        self.width, self.height, self.channels, self.rows = width, height, channels, rows

    def at(self, x, y):
        start = x * self.channels
        return tuple(self.rows[y][start:start + 3])

    def colours(self):
        return {self.at(x, y) for y in range(self.height) for x in range(self.width)}
