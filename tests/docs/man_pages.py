"""Checks man pages: python3 man_pages.py PAGE... - their sections, their order, and that groff has no warning."""
import re
import subprocess
import sys

ORDER = ["NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS", "SETTINGS", "EXIT STATUS", "ENVIRONMENT", "FILES",
         "SIGNALS", "EXAMPLES", "SEE ALSO"]
NEEDED = {"1": ["NAME", "SYNOPSIS", "DESCRIPTION", "EXIT STATUS", "EXAMPLES", "SEE ALSO"],
          "7": ["NAME", "SYNOPSIS", "DESCRIPTION", "FILES", "EXAMPLES", "SEE ALSO"]}


def problems(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    sections = re.findall(r'^\.SH "?(.*?)"?$', text, re.MULTILINE)
    for name in NEEDED[path[-1]]:
        if name not in sections:
            yield f"no section {name}"
    unknown = [name for name in sections if name not in ORDER]
    if unknown:
        yield f"sections that no man page has: {unknown}"
    elif sections != sorted(sections, key=ORDER.index):
        yield f"order of the sections: {sections}"
    if path.endswith(".1") and "COMMANDS" not in sections and "OPTIONS" not in sections:
        yield "neither COMMANDS nor OPTIONS"
    if re.search(r"^Exit status:", text, re.MULTILINE) or re.search(r"Exit status: \d", text):
        yield "exit statuses outside of EXIT STATUS"
    if path.endswith("ptzctl-doctor.1") and ".B 64\n" not in text:
        yield "the exit statuses are not those of the doctor"
    if "(must be written)" in text:
        yield "a part is missing"
    groff = subprocess.run(["groff", "-t", "-man", "-Tutf8", "-ww", "-z", path], capture_output=True, encoding="utf-8")
    if groff.stderr:
        yield groff.stderr


def main(paths):
    failed = False
    for path in paths:
        for problem in problems(path):
            print(f"{path}: {problem}")
            failed = True
    sys.exit(1 if failed or not paths else 0)


main(sys.argv[1:])
