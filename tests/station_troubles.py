#!/usr/bin/python3
"""usage: tests/station_troubles.py BUILD [WORD...]

Provokes the troubles that people meet on a line, on a real station with a board at the other end of a cable. The table
"What was tried" of docs/troubleshooting.md says what must come of each: the last run's verdict and cause, which tile,
record and store must agree on, and a text that the operator or the engineer has read by then. With WORDs, only the
troubles that have one of them in their names.
"""
import contextlib, glob, hashlib, http.client, json, os, re, signal, socket, sqlite3, subprocess, sys, tempfile
import threading, time, traceback
from concurrent.futures import ThreadPoolExecutor
from line_box import Cable, PATIENCE, ROOT, STATION, converse, enter, read, write

enter()
QCSTATION = os.path.abspath(sys.argv[1]) + '/qcstation'
ASK = "{ask: serial, prompt: Scan the label, match: '^SN-[0-9]+$', problem: Scan the label with SN and a number.}"
TAKE = "{send: 'MAC {mac}', expect: MAC 1}"
OWN = "{send: INFO, match: '^INFO (?P<reported>.*)$', whose: reported}"
UPLOAD = "{send: 'FW KERNEL {size}', upload: kernel.bin, expect: OK, timeout: 60}"
BYE = '{send: BYE, expect: BYE, closes: true}'
troubles = {}


def trouble(name):
    """Adds a function to the troubles: it provokes the one of this name."""
    return lambda provoke: troubles.setdefault(name, provoke)


def simple(name, *steps, pool=0, before=(), scans=(), replies=lambda line: {}, **keys):
    """Adds a trouble: after whole runs of the units `before` comes a board whose place gets these scans. The place
    refuses a scan with a "!". One with a "+" comes a second later, from a person and not a scanner's trigger."""
    @trouble(name)
    def provoke(line):
        if pool: line.addresses(pool)
        line.start(*steps, **keys)
        for serial in before: line.run(serial, **replies(line))
        Board(line.cable, **replies(line))
        for scan in scans:
            if scan[0] == '+': time.sleep(1)
            assert bool(line.answer(scan.strip('!+'))) == scan.endswith('!'), scan


def documented():
    """Returns by the name of a trouble the other cells of its row: verdict, cause, text."""
    section = read(ROOT + '/docs/troubleshooting.md').split('## What was tried')[1].split('## ')[0]
    rows = [[cell.strip(' `') for cell in line.strip('|').split('|')] for line in section.splitlines() if '|' in line]
    return {name: cells for name, *cells in rows[2:]}


class Board(threading.Thread):
    """A board in its place, which answers like converse()."""

    def __init__(self, cable, **replies):
        super().__init__(daemon=True)
        self.cable, self.replies, self.received = cable, replies, []
        self.start()

    def run(self):
        with contextlib.suppress(OSError), self.cable.connect() as station:
            converse(station, self.replies, self.received)


def prints(line, output):
    """The reply to a script: it printed this."""
    def reply(script):
        with line.cable.socket() as result:
            result.connect((STATION[0], int(re.search(rb'nc \S+ (\d+)', script)[1])))
            result.sendall(f'0\n{output}'.encode())
        return f'SHELL {len(script)}'
    return reply


