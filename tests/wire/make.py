#!/usr/bin/env python3
"""Records the conversations of tests/wire/conversations anew: make.py BUILD_FOLDER [NAME...]"""
import os
import pathlib
import shutil
import sys

sys.dont_write_bytecode = True
from conversations import ALL  # noqa: E402
from system import CONVERSATIONS, System  # noqa: E402


def record(made, build):
    with System(None, build / 'tools/ptzctl') as system:
        # A recording has the path of the driver's program, which must not be that of a build.
        system.programs['driver'] = shutil.copy(build / 'drivers/sim/sim-driver', system.folder)
        libraries = [str(build / folder) for folder in ('src', 'kit', 'platform/standalone')]
        system.environment['LD_LIBRARY_PATH'] = os.pathsep.join(libraries)
        system.driver = system.start_driver(*made.driver_options)
        file = CONVERSATIONS / f'{made.name}.pcapng'
        recorder = system.start_recorder(file)
        file.chmod(0o644)  # it has no secrets
        made.make(system)
        return system.end_recorder(recorder)


def main(arguments):
    if not arguments:
        sys.exit(__doc__)
    CONVERSATIONS.mkdir(exist_ok=True)
    build = pathlib.Path(arguments[0]).resolve()
    for name in arguments[1:] or ALL:
        print(f'{name}: {record(ALL[name], build)} frames', flush=True)


if __name__ == '__main__':
    main(sys.argv[1:])
