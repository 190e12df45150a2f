"""Runs what the documents show: python3 run_documents.py FILE.md...

A block of code is taken by the words behind its three backquotes:
  c file=NAME       appended to the file NAME, after an empty line; more words may follow:
    same=PATH         at the end NAME has the same contents as PATH, which is relative to the document
    lines=N           at the end NAME has at most N lines
  sh                run by bash in the folder of those files; it must succeed
  output            what the sh block before it printed; a line "..." stands for any lines
Each document has a folder of its own, which is also its runtime and state directory; other blocks are for reading only.
"""
import ctypes
import os
import re
import signal
import subprocess
import sys
import tempfile

BLOCK = re.compile(r"^( *)```([^\n]*)\n(.*?)^\1```$", re.MULTILINE | re.DOTALL)


def blocks(path):
    with open(path, encoding="utf-8") as document:
        text = document.read()
    for match in BLOCK.finditer(text):
        indent, words, code = match.groups()
        line = text.count("\n", 0, match.start()) + 1
        yield line, words.strip(), re.sub(f"^{indent}", "", code, flags=re.MULTILINE)


def append(path, code):
    between = "\n" if os.path.exists(path) else ""
    with open(path, "a", encoding="utf-8") as file:
        file.write(between + code)


def contents(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def broken_promise(document, folder, promises):
    """What is wrong with a file that was shown, or None."""
    for name, promise in promises:
        shown = contents(os.path.join(folder, name))
        if match := re.fullmatch(r"same=(\S+)", promise):
            if shown != contents(os.path.join(os.path.dirname(document), match[1])):
                return f"{document}: {name} differs from {match[1]}"
        elif match := re.fullmatch(r"lines=(\d+)", promise):
            if shown.count("\n") > int(match[1]):
                return f"{document}: {name} has more than {match[1]} lines"
        else:
            return f"{document}: unknown word: {promise}"
    return None


def adopt_orphans():
    """Makes this process the parent of what the shell leaves running, so that it can wait for its end."""
    pr_set_child_subreaper = 36
    ctypes.CDLL(None).prctl(pr_set_child_subreaper, 1, 0, 0, 0)


def end_group(group):
    try:
        os.killpg(group, signal.SIGKILL)
        while True:
            os.waitpid(-group, 0)
    except (ProcessLookupError, ChildProcessError):
        pass


def run_shell(code, folder):
    """Exit status, output, errors. What the code left running is ended."""
    directories = {"PTZ_PLATFORM_RUNTIME_DIR": folder, "PTZ_PLATFORM_STATE_DIR": folder}
    with tempfile.TemporaryFile("w+") as output, tempfile.TemporaryFile("w+") as errors:
        process = subprocess.Popen(["bash", "-euo", "pipefail", "-c", code], cwd=folder, stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=errors, start_new_session=True,
                                   env={**os.environ, **directories})
        try:
            status = process.wait(60)
        except subprocess.TimeoutExpired:
            status = "none after a minute"
        end_group(process.pid)
        output.seek(0)
        errors.seek(0)
        return status, output.read(), errors.read()


def is_shown(printed, shown):
    pattern = "".join(r"(?:.*\n)*?" if line == "..." else re.escape(line) + r"\n" for line in shown.splitlines())
    return re.fullmatch(pattern, printed) is not None


def run(path, folder):
    """What is wrong with the document, or None."""
    printed, executed, promises = None, 0, []
    for line, words, code in blocks(path):
        if match := re.fullmatch(r"\w+ file=(\S+)(.*)", words):
            append(os.path.join(folder, match[1]), code)
            promises += [(match[1], promise) for promise in match[2].split()]
        elif words == "sh":
            status, printed, complaints = run_shell(code, folder)
            executed += 1
            if status != 0:
                return f"{path}:{line}: exit status {status}\n{printed}{complaints}"
        elif words == "output" and (printed is None or not is_shown(printed, code)):
            return f"{path}:{line}: not what was printed:\n{printed}"
    if not executed:
        return f"{path}: it shows nothing that can be run"
    return broken_promise(path, folder, promises)


def main(paths):
    failures = 0
    adopt_orphans()
    print(f"TAP version 13\n1..{len(paths)}")
    for number, path in enumerate(paths, 1):
        with tempfile.TemporaryDirectory(prefix="ptz-docs-") as folder:
            problem = run(os.path.abspath(path), folder)
        print(f"{'not ok' if problem else 'ok'} {number} - {os.path.basename(path)}")
        if problem:
            failures += 1
            print("".join(f"# {line}\n" for line in problem.splitlines()), end="")
    return 1 if failures else 0


sys.exit(main(sys.argv[1:]))