class Line:
    """A station with one place, in a folder of its own."""

    def __init__(self, number):
        self.cable, self.page = Cable(number), 8000 + number
        self.folder = tempfile.mkdtemp()
        self.process, self.tile, self.seen, self.others = None, {}, [], []
        self.news = threading.Condition()
        self.write('kernel.bin', 'kernel' * 100000)
        self.write('output', '')

    def write(self, name, *content): write(f'{self.folder}/{name}', *content)

    def tool(self, *words):
        return subprocess.run([QCSTATION, *words], cwd=self.folder, check=True, capture_output=True, text=True).stdout

    def addresses(self, count, prefix='02:00:00:00:10'):
        """Gives the store of the line a pool "mac"."""
        self.tool('store', 'upgrade', '--store', 'line.db')
        self.tool('pool', 'add', f'{prefix}:00', f'{prefix}:{count - 1:02x}', '--store', 'line.db')

    def start(self, *steps, plan='', line=''):
        """Starts the station with this plan, whose last step is BYE, and more keys of the line's file."""
        listed = ''.join(f'- {step}\n' for step in [*steps, BYE])
        self.write('plan.yaml', f'name: final\nprobe: false\n{plan}\nsteps:\n{listed}')
        self.write('line.yaml', f'plan: plan.yaml\nplaces: [{{name: bench, interface: {self.cable.interface}}}]\n'
                                f'results: results\npage: {self.page}\n'
                                + (line if 'store:' in line else f'store: line.db\n{line}'))
        self.resume()

    def resume(self):
        with open(f'{self.folder}/output', 'a') as output:
            self.process = subprocess.Popen([QCSTATION, 'serve', 'line.yaml'], cwd=self.folder, stdout=output,
                                            stderr=subprocess.STDOUT)
        threading.Thread(target=self.watch, daemon=True).start()

    def watch(self):
        """Follows the page's stream, as a browser does."""
        process = self.process
        while process.poll() is None:
            with contextlib.suppress(OSError, http.client.HTTPException):
                connection = http.client.HTTPConnection('127.0.0.1', self.page, timeout=PATIENCE)
                connection.request('GET', '/events')
                stream = connection.getresponse()
                while line := stream.readline():
                    if not line.startswith(b'data:'): continue
                    for place in json.loads(line[5:]).get('places', []):
                        with self.news:
                            self.tile = place
                            self.seen.append(json.dumps(place, ensure_ascii=False))
                            self.news.notify_all()
            time.sleep(0.05)

    def wait(self, *stages, **values):
        """Waits until the tile is at one of the stages and has these values. Returns it."""
        def there(): return self.tile.get('stage') in stages and all(self.tile.get(k) == v for k, v in values.items())
        with self.news:
            assert self.news.wait_for(there, PATIENCE), f'the tile is not {stages} but {self.tile}'
            return self.tile

    def post(self, path, **body):
        connection = http.client.HTTPConnection('127.0.0.1', self.page, timeout=PATIENCE)
        connection.request('POST', path, json.dumps(body), {'Content-Type': 'application/json'})
        return connection.getresponse().read().decode()

    def answer(self, text):
        """Answers what the place asks. Returns what is wrong with the answer; empty: nothing."""
        tile = self.wait('asking')
        question = tile['ask']['question']
        self.post('/scan', place=1, question=question, text=text)
        with self.news:
            assert self.news.wait_for(lambda: (self.tile.get('ask') or {}).get('question') not in (None, question)
                                      or self.tile.get('step') != tile['step'], PATIENCE)
            return (self.tile.get('ask') or {}).get('problem', '')

    def run(self, serial, **replies):
        """A unit's whole run with a board of its own. Returns the tile at its end."""
        board = Board(self.cable, **replies)
        self.answer(serial)
        tile = self.wait('passed', 'failed', 'again')
        board.join(PATIENCE)
        return tile

    def stop(self, how=signal.SIGTERM):
        self.process.send_signal(how)
        self.process.wait(PATIENCE)

    def beside(self):
        """Another line, which ends with this one."""
        self.others.append(Line(self.page - 8000 + 100))
        return self.others[-1]

    def end(self):
        for other in self.others: other.end()
        if self.process and self.process.poll() is None: self.process.kill()
        self.cable.holder.kill()

    def said(self):
        """What the station has printed, and what its tile has shown."""
        return '\n'.join([read(f'{self.folder}/output'), *self.seen])

    def records(self):
        """The runs' records, in their order."""
        records = [json.loads(read(name)) for name in glob.glob(f'{self.folder}/results/*.json')]
        return sorted(records, key=lambda record: record['start'])

    def rows(self):
        with contextlib.closing(sqlite3.connect(f'{self.folder}/line.db')) as store:
            return {run: tuple(rest) for run, *rest in store.execute('SELECT run, verdict, cause FROM runs')}


