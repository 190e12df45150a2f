#!/usr/bin/env python3
"""Usage: g-ir-scanner.py --output FILE --filelist=FILE [SCANNER OPTION]...

Runs g-ir-scanner, and gives the values of registered enumerations the names and the comments that they have in the
headers. The scanner takes the names that a type was registered with for those in C, as is the custom. Ours are texts
for logs and configuration keys, such as "Error reply", and no identifiers in any language.

A comment that begins with "Thread:" gets this word in bold. To Markdown it would be data about the page, not shown.
"""
import os
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

NAMESPACES = {
    '': 'http://www.gtk.org/introspection/core/1.0',
    'c': 'http://www.gtk.org/introspection/c/1.0',
    'glib': 'http://www.gtk.org/introspection/glib/1.0',
}
C_IDENTIFIER = '{%s}identifier' % NAMESPACES['c']
C_TYPE = '{%s}type' % NAMESPACES['c']
GET_TYPE = '{%s}get-type' % NAMESPACES['glib']
DOC = '{%s}doc' % NAMESPACES['']


def declared_enumerations(text):
    """{type: [(identifier, value, comment)]}, in the order of the header."""
    result = {}
    for match in re.finditer(r'(?:/\*\*\n((?:(?!\*/).)*)\*/\s*)?typedef enum \{([^}]*)\} (\w+);', text, re.DOTALL):
        comments = re.findall(r'^ \* @(\w+): ((?:.*\n)(?: \*   .*\n)*)', match[1] or '', re.MULTILINE)
        comments = {name: re.sub(r'\s*\n \*\s*', ' ', comment).strip() for name, comment in comments}
        values = re.findall(r'(\w+)\s*=\s*(-?\w+)', match[2])
        result[match[3]] = [(name, int(value, 0), comments.get(name)) for name, value in values]
    return result


def name_members(kind, declared):
    prefix = kind.get(GET_TYPE).removesuffix('_get_type') + '_'
    names = [identifier.lower() for identifier, _, _ in declared]
    if not all(name.startswith(prefix) for name in names):
        prefix = re.match('.*_|', os.path.commonprefix(names))[0]
    members = kind.findall('member', NAMESPACES)
    values = [int(member.get('value')) for member in members]
    # The class lists them in this order too; both may have a value twice.
    if values != [value for _, value, _ in declared]:
        sys.exit(f'{kind.get(C_TYPE)} is registered with other values, or in another order, than its header has')
    for member, (identifier, _, comment) in zip(members, declared):
        member.set('name', identifier.lower().removeprefix(prefix))
        member.set(C_IDENTIFIER, identifier)
        if comment and member.find(DOC) is None:
            doc = ElementTree.Element(DOC, kind.find(DOC).attrib)
            doc.text = comment
            member.insert(0, doc)


def main(arguments):
    tool = subprocess.run(['pkg-config', '--variable=g_ir_scanner', 'gobject-introspection-1.0'],
                          check=True, stdout=subprocess.PIPE, text=True).stdout.strip()
    # The scanner makes every class to look at it, and one of ours ends its process where there is no system bus.
    on_a_bus = ['dbus-run-session', '--', 'sh', '-c', 'DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS exec "$@"', 'sh']
    status = subprocess.run([*on_a_bus, tool, *arguments]).returncode
    if status != 0 or '--output' not in arguments:
        return status
    output = arguments[arguments.index('--output') + 1]
    file_list = next(word.partition('=')[2] for word in arguments if word.startswith('--filelist='))

    declared = {}
    with open(file_list, encoding='utf-8') as files:
        for path in files.read().splitlines():
            with open(path, encoding='utf-8') as header:
                declared.update(declared_enumerations(header.read()))
    for prefix, uri in NAMESPACES.items():
        ElementTree.register_namespace(prefix, uri)
    tree = ElementTree.parse(output)
    for kind in ('enumeration', 'bitfield'):
        for found in tree.iterfind(f'./namespace/{kind}', NAMESPACES):
            if found.get(GET_TYPE):
                name_members(found, declared[found.get(C_TYPE)])
    for doc in tree.iter(DOC):
        doc.text = re.sub(r'^Thread:', '**Thread:**', doc.text, flags=re.MULTILINE)
    tree.write(output, encoding='utf-8', xml_declaration=True)
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
