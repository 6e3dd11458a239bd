#!/usr/bin/python3
"""usage: bench/page.py [ROUNDS]

How much longer 64 boards take while 20 pages are open: sessions of 100 commands and four payloads of 1 MiB, in turns
with and without the pages, on a network of their own. BUILD names the build, by default build/release.
"""
import os, selectors, socket, statistics, subprocess, sys, tempfile, time

BOARDS, PAGES, SIZE = 64, 20, 1 << 20
PORT, PAGE = 55688, 8080
if 'PAGE_BENCH' not in os.environ:
    user = [] if os.geteuid() == 0 else ['--user', '--map-root-user']
    os.environ['BUILD'] = os.path.abspath(os.environ.get('BUILD', os.path.dirname(__file__) + '/../build/release'))
    os.execvpe('unshare', ['unshare', *user, '--net', 'sh', '-c', 'ip link set lo up; exec "$@"', 'sh', *sys.argv],
               {**os.environ, 'PAGE_BENCH': '1'})


def read_pages():
    """Opens the pages' streams, says so, and takes what comes until it is ended."""
    streams = selectors.DefaultSelector()
    for _ in range(PAGES):
        stream = socket.create_connection(('127.0.0.1', PAGE))
        stream.sendall(b'GET /events HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n')
        streams.register(stream, selectors.EVENT_READ)
    print('open', flush=True)
    while True:
        for key, _ in streams.select(): key.fileobj.recv(1 << 16) or sys.exit('a stream has ended')


def work():
    """Runs a session with each board. Returns the seconds from the first command to the last reply."""
    boards, start, left = selectors.DefaultSelector(), None, BOARDS
    for number in range(BOARDS):
        board = socket.socket()
        board.bind((f'127.0.1.{number + 1}', 0))
        board.setblocking(False)
        board.connect_ex(('127.0.0.1', PORT))
        boards.register(board, selectors.EVENT_READ, bytearray())
    while left:
        ready = boards.select(60) or sys.exit('the station is silent')
        start = start or time.monotonic()
        for key, _ in ready:
            board, received = key.fileobj, key.data
            received += board.recv(1 << 18)
            upload = received.startswith(b'FW')
            if len(received) < 64 + (SIZE if upload else 0): continue
            command = b'OK' if upload else bytes(received[:64])
            received.clear()
            board.sendall(command.ljust(64, b'\0'))
            if not command.startswith(b'BYE'): continue
            boards.unregister(board)
            board.close()
            left -= 1
    return time.monotonic() - start


def main(rounds):
    os.chdir(tempfile.mkdtemp())
    with open('image', 'wb') as file: file.write(bytes(SIZE))
    with open('plan.yaml', 'w') as file:
        file.write('probe: false\nsteps:\n' + ('- {send: PING, expect: PING}\n' * 25 +
                   '- {send: "FW KERNEL {size}", upload: image, expect: OK}\n') * 4 +
                   '- {send: BYE, expect: BYE, closes: true}\n')
    with open('line.yaml', 'w') as file:
        file.write(f'listen: 127.0.0.1:{PORT}\nplaces: {BOARDS}\nplan: plan.yaml\npage: {PAGE}\n')
    station = subprocess.Popen([os.environ['BUILD'] + '/qcstation', 'serve', 'line.yaml', '--json'],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    next(line for line in station.stderr if line.startswith('line '))

    def measure():
        """Returns the seconds that the boards took, and the processor time that the station used."""
        def used():
            with open(f'/proc/{station.pid}/stat') as stat: fields = stat.read().rsplit(')', 1)[1].split()
            return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')
        before = used()
        return work(), used() - before

    alone, watched = [], []
    work()
    for _ in range(rounds):
        alone.append(measure())
        pages = subprocess.Popen([sys.executable, __file__, 'pages'], stdout=subprocess.PIPE)
        pages.stdout.readline()
        watched.append(measure())
        pages.kill()
        pages.communicate()
    station.terminate()
    station.communicate()
    for what, index in ('the boards', 0), ('the station\'s processor time', 1):
        without, with_pages = ([one[index] for one in all] for all in (alone, watched))
        ratio = statistics.median(b / a for a, b in zip(without, with_pages))
        print(f'{what}: {statistics.median(without):.2f} s, with {PAGES} pages open '
              f'{statistics.median(with_pages):.2f} s: {ratio:.2f} times as long')


if sys.argv[1:] == ['pages']: read_pages()
else: main(int(sys.argv[1]) if len(sys.argv) > 1 else 25)
