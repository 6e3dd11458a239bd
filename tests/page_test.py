#!/usr/bin/python3
"""usage: tests/page_test.py [CASE...]

The line's page in a real browser, driven by the keyboard alone: a station from the build in BUILD, boards that are a
few lines of this file, and a headless Chromium, all in a network of their own.
"""
import csv, glob, http.client, importlib.machinery, json, os, re, shutil, signal, socket, subprocess, sys, tarfile
import tempfile, threading, unittest, urllib.parse

import jsonschema
from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException, TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select, WebDriverWait
from line_box import PATIENCE, ROOT, converse, enter, read, write

enter()

attack = importlib.machinery.SourceFileLoader('attack', ROOT + '/scripts/attack').load_module()

# From scripts/setup, if npm is there.
AXE = ROOT + '/build/axe-core-4.14.1.tgz'
WORDS = ROOT + '/station/page/static/words.*.json'
OUTSIDE, CAPITALS = [read(f'{ROOT}/tests/page/{name}.js') for name in ('outside', 'capitals')]
PORT, PAGE = 55688, 8080
AWAY = attack.STATION
PLAN = '''probe: false
steps:
  - {ask: serial, prompt: Scan the label, match: '^[A-Z<][-A-Za-z0-9<>()/]+$'}
  - {send: PING, match: '^PING (?P<ports>[0-9]+)$', limits: {ports: {min: 1, max: 4}},
     hint: See <b>cable 7</b>, picture: plug.png}
  - {send: BYE, expect: BYE, closes: true}
'''
LINE = f'''listen: 127.0.0.1:{PORT}
places: 2
plan: plan.yaml
store: line.db
page: {{listen: "0.0.0.0:{PAGE}", token: long%41enough}}
'''
# Hints that end before their last line.
CUT = '''
    return [...document.querySelectorAll('.tile .hint')].filter(hint => hint.scrollHeight > hint.clientHeight + 2)
        .map(hint => hint.textContent);'''


