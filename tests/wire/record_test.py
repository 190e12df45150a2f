"""ptzctl record with the simulated driver: record_test.py SIM_DRIVER PTZCTL"""
import json
import os
import pathlib
import select
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from conversations import GET_DRIVER_NAME, QUERY_LIMITS  # noqa: E402
from system import LIMIT_S, System, body, wait_until  # noqa: E402


BUSY = struct.pack('<HHI', 0x105, 0, 0)


class Record(unittest.TestCase):
    def setUp(self):
        self.system = System(DRIVER, PTZCTL).__enter__()
        self.addCleanup(self.system.__exit__)
        self.driver = self.system.start_driver()
        self.file = self.system.path('made.pcapng')
        self.client = self.system.client()

    def ask(self, count=1):
        for _ in range(count):
            self.client.ask(body(GET_DRIVER_NAME))

    def finish(self, recorder):
        _, told = recorder.communicate(timeout=LIMIT_S)
        return told

    def record(self, *options):
        return self.system.run_ptzctl('record', *options, '--socket', self.system.socket)

    def replayed(self, *options):
        """How many requests and replies the file has."""
        done = self.system.replay(self.file, '--json', *options)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return json.loads(done.stdout)


class Files(Record):
    def test_has_requests_and_replies_and_is_for_owner_only(self):
        recorder = self.system.start_recorder(self.file)
        self.ask(3)
        self.assertEqual(self.system.end_recorder(recorder), 6)
        self.assertEqual(self.replayed(), {'requests': 3, 'compared': 3, 'differences': 0})
        self.assertEqual(stat.S_IMODE(os.stat(self.file).st_mode), 0o600)
        self.assertIn(b'driver sim-driver\nprogram ' + DRIVER.encode(), pathlib.Path(self.file).read_bytes())

    def test_killed_recorder_leaves_readable_file(self):
        recorder = self.system.start_recorder(self.file)
        self.ask(5)
        wait_until(lambda: os.path.getsize(self.file) > 900, 'nothing is written')
        self.system.stop(recorder, signal.SIGKILL)
        self.assertEqual(self.replayed()['requests'], 5)

    def test_existing_file_is_kept_unless_forced(self):
        pathlib.Path(self.file).write_text('mine', encoding='utf-8')
        done = self.record(self.file, '--seconds', '1')
        self.assertEqual(done.returncode, 1)
        self.assertIn('File exists; --force replaces it', done.stderr)
        self.assertEqual(pathlib.Path(self.file).read_text(encoding='utf-8'), 'mine')

    def test_full_disk_ends_recording_and_is_told(self):
        done = self.record('/dev/full', '--force', '--seconds', '60')
        self.assertEqual(done.returncode, 1)
        self.assertIn('cannot write /dev/full: No space left on device', done.stderr)

    def test_ends_after_count_of_frames(self):
        recorder = self.system.start('ptzctl', 'record', self.file, '--count', '4', '--socket', self.system.socket)
        self.assertIn('recording ', recorder.stderr.readline())
        self.ask(10)
        self.assertIn(': 4 frames, 0 lost\n', self.finish(recorder))
        self.assertEqual(self.replayed()['requests'], 2)

    def test_ends_after_seconds(self):
        done = self.record(self.file, '--seconds', '1', '--json')
        self.assertEqual(json.loads(done.stdout), {'file': self.file, 'frames': 0, 'lost': 0})
        self.assertEqual(done.returncode, 0)

    def test_client_selects_its_frames(self):
        self.ask()  # the driver counts clients by their first requests at the latest
        other = self.system.client()
        recorder = self.system.start('ptzctl', 'record', self.file, '--client', '2', '--socket', self.system.socket)
        self.assertIn('recording ', recorder.stderr.readline())
        self.ask()
        other.ask(body(QUERY_LIMITS), body(QUERY_LIMITS))
        self.assertEqual(self.system.end_recorder(recorder), 4)

    def test_past_frames_come_first(self):
        self.ask(2)
        done = self.record(self.file, '--with-past', '--count', '4')
        self.assertEqual(done.returncode, 0)
        self.assertEqual(self.replayed()['requests'], 2)

    @unittest.skipUnless(shutil.which('tshark'), 'needs tshark')
    def test_standard_output_is_for_a_pipe(self):
        script = '"$0" record - --socket "$1" | tshark -i - -c 4 -T fields -e frame.len 2>tshark.log'
        shell = subprocess.Popen(['bash', '-c', script, PTZCTL, self.system.socket], cwd=self.system.folder,
                                 env=self.system.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.system.processes.append(shell)
        self.assertIn('recording ', shell.stderr.readline())

        def has_ended():  # a recorder meets the end of its reader when it writes
            self.ask()
            return shell.poll() is not None
        wait_until(has_ended, 'the recorder goes on without its reader')
        self.assertEqual(shell.communicate(timeout=LIMIT_S)[0].split()[:2], ['36', '48'])


class Driver(Record):
    def test_that_starts_again_is_followed(self):
        recorder = self.system.start_recorder(self.file)
        self.ask()
        wait_until(lambda: os.path.getsize(self.file) > 300, 'nothing is written')
        self.system.stop(self.driver, signal.SIGKILL)
        self.assertIn('the driver has ended; waiting for its next start', recorder.stderr.readline())
        self.system.start_driver()
        self.client = self.system.client()
        self.ask()
        self.assertIn('the driver has started again', recorder.stderr.readline())
        self.ask()
        self.assertEqual(self.system.end_recorder(recorder), 6)
        self.assertEqual(self.replayed()['requests'], 3)
        self.assertEqual(self.replayed('--client', '1')['requests'], 1)  # numbers go on
        self.assertIn(b'the driver was started again before this frame', pathlib.Path(self.file).read_bytes())

    def follow_fake_driver(self, process, is_ended):
        """Replaces the driver by one that has no place for a monitor, until it has refused some; returns what is said."""
        self.system.stop(self.driver)
        wait_until(lambda: not os.path.exists(self.system.socket + '.monitor'), 'the monitor socket is left')
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
            listener.settimeout(LIMIT_S)
            listener.bind(self.system.socket + '.monitor')
            listener.listen()
            for _ in range(4):
                connection, _ = listener.accept()
                with connection:
                    connection.send(BUSY)
            os.unlink(self.system.socket + '.monitor')
        self.driver = self.system.start_driver()
        told = []
        while not told or (len(told) < 20 and not is_ended(told[-1])):
            told.append(process.stderr.readline())
        return told

    def test_without_place_for_recorder_is_told_once(self):
        recorder = self.system.start_recorder(self.file)
        told = self.follow_fake_driver(recorder, lambda line: 'started again' in line or not line)
        self.assertEqual([line.split(';')[0].strip() for line in told],
                         ['ptzctl: the driver has ended', 'ptzctl: the driver serves as many monitors as it can',
                          'ptzctl: the driver has started again'])

    def test_without_place_for_tap_is_told_once(self):
        tap = subprocess.Popen([PTZCTL, 'tap', '--socket', self.system.socket], env=self.system.environment,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.system.processes.append(tap)
        wait_until(lambda: self.ask() or select.select([tap.stdout], [], [], 0)[0], 'it shows no frame')
        told = self.follow_fake_driver(tap, lambda line: 'runs again' in line or not line)
        self.assertEqual([' has ended' in told[0], ' as many monitors ' in told[1], ' runs again' in told[2], len(told)],
                         [True, True, True, 3], told)

    def test_named_with_other_socket_at_next_start_is_followed(self):
        recorder = self.system.start('ptzctl', 'record', self.file, '--driver', 'sim-driver')
        self.assertIn('recording ', recorder.stderr.readline())
        self.system.stop(self.driver)
        self.assertIn('the driver has ended', recorder.stderr.readline())
        self.system.start_driver(path=self.system.path('next.socket'))
        self.assertIn('the driver has started again', recorder.stderr.readline())

    def test_that_is_stopped_makes_tap_end_with_status_three(self):
        self.driver.send_signal(signal.SIGSTOP)
        done = self.system.run_ptzctl('tap', '--socket', self.system.socket, '--seconds', '1')
        self.assertEqual(done.returncode, 3)
        self.assertIn('cannot be watched: the driver has not answered in time', done.stderr)

    def test_that_is_not_there_is_status_three(self):
        self.system.stop(self.driver)
        done = self.record(self.file)
        self.assertEqual(done.returncode, 3)
        self.assertIn('driver.socket: No such file or directory', done.stderr)
        self.assertFalse(os.path.exists(self.file))

    def test_without_monitor_socket_is_told(self):
        self.system.socket = self.system.path('other.driver.socket')
        self.system.start_driver('--fault', 'none')  # which is not served by the kit
        done = self.record(self.file)
        self.assertEqual(done.returncode, 3)
        self.assertIn('driver.socket has no monitor socket', done.stderr)

    def test_that_is_hung_is_status_three(self):
        self.driver.send_signal(signal.SIGSTOP)
        done = self.record(self.file, '--timeout', '100')
        self.assertEqual(done.returncode, 3)
        self.assertFalse(os.path.exists(self.file))

    def test_does_not_wait_for_slow_recorder_which_counts_lost_frames(self):
        recorder = self.system.start_recorder(self.file)
        recorder.send_signal(signal.SIGSTOP)
        self.system.wait_until_stopped(recorder)
        for _ in range(120):
            self.client.ask(*[body(GET_DRIVER_NAME)] * 50)
        recorder.send_signal(signal.SIGCONT)
        recorder.send_signal(signal.SIGINT)  # it reads what waits, and asks for what was lost behind that
        told = self.finish(recorder)
        frames, lost = (int(word) for word in told.split()[-4::2])
        self.assertGreater(lost, 0)
        self.assertEqual(frames + lost, 120 * 50 * 2)
        self.assertIn(f'{lost} frames were lost before this one'.encode(), pathlib.Path(self.file).read_bytes())


if __name__ == '__main__':
    DRIVER, PTZCTL = map(os.path.realpath, sys.argv[1:3])
    unittest.main(argv=sys.argv[:1])
