#!/usr/bin/env python3
"""Usage: doc_comments.py SYMBOLS GENERATED_PREFIX HEADER...

Tells, for each exported symbol of the list, what its comment in the headers leaves open: the comment itself, a
parameter, the result, who owns what is handed over, or the thread that may call it. Silent where nothing is missing.
Names with the prefix are declared in a header that a generator makes; the header that includes it describes them.

Ownership is stated with an annotation, "(transfer full)", or in words: who borrows, owns, copies, frees. Some pointers
need no statement, because there is one convention for all of them: texts (const gchar *) are borrowed for the call, so
is the object or array that a function is called on, an error belongs to whoever asked for it, and a place for a number is the
caller's.
"""
import re
import sys
from typing import NamedTuple

OWNERSHIP = re.compile(
    r"\b(transfer (full|none|container|floating)|borrow\w*|owns?|owned|owner|free[sd]?|releas\w+|unref\w*|cop(y|ies|ied)"
    r"|the caller's|caller-allocates|g_\w*(free|unref)\w*)\b")
ANNOTATION = re.compile(r'\s*\(([a-z][^()]*(?:\([^()]*\))?[^()]*)\)')
NUMBERS = r'(g?(u?int(8|16|32|64)?|size|ssize|boolean|double|float|u?short|u?long|u?char)|GType|PTZ\w+Capabilities)'


class Field(NamedTuple):
    name: str
    annotations: str
    text: str


class Comment(NamedTuple):
    parameters: list
    returns: Field
    thread: str
    text: str


def annotated(name, text):
    annotations = []
    while match := ANNOTATION.match(text):
        annotations.append(match[1])
        text = text[match.end():]
    return Field(name, ' '.join(annotations), text.lstrip(': '))


def parsed(lines):
    """The comment, as lines without their stars; the first has the name of what it is about."""
    parameters, returns, thread, current = [], None, '', None
    paragraphs = []
    for line in lines[1:] + ['']:
        start = re.match(r'(@[\w.]+|Returns|Thread):\s*(.*)', line)
        if start:
            current = [start[1], start[2]]
            paragraphs.append(current)
        elif not line.strip():
            current = None
        elif current:
            current[1] += ' ' + line.strip()
    for name, text in paragraphs:
        if name == 'Returns':
            returns = annotated(name, text)
        elif name == 'Thread':
            thread = text
        else:
            parameters.append(annotated(name[1:], text))
    return Comment(parameters, returns, thread, ' '.join(lines))


def declared_parameters(text):
    """(name, type) of each; that of a function pointer has its parentheses."""
    parts, depth = [''], 0
    for character in text:
        depth += {'(': 1, ')': -1}.get(character, 0)
        if character == ',' and depth == 0:
            parts.append('')
        else:
            parts[-1] += character
    result = []
    for part in map(str.strip, parts):
        if part in ('void', ''):
            continue
        if part == '...':
            result.append(('...', '...'))
            continue
        pointer_to_function = re.search(r'\(\s*\*\s*(\w+)\s*\)', part)
        name = pointer_to_function or re.search(r'(\w+)\s*(\[\w*\])?$', part)
        kind = part if pointer_to_function else part[:name.start(1)] + ('*' if name[2] else '')
        result.append((name[1], re.sub(r'\s+', ' ', kind).replace(' *', '*').strip()))
    return result


def is_pointer(kind):
    return '*' in kind or re.fullmatch(r'(const )?(gpointer|gconstpointer|GStrv|va_list)', kind) is not None


def needs_statement(kind, position):
    if not is_pointer(kind) or '(' in kind or re.fullmatch(r'const (gchar|char)\*', kind) or kind == 'GError**':
        return False
    if re.fullmatch(NUMBERS + r'\*', kind):
        return False
    return not (position == 0 and re.fullmatch(r'(const )?(PTZ\w+|GObject|GArray|GSource|GDBus\w+)\*', kind))


def gaps(result, name, parameters, comment):
    documented = [field.name for field in comment.parameters]
    declared = [parameter for parameter, _ in parameters]
    if documented != declared:
        yield f'describes the parameters ({", ".join(documented)}), but has ({", ".join(declared)})'
        return
    for position, ((parameter, kind), field) in enumerate(zip(parameters, comment.parameters)):
        if not field.text:
            yield f'says nothing about @{parameter}'
        elif needs_statement(kind, position) and not OWNERSHIP.search(f'{field.annotations} {field.text}'):
            yield f'does not say who owns @{parameter}'
    if result == 'void':
        if comment.returns:
            yield 'describes a result, but has none'
    elif not comment.returns:
        yield 'has no "Returns:"'
    elif is_pointer(result) and 'transfer ' not in comment.returns.annotations:
        yield 'has no (transfer) at its "Returns:"'
    if not comment.thread:
        yield 'has no "Thread:" line'


DECLARATION = re.compile(
    r'(?:/\*\*\n(?P<comment>(?:[ \t]*\*(?!/).*\n)*)[ \t]*\*/\s*)?'
    r'^PTZ_(?:KIT_)?API\s+(?P<result>[^;()]*?[\s*])(?P<name>\w+)\s*\((?P<parameters>[^;]*)\)[^;)]*;', re.MULTILINE)


def declarations(text):
    """(result, name, parameters, comment or None) of each exported function."""
    # What follows the parameters, such as G_GNUC_PRINTF (1, 2), is none of them.
    text = re.sub(r'\s*\b(G_GNUC_\w+|G_DEPRECATED\w*)(\s*\([^()]*\))?(?=[^;{]*;)', '', text)
    for match in DECLARATION.finditer(text):
        comment = None
        if match['comment'] is not None:
            lines = [re.sub(r'^[ \t]*\* ?', '', line) for line in match['comment'].splitlines()]
            if lines and re.match(re.escape(match['name']) + r':', lines[0]):
                comment = parsed(lines)
        result = re.sub(r'\s+', ' ', match['result']).strip().replace(' *', '*')
        yield result, match['name'], declared_parameters(match['parameters']), comment


def check(symbols, headers):
    """What is missing, as lines; the headers are (name, text)."""
    seen = set()
    for header, text in headers:
        for result, name, parameters, comment in declarations(text):
            seen.add(name)
            if comment is None:
                yield f'{header}: {name} has no comment of its own'
                continue
            for gap in gaps(result, name, parameters, comment):
                yield f'{header}: {name} {gap}'
    for name in sorted(set(symbols) - seen):
        yield f'{name} is exported and in no header'
    for name in sorted(seen - set(symbols)):
        yield f'{name} is in a header and not exported'


def main(symbols, generated_prefix, *headers):
    with open(symbols, encoding='ascii') as file:
        names = [name for name in file.read().split() if not name.startswith(generated_prefix)]
    texts = []
    for path in headers:
        with open(path, encoding='utf-8') as file:
            texts.append((path.rpartition('/')[2], file.read()))
    missing = list(check(names, texts))
    print(*missing, sep='\n', end='\n' if missing else '')
    return 1 if missing else 0


if __name__ == '__main__':
    sys.exit(main(*sys.argv[1:]))