def check(line, verdict, cause, text):
    """Returns what is not as documented of the last run, or of a station that did not start."""
    wrong = [] if text in line.said() else [f'nobody has read "{text}" here:', line.said()]
    if verdict == 'does not start': return wrong + ([] if line.process.returncode == 2 else [line.process.returncode])
    stage = {'PASS': 'passed', 'FAIL': 'failed', 'AGAIN': 'again'}[verdict]
    record = line.records()[-1]
    judged = ('passed', None) if verdict == 'PASS' else ('failed', cause)
    stored = 'interrupted' if record['interrupted'] else judged[0], judged[1]
    for where, found, expected in [('tile', line.tile['stage'] if line.process.poll() is None else stage, stage),
                                   ('record', (record['verdict'], record.get('cause')), judged),
                                   ('store', line.rows()[record['id']], stored)]:
        if found != expected: wrong.append(f'{where}: {found} instead of {expected}')
    return wrong


def prove(number, name):
    """Returns what is wrong with the trouble."""
    line = Line(number)
    try:
        troubles[name](line)
        if line.process.poll() is None: line.wait('passed', 'failed', 'again')
        return check(line, *documented()[name])
    except Exception as error: return [''.join(traceback.format_exception(error)), line.said()]
    finally: line.end()


# ---- the unit


simple('a value is out of its limits',
       "{send: PING, match: '^PING (?P<ports>[0-9]+)$', limits: {ports: {min: 3}}, hint: regulator U7}")
simple('the board is of another model', '{send: PING, expect: PING 3, required: true, hint: another model}', ASK)
simple('the flash does not keep what was sent', UPLOAD, '{verify: kernel.bin, partition: 2, hint: replace the flash}',
       replies=lambda line: dict(FW='OK', SHELL=prints(line, hashlib.md5(b'').hexdigest() + ' 0\n')))
simple('the wrong label is scanned', ASK, scans=['4006381333931!', 'SN-1'])
simple('the unit has passed before', ASK, before=['SN-1'], scans=['SN-1!', 'SN-1!', '+SN-1'])
simple('the unit failed too often', ASK, '{send: PING, expect: PING 3}', plan='attempts: 2', before=['SN-1', 'SN-1'],
       scans=['SN-1!', 'SN-2'])
simple('the board has the address of another unit', ASK, TAKE, OWN, pool=16, before=['SN-1'], scans=['SN-2'],
       replies=lambda _: dict(MAC='MAC 1', INFO='INFO 02:00:00:00:10:00'))


@trouble('the unit is in work at another place')
def elsewhere(line):
    other = line.beside()
    for one in other, line:
        one.start(ASK, "{ask: lamp, prompt: Lit}", line=f'store: {line.folder}/line.db')
        Board(one.cable)
    other.answer('SN-1')
    other.wait('asking', title='ask lamp')
    assert line.answer('SN-1')
    line.answer('SN-2')
    line.answer('yes')


@trouble('another board had this serial before')
def reused(line):
    line.addresses(16)
    line.start(ASK, TAKE, OWN, plan='again: allow')
    line.run('SN-1', MAC='MAC 1', INFO='INFO 02:00:00:00:10:00')
    line.run('SN-1', MAC='MAC 1', INFO='INFO 02:00:00:00:99:00')


@trouble('another board comes back')
def exchanged(line):
    def address(text): line.cable.inside(f'ip link set eth0 address {text}')
    line.addresses(16, '00:00:5e:00:53')
    line.start(ASK, "{send: 'MAC {mac}', expect: MAC 2}", '{send: REBOOT, reconnect: true, timeout: 60}')
    for serial, back in ('SN-1', '00:00:5e:00:53:01'), ('SN-2', '00:00:5e:00:53:01'):
        address('00:00:5e:00:53:99')
        board = Board(line.cable, MAC='MAC 2', REBOOT=lambda payload: address(back))
        line.answer(serial)
        board.join(PATIENCE)
        Board(line.cable)
        line.wait('passed', 'again')
    assert [record['verdict'] for record in line.records()] == ['passed', 'failed']


