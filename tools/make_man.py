"""Writes a man page from a program's help: python3 make_man.py OUTPUT PROGRAM SUMMARY, or OUTPUT PROGRAM --of SUBCOMMAND

The help of the program is the only source of its synopsis, options, settings, exit statuses and examples. This file
adds what no help says: the files, the environment, and examples of drivers.
"""
import os
import re
import subprocess
import sys

HEADING = re.compile(r"^(Usage|[A-Z][A-Za-z ]*Options|Settings of --config|Exit status|Examples?):[ ]*(.*)$")
OPTION = re.compile(r"^  (-\S+(?:, --\S+)?)(?: {2,}(.*))?$")
STATUS = re.compile(r"^  (\d+) {2,}(.*)$")
SETTING = re.compile(r"^  (\[\w+\](?: to \[\w+\])? \w+=.*?)  (.*)$")

RUNTIME = ("/run/ptz", "The sockets of the drivers, each with its monitor socket (the same path with .monitor at the end), the "
           "entries of the drivers that run (drivers/), and the status store. PTZ_PLATFORM_RUNTIME_DIR names another folder.")
TREE = ("/var/lib/ptz/params.db", "The parameter tree. PTZ_PLATFORM_STATE_DIR names another folder.")
FILES = {
    "ptzctl": [RUNTIME, TREE],
    "ptz-compliance": [RUNTIME],
    "sim-driver": [("/etc/ptz/sim-driver.conf", "Settings of the driver that the unit starts."), RUNTIME, TREE],
    "visca-driver": [("/etc/ptz/visca-driver.conf", "An example of the settings, with a comment for each."),
                     ("/etc/ptz/visca-NAME.conf", "Settings of ptznimbo-visca-driver@NAME.service."), RUNTIME],
    "visca-sim": [],
}
RUNTIME_VARIABLE = ("PTZ_PLATFORM_RUNTIME_DIR", "Folder of the status store and of the entries of the drivers that run; by default /run/ptz.")
STATE_VARIABLE = ("PTZ_PLATFORM_STATE_DIR", "Folder of the parameter tree; by default /var/lib/ptz.")
TEMPLATE_VARIABLE = ("PTZ_PLATFORM_TEMPLATE_DIR", "Folder of the templates of dynamic groups; by default /etc/sysconfig/template.")
COLOUR_VARIABLE = ("NO_COLOR", "If it is set, colours are printed only with --color=always.")
ENVIRONMENT = {
    "ptzctl": [RUNTIME_VARIABLE, STATE_VARIABLE, TEMPLATE_VARIABLE, COLOUR_VARIABLE],
    "ptz-compliance": [RUNTIME_VARIABLE, COLOUR_VARIABLE],
    "sim-driver": [RUNTIME_VARIABLE, STATE_VARIABLE],
    "visca-driver": [RUNTIME_VARIABLE],
    "visca-sim": [],
}
EXAMPLES = {
    "sim-driver": ["sim-driver --socket /run/ptz/sim-driver.socket --instance 1 --config /etc/ptz/sim-driver.conf"],
    "visca-driver": ["visca-driver --socket /run/ptz/door.socket --instance 1 --device udp:192.0.2.7:52381",
                     "visca-driver --socket /run/ptz/door.socket --config /etc/ptz/visca-door.conf --check-settings"],
}
SEE_ALSO = ["ptzctl(1)", "ptz-compliance(1)", "ptz-kit(7)", "ptz-wire(7)", "ptz-platform(7)"]


class Help:
    """The parts of what a program says with --help."""

    def __init__(self, words):
        environment = dict(os.environ, LC_ALL="C.UTF-8")
        said = subprocess.run([*words, "--help"], check=True, capture_output=True, encoding="utf-8", env=environment)
        self.usage, self.options, self.settings, self.statuses, self.examples = [], [], [], [], []
        self.text = []  # lines
        self.commands = []  # (name, summary)
        self.rest = []  # lines after the commands
        self.read(said.stdout.replace("\u2026", "...").split("\n"))

    def read(self, lines):
        part = None
        for line in lines:
            heading = HEADING.match(line)
            if heading:
                part, line = heading[1], heading[2]
                if not line:
                    continue
            if not line.strip() and part not in ("Settings of --config",):
                part = None if part != "Exit status" or self.statuses else part
            self.add(part, line)

    def add(self, part, line):
        if part == "Usage":
            if line.strip():
                self.usage.append(line.strip())
        elif part is not None and part.endswith("Options"):
            self.add_entry(self.options, OPTION.match(line), line)
        elif part == "Settings of --config":
            self.add_entry(self.settings, SETTING.match(line), line)
        elif part == "Exit status":
            self.add_status(line)
        elif part in ("Example", "Examples"):
            if line.strip():
                self.examples.append(line.strip())
        elif not self.text and re.match(r"^  [a-z-]+ +\S", line):
            self.commands.append(re.match(r"^  ([a-z-]+) +(.*)", line).groups())
        else:
            self.text.append(line)
            if not "".join(self.text).strip():
                self.text = []

    def add_status(self, line):
        row = STATUS.match(line)
        if not row and line.strip() and not (self.statuses and line.startswith("     ")):
            sys.exit(f"make_man.py: '{line}' is no row of an exit status: two blanks, the number, two blanks, the text")
        self.add_entry(self.statuses, row, line)

    @staticmethod
    def add_entry(entries, match, line):
        if match:
            entries.append([match[1], match[2] or ""])
        elif entries and line.strip():
            entries[-1][1] = (entries[-1][1] + " " + line.strip()).strip()


