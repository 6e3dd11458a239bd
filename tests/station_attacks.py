#!/usr/bin/python3
"""usage: tests/station_attacks.py BUILD

Attacks a line of two cables, in network namespaces. Traffic on one cable must not delay the other one, use up
descriptors, or delay a stop. A surplus board must not get a connection that is then lost.
"""
import contextlib, os, select, signal, socket, subprocess, sys, tempfile, threading
from line_box import Cable, PATIENCE, STATION, converse, enter, write

enter()
PLAN = '[{send: PING, expect: PING 2, timeout: 5}, {send: BYE, expect: BYE, closes: true}]'


def session(cable):
    with cable.connect() as board: converse(board)


@contextlib.contextmanager
def flood(cable, size, ttl, answer):
    """Keeps so many connections open, replacing those that end. They are silent, or first answer like a board."""
    over, begun = threading.Event(), threading.Event()

    def make():
        poller, all = select.poll(), {}
        while not over.is_set():
            while len(all) < size:
                one = cable.socket(ttl)
                one.setblocking(False)
                one.connect_ex(STATION)
                poller.register(one, select.POLLIN)
                all[one.fileno()] = one
            for number, event in poller.poll(100):
                try: said = all[number].recv(64)
                except OSError: said = b''
                if said and answer:
                    with contextlib.suppress(OSError): all[number].send(b'UNKNOWN'.ljust(64, b'\0'))
                if said: begun.set()
                if not said:
                    poller.unregister(number)
                    all.pop(number).close()
        for one in all.values(): one.close()

    thread = threading.Thread(target=make)
    thread.start()
    try:
        assert begun.wait(PATIENCE)
        yield
    finally:
        over.set()
        thread.join()


def batch():
    """Of a batch, the board that never connects is reported at its interface."""
    command = [QCSTATION, 'run', 'plan.yaml', '--interface', 'line1', '--interface', 'line2', '--wait', '5']
    run = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    session(cables[0])
    output = run.communicate()[0]
    assert run.returncode == 1 and 'line2  AGAIN  0.0 s  no board connected' in output, output
    assert output.endswith('plan plan: 2 boards, 0 failed, 1 to be tested again\n'), output


def drops():
    """Returns how many segments the station's kernel has dropped because of their time to live."""
    with open('/proc/thread-self/net/netstat') as file: names, values = [line.split() for line in file][:2]
    return int(values[names.index('TCPMinTTLDrop')])


def surplus(cable, station):
    """While a place is busy, 200 boards get no connection, and all of them keep trying."""
    with cable.socket() as first:
        first.settimeout(PATIENCE)
        first.connect(STATION)
        first.sendall(b'UNKNOWN'.ljust(64, b'\0'))
        while first.recv(64, socket.MSG_WAITALL).rstrip(b'\0') != b'PING': pass
        before, poller, others = drops(), select.poll(), [cable.socket() for _ in range(200)]
        for other in others:
            other.setblocking(False)
            other.connect_ex(STATION)
            poller.register(other, select.POLLOUT)
        while drops() - before < len(others) and not poller.poll(0): pass
        assert not poller.poll(0), 'a surplus board got a connection'
        for other in others: other.close()
        first.sendall(b'PING 2'.ljust(64, b'\0'))
        converse(first)


def silent(cable, station):
    """Silent strangers on one cable do not delay the boards on the other. Those that fill the room have less time."""
    strangers = [cables[1].socket(), *[cables[0].socket() for _ in range(8)]]
    for stranger in strangers: stranger.connect(STATION)
    session(cables[0])
    assert len(strangers[0].recv(128)) == 64 and not select.select(strangers[:1], [], [], 0)[0]
    for stranger in strangers: stranger.close()
    with flood(cables[0], 1000, 64, False):
        for _ in range(20): session(cables[1])


def impostors(cable, station):
    """Of the strangers that answer like boards only a few are let in, and they do not delay a stop."""
    with flood(cables[0], 1000, 255, True):
        for _ in range(5): session(cables[1])
        held = len(os.listdir(f'/proc/{station.pid}/fd'))
        assert held < 60, f'{held} descriptors'
        station.send_signal(signal.SIGTERM)
        assert station.wait(PATIENCE) in (0, 5)


QCSTATION = os.path.abspath(sys.argv[1]) + '/qcstation'
os.chdir(tempfile.mkdtemp())
write('plan.yaml', PLAN)
write('line.yaml', 'plan: plan.yaml\nplaces: [{interface: line1}, {interface: line2}]')
cables, station = [Cable(1), Cable(2)], None
try:
    batch()
    station = subprocess.Popen([QCSTATION, 'serve', 'line.yaml'], stdout=subprocess.PIPE)
    station.stdout.readline()
    reader = threading.Thread(target=station.stdout.read)
    reader.start()
    for attack in surplus, silent, impostors:
        attack(cables[1], station)
        print(attack.__doc__)
finally:
    if station: station.kill()
    for cable in cables: cable.holder.kill()