# ---- the operator


simple('nobody answers', '{ask: lamp, prompt: Press Enter, timeout: 1}')


@trouble('the station is stopped while it asks')
def stopped(line):
    line.start(ASK)
    Board(line.cable)
    line.wait('asking')
    line.stop()


# ---- cable and power


def silent(line, *steps, word, **replies):
    """A line whose board does not answer this command. Returns an event: it has come."""
    come = threading.Event()
    line.start(*steps)
    Board(line.cable, **{word: lambda payload: come.set() or time.sleep(2 * PATIENCE), **replies})
    return come


def pull(name, word, *steps, **replies):
    @trouble(f'the cable is pulled {name}')
    def provoke(line):
        come = silent(line, *steps, word=word, **replies)
        assert come.wait(PATIENCE)
        line.cable.plug(False)
        assert 'U7' not in json.dumps(line.wait('again'))


pull('while a script runs', 'SHELL', '{script: kernel.bin, timeout: 60, hint: regulator U7}')
pull('while the board flashes', 'FW',
     "{send: 'FW KERNEL {size}', upload: kernel.bin, expect: OK, timeout: 60, hint: regulator U7}")
pull('while the flash is read back', 'SHELL', '{verify: kernel.bin, partition: 2, timeout: 60, hint: regulator U7}')


def pull_while_running(name, *steps, end=''):
    @trouble(f'the cable is pulled {name}')
    def provoke(line):
        command = 'touch begun; while [ -e begun ]; do sleep 0.1; done'
        line.start(f"{{run: '{command}{end}', hint: regulator U7}}", *steps)
        Board(line.cable)
        while not os.path.exists(f'{line.folder}/begun'): time.sleep(0.05)
        line.cable.plug(False)
        os.remove(f'{line.folder}/begun')
        assert 'U7' not in json.dumps(line.wait('again'))


pull_while_running('between two steps', '{send: INFO, expect: INFO, timeout: 5, hint: regulator U7}')
pull_while_running('while the station measures', end='; exit 1')


@trouble('the cable is pulled while the place asks')
def asked(line):
    line.start(ASK)
    Board(line.cable)
    line.wait('asking')
    line.cable.plug(False)
    line.wait('again')
    assert line.records()[-1]['unit'] == ''


@trouble('another board is put in while the place asks')
def swapped(line):
    line.start(ASK)
    first = Board(line.cable)
    line.wait('asking')
    line.cable.plug(False)
    line.wait('again')
    line.cable.plug(True)
    assert first.received == ['QCSTATION'] or first.received == [], first.received
    line.run('SN-1')
    assert [record['unit'] for record in line.records()] == ['', 'SN-1']


@trouble('the board loses its power and comes back')
def power(line):
    come = silent(line, ASK, '{send: PING, expect: PING 2, timeout: 60}', word='PING')
    line.answer('SN-1')
    assert come.wait(PATIENCE)
    line.cable.plug(False)
    line.wait('again')
    line.cable.plug(True)
    line.run('SN-1')
    assert [record['verdict'] for record in line.records()] == ['failed', 'passed']


# ---- the station


simple('the addresses are used up', ASK, TAKE, pool=1, before=['SN-1'], scans=['SN-2'])
simple('the label printer fails', ASK, line='after: echo no paper; exit 1', scans=['SN-1'])


@trouble('the store does not answer')
def store(line):
    line.start(ASK)
    line.run('SN-1')
    with contextlib.closing(sqlite3.connect(f'{line.folder}/line.db', isolation_level=None)) as other:
        other.execute('BEGIN EXCLUSIVE')
        Board(line.cable)
        while 'no new boards are taken' not in line.said(): time.sleep(0.1)
        other.execute('ROLLBACK')
    line.answer('SN-2')


