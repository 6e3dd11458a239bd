#!/usr/bin/python3
"""usage: tests/store_chaos.py BUILD SQLite|PostgreSQL

Stations that share a store serve boards over real sockets. Meanwhile they are killed at any moment, the store goes away,
and the disks of results and spool fill up, again and again. In the end the boards' own notes, the stations' events, the
store and the result files must agree on every run. CHAOS gives the numbers of stations, boards per station, kills and
absences of the store; '8 64 200 10' takes some minutes.
"""
import asyncio, collections, csv, glob, json, os, random, shutil, signal, socket, sqlite3, subprocess, sys, tempfile

QCSTATION, SHARED = os.path.abspath(sys.argv[1]) + '/qcstation', sys.argv[2] == 'PostgreSQL'
STATIONS, BOARDS, KILLS, ABSENCES = map(int, os.environ.get('CHAOS', '2 6 5 1').split())
DISKS = not (SHARED and os.getuid())  # can disks be filled? That takes mounts of our own; there PostgreSQL needs root
if DISKS and 'CHAOS_INSIDE' not in os.environ:
    os.environ['CHAOS_INSIDE'] = 'yes'
    os.execvp('unshare', ['unshare', '-m', *(['-r'] if os.getuid() else []), sys.executable, *sys.argv])
SERVER = os.path.dirname(os.path.abspath(__file__)) + '/postgresql'
PLAN = '''again: allow
steps:
- {send: INFO, match: '^INFO (?P<serial>S[0-9]+)$', required: true}
- {send: 'MAC {mac}', expect: MAC 4}
- {send: BYE, expect: BYE, closes: true}
'''
folder = tempfile.mkdtemp(prefix='chaos-')
os.chmod(folder, 0o755)  # the server is not root
store = f'postgresql:///postgres?host={folder}/server&user=station' if SHARED else folder + '/line.db'
with socket.create_server(('127.0.0.1', 0)) as free: port = free.getsockname()[1]
Visit = collections.namedtuple('Visit', 'serial peer commands')
visits, stations, begun, database, over = [], {}, {}, None, False  # visits: only those that became runs


def ask(sql):
    if not SHARED: return [[str(cell) for cell in row] for row in sqlite3.connect(store).execute(sql)]
    return list(csv.reader(subprocess.check_output(['psql', store, '--csv', '-tc', sql], text=True).splitlines()))


def go_away():
    """Takes the store away: another process locks the SQLite file, or PostgreSQL stops."""
    global database
    if SHARED: return database.send_signal(random.choice([signal.SIGINT, signal.SIGQUIT])) or database.wait()
    database = sqlite3.connect(store, timeout=60, isolation_level=None, check_same_thread=False)
    database.execute('BEGIN EXCLUSIVE')


def come_back():
    global database
    if database and not SHARED: database.close()
    if SHARED: database = subprocess.Popen([SERVER, folder + '/server'])


def fill(number, disk):
    with open(f'{folder}/{number}/{disk}/fill', 'wb') as file:
        end = 0
        for size in (1 << 20, 1 << 12):
            try:
                while DISKS: end += os.posix_fallocate(file.fileno(), end, size) or size
            except OSError: pass


def empty(number, disk): os.unlink(f'{folder}/{number}/{disk}/fill')


def begin(number):
    with open(f'{folder}/{number}/events', 'a') as events, open(f'{folder}/{number}/said', 'a') as said:
        begun[number] = events.tell()
        stations[number] = subprocess.Popen([QCSTATION, 'serve', '--json', 'line.yaml'], cwd=f'{folder}/{number}',
                                            stdout=events, stderr=said)


def has(number, event):
    with open(f'{folder}/{number}/events') as events: return event in events.read()[begun[number]:]


async def board(here, there):
    """Plays a board that comes again and again, each time as some unit, and notes what it was sent."""
    while not over:
        await asyncio.sleep(random.uniform(0, 0.3))
        try: reader, writer = await asyncio.open_connection(there, port, local_addr=(here, 0))
        except OSError: continue
        visit = Visit(f'S{random.randrange(8 * STATIONS * BOARDS)}', '%s:%d' % writer.get_extra_info('sockname'), [])
        replies = {'QCSTATION': 'UNKNOWN', 'INFO': 'INFO ' + visit.serial, 'BYE': 'BYE'}
        try:
            while 'BYE' not in visit.commands:
                visit.commands.append((await reader.readexactly(64)).rstrip(b'\0').decode())
                if visit.commands[-1] == 'INFO': visits.append(visit)
                if random.random() < 0.3: await asyncio.sleep(random.uniform(0, 0.3))
                writer.write(replies.get(visit.commands[-1], 'MAC 4').encode().ljust(64, b'\0'))
        except (OSError, asyncio.IncompleteReadError): pass
        writer.close()


