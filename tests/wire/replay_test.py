"""Replays the recorded conversations to the simulated driver: replay_test.py SIM_DRIVER PTZCTL DISSECTOR"""
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
from conversations import ALL, GET_DRIVER_NAME  # noqa: E402
from system import CONVERSATIONS, System, body, wait_until  # noqa: E402

INFORMATION = CONVERSATIONS / 'information.pcapng'


class Replay(unittest.TestCase):
    def setUp(self):
        self.system = System(DRIVER, PTZCTL).__enter__()
        self.addCleanup(self.system.__exit__)

    def assert_equal_replies(self, done):
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertRegex(done.stdout, r'^[1-9]\d* requests? sent, [1-9]\d* repl(y|ies) compared, 0 differences\n$')

    def assert_no_driver(self, done, reason):
        self.assertEqual(done.returncode, 3, done.stdout + done.stderr)
        self.assertIn(reason, done.stdout + done.stderr)


class Conversations(Replay):
    """Each is one test; they are added below."""


def add_test(conversation):
    def test(self):
        self.system.start_driver(*conversation.driver_options)
        file = CONVERSATIONS / f'{conversation.name}.pcapng'
        self.assert_equal_replies(self.system.replay(file, *conversation.replay_options))
    setattr(Conversations, f'test_{conversation.name}_is_replayed_without_difference', test)


class Recordings(unittest.TestCase):
    def test_every_recording_is_described(self):
        self.assertEqual(sorted(path.stem for path in CONVERSATIONS.iterdir()), sorted(ALL))

    def test_recordings_are_small_and_hold_no_path_of_a_build(self):
        for path in CONVERSATIONS.iterdir():
            data = path.read_bytes()
            self.assertLess(len(data), 60_000, path.name)
            self.assertNotIn(b'/build/', data, path.name)


class BrokenSystems(Replay):
    """The same recording against a system that is broken in one of eight ways."""

    def test_of_dead_driver_finds_no_driver(self):
        driver = self.system.start_driver()
        self.system.stop(driver, signal.SIGKILL)
        self.assert_no_driver(self.system.replay(INFORMATION), 'driver.socket: Connection refused')

    def test_of_hung_driver_finds_no_driver(self):
        driver = self.system.start_driver()
        driver.send_signal(signal.SIGSTOP)
        self.assert_no_driver(self.system.replay(INFORMATION, '--timeout', '100'), 'no reply within 100 ms')

    def test_of_driver_with_stale_status_finds_no_difference(self):
        self.system.start_driver()
        for name in os.listdir(self.system.folder):
            if 'socket' not in name:
                os.rename(self.system.path(name), self.system.path(f'gone-{name}'))
        self.assert_equal_replies(self.system.replay(INFORMATION))

    def test_of_socket_with_wrong_mode_finds_no_driver(self):
        self.system.start_driver()
        os.chmod(self.system.socket, 0)
        words = [PTZCTL, 'replay', str(INFORMATION), '--fast', '--socket', self.system.socket]
        if os.geteuid() == 0:  # root may connect as long as it has its capabilities
            words = ['setpriv', '--bounding-set', '-all', '--inh-caps', '-all', *words]
        done = subprocess.run(words, env=self.system.environment, capture_output=True, text=True, check=False)
        self.assert_no_driver(done, 'driver.socket: Permission denied')

    def test_of_file_in_place_of_socket_finds_no_driver(self):
        self.system.start_driver()
        self.system.ctl('info')  # it has started wholly, and does not take its path back
        pathlib.Path(self.system.path('file')).write_text('not a socket\n', encoding='utf-8')
        os.replace(self.system.path('file'), self.system.socket)
        self.assert_no_driver(self.system.replay(INFORMATION), 'driver.socket: Connection refused')

    def test_of_two_drivers_wants_one_named(self):
        self.system.start_driver('--instance', '1')
        self.system.start_driver('--instance', '2', path=self.system.path('other.socket'))
        wait_until(lambda: self.system.run_ptzctl('driver', 'list').stdout.count('sim-driver') >= 2, 'not two drivers')
        unnamed = self.system.run_ptzctl('replay', str(INFORMATION), '--fast')
        if not os.path.exists('/run/ptz/driver.socket'):
            self.assertEqual(unnamed.returncode, 2, unnamed.stderr)
            self.assertIn('several drivers run', unnamed.stderr)
        named = self.system.run_ptzctl('replay', str(INFORMATION), '--fast', '--driver', 'sim-driver:2',
                                       '--ignore', 'get_capabilities.extra')  # it publishes its status
        self.assert_equal_replies(named)

    def test_beside_daemon_that_floods_finds_no_difference(self):
        self.system.start_driver()
        flood = self.system.client()
        flood.send(*[body(GET_DRIVER_NAME)] * 300)  # whose replies it does not read
        self.assert_equal_replies(self.system.replay(INFORMATION))

    def test_of_driver_with_bad_settings_finds_no_driver(self):
        settings = pathlib.Path(self.system.path('bad.conf'))
        settings.write_text('[Pan]\nMin=500\nMax=-500\n', encoding='utf-8')
        driver = self.system.start('driver', '--socket', self.system.socket, '--config', str(settings))
        wait_until(lambda: driver.poll() == 2, 'the driver runs')
        self.assert_no_driver(self.system.replay(INFORMATION), 'driver.socket: No such file or directory')


