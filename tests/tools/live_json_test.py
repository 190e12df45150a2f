"""Checks what docs/json.md says of the JSON output with real outputs: python3 live_json_test.py DOCUMENT PTZCTL PTZ_COMPLIANCE SIM_DRIVER SETTINGS

Of each subcommand, the jq expressions of its section must hold for its example and for what it prints, and each member
that it prints must be named in its section. Prints TAP.
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

SECTION = re.compile(r"^### `(.*?)`\n(.*?)(?=^##)", re.MULTILINE | re.DOTALL)
BLOCK = re.compile(r"^```(\S+)(?: (\S+))?\n(.*?)^```$", re.MULTILINE | re.DOTALL)
#Below these, the names are those of other documents, or of the user.
OPEN = {"values", "fields", "entries", "parameters", "groups", "changes", "not_applicable_by_reason", "pan", "tilt", "zoom"}
#Their own tests run them; here their examples are checked.
NOT_RUN = {"ptzctl record", "ptzctl replay", "ptzctl report"}
#What others need is made first, and removed last.
FIRST = ["ptzctl driver presets store", "ptzctl param set", "ptzctl param create", "ptzctl param backup",
         "ptzctl config set", "ptzctl config add"]
LAST = ["ptzctl param delete", "ptzctl param restore"]


class System:
    """A bus, a simulated driver and a parameter tree of their own."""

    def __init__(self, folder, programs, settings):
        self.folder, self.programs, self.settings = folder, programs, settings
        self.children = []
        os.environ.update({
name: folder for name in
                           ("PTZ_PLATFORM_RUNTIME_DIR", "PTZ_PLATFORM_STATE_DIR", "PTZ_PLATFORM_TEMPLATE_DIR")})
        os.environ["LC_ALL"] = "C.UTF-8"

    def file(self, name):
        return os.path.join(self.folder, name)

    def start(self):
        bus = self.spawn([shutil.which("dbus-daemon") or "/usr/bin/dbus-daemon", "--session", "--nofork",
                          "--print-address=1"], stdout=subprocess.PIPE)
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = bus.stdout.readline().decode().strip()
        self.spawn([self.programs["sim-driver"], "--socket", self.file("socket"), "--instance", "1", "--dbus", "sim",
                    "--config", self.settings, "--state", self.file("state")])
        for _ in range(500):
            if self.run("ptzctl config list", ["sim"]).returncode == 0:
                break
            time.sleep(0.02)
        with open(self.file("t_grp.conf"), "w", encoding="utf-8") as template:
            template.write("Name=none\n")

    def spawn(self, words, **more):
        child = subprocess.Popen(words, stderr=subprocess.DEVNULL, **more)
        self.children.append(child)
        return child

    def stop(self):
        for child in reversed(self.children):
            child.kill()
            child.wait()

    def words(self, command, arguments):
        program, *rest = command.split()
        return [self.programs[program], *rest, "--json", *arguments]

    def run(self, command, arguments):
        return subprocess.run(self.words(command, arguments), capture_output=True, timeout=60, check=False)

    def while_asking(self, command, arguments, ask):
        """What a command prints that waits for something to happen."""
        child = subprocess.Popen(self.words(command, arguments), stdout=subprocess.PIPE)
        for _ in range(500):
            if child.poll() is not None:
                break
            ask()
        if child.poll() is None:
            child.send_signal(signal.SIGINT)
        return child.communicate(timeout=10)[0].decode()

    def output(self, command):
        """What the command prints here, in one or several runs."""
        driver = ["--socket", self.file("socket")]
        pan = ["absolute", "--pan"]
        runs = {
            "ptzctl driver list": [[]], "ptzctl driver info": [driver], "ptzctl driver caps": [driver],
            "ptzctl driver limits": [driver], "ptzctl driver position": [driver], "ptzctl driver stop": [driver],
            "ptzctl driver move": [[*pan, "1", *driver], [*pan, "0", "--wait", *driver]],
            "ptzctl driver presets store": [["3", "the gate", *driver]],
            "ptzctl driver presets list": [driver], "ptzctl driver presets goto": [["3", *driver]],
            "ptzctl driver params": [driver],
            "ptzctl driver send": [["query_position", *driver], ["get_device_presets", *driver],
                                   ["get_capabilities", *driver]],
            "ptzctl top": [["--count=2", "--interval=50"]],
            "ptzctl doctor": [["--driver", "sim-driver"]],
            "ptzctl status show": [[]], "ptzctl status watch": [["--count=2", "--interval=20"]],
            "ptzctl timing show": [[], ["a_path"]], "ptzctl counter show": [[]],
            "ptzctl param set": [["PTZ.Name", "gate"]], "ptzctl param get": [["PTZ.Name"]],
            "ptzctl param create": [["PTZ.Preset", "t", "7"]], "ptzctl param list": [["PTZ"]],
            "ptzctl param tree": [[]], "ptzctl param delete": [["PTZ.Preset.P7"]], "ptzctl param sync": [[]],
            "ptzctl param backup": [[self.file("copy")]], "ptzctl param restore": [[self.file("copy")]],
            "ptzctl config list": [["sim"]], "ptzctl config get": [["sim", "1", "Name"]],
            "ptzctl config set": [["sim", "1", "Tilt", "-300"]], "ptzctl config add": [["sim"]],
            "ptzctl config remove": [["sim", "3"]], "ptzctl config sync": [["sim"]],
            "ptzctl enum": [["PTZMove"]],
            "ptz-compliance": [["--driver", "sim-driver", "--only", "socket.*", "--only", "reply.*"]],
        }
        if command == "ptzctl tap":
            def ask():
                self.run("ptzctl driver move", ["absolute", "--pan", "900", *driver])
                self.run("ptzctl driver send", ["u32:77", *driver])
            return self.while_asking(command, ["--count", "30", *driver], ask)
        if command == "ptzctl config watch":
            values = iter(range(1, 1000))
            return self.while_asking(command, ["sim", "--count", "4"],
                                     lambda: self.run("ptzctl config set", ["sim", "1", "Tilt", str(next(values))]))
        return "".join(self.run(command, arguments).stdout.decode() for arguments in runs[command])

    def errors(self):
        driver = ["--socket", self.file("socket")]
        failing = [("ptzctl driver move", ["absolute", "--pan", "900", *driver]), ("ptzctl driver info", ["--driver", "none"]),
                   ("ptzctl driver", ["nonsense"]), ("ptzctl param get", ["PTZ.None"]), ("ptz-compliance", []),
                   ("ptzctl tap", ["--socket", self.file("none")])]
        return "".join(self.run(*each).stderr.decode() for each in failing)


def jq_problem(expressions, text):
    """Which expression does not hold for each of the objects, or None."""
    lines = expressions.strip().split("\n")
    whole = ", ".join(f"(length > 0 and all(.[]; {each}))" for each in lines)
    done = subprocess.run(["jq", "--slurp", whole], input=text, capture_output=True, encoding="utf-8", check=False)
    broken = [line for line, held in zip(lines, done.stdout.split() + ["-"] * len(lines)) if held != "true"]
    return "\n".join([*broken, done.stderr, text[:1500]]) if broken else None


def names_in(value):
    if isinstance(value, list):
        for each in value:
            yield from names_in(each)
    elif isinstance(value, dict):
        for name, member in value.items():
            yield name
            if name not in OPEN:
                yield from names_in(member)

def objects_in(text):
    decoder, at = json.JSONDecoder(), 0
    while at < len(text):
        value, end = decoder.raw_decode(text, at)
        yield value
        at = end + len(text[end:]) - len(text[end:].lstrip())


def unnamed(section, text):
    """Members that the output has and the section does not name."""
    names = {name for value in objects_in(text) for name in names_in(value)}
    return sorted(name for name in names if f"`{name}`" not in section and f'"{name}"' not in section)


def problem_with(section, example, expressions, text):
    return (jq_problem(expressions, example) or jq_problem(expressions, text)
            or ", ".join(f"{name} is not described" for name in unnamed(section, text)) or None)


def leaves(program, words=()):
    """All subcommands that have none of their own."""
    said = subprocess.run([program, *words, "--help"], capture_output=True, encoding="utf-8", check=True).stdout
    if "SUBCOMMAND" not in said:
        yield " ".join(["ptzctl", *words])
        return
    for name in re.findall(r"^  ([a-z]+) ", said, re.MULTILINE):
        yield from leaves(program, (*words, name))


def takes_json(system, command):
    said = subprocess.run([*system.words(command, [])[:-1], "--help"], capture_output=True, encoding="utf-8", check=False)
    return "--json" in said.stdout


def results(document, system):
    with open(document, encoding="utf-8") as file:
        text = file.read() + "\n## end\n"
    sections = dict(SECTION.findall(text))
    for command in leaves(system.programs["ptzctl"]):
        yield f"{command} is described", None if command in sections else "there is no section"
    for command in sorted(sections, key=lambda name: (name not in FIRST, name in LAST)):
        section = sections[command]
        found = {kind: code for kind, _, code in BLOCK.findall(section)}
        if "jq" not in found:
            continue
        if command in NOT_RUN or not takes_json(system, command):
            yield f"{command}: the example", jq_problem(found["jq"], found["json"])
            continue
        yield command, problem_with(section, found["json"], found["jq"], system.output(command))
    errors = {kind: code for kind, of, code in BLOCK.findall(text) if of == "error"}
    section = text[text.index("## Errors"):text.index("## Drivers")]
    yield "errors", problem_with(section, errors["json"], errors["jq"], system.errors())


def main(document, ptzctl, compliance, driver, settings):
    with tempfile.TemporaryDirectory() as folder:
        system = System(folder, {"ptzctl": ptzctl, "ptz-compliance": compliance, "sim-driver": driver}, settings)
        number = failed = 0
        try:
            system.start()
            for name, problem in results(document, system):
                number += 1
                failed += problem is not None
                print(f"{'ok' if problem is None else 'not ok'} {number} - {name}")
                if problem is not None:
                    print("\n".join("# " + line for line in problem.split("\n")))
        finally:
            system.stop()
        print(f"1..{number}")
        return 1 if failed else 0


sys.exit(main(*sys.argv[1:]))
