"""Checks that every link between the documents leads to a file and to a heading: python3 links.py ROOT"""
import pathlib
import re
import sys

CODE = re.compile(r"^( *)```.*?^\1```$", re.MULTILINE | re.DOTALL)
LINK = re.compile(r"\]\(([^)#]*)(?:#([^)]*))?\)")
FOLDERS = (".", "docs", "examples", "tools", "fuzz", "bench", "drivers/sim")


def headings(text):
    """The anchors that the headings have."""
    titles = re.findall(r"^#+ (.*)$", CODE.sub("", text), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


def broken_links(document):
    for target, anchor in LINK.findall(CODE.sub("", document.read_text(encoding="utf-8"))):
        if target.startswith("http"):
            continue
        path = document.parent / target if target else document
        if not path.exists():
            yield f"{document}: no file {target}"
        elif anchor and anchor not in headings(path.read_text(encoding="utf-8")):
            yield f"{document}: no heading #{anchor} in {path.name}"


def main(root):
    documents = [path for folder in FOLDERS for path in sorted((pathlib.Path(root) / folder).glob("*.md"))]
    broken = [problem for document in documents for problem in broken_links(document)]
    print("\n".join(broken))
    return 1 if broken or not documents else 0


sys.exit(main(sys.argv[1]))
