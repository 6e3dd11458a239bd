#!/usr/bin/python3
"""usage: tests/station_line.py [RUNS]

A whole line on this machine: up to 16 places, each with a cable of its own, and one station that serves them. Boards
with the real daemon are put in and taken out until RUNS of them have passed (16 at half as many places, unless said
otherwise), while some lose their power in the middle of the flashing, adapters are unplugged, strangers knock at the
port, and the station is stopped, killed and started again. At the end each board that was cabled long enough must have
passed in exactly one run, at its own place, and the station must hold no more memory and descriptors than before. Runs
itself on the native board (board/native), from the build in BUILD.
"""
import glob, json, os, random, signal, subprocess, sys, threading, time
from line_box import write

os.environ['ASAN_OPTIONS'] = 'quarantine_size_mb=1'  # otherwise freed memory would count as growth
RUNS = int(sys.argv[1]) if len(sys.argv) > 1 else 16
PLACES = max(1, min(16, RUNS // 2))
if not os.path.exists('/src/tests/station_line.py'):
    native = os.path.dirname(os.path.realpath(__file__)) + '/../board/native'
    os.execv(native, [native, 'python3', '/src/tests/station_line.py', str(RUNS)])

PLAN = '''- {send: PING, match: ^PING}
- {script: serial.sh, match: '^(?P<serial>\\d+)\\n'}
- {send: 'FW KERNEL {size}', upload: kernel.bin, expect: OK, timeout: 60}
- {verify: kernel.bin, partition: 2}
- {send: 'FW ROOTFS {size}', upload: kernel.bin, expect: OK, timeout: 60}
- {verify: kernel.bin, partition: 3}
- {send: BYE, expect: BYE, closes: true}
'''
os.makedirs('/var/line/results')
for path in glob.glob('/flash/mtd?'): os.truncate(path, 1 << 20)  # each board gets a copy: keep it small
os.chdir('/var/line')
with open('kernel.bin', 'wb') as file: file.write(os.urandom(1000000))
write('serial.sh', '#!/bin/sh\ncat /tmp/serial\n')
write('plan.yaml', PLAN)
write('line.yaml', 'plan: plan.yaml\nresults: results\nplaces:\n' +
      ''.join(f'- {{name: place{i}, interface: line{i}}}\n' for i in range(PLACES)))

lock = threading.Lock()
tally = {'passed': 0, 'cut': 0, 'interrupted': 0, 'stops': 0, 'kills': 0, 'strangers': 0, 'replugs': 0}
owners, problems, over, calm = {}, [], threading.Event(), threading.Event()


def count(what):
    with lock: tally[what] += 1


def sh(line): return subprocess.run(line, shell=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode


class Cable:
    """The cable of a place. The station's end is lineN; the other end is in a network namespace for the board."""

    def __init__(self, number):
        self.number = number
        self.holder = subprocess.Popen(['unshare', '--net', 'sleep', '100000'])
        self.inside = f'nsenter --net=/proc/{self.holder.pid}/ns/net '
        self.plug()
        # When the station is killed while a script connects to it, the kernel's refusal goes to the first interface, as
        # all have the same address. So limit the board's attempts to seven seconds; by default they take two minutes.
        sh(self.inside + 'sh -c "ip link set lo up; /usr/bin/ip link add wlan0 type veth peer name wlan1;'
           'echo 2 > /proc/sys/net/ipv4/tcp_syn_retries"')

    def plug(self):
        line = f'line{self.number}'
        pair = f'/usr/bin/ip link add eth0 netns {self.holder.pid} type veth peer name {line} netns 1'
        while sh(pair): time.sleep(0.05)
        sh(f'station ip addr add 192.168.1.2/24 dev {line}; station ip link set {line} up')

    def board(self, serial):
        """Puts in a board, which ends together with its daemon."""
        sh(self.inside + 'ip link set eth0 up')
        life = f'mount -t tmpfs none /tmp; cp -a /flash /tmp/; mount --bind /tmp/flash /flash; ' \
               f'echo {serial} > /tmp/serial; fabtestd daemon; while pidof fabtestd > /dev/null; do sleep 0.1; done'
        return subprocess.Popen(f'exec {self.inside} /usr/bin/unshare --ipc --mount --pid --fork --kill-child '
                                '--mount-proc '
                                f"sh -c '{life}'", shell=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def take_out(self, board):
        board.kill()
        board.wait()
        sh(self.inside + 'ip link set eth0 down')
        if random.random() < 0.1:  # unplug the adapter, and plug it in again
            sh(self.inside + '/usr/bin/ip link del eth0')
            self.plug()
            count('replugs')


class Station:
    def start(self):
        self.process = subprocess.Popen(['station', 'qcstation', 'serve', 'line.yaml'], stdout=open('output', 'a'),
                                        stderr=subprocess.STDOUT)

    def end(self, how):
        self.process.send_signal(how)
        status = self.process.wait(120)
        if status not in ((0, 5, -15) if how == signal.SIGTERM else (-9,)):  # -15: it had not installed its handler yet
            problems.append(f'the station ended with {status}')

    def size(self):
        pid = self.process.pid
        with open(f'/proc/{pid}/status') as status: text = status.read()
        return len(os.listdir(f'/proc/{pid}/fd')), int(text.split('VmRSS:')[1].split()[0])


def records(serial=None):
    for name in glob.glob('results/*.json'):
        with open(name) as file: record = json.load(file)
        if serial is None or record['unit'] == str(serial): yield record


def work(cable):
    """Changes boards until enough have passed. Starts an interrupted board again, as an operator would."""
    while not over.is_set():
        with lock:
            serial = len(owners) + 1
            owners[serial] = f'place{cable.number}'
        cut = random.random() < 0.15
        for attempt in range(20):
            board = cable.board(serial)
            try: board.wait(random.uniform(1, 3) if cut else 40)
            except subprocess.TimeoutExpired:
                if not cut: problems.append(f'board {serial} at place{cable.number} waits')
            cable.take_out(board)
            passed = any(r['verdict'] == 'passed' for r in records(serial))
            if passed or cut: break
            count('interrupted')
        count('passed' if passed else 'cut')
        if not passed and not cut: problems.append(f'board {serial} never passed')
        if tally['passed'] >= RUNS and calm.is_set(): over.set()


def disturb(cables, station):
    while not over.wait(random.uniform(0.3, 2)):
        cable = random.choice(cables)
        sh(cable.inside + "sh -c 'head -c 100 /dev/urandom | nc -w 1 192.168.1.2 55688'")
        count('strangers')
        if tally['passed'] > RUNS // 2 and tally['kills'] and tally['stops']:
            calm.set()  # one station serves the last half
        elif tally['kills'] + tally['stops'] < 2 or random.random() < 0.5:
            kill = tally['kills'] < tally['stops']
            count('kills' if kill else 'stops')
            station.end(signal.SIGKILL if kill else signal.SIGTERM)
            station.start()
    calm.set()


station, cables = Station(), [Cable(i) for i in range(PLACES)]
station.start()
time.sleep(2)
idle = station.size()[0]
threads = [threading.Thread(target=work, args=(cable,)) for cable in cables]
threads.append(threading.Thread(target=disturb, args=(cables, station)))
for thread in threads: thread.start()
calm.wait()
before = station.size()
for thread in threads: thread.join()
for _ in range(900):  # until the station gives up the last strangers and the boards without power
    if station.size()[0] == idle: break
    time.sleep(0.1)
after = station.size()
station.end(signal.SIGTERM)
for serial, place in owners.items():
    runs = list(records(serial))
    if any(run['place']['name'] != place for run in runs): problems.append(f'board {serial} has runs at other places')
    if sum(run['verdict'] == 'passed' for run in runs) > 1: problems.append(f'board {serial} passed twice')
if after[0] != idle or after[1] > before[1] * 1.25:
    problems.append(f'the station grew from {idle}, {before} to {after}')
print(tally, 'idle descriptors', idle, 'and then, kB:', before, after)
print('\n'.join(problems))
if problems: print(subprocess.run(['tail', '-n', '40', 'output'], capture_output=True, text=True).stdout)
for cable in cables: cable.holder.kill()
sys.exit(1 if problems else 0)