async def chaos():
    global over
    boards = [asyncio.create_task(board(f'127.1.{s}.{b + 1}', f'127.0.{s}.1')) for s in stations for b in range(BOARDS)]
    for kill in range(KILLS):
        await asyncio.sleep(random.uniform(0, 0.8))
        moment = kill % (KILLS // ABSENCES)
        if moment == 0:
            poor = random.choice(list(stations))
            fill(poor, 'results')
        if moment == 1:
            await asyncio.to_thread(go_away)
            fill(poor, 'spool')
            await asyncio.sleep(random.uniform(0, 4))
        victim = random.choice(list(stations))
        stations[victim].kill()
        stations[victim].wait()
        begin(victim)
        if moment == 3:
            come_back()
            empty(poor, 'spool')
        if moment == 4: empty(poor, 'results')
    enough = len(visits) + 2 * len(boards)
    while len(visits) < enough or not all(has(number, 'board_connects') for number in stations): await asyncio.sleep(0.1)
    over = True
    for station in stations.values(): station.terminate()
    await asyncio.gather(*boards, *(asyncio.to_thread(station.wait) for station in stations.values()))
    for number in stations:  # the next start writes what is left in the spool
        begin(number)
        while not has(number, 'line_starts'): await asyncio.sleep(0.1)
        stations[number].terminate()
        await asyncio.to_thread(stations[number].wait)


def judge_files(verdicts, steps):
    """Store and result files have the same runs, with the same content."""
    left = dict(verdicts)
    for name in glob.glob(folder + '/*/results/*.json'):
        with open(name) as file: record = json.load(file)
        verdict = 'interrupted' if record['interrupted'] else record['verdict']
        ended = sum(step['verdict'] != 'not run' or 'end' in record for step in record['steps'])
        assert left.pop(record['id'], None) == verdict, f'{name}: {verdict}, not {verdicts.get(record["id"])}'
        assert steps[record['id']] == str(ended), f'{name}: {ended} steps, not {steps[record["id"]]}'
        assert os.path.exists(name[:-4] + 'log') and os.path.exists(name[:-4] + 'xml'), f'{name}: no log'
    assert set(left.values()) <= {'interrupted'}, f'without a file: {left}'  # they never got a command
    kept = [name for name in glob.glob(folder + '/*/spool/*') if not name.endswith('.spool')]
    assert not kept, f'in the spool: {kept}'


def judge():
    rows = ask('SELECT run, verdict, peer, (SELECT count(*) FROM steps WHERE steps.run = runs.id) FROM runs')
    given = ask('SELECT address, serial FROM addresses')
    verdicts, owners, by_peer = {row[0]: row[1] for row in rows}, dict(given), collections.defaultdict(list)
    sent, told = collections.defaultdict(set), collections.Counter()
    for row in rows: by_peer[row[2]].append(row[1])
    for visit in visits:
        sent[visit.serial] |= {word[4:] for word in visit.commands if word.startswith('MAC ')}
        recorded = by_peer[visit.peer]
        assert recorded, f'no run of {visit}'
        assert 'BYE' in visit.commands or recorded != ['passed'], f'passed without an end: {visit}'
    for serial, firsts in sent.items():
        for first in firsts:
            block = [f'{first[:-2]}{int(first[-2:], 16) + i:02X}' for i in range(4)]
            assert len(firsts) == 1 and all(owners[address] == serial for address in block), f'{serial}: {firsts}'
    for line in (line for name in glob.glob(folder + '/*/events') for line in open(name) if line.endswith('}\n')):
        event = json.loads(line)
        told[event['event']] += 1
        assert verdicts.get(event.get('run'), '') or 'run' not in event, f'not recorded: {event}'
        verdict = 'interrupted' if event.get('interrupted') else event.get('verdict')
        assert event['event'] != 'board_ends' or verdicts[event['run']] == verdict, f'recorded otherwise: {event}'
    judge_files(verdicts, {row[0]: row[3] for row in rows})
    tally = collections.Counter(verdicts.values())
    print(f'{len(visits)} visits, {len(sent)} units; runs: {dict(tally)}, events: {dict(told)}')
    assert len(owners) == len(given) and all(row[3] == '3' for row in rows if row[1] == 'passed')
    assert not tally['running'] and tally['interrupted'] and tally['passed'] >= STATIONS * BOARDS


if SHARED: os.mkdir(folder + '/server')
come_back()
try:
    while SHARED and subprocess.run(['psql', store, '-c', ''], capture_output=True).returncode:
        assert not database.poll()
    subprocess.run([QCSTATION, 'store', 'upgrade', '--store', store], check=True)
    subprocess.run([QCSTATION, 'pool', 'add', '--store', store, '02:00:00:00:00:00', '02:00:00:0F:FF:FF'], check=True)
    for number in range(1, STATIONS + 1):
        for disk in ('results', 'spool'):
            os.makedirs(f'{folder}/{number}/{disk}')
            if DISKS: subprocess.run(['mount', '-t', 'tmpfs', '-o', f'size={32 + 2 * KILLS}m', 'disk', f'{folder}/{number}/{disk}'], check=True)
        with open(f'{folder}/{number}/plan.yaml', 'w') as file: file.write(PLAN)
        with open(f'{folder}/{number}/line.yaml', 'w') as file:
            file.write(f'{{listen: "127.0.{number}.1:{port}", places: {BOARDS}, plan: plan.yaml, store: "{store}", '
                       'results: results, spool: spool}')
        begin(number)
    asyncio.run(chaos())
    judge()
    for disk in glob.glob(folder + '/*/*/') if DISKS else []: subprocess.run(['umount', disk], capture_output=True)
    shutil.rmtree(folder)
finally:
    for process in [*stations.values()] + ([database] if SHARED else []):
        process.kill()
        process.wait()
