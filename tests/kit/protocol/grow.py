"""A description whose messages have all grown: grow.py COMMANDS. Every request and reply has four fields of version 2."""
import pathlib
import re
import sys

FIELDS = '''
  { name = "later_number", type = "u32", min = 1, max = 9, since = 2, default = 7, doc = "a number" },
  { name = "later_text", type = "text", bytes = [0, 8], since = 2, default = "", doc = "a text" },
  { name = "later_axes", type = "i32", per_axis = "later", since = 2, default = -1, doc = "a number for each axis" },
  { name = "later_list", element = "later", type = "list:text", since = 2, default = [], doc = "a list" },
]'''
FIRST_VERSION = re.compile(r'^version = 1$', re.MULTILINE)
MESSAGE = re.compile(r'^((?:request|reply) = \[.*?\}),?\s*\]$', re.MULTILINE | re.DOTALL)

text = pathlib.Path(sys.argv[1]).read_text(encoding='utf-8')
sys.stdout.write(MESSAGE.sub(lambda match: f'{match[1]},{FIELDS}', FIRST_VERSION.sub('version = 2', text)))
