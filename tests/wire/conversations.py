"""The conversations of tests/wire/conversations: how each was made, and with which options it is replayed."""
import os
import signal
import time

from system import body, wait_until

# Numbers of PTZCommand.
GET_DEVICE_PRESETS, GOTO_PRESET, GOTO_DEVICE_PRESET, MOVE, STOP = 2, 3, 4, 5, 6
QUERY_SPEED, QUERY_POSITION, QUERY_LIMITS, GET_DRIVER_NAME = 12, 13, 20, 21
IDLE = bytes(4)

ALL = {}


class Conversation:
    def __init__(self, make, driver_options, replay_options):
        self.name = make.__name__
        self.make = make
        self.driver_options = driver_options
        self.replay_options = replay_options


def conversation(*driver_options, replay=()):
    def add(make):
        ALL[make.__name__] = Conversation(make, driver_options, replay)
        return make
    return add


def move(kind, axes, speed, pan=0, tilt=0, zoom=0):
    return body(MOVE, ('I', kind), ('B', axes), ('H', speed), ('i', pan), ('i', tilt), ('i', zoom))


def is_idle(reply):
    """Of Query position: position and status of each axis."""
    return all(reply[start:start + 4] == IDLE for start in (8, 16, 24))


def rest(client):
    while not is_idle(client.ask(body(QUERY_POSITION))[0]):
        time.sleep(0.01)


# --- areas of the protocol --------------------------------------------------------------------------------------------

@conversation()
def information(system):
    """Name, types of devices, capabilities, attributes."""
    for words in ('info', 'caps', 'limits', 'position'):
        system.ctl(words)
    system.send('query_attributes')


@conversation()
def absolute_moves(system):
    """To positions, with one axis and with all."""
    system.ctl('move', 'absolute', '--pan', '90', '--tilt=-10', '--zoom', '5', '--wait')
    system.ctl('move', 'absolute', '--pan', '-45.5', '--speed', '50', '--wait')
    system.ctl('position')


@conversation()
def relative_moves(system):
    """By distances, also beyond a limit."""
    for pan in ('10', '-25', '0.01'):
        system.ctl('move', 'relative', f'--pan={pan}', '--wait')
    system.ctl('move', 'relative', '--tilt=300', '--wait')


@conversation()
def continuous_moves(system):
    """At a speed, until the limit is reached."""
    system.ctl('move', 'continuous', '--pan', '1000', '--wait')
    system.ctl('move', 'continuous', '--tilt=-500', '--zoom', '100', '--wait')
    system.send('query_speed')


@conversation(replay=['--ignore', 'status.position'])
def stopped_moves(system):
    """Stopped on the way: the place differs each time."""
    client = system.client()
    client.ask(move(3, 1, 10, pan=3000))
    time.sleep(0.05)
    client.ask(body(STOP))
    rest(client)
    client.ask(body(QUERY_SPEED))


@conversation()
def directions(system):
    """Runs in a direction until the limit, and home."""
    for direction in ('left', 'up-right', 'home'):
        system.ctl('move', direction, '--wait')


@conversation()
def polled_positions(system):
    """A daemon that asks for the position again and again while the head moves."""
    client = system.client()
    client.ask(move(1, 3, 20, pan=6000, tilt=3000))
    rest(client)
    client.ask(body(QUERY_POSITION), body(QUERY_SPEED))


@conversation()
def device_presets(system):
    """Stored where the head is, listed, gone to, replaced."""
    system.ctl('presets', 'store', '1', 'gate')
    system.ctl('move', 'absolute', '--pan', '30', '--wait')
    system.ctl('presets', 'store', '2', 'Tür')
    system.ctl('presets', 'list')
    system.ctl('presets', 'goto', '1', '--wait')
    system.ctl('presets', 'store', '1', 'far gate')
    system.send('get_preset_position', 'number=2')
    system.send('goto_device_preset', 'number=7', 'speed=10')


@conversation()
def driver_presets(system):
    """Stored by their position, read, gone to."""
    system.send('set_preset', 'number=3', 'name=corner', 'axes=pan,tilt', 'position=1500,-300,0')
    system.send('get_preset_position', 'number=3')
    client = system.client()
    client.ask(body(GOTO_PRESET, ('I', 3), ('H', 100)))
    rest(client)
    system.send('goto_preset', 'number=4', 'speed=50')


