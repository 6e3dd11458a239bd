#!/usr/bin/python3
"""usage: tests/station_stress.py [BOARDS]

Runs the station under ThreadSanitizer: BOARDS boards (600) come to 8 places, while browsers watch the page and ask for
others, places are held and released, the line's file is read again, and the station is stopped and started. Exits with
0 if the sanitizer reported nothing, every board was served, and the station always ended by itself. BUILD names the
build. All of it runs in a network namespace.
"""
import glob, http.client, json, os, random, signal, socket, subprocess, sys, tempfile, threading, time
from line_box import converse, enter, read, write

enter()
BOARDS, PLACES, PORT, PAGE, LIMIT = int((sys.argv + ['600'])[1]), 8, 55688, 8080, 240
STATION = os.path.realpath(os.environ.get('BUILD', 'build/tsan')) + '/qcstation'
folder = tempfile.mkdtemp()
os.chdir(folder)
os.environ['TSAN_OPTIONS'] = f'log_path={folder}/race exitcode=66'
write('plan.yaml', "- {send: NUMBER, match: '(?P<serial>[0-9]+)'}\n- {send: PING, match: '(?P<ports>[0-9]+)', "
      'limits: {ports: {min: 1}}}\n- {ask: lamp, prompt: Lit}\n- {send: BYE, expect: BYE, closes: true}\n')
write('line.yaml', f'listen: 127.0.0.1:{PORT}\nplaces: {PLACES}\nplan: plan.yaml\nstore: line.db\nresults: results\n'
      f'page: {PAGE}\nafter: cat > /dev/null\n')
over = threading.Event()
waiting = [None] * (PLACES + 4) + list(range(BOARDS, 0, -1))
served = []


def pause(most=0.1): over.wait(random.random() * most)


def until_over(work):
    def repeat():
        while not over.is_set():
            try: work()
            except (OSError, http.client.HTTPException, ValueError): pause()  # the station is being started again
    return threading.Thread(target=repeat, daemon=True)


def page(method, path, body=None):
    connection = http.client.HTTPConnection('127.0.0.1', PAGE, timeout=10)
    connection.request(method, path, json.dumps(body) if body else None, {'Content-Type': 'application/json'})
    return connection.getresponse()


def answer_all():
    """Reads the stream of events, and answers the questions in it."""
    stream = page('GET', '/events')
    for _ in range(random.randrange(1, 60)):
        line = stream.readline()
        if not line: return
        if not line.startswith(b'data:'): continue
        for place in json.loads(line[5:]).get('places', []):
            question = place.get('ask')
            if question:
                page('POST', '/scan', {'place': place['number'], 'question': question['question'], 'text': 'yes'}).read()


def look():
    page('GET', random.choice(['/', '/summary', '/runs', '/units?q=1', '/runs.csv', '/places.csv', '/none'])).read()
    pause()


def hold():
    place = random.randrange(PLACES) + 1
    for held in (True, False): page('POST', '/hold', {'place': place, 'hold': held}).read()
    pause(0.5)


def work():
    """Puts in boards until all are done. A board that a stop has interrupted comes again."""
    for number in iter(waiting.pop, None):
        while not over.is_set() and not serve(number): pause()
        served.append(number)


def serve(number):
    try:
        with socket.socket() as board:
            board.settimeout(20)
            board.bind((f'127.0.{1 + number // 250}.{1 + number % 250}', 0))
            board.connect(('127.0.0.1', PORT))
            return converse(board, {'NUMBER': str(number), 'PING': '2'})
    except OSError: return False


def start(): return subprocess.Popen([STATION, 'serve', 'line.yaml'], stdout=subprocess.DEVNULL)


def end(station):
    station.send_signal(signal.SIGTERM)
    try: return station.wait(60)
    except subprocess.TimeoutExpired:
        station.kill()
        return 'not at all'


problems = []
station = start()
for job in (answer_all, answer_all, look, look, hold): until_over(job).start()
boards = [threading.Thread(target=work, daemon=True) for _ in range(PLACES + 4)]
for thread in boards: thread.start()
deadline, again = time.time() + LIMIT, time.time() + 15
while any(thread.is_alive() for thread in boards) and time.time() < deadline and station.poll() is None:
    time.sleep(0.5)
    station.send_signal(signal.SIGHUP)
    if time.time() > again:
        again += 15
        status = end(station)
        if status not in (0, 5): problems.append(f'a stopped station ended with {status}')
        station = start()
over.set()
status = end(station)
if status not in (0, 5): problems.append(f'the station ended with {status}')
if len(served) < BOARDS: problems.append(f'{len(served)} of {BOARDS} boards were served')
for path in glob.glob('race*'): problems.append(read(path))
print('\n'.join(problems) or f'{BOARDS} boards, nothing found')
sys.exit(bool(problems))