def roff(text):
    escaped = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", escaped, flags=re.MULTILINE)


def reference(page):
    name, section = re.fullmatch(r"(.*)(\(\d\))", page).groups()
    return f".BR {roff(name)} {section}"


def paragraphs(lines):
    """Lines that are indented keep their form."""
    for block in re.split(r"\n\s*\n", "\n".join(lines).strip("\n")):
        if not block.strip():
            continue
        if block.startswith("  "):
            yield f".PP\n.nf\n{roff(block)}\n.fi\n"
        else:
            yield f".PP\n{roff(' '.join(block.split()))}\n"


def terms(entries):
    return "".join(f".TP\n.B {roff(term)}\n{roff(text) or ' '}\n" for term, text in entries)


def usage_of(line):
    words, rest = re.match(r"((?:[a-z][\w-]* ?)+)(.*)", line).groups()
    rest = re.sub(r" - .*", "", rest)
    return f".B {roff(words.strip())}\n{roff(rest)}\n"


def leaves(words, known=None):
    """(words, Help) of each subcommand that has none below it."""
    found = known or Help(words)
    if not found.commands:
        yield words, found
    for name, _ in found.commands:
        yield from leaves([*words, name])


def option_sections(below):
    """The options that at least half of the leaves have, and a function that gives the others of one leaf."""
    every = [entry for _, found in below for entry in found.options]
    common = []
    for entry in every:
        if entry not in common and 2 * every.count(entry) >= len(below):
            common.append(entry)
    return common, lambda found: [entry for entry in found.options if entry not in common]


def command_section(name, words, found, own):
    title = " ".join(words)
    yield f'.SS "{roff(title)}"\n'
    for line in found.usage:
        yield usage_of(re.sub(r"^ptzctl ", "ptzctl ", line)) + ".br\n"
    yield from paragraphs(found.text)
    yield terms(own(found))


def page(program, summary, subcommand=None):
    name = os.path.basename(program)
    words = [program] + ([subcommand] if subcommand else [])
    title = "-".join([name] + words[1:])
    found = Help(words)
    yield f'.TH {title.upper()} 1 "" "ptznimbo" "User Commands"\n.SH NAME\n{roff(title)} \\- {roff(summary)}\n.SH SYNOPSIS\n'
    for line in found.usage:
        yield usage_of(line) + ".br\n"
    yield ".SH DESCRIPTION\n"
    yield from paragraphs(found.text or [f"{summary[0].upper()}{summary[1:]}."])
    examples, statuses = found.examples + EXAMPLES.get(name, []), found.statuses or Help([program]).statuses
    pages_below = name == "ptzctl" and subcommand is None
    if pages_below:
        yield ".SH COMMANDS\n" + "".join(f".TP\n{reference(f'{name}-{command}(1)')}\n{roff(text)}\n" for command, text in found.commands)
    elif found.commands:
        below = list(leaves(words, found))
        common, own = option_sections(below)
        yield ".SH COMMANDS\n"
        for leaf, of in below:
            yield from command_section(name, [name, *leaf[1:]], of, own)
            examples += of.examples
        yield f".SH OPTIONS\nMost of these commands have the following options; the help of each command lists those that it takes.\n{terms(common)}"
    if found.options:
        yield f".SH OPTIONS\n{terms(found.options)}"
    if found.settings:
        yield f".SH SETTINGS\nA settings file has groups of keys; what is not set has the value that is shown here.\n{terms(found.settings)}"
    if statuses:
        yield f".SH EXIT STATUS\n{terms(statuses)}"
    if ENVIRONMENT[name]:
        yield f".SH ENVIRONMENT\n{terms(ENVIRONMENT[name])}"
    if FILES[name]:
        yield f".SH FILES\n{terms(FILES[name])}"
    if examples:
        yield ".SH EXAMPLES\n" + "".join(f".PP\n.nf\n.RS\n{roff(example)}\n.RE\n.fi\n" for example in dict.fromkeys(examples))
    others = [other for other in SEE_ALSO if other != f"{title}(1)"]
    yield ".SH SEE ALSO\n" + ",\n".join(reference(other) for other in others).replace(",\n", " ,\n") + "\n"


def main(output, program, summary, subcommand=None):
    if summary == "--of":
        summary = dict(Help([program]).commands)[subcommand]
    text = "".join(page(program, summary, subcommand))
    with open(output, "w", encoding="utf-8") as file:
        file.write(text)


main(*sys.argv[1:])
