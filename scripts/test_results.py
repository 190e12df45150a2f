#!/usr/bin/env python3
"""Counts the results of test runs and prints what failed; the last line is "N passed, M failed".

A run is known by its title, the logs that meson wrote, as their path without the suffixes, and how many programs it
has: fewer results mean that meson itself ended early. Two logs are read: the JUnit file has each case of a test program,
and the JSON file how each program ended, for a program can fail after its last case has passed, or before it wrote down
any.
"""
import argparse
import json
import re
import sys
import xml.etree.ElementTree

OUTPUT_LINES = 300
# What GoogleTest prints of cases that pass in silence, and its headings.
PASSING = re.compile(r'^\[ RUN      \] (\S+)\n\[       OK \] \1 .*\n|^\[(-+|=+|  PASSED  )\].*\n', re.MULTILINE)


def case_outcome(case):
    if case.find('failure') is not None or case.find('error') is not None:
        return 'failed'
    if case.find('skipped') is not None or case.get('status') == 'notrun':
        return 'skipped'
    return 'passed'


def program_outcome(program):
    return {'OK': 'passed', 'EXPECTEDFAIL': 'passed', 'SKIP': 'skipped'}.get(program['result'], 'failed')


def cases_of_programs(junit, names):
    """The cases, as (name, outcome), of each program that has a suite of its own."""
    cases = {name: [] for name in names}
    for suite in junit.iter('testsuite'):
        in_project = suite.get('name').partition('.')[2]
        for name in names:
            if in_project == name or in_project.startswith(name + '.'):
                prefix = in_project[len(name) + 1:]
                cases[name] += [(f'{prefix}.{case.get("name")}', case_outcome(case)) for case in suite.iter('testcase')]
    return cases


def read_run(title, logs, expected, counts):
    with open(logs + '.json', encoding='utf-8') as file:
        programs = [json.loads(line) for line in file]
    junit = xml.etree.ElementTree.parse(logs + '.junit.xml').getroot()
    cases = cases_of_programs(junit, [program['name'] for program in programs])
    for program in programs:
        ended = program_outcome(program)
        outcomes = cases[program['name']] or ([('', ended)] if ended != 'failed' else [])
        if ended == 'failed' and 'failed' not in [outcome for _, outcome in outcomes]:
            outcomes.append((f'ended with {program["result"]}, status {program["returncode"]}', 'failed'))
        for name, outcome in outcomes:
            counts[outcome] += 1
            if outcome != 'passed':
                print(f'{outcome.upper()}: {title}: {program["name"]} {name}')
        if ended == 'failed':
            output = PASSING.sub('', (program.get('stdout') or '') + (program.get('stderr') or '')).strip('\n')
            print(*output.splitlines()[-OUTPUT_LINES:], '', sep='\n')
    if len(programs) != expected:
        raise ValueError(f'{len(programs)} of {expected} programs have results')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--run', nargs=3, action='append', default=[], metavar=('TITLE', 'LOGS', 'PROGRAMS'))
    parser.add_argument('--failure', action='append', default=[], metavar='TITLE', help='something else that failed')
    arguments = parser.parse_args()
    counts = {'passed': 0, 'failed': len(arguments.failure), 'skipped': 0}
    print()
    for title, logs, expected in arguments.run:
        try:
            read_run(title, logs, int(expected), counts)
        except Exception as error:  # whatever it is, the count must come out
            counts['failed'] += 1
            print(f'FAILED: {title}: no or not all results: {error}')
    for title in arguments.failure:
        print(f'FAILED: {title}')
    if counts['skipped'] > 0:
        print(f'{counts["skipped"]} skipped')
    print(f'{counts["passed"]} passed, {counts["failed"]} failed')
    return 0 if counts['failed'] == 0 and counts['passed'] > 0 else 1


if __name__ == '__main__':
    sys.exit(main())