@conversation()
def home_preset(system):
    """A preset as the home position, and without it again."""
    system.ctl('move', 'absolute', '--pan', '20', '--wait')
    system.ctl('presets', 'store', '5', 'home')
    system.send('default_home_preset', 'number=5')
    system.ctl('move', 'absolute', '--pan', '0', '--wait')
    system.ctl('move', 'home', '--wait')
    system.send('default_home_preset', 'number=0')
    system.send('default_home_preset', 'number=9')


@conversation()
def limits(system):
    """Moves beyond the limits."""
    system.ctl('limits')
    system.ctl('move', 'absolute', '--pan', '900')
    system.ctl('move', 'absolute', '--tilt', '-90', '--wait')
    system.ctl('move', 'absolute', '--zoom', '0')
    system.ctl('position')


@conversation()
def capabilities(system):
    """Taken away, after which their commands are refused."""
    system.ctl('caps')
    system.send('set_capabilities', 'move=Pan,RelPan', 'extra=0')
    system.ctl('caps')
    system.ctl('move', 'absolute', '--tilt', '5')
    system.send('get_device_presets')


@conversation()
def auxiliaries(system):
    """Listed, switched, asked for, unknown."""
    system.send('get_auxiliary')
    client = system.client()
    for name, state in (('light', 1), ('light', 0), ('wiper', 1), ('light', 2), ('siren', 1), ('light', 9)):
        client.ask(body(9, name, ('I', state)))
    system.send('get_auxiliary')


@conversation()
def field_angles(system):
    """Asked for, and set."""
    client = system.client()
    for angle, horizontal, vertical in ((3, 0, 0), (0, 1000, 0), (1, 0, 500), (2, 2000, 2000), (0, 0, 0)):
        client.ask(body(7, ('I', angle), ('I', horizontal), ('I', vertical), ('H', 100)))
        rest(client)


@conversation()
def refusals(system):
    """Values that cannot be, and commands that this driver does not serve."""
    client = system.client()
    client.ask(move(0, 1, 50), move(1, 0, 50), move(1, 1, 0), move(9, 1, 50), move(1, 8, 50))
    client.ask(body(GOTO_PRESET, ('I', 0), ('H', 50)), body(GOTO_PRESET, ('I', 33), ('H', 50)))
    client.ask(body(999), body(-2), body(100, ('I', 1)))
    client.ask(body(GET_DRIVER_NAME))


@conversation()
def not_served(system):
    """Commands of the protocol that a simulated head has no use for."""
    for words in (['query_zoomdelim'], ['osd_menu', 'action=0'],
                  ['area_zoom', 'x=5000', 'y=5000', 'width=100', 'height=100', 'speed=50'],
                  ['image', 'focus_kind=0', 'focus=0', 'auto_focus=0', 'iris_kind=0', 'iris=0', 'auto_iris=0',
                   'brightness_kind=0', 'brightness=0', 'ir_cut_filter=0', 'backlight=0'],
                  ['change_port', 'port=', 'port_type=0', 'mode=1', 'baud_rate=9600', 'data_bits=8', 'stop_bits=1',
                   'parity=0']):
        system.send(*words)


@conversation()
def malformed_bodies(system):
    """Too short, too long, not UTF-8, without a command word."""
    client = system.client()
    client.ask(b'\x05', b'\x05\x00\x00')
    whole = move(1, 1, 50, pan=100)
    client.ask(whole[:-1], whole + b'\0', whole[:5])
    client.ask(body(9, ('H', 2000)), body(9, ('H', 3)) + b'\xff\xfe\xfd' + bytes(4), body(9, ('H', 2)) + b'a\0' + bytes(4))
    client.ask(body(GET_DEVICE_PRESETS, ('I', 7)), body(GET_DRIVER_NAME))
    client.ask(bytes(2552))


@conversation()
def driver_parameters(system):
    """What the driver tells a user interface of itself, and its properties."""
    system.ctl('params')
    system.send('get_driver_property', 'name=protocol-version')
    system.send('get_driver_property', 'name=colour')


