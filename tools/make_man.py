"""Writes a man page of what a tool says of itself: python3 make_man.py PROGRAM SUMMARY OUTPUT

Each subcommand's help becomes a section: the programs' own words are the one source of the page.
"""
import os
import re
import subprocess
import sys


EXIT_STATUS = re.compile(r"\nExit status:\n((?:  \d  .*\n)+)")


def help_of(words):
    environment = dict(os.environ, LC_ALL="C.UTF-8")
    said = subprocess.run([*words, "--help"], check=True, capture_output=True, encoding="utf-8", env=environment)
    return said.stdout.replace("\u2026", "...")


def with_subcommands(words):
    """(words, help) of a command and of all below it."""
    text = help_of(words)
    yield words, text
    if re.match(r"Usage: .* SUBCOMMAND", text):
        for name in re.findall(r"^  ([a-z-]+) ", text, re.MULTILINE):
            yield from with_subcommands([*words, name])


def roff(text):
    escaped = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", escaped, flags=re.MULTILINE)


def page(program, summary):
    name = os.path.basename(program)
    yield f'.TH {name.upper()} 1 "" "ptznimbo" "User Commands"\n.SH NAME\n{roff(name)} \\- {roff(summary)}\n'
    statuses = ""
    for words, text in with_subcommands([program]):
        if match := EXIT_STATUS.search(text):
            statuses = match[1]
            text = text.replace(match[0], "")
        title = " ".join([name, *words[1:]])
        section = ".SH DESCRIPTION" if len(words) == 1 else f'.SH "{roff(title.upper())}"'
        yield f"{section}\n.nf\n{roff(text.strip())}\n.fi\n"
    yield ".SH EXIT STATUS\n"
    for status, meaning in re.findall(r"(\d)  (.*)", statuses):
        yield f".TP\n.B {status}\n{roff(meaning)}\n"
    yield ".PP\nWhat went wrong is told on standard error.\n"
    yield (".SH ENVIRONMENT\n.TP\n.B PTZ_PLATFORM_RUNTIME_DIR\nwhere the status store and the entries of the drivers that run are; /run/ptz\n"
           ".TP\n.B PTZ_PLATFORM_STATE_DIR\nwhere the parameter tree is; /var/lib/ptz\n"
           ".TP\n.B PTZ_PLATFORM_TEMPLATE_DIR\nwhere templates of dynamic groups are; /etc/sysconfig/template\n"
           ".TP\n.B NO_COLOR\nwhere it is set, colours are printed only with \\-\\-color=always\n")
    other = "ptz-compliance" if name == "ptzctl" else "ptzctl"
    yield f".SH SEE ALSO\n.BR {roff(other)} (1)\n"


def main(program, summary, output):
    text = "".join(page(program, summary))
    with open(output, "w", encoding="utf-8") as file:
        file.write(text)


main(*sys.argv[1:])
