"""A simulated driver, a recorder and clients, for conversations that are recorded and replayed."""
import os
import pathlib
import signal
import socket
import struct
import subprocess
import tempfile
import time

LIMIT_S = 20


def wait_until(condition, what):
    end = time.monotonic() + LIMIT_S
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(what)
        time.sleep(0.005)


def body(command, *fields):
    """A body of the command's number and fields: (format of struct, value), or a text."""
    data = struct.pack('<i', command)
    for field in fields:
        if isinstance(field, str):
            text = field.encode()
            data += struct.pack('<H', len(text)) + text
        else:
            data += struct.pack('<' + field[0], field[1])
    return data


class RawClient:
    """A client that sends any bytes."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(LIMIT_S)
        self.next_id = 0
        try:
            self.socket.connect(path)
        except OSError:
            self.socket.close()
            raise

    def send(self, *bodies):
        """All of them at once."""
        data = b''
        for each in bodies:
            data += struct.pack('=II', 8 + len(each), self.next_id) + each
            self.next_id += 1
        self.socket.sendall(data)

    def read_exactly(self, count):
        data = b''
        while len(data) < count:
            data += self.socket.recv(count - len(data)) or self.fail()
        return data

    @staticmethod
    def fail():
        raise ConnectionError('the driver closed the connection')

    def receive(self):
        length, _ = struct.unpack('=II', self.read_exactly(8))
        return self.read_exactly(length - 8)

    def ask(self, *bodies):
        """The replies, in the order in which they come."""
        self.send(*bodies)
        return [self.receive() for _ in bodies]

    def close(self):
        self.socket.close()


class System:
    """A folder with a driver's socket, and the processes around it. It is used with `with`."""

    def __init__(self, driver, ptzctl):
        self.programs = {'driver': driver, 'ptzctl': ptzctl}
        self.processes = []
        self.clients = []

    def __enter__(self):
        self.temporary = tempfile.TemporaryDirectory(prefix='ptz-wire-')
        self.folder = self.temporary.name
        self.socket = self.path('driver.socket')
        self.environment = {**os.environ, 'LC_ALL': 'C', 'PTZ_PLATFORM_RUNTIME_DIR': self.folder,
                            'PTZ_PLATFORM_STATE_DIR': self.folder}
        return self

    def __exit__(self, *_):
        for client in self.clients:
            client.close()
        for process in self.processes:
            process.kill()
            process.communicate()
        self.temporary.cleanup()

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, program, *words):
        process = subprocess.Popen([self.programs[program], *words], env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        self.processes.append(process)
        return process

    def is_listened_on(self, path):
        try:
            RawClient(path).close()
        except OSError:
            return False
        return True

    def start_driver(self, *options, path=None):
        path = path or self.socket
        driver = self.start('driver', '--socket', path, '--speed-factor', '20', *options)
        wait_until(lambda: self.is_listened_on(path), f'no driver at {path}')
        return driver

    def run_ptzctl(self, *words, **options):
        return subprocess.run([self.programs['ptzctl'], *words], env=self.environment, capture_output=True, text=True,
                              timeout=60, check=False, **options)

    def ctl(self, *words, path=None):
        """A subcommand of ptzctl driver. It may be refused."""
        return self.run_ptzctl('driver', *words, '--socket', path or self.socket)

    def send(self, *words, path=None):
        return self.ctl('send', *words, path=path)

    def client(self, path=None):
        client = RawClient(path or self.socket)
        self.clients.append(client)
        return client

    def stop(self, process, number=signal.SIGTERM):
        process.send_signal(number)
        process.wait(LIMIT_S)

    @staticmethod
    def wait_until_stopped(process):
        stat = pathlib.Path(f'/proc/{process.pid}/stat')
        wait_until(lambda: stat.read_text(encoding='utf-8').rpartition(') ')[2].startswith('T'), 'it is not stopped')

    def start_recorder(self, file, path=None):
        recorder = self.start('ptzctl', 'record', '--force', file, '--socket', path or self.socket)
        if not recorder.stderr.readline().startswith('recording '):
            raise RuntimeError('the recorder does not record')
        self.recorder = recorder
        return recorder

    def end_recorder(self, recorder):
        """The number of frames."""
        recorder.send_signal(signal.SIGINT)
        _, told = recorder.communicate(timeout=LIMIT_S)
        if not told.endswith(', 0 lost\n'):
            raise RuntimeError(f"{recorder.returncode} {told!r}")
        return int(told.splitlines()[-1].split()[-4])

    def replay(self, file, *options, path=None, **how):
        return self.run_ptzctl('replay', str(file), '--fast', '--socket', path or self.socket, *options, **how)


CONVERSATIONS = pathlib.Path(__file__).parent / 'conversations'