def board(number, **replies):
    """Connects from an address of its own, and answers like converse(). Returns the connection."""
    connection = socket.create_connection(('127.0.0.1', PORT), PATIENCE, (f'127.0.0.{number + 1}', 0))

    def answer():
        with connection: converse(connection, replies)

    threading.Thread(target=answer, daemon=True).start()
    return connection


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp()
        os.environ.update(HOME=cls.folder, XDG_CACHE_HOME=cls.folder)
        os.chdir(cls.folder)
        write('plan.yaml', PLAN)
        shutil.copy(ROOT + '/docs/page.png', 'plug.png')
        options = webdriver.ChromeOptions()
        options.binary_location = '/usr/bin/chromium'
        for argument in ('--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage',
                         '--window-size=1280,800', f'--user-data-dir={cls.folder}/browser'):
            options.add_argument(argument)
        cls.browser = webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)
        cls.browser.set_page_load_timeout(PATIENCE)
        cls.browser.set_script_timeout(PATIENCE)
        for address in AWAY, attack.ATTACKER:  # of other machines, as far as the station knows
            subprocess.run(['ip', 'address', 'add', address + '/32', 'dev', 'lo'], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        shutil.rmtree(cls.folder, ignore_errors=True)

    def setUp(self):
        for file in glob.glob('line.db*'): shutil.rmtree(file) if os.path.isdir(file) else os.remove(file)
        self.start()
        self.open()

    def tearDown(self): self.assertIn(self.end(signal.SIGTERM), (0, 5))

    def start(self, line=LINE):
        write('line.yaml', line)
        self.station = subprocess.Popen([os.environ['BUILD'] + '/qcstation', 'serve', 'line.yaml'],
                                        stdout=subprocess.PIPE, text=True)
        for line in self.station.stdout:
            if line.startswith('line '): return

    def end(self, how):
        self.station.send_signal(how)
        self.station.communicate(timeout=PATIENCE)
        return self.station.returncode

    def open(self):
        self.browser.get(f'http://127.0.0.1:{PAGE}/')
        self.until(lambda: len(self.browser.find_elements(By.CLASS_NAME, 'tile')) == 2)

    def until(self, condition):
        absent = IndexError, StaleElementReferenceException  # while the page is loaded again
        try: WebDriverWait(self.browser, PATIENCE, 0.1, absent).until(lambda _: condition())
        except TimeoutException: self.fail(self.page())

    def page(self): return self.browser.find_element(By.TAG_NAME, 'body').text

    def tile(self, number): return self.browser.find_elements(By.CLASS_NAME, 'tile')[number - 1].text

    def sees(self, number, *words): self.until(lambda: all(word in self.tile(number) for word in words))

    def type(self, *keys): self.browser.switch_to.active_element.send_keys(*keys)

    def asked(self, place):
        self.until(lambda: self.browser.find_element(By.ID, 'whose').text == place and
                   not self.browser.find_elements(By.CLASS_NAME, 'settles'))

    def notice(self): return self.browser.find_element(By.ID, 'notice').text

    def js(self, script, *arguments): return self.browser.execute_script(script, *arguments)

    def serve(self, place, serial, verdict, *words, **replies):
        """Has an operator name a board that comes to a place."""
        board(place, **replies)
        self.asked(f'board {place}')
        self.type(serial, Keys.ENTER)
        self.sees(place, verdict, serial, *words)

    def question(self, place):
        tiles = json.loads(self.request('/api/line')[1])['places']
        return next(tile['ask']['question'] for tile in tiles if tile['number'] == place)

    def answer(self, place, question, text):
        """The status of an answer from another browser."""
        body = json.dumps({'place': place, 'question': question, 'text': text})
        return self.request('/scan', [('Content-Type', 'application/json')], body)[0]

    def request(self, path, headers=(), body=None, host=f'127.0.0.1:{PAGE}', address='127.0.0.1', whole=True):
        """The status of the reply, and its content: all of it, or only how it begins."""
        connection = http.client.HTTPConnection(address, PAGE, timeout=PATIENCE)
        connection.putrequest('GET' if body is None else 'POST', path, skip_host=True)
        for name, value in [('Host', host), *headers]: connection.putheader(name, value)
        connection.putheader('Content-Length', str(len(body or '')))
        connection.endheaders((body or '').encode())
        with connection.getresponse() as response:
            return response.status, response.read() if whole else response.readline()

    def test_two_boards_pass_and_fail(self):
        """An operator scans two units, one of them wrongly at first, and sees which is good."""
        self.sees(1, 'Waiting')
        board(1)
        self.asked('board 1')
        board(2, PING='PING <script>document.title="taken"</script>')
        self.sees(2, 'Scan the label')
        self.type('no!', Keys.ENTER)
        self.until(lambda: 'does not look right' in self.notice())
        self.type(Keys.TAB)
        self.asked('board 2')
        self.type('<script>alert(1)</script>', Keys.ENTER)
        self.sees(2, 'FAIL', '<script>a', 'PING <script>', 'See <b>cable 7</b>', '2/3')
        self.until(lambda: self.js('return document.querySelector(".failed .picture").naturalWidth') > 0)
        self.assertEqual(self.js(OUTSIDE), [])
        self.asked('board 1')
        self.type('A-1', Keys.TAB)  # as some scanners end
        self.sees(1, 'PASS', 'A-1')
        self.until(lambda: '50.0 %' in self.browser.find_element(By.ID, 'shift').text)
        self.accessible('/')
        self.open()  # who comes late sees the same
        self.sees(1, 'PASS', 'A-1')
        self.sees(2, 'FAIL', 'PING <script>')
        self.assertEqual(self.browser.title, 'Line')

    def test_a_scan_reaches_the_board_that_was_shown(self):
        """Half a serial is typed; then somebody else answers, the board leaves, or a board asks only now."""
        def elsewhere(_): self.assertEqual(self.answer(1, self.question(1), 'C-1'), 200)
        def leaves(first): first.shutdown(socket.SHUT_RDWR)
        for number, take_question in enumerate((elsewhere, leaves)):
            first = board(1)
            self.asked('board 1')
            board(2)
            self.sees(2, 'Scan the label')
            self.type('A-')
            old = self.question(1)
            take_question(first)
            self.until(lambda: 'board 1 no longer asks' in self.notice())
            self.asked('board 2')
            self.type('9', Keys.ENTER)
            self.assertEqual(self.answer(2, old, 'A-9'), 409)
            self.type(f'B-{number}', Keys.ENTER)
            self.sees(2, 'PASS', f'B-{number}')
        self.type('B-')
        board(1)
        self.until(lambda: 'board 1 asks only now' in self.notice())
        self.type('9', Keys.ENTER, 'C-2', Keys.ENTER)
        self.sees(1, 'PASS', 'C-2')

    def resize(self, width, height):
        self.browser.execute_cdp_cmd('Emulation.setDeviceMetricsOverride', {
            'width': width, 'height': height, 'deviceScaleFactor': 1, 'mobile': False})

    def pretend(self, tiles, size, **line):
        """Shows a made-up line in a window of that size, without the station."""
        self.resize(*size)
        self.js('''
            connect = () => {};
            stream.onmessage = null;
            hear({data: JSON.stringify({version, places: arguments[0], line: arguments[1]})});
            heard = Infinity;
            layOut();
            refresh();''', [{'number': i + 1, 'age': 75, **tile} for i, tile in enumerate(tiles)], line)

    def accessible(self, page):
        """Has axe look for what keeps people from using the page that is shown; without axe, nothing looks."""
        if not os.path.exists(AXE): return
        with tarfile.open(AXE) as files: axe = files.extractfile('package/axe.min.js').read().decode()
        self.js(axe)
        found = self.js('return axe.run()')['violations']
        self.assertEqual([(rule['id'], [node['html'] for node in rule['nodes']]) for rule in found], [], page)

    def test_layout(self):
        """On each screen everything is on it. On the two that are read from afar it is large enough."""
        failure = {'step': 4, 'title': 'ports', 'text': 'ports is 1, below 2', 'hint': 'Check cable 7 and its plug.'}
        ended = {'steps': 8, 'marks': 'pppfpp..', 'seconds': 34}
        tiles = [{'stage': 'failed', 'name': 'bench-1', 'unit': 'SN-' + 60 * '7' + 'Z', 'failure': failure, **ended},
                 {'stage': 'passed', 'name': 'bench-2', 'unit': 'SN-' + 45 * '7' + 'Z', **ended},
                 {'stage': 'again', 'name': 80 * 'b' + '-3', 'unit': '\u6d4b\u8bd5' * 30, 'todo': 'Plug it in, ' * 9,
                  **ended},
                 {'stage': 'asking', 'name': '\u5de5\u4f4d' * 20, 'steps': 8, 'step': 1, 'usual': 0,
                  'ask': {'question': 7, 'since': 1, 'prompt': '\u05e1\u05e8\u05d5\u05e7 ' * 9, 'problem': ''}},
                 {'stage': 'running', 'name': 'bench-5', 'unit': '\u05de\u05e1\u05e4\u05e8' * 20, 'steps': 1000,
                  'step': 5, 'title': 'flash', 'marks': 'pppp' + 996 * '.', 'elapsed': 36, 'estimate': 80, 'usual': 9,
                  'behind': 21},
                 {'stage': 'waiting', 'name': 'bench-6', 'blocked': 'the interface is missing'},
                 {'stage': 'waiting', 'name': 'bench-7', 'powered': 300},
                 {'stage': 'waiting', 'name': 'bench-8', 'held': True}]
        large = {(8, 1920): {'verdict': 50, 'name': 28, 'unit': 28, 'hint': 28},
                 (24, 1920): {'verdict': 28, 'name': 16}}
        for size in (1920, 1080), (3840, 2160), (1280, 800), (1024, 768), (390, 844):
            for count in 1, 4, 8, 16, 24, 64:
                with self.subTest(size=size, count=count):
                    shown = [tiles[0 if i % 16 == 9 else i % 8] for i in range(count)]  # 20 of 64 have failed
                    self.pretend(shown, size, troubles=3 * [40 * 'trouble '])
                    self.assertEqual(self.js(OUTSIDE), [])
                    self.pretend(shown, size)
                    caps = self.js(CAPITALS)
                    if count > 1: self.assertGreaterEqual(caps['.failed .verdict'], caps['.passed .verdict'])
                    for part, least in large.get((count, size[0]), {}).items():
                        self.assertGreaterEqual(caps['.failed .' + part], least, part)
        self.accessible('/')
        self.pretend(12 * [{**tiles[0], 'unit': 'SN-7'}], (1280, 657))
        self.assertEqual(self.js(CUT.replace('.hint', '.text')), [])
        self.pretend(tiles, (1920, 1080))
        self.accessible('/')
        self.assertRegex(self.tile(1), r'SN-7+…7+Z')
        self.assertRegex(self.tile(3), r'b+…b*-3')
        for words in 'longer than usual', 'Check this place', 'Switch the board off and on', 'HELD':
            self.assertIn(words, self.page())
        directions = "return [...document.querySelectorAll('.unit, .main')].map(e => getComputedStyle(e).direction)"
        self.assertIn('rtl', self.js(directions))
        texts = json.loads(read(WORDS.replace('*', 'en')))
        tiles[2:5] = [{'stage': 'again', 'name': 'bench-3', 'todo': texts['said:' + cause], 'failure': failure, **ended}
                      for cause in ('connection', 'station', 'operator')]
        for path in glob.glob(WORDS):
            with open(path) as file: self.js('words = arguments[0]', json.load(file))
            for size in (1920, 1080), (1280, 800):
                self.pretend(tiles, size)
                self.assertEqual([self.js(script) for script in (OUTSIDE, CUT)], [[], []], path)

    def test_a_message_stays_with_its_board(self):
        """A label that is scanned twice says so beside its own board, and never beside the next one."""
        ask = lambda place: {'question': place, 'since': place, 'prompt': f'Scan {place}', 'problem': ''}
        asking = [{'stage': 'asking', 'name': f'bench-{place}', 'ask': ask(place)} for place in (1, 2)]
        self.pretend(asking, (1280, 800))
        self.js('fetch = () => new Promise(() => {})')  # the station takes its time
        self.type('A-1', Keys.ENTER, 'A-1', Keys.ENTER)
        self.until(lambda: 'A-1: not used' in self.notice())
        running = {'stage': 'running', 'name': 'bench-1', 'steps': 3, 'usual': 0}
        self.pretend([running, asking[1]], (1280, 800))
        self.asked('bench-2')
        self.assertEqual(self.notice(), '')

    def test_a_new_version_waits(self):
        """The page of another station replaces this one when nobody types."""
        board(1)
        self.asked('board 1')
        self.type('A-')
        self.js("mark = 1; hear({data: JSON.stringify({version: 'next', places: [tiles.get(1).place]})})")
        self.type('6', Keys.ENTER)
        self.until(lambda: self.js("return typeof mark === 'undefined' && tiles.size") == 2)
        self.sees(1, 'PASS', 'A-6')

    def test_languages(self):
        """Each language has each word with its values. The line's file chooses one, or has a file of its own; it names
        places in any language."""
        texts = {}
        for path in glob.glob(WORDS): texts[path.split('.')[-2]] = json.loads(read(path))
        values = lambda words: {name: sorted(re.findall(r'{\w+}', text)) for name, text in words.items()}
        own = {**texts['de'], 'language': 'ar', 'direction': 'rtl'}
        write('own.json', json.dumps(own))
        sources = ''.join(re.sub(r'"\s*\n\s*"', '', read(path)) for path in glob.glob(ROOT + '/station/*/*.cc'))
        said = '.'.join(text for name, text in texts['en'].items() if name.startswith('said:'))
        parts = re.findall(r"[\w' ]+", re.sub(r'{\w+}', '.', said))
        self.assertEqual([part for part in parts if part.strip() not in sources], [])  # as the station says it
        names = 'places: [{name: Prüfplatz 3, interface: lo}, {name: 左边, interface: unplugged}]'
        subprocess.run('ip link add unplugged type veth peer name end'.split(), check=True)
        for language, words in [*sorted(texts.items()), ('own.json', own)]:
            self.assertEqual(values(words), values(texts['en']), language)
            self.end(signal.SIGTERM)
            self.start(LINE.replace('{listen', f'{{language: {language}, listen').replace('places: 2', names))
            self.open()
            self.sees(2, words['waiting'])
            self.assertIn(words['stepsKey'], self.page())
            self.assertEqual(self.js("return post('/seen', {place: 2})"), words['nothingSeen'])
        self.assertEqual(self.js('return document.documentElement.dir'), 'rtl')
        board(1)
        self.asked('Prüfplatz 3')
        self.type('-', Keys.ENTER)
        self.until(lambda: self.notice() == own['said:unlike'].replace('{text}', '-'))
        self.type('A-1', Keys.ENTER)
        self.sees(1, own['pass'])
        self.assertIn(b'A-1,', self.request('/runs.csv?place=Pr%C3%BCfplatz%203')[1])

    def test_steps_and_seen(self):
        """An engineer looks at what a place did so far. Whoever has seen a verdict says so."""
        self.serve(1, 'A-1', 'FAIL', PING='PING 9')
        look = self.browser.find_element(By.ID, 'look')
        self.type(Keys.F6, '2', Keys.ENTER)
        self.until(lambda: 'board 2' in look.text)
        self.type(Keys.F6, '1', Keys.ENTER)
        self.until(lambda: all(word in look.text for word in ('A-1', 'ports 9 (1 – 4)', '3 BYE')))
        self.type(Keys.F8)
        self.sees(1, 'FAIL', 'seen')
        self.assertFalse(look.is_displayed())
        self.assertEqual(self.request('/seen', [('Content-Type', 'application/json')], '{"place": 2}')[0], 409)

    def test_held_places_and_a_station_that_dies(self):
        """A place that is held takes no board; nobody scans for a board that has gone; a page that has lost its
        station says so, and comes back."""
        self.type(Keys.F2)
        self.type('1', Keys.ENTER)
        self.sees(1, 'HELD')
        taken = board(3)
        self.asked('board 2')
        for plan, faulty in ('[]', True), (PLAN, False):
            write('plan.yaml', plan)
            self.station.send_signal(signal.SIGHUP)
            self.until(lambda: ('goes on as before' in self.page()) == faulty)
        taken.shutdown(socket.SHUT_RDWR)
        self.sees(2, 'AGAIN', 'the board has gone', 'Cable or power')
        board(4)
        self.asked('board 2')
        self.end(signal.SIGKILL)
        self.until(lambda: 'No connection to the station' in self.page())
        self.start()
        self.until(lambda: 'No connection to the station' not in self.page())
        self.sees(1, 'Waiting')
        self.sees(2, 'Waiting')

    def test_history(self):
        """An engineer scans a label and reads why the unit failed. Chart, table, file and data say the same."""
        for serial, ports, verdict in (('<b>7</b>', 9, 'FAIL'), ('A-7', 2, 'PASS')):
            self.serve(1, serial, verdict, PING=f'PING {ports}')
        find = lambda selector: self.browser.find_elements(By.CSS_SELECTOR, selector)
        self.browser.get(f'http://127.0.0.1:{PAGE}/summary?since=7d')
        self.until(lambda: len(find('canvas')) == 2)
        self.accessible('/summary')
        counted = find('#failures td a')[0].get_attribute('href').replace('/runs', '/api/runs')
        with urllib.request.urlopen(counted, timeout=PATIENCE) as file:
            self.assertEqual([row['serial'] for row in json.load(file)['tables']['runs']['rows']], ['<b>7</b>'])
        self.type('<b>7</b>', Keys.ENTER)
        self.until(lambda: 'Unit <b>7</b>' in self.page())
        self.accessible('/unit')
        find('td a[title]')[0].send_keys(Keys.ENTER)
        self.until(lambda: 'ports is 9, above 4' in self.page() and 'See <b>cable 7</b>' in self.page())
        run = urllib.parse.parse_qs(urllib.parse.urlsplit(self.browser.current_url).query)['run'][0]
        self.browser.find_element(By.LINK_TEXT, 'ports').send_keys(Keys.ENTER)
        self.until(lambda: find('canvas'))
        content = lambda path: self.request(path)[1].decode()
        months = csv.DictReader(content('/summary.csv?since=1970-01-01&table=times').splitlines())
        self.assertEqual([month['runs'] for month in months], ['2'])
        lines = list(csv.DictReader(content('/value.csv?name=ports&table=readings').splitlines()))
        self.assertEqual([len(lines), len(find('details:last-of-type tbody tr'))], [2, 2])
        hints = self.js('''
            const chart = Chart.getChart(document.querySelector('canvas'));
            return chart.data.datasets.flatMap((set, datasetIndex) => set.data.map((point, index) => {
                chart.tooltip.setActiveElements([{datasetIndex, index}], {x: 0, y: 0});
                chart.update();
                return chart.tooltip.body.flatMap(part => part.lines).join(' ');
            }));''')
        for line in lines:
            self.assertTrue(any(f'{line["value"]}  {line["verdict"]} {line["serial"]}' in hint for hint in hints), hints)
        self.assertIn('maximum 4 ', hints)
        for line in lines: self.assertIn(f'title="{line["run"]}"', content('/value?name=ports'))
        schema = jsonschema.Draft202012Validator(json.loads(read(ROOT + '/docs/api.schema.json')))
        for page in 'summary', 'runs', f'run?run={run}', 'units', 'unit?serial=A-7', 'value?name=ports':
            with self.subTest(page=page):
                document = json.loads(content('/api/' + page))
                schema.validate(document)
                self.assertTrue(any(table['rows'] for table in document['tables'].values()))

    def test_filters(self):
        """What an engineer chose stays chosen wherever a link leads, and paper has every column."""
        for place, serial in (1, 'A-1'), (2, 'A-2'), (2, 'A-3'): self.serve(place, serial, 'PASS')
        self.browser.get(f'http://127.0.0.1:{PAGE}/summary?since=7d&plan=plan')
        Select(self.browser.find_element(By.NAME, 'place')).select_by_visible_text('2')
        self.browser.find_element(By.CSS_SELECTOR, '.period button').click()
        for page in 'Runs', 'Summary', 'ports', 'Units', 'Runs', '24 hours', 'started':
            self.until(lambda: self.browser.find_elements(By.LINK_TEXT, page))
            for link in self.browser.find_elements(By.CSS_SELECTOR, 'nav a, a[aria-current], td a, th a'):
                if link.text != 'Line': self.assertRegex(link.get_attribute('href'), 'place=2&plan=plan&')
            self.browser.find_element(By.LINK_TEXT, page).click()
        self.until(lambda: self.browser.find_elements(By.CSS_SELECTOR, '[aria-sort=ascending]'))
        self.assertEqual([cell.text for cell in self.browser.find_elements(By.CSS_SELECTOR, 'td:nth-child(2)')],
                         ['A-2', 'A-3'])
        self.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {'media': 'print'})
        self.resize(1032, 700)  # A4 across, without its margins
        for page in 'runs?', 'summary?', 'value?name=ports&':
            self.browser.get(f'http://127.0.0.1:{PAGE}/{page}since=7d')
            self.assertEqual(self.js("""
                return [...document.querySelectorAll('table')].filter(table => table.offsetWidth > 1032 ||
                    getComputedStyle(table.parentElement).overflowX !== 'visible').length"""), 0)
        self.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {})

    def test_refusals(self):
        """Only this page may change anything; from another machine only who has the token."""
        json_type, away = ('Content-Type', 'application/json'), {'host': f'{AWAY}:{PAGE}', 'address': AWAY}
        hold, token = json.dumps({'place': 1, 'hold': True}), ('Authorization', 'Bearer long%41enough')
        for status, path, headers, more in (
                (200, '/', (), away),
                (404, '/nothing', (), {}),
                (405, '/hold', (), {}),
                (431, '/', [('Cookie', 'x' * 20000)], {}),
                (403, '/', (), {'host': f'evil.example:{PAGE}'}),
                (403, '/', [('Origin', 'http://10.9.9.9')], {}),
                (415, '/hold', [('Content-Type', 'text/plain')], {'body': hold}),
                (400, '/hold', [json_type], {'body': '{"place": "1"}'}),
                (400, '/scan', [json_type], {'body': '[' * 9000}),
                (400, '/scan', [json_type], {'body': '{"place": 1, "text": "A-1"}'}),
                (409, '/scan', [json_type], {'body': '{"place": 1, "question": 1, "text": "A-1"}'}),
                (413, '/hold', [json_type], {'body': ' ' * 20000}),
                (401, '/hold', [json_type], {'body': hold, **away}),
                (200, '/hold', [json_type, token], {'body': hold, **away}),
                (200, '/hold', [json_type, ('Origin', f'http://127.0.0.1:{PAGE}')], {'body': hold})):
            with self.subTest(path=path, headers=headers, **more):
                self.assertEqual(self.request(path, headers, **more)[0], status)

        def change(value): return self.request('/hold', [json_type, ('Authorization', value)], hold, **away)[0]
        self.assertEqual(change('Bearer long%41enougH'), 401)
        self.until(lambda: change('Bearer guess') == 429)  # an address tries one a second, right ones too
        self.until(lambda: change(token[1]) == 200)
        self.until(lambda: f'{AWAY} sent the page a wrong token' in self.page())

    def test_slow_pages(self):
        """However its path is written, a page that takes long holds nobody up."""
        attack.fill('line.db')
        with socket.create_connection(('127.0.0.1', PAGE), PATIENCE) as slow:
            slow.sendall(f'GET /%73ummary?since=9d HTTP/1.1\r\nHost: 127.0.0.1:{PAGE}\r\n\r\n'.encode())
            self.assertEqual(self.request('/')[0], 200)
            slow.setblocking(False)
            with self.assertRaises(BlockingIOError): slow.recv(1)

    def test_one_client_leaves_room_for_the_others(self):
        """Whatever a machine does to the page, it takes a bounded part of the station, and others see and hold."""
        for name in 'idle', 'deaf-streams', 'deaf-replies':
            attacker, calm = attack.Attacker(attack.ATTACKS[name]), threading.Event()
            thread = threading.Thread(target=attacker.work, args=[lambda: not calm.is_set()], daemon=True)
            thread.start()
            self.until(lambda: attacker.counts['connections'] > attacker.attack.connections)
            for address in '127.0.0.1', AWAY:
                with self.subTest(name=name, address=address):
                    asked = {'host': f'{address}:{PAGE}', 'address': address}
                    self.assertEqual(self.request('/', **asked)[0], 200)
                    self.assertEqual(self.request('/events', whole=False, **asked), (200, b'retry: 1000\n'))
                    self.assertLess(len(os.listdir(f'/proc/{self.station.pid}/fd')), 100)
            calm.set()
            thread.join()

    def test_seven_tabs(self):
        """A browser shows the line in as many tabs as anybody opens."""
        for _ in range(7):
            self.browser.switch_to.new_window('tab')
            self.open()
        while len(self.browser.window_handles) > 1:
            self.browser.close()
            self.browser.switch_to.window(self.browser.window_handles[0])


if __name__ == '__main__': unittest.main(verbosity=2, warnings='ignore')
