"""A station's end of a factory line on one machine: cables between network namespaces, with boards at their other ends.

enter() moves the program to a network of its own, which is the station's. Each Cable leads from there to another one,
the board's, where every board has the address 192.168.1.1.
"""
import ctypes, os, socket, subprocess, sys

STATION = ('192.168.1.2', 55688)
PATIENCE = int(os.environ.get('PATIENCE', 120))  # seconds; on an idle machine everything takes much less
libc = ctypes.CDLL(None)
home = None


def enter():
    """Starts the program again in a network and with mounts of its own; returns when it runs there."""
    global home
    if 'CABLES' not in os.environ:
        user = [] if os.geteuid() == 0 else ['--user', '--map-root-user']
        os.execvpe('unshare',
                   ['unshare', *user, '--net', '--mount', 'sh', '-c', 'ip link set lo up; exec "$@"', 'sh', *sys.argv],
                   {**os.environ, 'CABLES': '1'})
    home = os.open('/proc/self/ns/net', os.O_RDONLY)


def shell(line, **variables):
    subprocess.run(line, shell=True, check=True, env={**os.environ, **variables})


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
            except OSError:
                board.close()