class Differences(Replay):
    def test_other_limits_are_told_by_field(self):
        settings = pathlib.Path(self.system.path('other.conf'))
        settings.write_text('[Pan]\nMax=16000\n', encoding='utf-8')
        self.system.start_driver('--config', str(settings))
        done = self.system.replay(CONVERSATIONS / 'limits.pcapng')
        self.assertEqual(done.returncode, 1)
        self.assertIn(', Query limit ranges: maximum.pan 17000 became 16000\n', done.stdout)

    def test_of_a_wrong_driver_are_told(self):
        self.system.start_driver('--fault', 'replies.command-word')
        done = self.system.replay(INFORMATION)
        self.assertEqual(done.returncode, 1)
        self.assertIn(', Get device types: a reply to get_device_types became 24 bytes that cannot be decoded\n', done.stdout)


class PlayedDriver(Replay):
    def test_answers_real_client_as_recorded(self):
        player = self.system.start('ptzctl', 'replay', str(INFORMATION), '--as-driver', '--socket', self.system.socket)
        wait_until(lambda: os.path.exists(self.system.socket), 'the driver is not played')
        wait_until(lambda: self.system.ctl('info').returncode == 0, 'the played driver does not answer')
        self.assertEqual(self.system.ctl('info').stdout, 'sim-driver\n  for Simulated head\n')
        self.system.stop(player)
        self.assertEqual(player.returncode, 0)

    def test_is_replayed_to_without_difference(self):
        file = CONVERSATIONS / 'absolute_moves.pcapng'
        self.system.start('ptzctl', 'replay', str(file), '--as-driver', '--fast', '--socket', self.system.socket)
        wait_until(lambda: os.path.exists(self.system.socket), 'the driver is not played')
        wait_until(lambda: 'Connection refused' not in self.system.ctl('info').stderr, 'the driver is not played')
        # The positions on the way are those of the recording, which --exact compares.
        self.assertEqual(self.system.replay(file).returncode, 0)


class Dissection(unittest.TestCase):
    @unittest.skipUnless(shutil.which('tshark'), 'needs tshark')
    def test_of_recordings_finds_every_frame_well_formed(self):
        with tempfile.TemporaryDirectory(prefix='ptz-test-') as folder:
            for path in CONVERSATIONS.iterdir():
                done = subprocess.run(
                    ['tshark', '-X', f'lua_script:{DISSECTOR}', '-r', str(path), '-T', 'fields', '-e', 'ptz.malformed',
                     '-e', '_ws.malformed', '-e', 'ptz.command'],
                    env={**os.environ, 'WIRESHARK_CONFIG_DIR': folder}, capture_output=True, text=True, check=True)
                rows = [line.split('\t') for line in done.stdout.splitlines()]
                self.assertTrue(rows, path.name)
                self.assertTrue(all(bool(row[0]) == bool(row[1]) for row in rows), path.name)
                is_malformed = any(row[0] for row in rows)
                self.assertEqual(is_malformed, path.stem == 'malformed_bodies', path.name)


for each in ALL.values():
    add_test(each)
if __name__ == '__main__':
    DRIVER, PTZCTL, DISSECTOR = map(os.path.realpath, sys.argv[1:4])
    unittest.main(argv=sys.argv[:1])
