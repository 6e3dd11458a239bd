"""What tests need around a station on one machine: networks, cables, boards, files.

enter() moves the program to a network of its own, which is the station's. Each Cable leads from there to another one,
the board's, where every board has the address 192.168.1.1.
"""
import ctypes, os, socket, subprocess, sys

STATION = ('192.168.1.2', 55688)
PATIENCE = int(os.environ.get('PATIENCE', 120))  # seconds; on an idle machine everything takes much less
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
libc = ctypes.CDLL(None)
home = None


def enter():
    """Starts the program again in a network and with mounts of its own; returns when it runs there."""
    global home
    if 'BOXED' not in os.environ:
        user = [] if os.geteuid() == 0 else ['--user', '--map-root-user']
        os.execvpe('unshare',
                   ['unshare', *user, '--net', '--mount', 'sh', '-c', 'ip link set lo up; exec "$@"', 'sh', *sys.argv],
                   {**os.environ, 'BOXED': '1'})
    home = os.open('/proc/self/ns/net', os.O_RDONLY)


def write(path, text, mode=0o644):
    with open(path, 'w') as file: file.write(text)
    os.chmod(path, mode)


def read(path):
    with open(path) as file: return file.read()


def free_port():
    with socket.create_server(('127.0.0.1', 0)) as server: return server.getsockname()[1]


def await_line(process, text):
    """Reads the program's output to a line that contains the text, which it returns."""
    while text not in (line := process.stdout.readline()): assert line, f'the program has ended without {text}'
    return line


def converse(station, replies=(), received=None, go=None):
    """Plays a board on this connection until BYE. Answers each command with the reply to its first word or, without
    one, with the command itself. A reply that can be called gets the payload, and returns the reply; None hangs up.
    Notes each command in `received`, and waits for the event `go` before it takes a payload. Returns whether BYE came."""
    replies = {'QCSTATION': 'UNKNOWN', 'PING': 'PING 2', **dict(replies)}
    while command := station.recv(64, socket.MSG_WAITALL).rstrip(b'\0').decode():
        word, *rest = command.split()
        if received is not None: received.append(command)
        payload, left = [], int(rest[-1]) if word in ('FW', 'SHELL') else 0
        if left and go: go.wait(PATIENCE)
        while left and (part := station.recv(min(left, 1 << 16))):
            payload.append(part)
            left -= len(part)
        reply = replies.get(word, command)
        if callable(reply): reply = reply(b''.join(payload))
        if reply is None: return False
        station.sendall(reply.encode(errors='surrogateescape').ljust(64, b'\0'))
        if word == 'BYE': return True
    return False


def shell(line, **variables): subprocess.run(line, shell=True, check=True, env={**os.environ, **variables})


class Cable:
    def __init__(self, number):
        self.interface = f'line{number}'
        self.holder = subprocess.Popen(['unshare', '--net', 'sleep', '100000'])
        shell('until [ "$(readlink /proc/$P/ns/net)" != "$(readlink /proc/self/ns/net)" ]; do sleep 0.1; done;'
              'set -e; ip link add $L type veth peer name eth0 netns $P; ip addr add 192.168.1.2/24 dev $L;'
              'ip link set $L up; nsenter --net=/proc/$P/ns/net ip addr add 192.168.1.1/24 dev eth0',
              P=str(self.holder.pid), L=self.interface)
        self.network = os.open(f'/proc/{self.holder.pid}/ns/net', os.O_RDONLY)
        self.plug(True)

    def plug(self, there):
        """Plugs the board's end in, or pulls it out: the station sees the carrier come or go."""
        self.inside(f'ip link set eth0 {"up" if there else "down"}')

    def inside(self, line):
        """Runs a command in the network at the cable's other end."""
        shell(f'nsenter --net=/proc/{self.holder.pid}/ns/net {line}')

    def socket(self, ttl=64):
        """Returns a socket in the network at the cable's other end."""
        libc.setns(self.network, 0)  # of this thread alone
        try: made = socket.socket()
        finally: libc.setns(home, 0)
        made.setsockopt(socket.IPPROTO_IP, socket.IP_TTL, ttl)
        return made

    def connect(self):
        """Connects as a board does, until the station accepts. Returns the connection."""
        while True:
            board = self.socket()
            board.settimeout(0.2)  # much less than the kernel waits before it repeats an attempt
            try:
                board.connect(STATION)
                board.settimeout(PATIENCE)
                return board
            except OSError: board.close()
