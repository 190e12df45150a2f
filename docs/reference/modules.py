#!/usr/bin/env python3
"""Usage: modules.py OUTPUT HEADER...

Writes a page for the reference from the comments at the head of the public headers: what holds for a module as a whole.
"""
import re
import sys


def page_part(path):
    with open(path, encoding='utf-8') as file:
        comment = re.match(r'/\* (.*?)\s*\*/', file.read(), re.DOTALL)[1]
    lines = [re.sub(r'^ \* ?', '', line) for line in comment.splitlines()]
    name, _, first = lines[0].partition(' - ')
    # What is indented is a table; Markdown leaves it as it stands from four spaces on.
    text = [re.sub(r'^ {2,}', lambda indent: '    ' + indent[0], line) for line in [first[:1].upper() + first[1:], *lines[1:]]]
    return '\n'.join([f'## `{name}`', '', *text, ''])


def main(output, *headers):
    with open(output, 'w', encoding='utf-8') as file:
        file.write('Title: Modules\n\nOne header each; `ptz.h` includes them all.\n\n')
        file.write('\n'.join(page_part(path) for path in headers if not path.endswith(('/ptz.h', '/ptz_api.h'))))


if __name__ == '__main__':
    main(*sys.argv[1:])