@conversation()
def pipelined_requests(system):
    """Many requests in one write, replies in their order."""
    client = system.client()
    client.ask(*[body(GET_DRIVER_NAME), body(QUERY_LIMITS), body(QUERY_POSITION)] * 10)


@conversation()
def two_clients(system):
    """Two daemons that take turns on connections of their own, with the same message ids."""
    first, second = system.client(), system.client()
    for pan in (1000, 2000):
        first.ask(move(1, 1, 100, pan=pan))
        second.ask(body(QUERY_LIMITS))
        rest(second)
        first.ask(body(QUERY_POSITION))


@conversation()
def unregistered(system):
    """The daemon does not use the driver any more: the driver ends."""
    client = system.client()
    client.ask(body(GET_DRIVER_NAME), body(8))


# --- bad days ---------------------------------------------------------------------------------------------------------

@conversation()
def driver_dead(system):
    """Killed between two requests and started again: the client connects anew, as another number."""
    system.ctl('info')
    system.stop(system.driver, signal.SIGKILL)
    system.ctl('info')
    system.driver = system.start_driver()
    system.ctl('position')
    while 'the driver has started again' not in system.recorder.stderr.readline():
        pass


@conversation()
def driver_hung(system):
    """Stopped for a while: the requests of three clients wait in the sockets, and are answered together."""
    clients = [system.client() for _ in range(3)]
    clients[0].ask(body(GET_DRIVER_NAME))
    system.driver.send_signal(signal.SIGSTOP)
    for client in clients:
        client.send(body(GET_DRIVER_NAME), body(QUERY_POSITION))
    system.wait_until_stopped(system.driver)
    system.driver.send_signal(signal.SIGCONT)
    for client in clients:
        client.receive()
        client.receive()


@conversation()
def stale_status(system):
    """The status store is old, because its folder is gone; the position on the wire is right."""
    client = system.client()
    for name in os.listdir(system.folder):
        if name.startswith('ptz') and 'socket' not in name:
            os.rename(system.path(name), system.path('gone-' + name))
    client.ask(move(1, 1, 100, pan=1500))
    rest(client)
    system.ctl('position')


@conversation()
def wrong_socket_mode(system):
    """No further client may connect. One that is connected goes on."""
    client = system.client()
    client.ask(body(GET_DRIVER_NAME))
    os.chmod(system.socket, 0)
    client.ask(body(QUERY_POSITION), body(QUERY_LIMITS))


@conversation()
def file_in_place_of_socket(system):
    """The socket's path was overwritten. A client that is connected goes on."""
    client = system.client()
    client.ask(body(GET_DRIVER_NAME))
    with open(system.path('file'), 'w', encoding='utf-8') as file:
        file.write('not a socket\n')
    os.replace(system.path('file'), system.socket)
    system.ctl('info')
    client.ask(body(QUERY_POSITION), body(QUERY_LIMITS))


@conversation()
def two_drivers(system):
    """Two drivers publish the same instance; a daemon moves one of them, and is asked about it. The other stays."""
    other = system.path('other.socket')
    system.start_driver(path=other)
    system.ctl('move', 'absolute', '--pan', '60', '--wait')
    system.ctl('position', path=other)
    system.ctl('position')


@conversation()
def flooding_daemon(system):
    """A daemon that asks without reading replies: when its socket is full, they are lost. Another daemon is served."""
    flood, other = system.client(), system.client()
    flood.send(*[body(QUERY_POSITION)] * 200)
    other.ask(move(1, 2, 100, tilt=1000))
    rest(other)
    flood.receive()


@conversation()
def bad_settings(system):
    """The driver ends and does not start again, because its settings are bad: the wire is silent from there on."""
    system.ctl('info')
    system.stop(system.driver)
    settings = system.path('bad.conf')
    with open(settings, 'w', encoding='utf-8') as file:
        file.write('[Pan]\nMin=500\nMax=-500\n')
    broken = system.start('driver', '--socket', system.socket, '--config', settings)
    wait_until(lambda: broken.poll() == 2, 'a driver with bad settings runs')
    system.ctl('info')