@trouble('the disk of the results is full')
def disk(line):
    os.mkdir(f'{line.folder}/results')
    subprocess.run(['mount', '-t', 'tmpfs', '-o', 'size=4m', 'none', f'{line.folder}/results'], check=True)
    line.start(ASK)
    Board(line.cable)
    line.wait('asking')
    with contextlib.suppress(OSError), open(f'{line.folder}/results/filler', 'wb', 0) as file:
        while file.write(bytes(65536)): pass
    line.answer('SN-1')
    line.wait('passed')
    os.remove(f'{line.folder}/results/filler')
    while 'end' not in line.records()[0]: time.sleep(0.05)


def mes(name, command, more=''):
    @trouble(f'the MES {name}')
    def provoke(line):
        line.addresses(16)
        line.start(ASK, f"{{run: '{command}', required: true{more}}}", TAKE)
        board = Board(line.cable)
        line.answer('SN-1')
        line.wait('again', 'failed')
        assert not any(command.startswith('MAC') for command in board.received), board.received
        assert '16' in line.tool('pool', 'list', '--store', 'line.db')


mes('refuses the unit', 'echo unknown unit; exit 1')
mes('does not answer', 'sleep 600', ', timeout: 1')
mes('prints without end', 'yes', ', timeout: 1')


def killed(name, *steps, after='', answers=(), word=None):
    @trouble(f'the station is killed {name}')
    def provoke(line):
        replies = {word: lambda payload: come.set() or time.sleep(2 * PATIENCE)} if word else {}
        come = threading.Event()
        wait = 'timeout 60 sh -c "until [ -e again ]; do sleep 0.1; done"'  # nobody ends a killed station's hook
        if after: line.write('after', f'#!/bin/sh\n[ -e again ] || touch begun\n{wait}\n', 0o755)
        line.start(*steps, line=f'after: ./after' if after else '')
        Board(line.cable, **replies)
        for answer in answers: line.answer(answer)
        if word: assert come.wait(PATIENCE)
        elif after:
            while not os.path.exists(f'{line.folder}/begun'): time.sleep(0.05)
        else: line.wait('asking')
        line.stop(signal.SIGKILL)
        line.write('again', '')
        line.tile = {}
        line.resume()
        line.run('SN-1', FW='OK', SHELL=prints(line, ''))
        first = line.records()[0]
        assert first['interrupted'] and first['verdict'] == 'failed' and 'end' not in first, first
        assert line.rows()[first['id']] == ('interrupted', 'station'), line.rows()
        files = {name[-3:]: read(name) for name in glob.glob(f'{line.folder}/results/*{first["id"]}*')}
        assert re.search('^AGAIN .*died', files['log'], re.M) and 'failures="0" errors="1"' in files['xml'], files


killed('while it asks', ASK)
killed('while a script runs', ASK, '{script: kernel.bin, timeout: 60}', answers=['SN-1'], word='SHELL')
killed('while the board flashes', ASK, UPLOAD, answers=['SN-1'], word='FW')
killed('while the label is printed', ASK, after='after', answers=['SN-1'])


def refused(name, *steps):
    """A plan that the station does not take."""
    @trouble(name)
    def provoke(line):
        line.write('empty.bin', '')
        line.start(*steps)
        line.process.wait(PATIENCE)


refused('a file of the plan is empty', "{send: 'FW KERNEL {size}', upload: empty.bin, expect: OK}")
refused('a file of the plan is another than was released',
        f"{{send: 'FW KERNEL {{size}}', upload: kernel.bin, sha256: {'0' * 64}, expect: OK}}")


chosen = [name for name in troubles if not sys.argv[2:] or any(word in name for word in sys.argv[2:])]
with ThreadPoolExecutor(8) as together: outcomes = list(together.map(prove, range(1, len(chosen) + 1), chosen))
if troubles.keys() != documented().keys():
    chosen.append('the document')
    outcomes.append([f'here or there alone: {troubles.keys() ^ documented().keys()}'])
for name, wrong in zip(chosen, outcomes):
    print('FAILED' if wrong else 'ok', name, *wrong, sep='\n    ' if wrong else ' ')
sys.exit(any(outcomes))
