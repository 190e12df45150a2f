#!/usr/bin/env python3
"""Usage: fit.py GIR DOCUMENT

Holds the functions that the introspection data keep from other languages against the document's section "What does not
fit": each must be named there, by name or by a pattern, and nothing else.
"""
import fnmatch
import re
import sys
import xml.etree.ElementTree as ElementTree

C_IDENTIFIER = '{http://www.gtk.org/introspection/c/1.0}identifier'
CALLABLE = re.compile(r'.*\}(function|method|constructor)')


def main(gir, document):
    kept_back, available = set(), set()
    for element in ElementTree.parse(gir).iter():
        if CALLABLE.fullmatch(element.tag):
            (kept_back if element.get('introspectable') == '0' else available).add(element.get(C_IDENTIFIER))
    with open(document, encoding='utf-8') as file:
        section = re.search(r'^## What does not fit\n(.*?)(?=^## |\Z)', file.read(), re.MULTILINE | re.DOTALL)[1]
    patterns = [word for row in re.findall(r'^\| (`.*?) \|', section, re.MULTILINE)
                for word in re.findall(r'`(\w[\w*]*)`', row)]

    def matching(names, pattern):
        return {name for name in names if fnmatch.fnmatchcase(name, pattern)}

    wrong = [f'{name} does not fit other languages, which {document} does not tell'
             for name in sorted(kept_back.difference(*(matching(kept_back, pattern) for pattern in patterns)))]
    for pattern in patterns:
        if not matching(kept_back, pattern):
            wrong.append(f'{document} names {pattern}, and there is no such function that does not fit')
        wrong += [f'{name} fits other languages, although {document} says that it does not'
                  for name in sorted(matching(available, pattern))]
    print(*wrong, sep='\n', end='\n' if wrong else '')
    return 1 if wrong or not patterns else 0


if __name__ == '__main__':
    sys.exit(main(*sys.argv[1:]))
