#!/usr/bin/env python3
"""Usage: probes_test.py LIBRARY SCRIPT

The static probes of the library are in its notes, with their arguments, and the script for bpftrace uses them.
"""
import re
import subprocess
import sys
import unittest

LIBRARY, SCRIPT = sys.argv[1:3]
# In servers and in clients.
PROBES = ['frame_received', 'frame_received', 'frame_sent', 'frame_sent']


class Probes(unittest.TestCase):
    def setUp(self):
        notes = subprocess.run(['readelf', '--wide', '--notes', LIBRARY], check=True, stdout=subprocess.PIPE,
                               text=True).stdout
        self.probes = re.findall(r'Provider: (\S+)\s+Name: (\S+)\s+Location: .*\s+Arguments:(.*)', notes)

    def test_library_has_probes_for_both_directions_in_server_and_client(self):
        self.assertEqual(sorted(name for provider, name, _ in self.probes if provider == 'ptz'), PROBES)

    def test_each_probe_has_four_arguments_of_the_documented_sizes(self):
        for _, name, arguments in self.probes:
            sizes = [int(argument.partition('@')[0]) for argument in re.findall(r'-?\d+@(?:[^ ]+)', arguments)]
            with self.subTest(name=name, arguments=arguments):
                self.assertEqual(len(sizes), 4)
                self.assertEqual([abs(size) for size in sizes], [4, 4, 8, 4])
                self.assertLess(sizes[0], 0, 'a descriptor is signed')

    def test_script_attaches_to_each_probe(self):
        with open(SCRIPT, encoding='utf-8') as script:
            attached = re.findall(r'^usdt:(\S+):ptz:(\w+),?$', script.read(), re.MULTILINE)
        self.assertEqual(sorted({name for _, name in attached}), sorted(set(PROBES)))
        for library, _ in attached:
            self.assertRegex(library, r'^/.*/libptznimbo_common\.so\.0$')


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
