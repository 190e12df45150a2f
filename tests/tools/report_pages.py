"""Pages as the tools write them, for the tests: python3 with the paths of the tools in the environment."""
import os
import subprocess
import time

PTZCTL = os.environ["PTZCTL"]
PTZ_COMPLIANCE = os.environ["PTZ_COMPLIANCE"]
SIM_DRIVER = os.environ["SIM_DRIVER"]
HOSTILE_DRIVER = os.environ.get("HOSTILE_DRIVER")


def environment(folder):
    """Of a platform of its own below the folder."""
    names = ("PTZ_PLATFORM_RUNTIME_DIR", "PTZ_PLATFORM_STATE_DIR", "PTZ_PLATFORM_TEMPLATE_DIR")
    return {**os.environ, **{name: folder for name in names}, "LC_ALL": "C.UTF-8"}


def run(arguments, folder, **more):
    return subprocess.run(arguments, env=environment(folder), stdin=subprocess.DEVNULL, capture_output=True, timeout=100,
                          check=False, **more)


def compliance_page(folder, *arguments, fault="move.absolute-arrives"):
    """The page of a driver with one fault; with what the tool printed."""
    page = os.path.join(folder, "compliance.html")
    result = run([PTZ_COMPLIANCE, "--instance", "1", "--html", page, *arguments, "--", SIM_DRIVER, "--socket", "{socket}",
                  "--instance", "1", "--speed-factor", "2", "--fault", fault], folder)
    return page, result


class Driver:
    """A driver that runs until the end of a with statement."""

    def __init__(self, folder, arguments):
        self.folder, self.arguments, self.process = folder, arguments, None

    def __enter__(self):
        with open(os.path.join(self.folder, "driver.log"), "ab") as log:
            self.process = subprocess.Popen(self.arguments, env=environment(self.folder), stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log)
        for _ in range(1000):
            listed = run([PTZCTL, "driver", "list", "--json"], self.folder).stdout
            if f'"pid":{self.process.pid},'.encode() in listed:
                return self
            time.sleep(0.02)
        raise AssertionError("the driver did not start")

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
