"""Pages as the tools write them, for the tests: python3 with the paths of the tools in the environment."""
import os
import shutil
import socket
import struct
import subprocess
import threading
import time

PTZCTL = os.environ["PTZCTL"]
PTZ_COMPLIANCE = os.environ["PTZ_COMPLIANCE"]
SIM_DRIVER = os.environ["SIM_DRIVER"]
TWO_AXIS_DRIVER = os.environ["TWO_AXIS_DRIVER"]

# As names, paths, values and lines of a log.
MARKUP = "<script>alert(1)</script>'\"&amp;<b>"
CONTROLS = b"\x1b[31m\xff\xc3(\xe2\x80\xae"


def environment(folder):
    """Of a platform of its own below the folder."""
    names = ("PTZ_PLATFORM_RUNTIME_DIR", "PTZ_PLATFORM_STATE_DIR", "PTZ_PLATFORM_TEMPLATE_DIR")
    return {**os.environ, **{name: folder for name in names}, "LC_ALL": "C.UTF-8"}


def run(arguments, folder, extra=None):
    return subprocess.run(arguments, env={**environment(folder), **(extra or {})}, stdin=subprocess.DEVNULL, capture_output=True, timeout=100, check=False)


def compliance_page(folder, *arguments, fault="move.absolute-arrives"):
    """The page of a driver with one fault; with what the tool printed."""
    page = os.path.join(folder, "compliance.html")
    result = run([PTZ_COMPLIANCE, "--instance", "1", "--html", page, *arguments, "--", SIM_DRIVER, "--socket", "{socket}",
                  "--instance", "1", "--speed-factor", "2", "--fault", fault], folder)
    return page, result


class Driver:
    """A driver that runs until the end of a with statement."""

    def __init__(self, folder, program=SIM_DRIVER, instance=1, **variables):
        self.folder, self.process, self.variables = folder, None, variables
        self.socket = os.path.join(folder, f"socket{instance}")
        self.arguments = [program, "--socket", self.socket, "--instance", str(instance)]

    def __enter__(self):
        with open(os.path.join(self.folder, "driver.log"), "ab") as log:
            self.process = subprocess.Popen(self.arguments, env={**environment(self.folder), **self.variables},
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        for _ in range(1000):
            listed = run([PTZCTL, "driver", "list", "--json"], self.folder).stdout
            if self.process.poll() is not None:
                break
            if f'"pid":{self.process.pid},'.encode() in listed:
                return self
            time.sleep(0.02)
        raise AssertionError("the driver did not start")

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


def report(folder, *arguments, **more):
    return run([PTZCTL, "report", *arguments], folder, **more)


def journal(folder, script):
    """A PATH with a journalctl that is this script."""
    programs = os.path.join(folder, "programs")
    os.makedirs(programs, exist_ok=True)
    path = os.path.join(programs, "journalctl")
    with open(path, "w", encoding="utf-8") as file:
        file.write("#!/bin/sh\n" + script)
    os.chmod(path, 0o755)
    return {"PATH": programs + ":" + os.environ["PATH"]}


def ask(path, command, *fields):
    """One request as any client may send it; returns the body of the reply."""
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(10)
        client.connect(path)
        body = struct.pack("<i", command) + b"".join(fields)
        client.sendall(struct.pack("<II", 8 + len(body), 1) + body)
        reply = client.recv(4096)
        return reply[8:]


def moving_report(folder):
    """The page of a head that is moved three times while it is watched."""
    page = os.path.join(folder, "report.html")
    with Driver(folder) as driver, Driver(folder, instance=2):
        stop = threading.Event()

        def move():
            for pan in (3000, -1000, 2000):
                stop.wait(0.35)
                # Move, absolute, pan, at full speed
                ask(driver.socket, 5, struct.pack("<IBHiii", 1, 1, 100, pan, 0, 0))

        mover = threading.Thread(target=move)
        mover.start()
        result = report(folder, page, "--seconds", "2")
        mover.join()
    return page, result


def hostile_report(folder, *arguments):
    """Of drivers whose names, paths, presets, parameters and log lines are made to break a page."""
    page = os.path.join(folder, "report.html")
    programs = os.path.join(folder, "<i>'\"&lt;" + MARKUP.split("/", maxsplit=1)[0])
    os.makedirs(programs)
    program = shutil.copy(TWO_AXIS_DRIVER, os.path.join(programs, "driver"))
    lines = os.path.join(folder, "lines")
    with open(lines, "wb") as file:
        file.write(b"Nov 22 " + MARKUP.encode() + CONTROLS + b"\n")
    run([PTZCTL, "param", "set", "PTZ.Text", MARKUP], folder)
    run([PTZCTL, "param", "set", "PTZ.Head.H1.Password", "hunter2"], folder)
    path = journal(folder, f"cat '{lines}'\n")
    build = os.path.abspath(os.path.join(os.path.dirname(TWO_AXIS_DRIVER), "../.."))
    libraries = ":".join(os.path.join(build, part) for part in ("kit", "src", "platform/standalone"))
    with Driver(folder, program, TWO_AXIS_DRIVER_NAME=MARKUP, LD_LIBRARY_PATH=libraries), Driver(folder, instance=2) as driver:
        run([PTZCTL, "driver", "send", "set_device_preset", "number=1", "name=" + MARKUP[:32], "--socket", driver.socket], folder)
        ask(driver.socket, 1, struct.pack("<IH", 2, len(CONTROLS)), CONTROLS)
        ask(driver.socket, 1, CONTROLS)
        result = report(folder, page, "--seconds", "0", *arguments, extra=path)
    return page, result
