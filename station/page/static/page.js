'use strict';
// The operator's page. What the station says goes into the page as text, never as markup.

const at = id => document.getElementById(id);
const tiles = new Map();    // by the place's number: its elements, and what is known of the place
let version;                // of this page's files
let stream;
let heard = 0;              // when the station was last heard of
let chosen = 0;             // the place that the next answer is for, when the operator has chosen one
let judged = null;          // the question whose answer the station judges
let mode = 'scan';          // what the box takes: an answer, a place to hold, or the token
let unsent = null;          // what waits for the token
let noticeTime = 0;

const now = () => performance.now() / 1000;

function make(parent, tag, name) {
    const element = document.createElement(tag);
    element.className = name;
    parent.append(element);
    return element;
}

function set(element, text) {
    if (element.textContent !== text) element.textContent = text;
}

function duration(seconds) {
    const whole = Math.max(0, Math.round(seconds));
    return whole < 100 ? `${whole} s` : `${Math.floor(whole / 60)}:${String(whole % 60).padStart(2, '0')}`;
}

// ---- What stands at the places

function tileOf(number) {
    if (!tiles.has(number)) {
        const box = document.createElement('section');
        const tile = {box};
        for (const [part, tag] of [['head', 'div'], ['verdict', 'p'], ['step', 'p'], ['text', 'p'], ['hint', 'p'],
                                   ['bar', 'div'], ['time', 'p']]) {
            tile[part] = make(box, tag, part);
        }
        tile.name = make(tile.head, 'h2', 'name');
        tile.unit = make(tile.head, 'p', 'unit');
        tile.fill = make(tile.bar, 'div', 'fill');
        tiles.set(number, tile);
        const later = [...tiles.keys()].filter(n => n > number).sort((a, b) => a - b)[0];
        at('places').insertBefore(box, later ? tiles.get(later).box : null);
        layOut();
    }
    return tiles.get(number);
}

const words = {waiting: '', running: '', asking: '?', passed: 'PASS', failed: 'FAIL'};

function show(place) {
    const tile = tileOf(place.number);
    const failure = place.failure || {};
    tile.place = place;
    tile.came = now() - (place.elapsed || 0);
    tile.box.className = `tile ${place.stage}${place.held ? ' held' : ''}`;
    set(tile.name, place.name);
    set(tile.unit, place.unit || '');
    set(tile.verdict, place.held && place.stage === 'waiting' ? 'HELD' : words[place.stage]);
    const step = failure.step || place.step;
    const title = failure.title || place.title || '';
    set(tile.step, {waiting: place.held ? 'takes no board until it is released' : 'waiting for a board',
                    asking: place.ask && place.ask.prompt}[place.stage] ||
        (step ? `${step}/${place.steps} ${title}` : ''));
    set(tile.text, place.ask ? place.ask.problem : failure.text || '');
    set(tile.hint, failure.hint || '');
    if (judged && judged.place === place.number && !(place.ask && place.ask.question === judged.question)) judged = null;
}

// The places that the line has no more.
function forget(places) {
    for (const [number, tile] of tiles) {
        if (places.some(place => place.number === number)) continue;
        tile.box.remove();
        tiles.delete(number);
    }
    layOut();
}

// Bar and time of a run: by how long all of it took before, else by its steps.
function move(tile) {
    const place = tile.place;
    const elapsed = now() - tile.came;
    let part = 0, time = '';
    if (place.stage === 'running') {
        part = place.total ? Math.min(elapsed / place.total, 0.99) : (place.step - 1 + (place.part || 0)) / place.steps;
        time = place.total > elapsed ? `${duration(place.total - elapsed)} left` : `+${duration(elapsed)}`;
    } else if (place.seconds !== undefined) {
        time = duration(place.seconds);
    }
    tile.fill.style.width = `${Math.max(0, part) * 100}%`;
    set(tile.time, place.held && place.stage !== 'waiting' ? `${time} HELD behind this board` : time);
}

// As many columns as make the largest tiles, which like to be three units wide and two high, and leave few holes.
function layOut() {
    const area = at('places').getBoundingClientRect();
    let best = {size: 0, columns: 1};
    for (let columns = 1; columns <= tiles.size; ++columns) {
        const rows = Math.ceil(tiles.size / columns);
        const filled = Math.sqrt(tiles.size / (columns * rows));
        const size = filled * Math.min(area.width / columns / 3, area.height / rows / 2);
        if (size > best.size) best = {size, columns};
    }
    at('places').style.setProperty('--columns', best.columns);
    at('places').classList.toggle('many', tiles.size > 24);
}

// ---- What the operator is asked

// The places that ask, those first that have waited for longest.
function asking() {
    return [...tiles.values()].map(tile => tile.place).filter(place => place.ask)
        .sort((a, b) => a.ask.since - b.ask.since || a.number - b.number);
}

function asked() {
    const places = asking();
    return places.find(place => place.number === chosen) || places[0];
}

function next() {
    const places = asking();
    const here = places.indexOf(asked());
    if (places.length > 1) chosen = places[(here + 1) % places.length].number;
    showBox();
}

function showBox() {
    const place = asked();
    const others = asking().length - 1;
    const texts = {
        scan: place ? [place.name, place.ask.prompt] : ['', 'no place asks for anything'],
        hold: ['Hold', 'the name of a place that is to take no board, or that is to take boards again; Esc: none'],
        token: ['Token', 'of the line\'s file: who changes something from another machine needs it; Esc: none'],
    }[mode];
    document.body.dataset.mode = mode;
    document.body.classList.toggle('asks', mode === 'scan' && Boolean(place));
    at('box').type = mode === 'token' ? 'password' : 'text';
    set(at('whose'), texts[0]);
    set(at('prompt'), texts[1] + (mode === 'scan' && others > 0 ? ` (${others} more ${others > 1 ? 'wait' : 'waits'})` : ''));
    const problem = mode === 'scan' && place && place.ask.problem;
    if (now() > noticeTime) set(at('notice'), problem || '');
    at('notice').classList.toggle('wrong', Boolean(at('notice').textContent));
    for (const tile of tiles.values()) tile.box.classList.toggle('meant', mode === 'scan' && tile.place === place);
    at('next').hidden = others < 1;
}

function notice(text) {
    set(at('notice'), text);
    noticeTime = now() + 6;
    showBox();
}

function enter(wanted) {
    mode = wanted;
    at('box').value = '';
    showBox();
    at('box').focus();
}

async function post(path, body) {
    const headers = {'Content-Type': 'application/json'};
    const token = sessionStorage.getItem('token');
    if (token) headers.Authorization = `Bearer ${token}`;
    try {
        const reply = await fetch(path, {method: 'POST', headers, body: JSON.stringify(body)});
        if (reply.ok) return true;
        if (reply.status === 401) {
            unsent = {path, body};
            sessionStorage.removeItem('token');
            enter('token');
        }
        notice((await reply.json()).error);
    } catch (error) {
        notice(`not sent: ${error.message}`);
    }
    return false;
}

const takes = {
    async scan(text) {
        const place = asked();
        // Nothing that was scanned goes to another place than the one that was shown with it.
        if (!place || judged) return notice(`${text}: ${place ? 'too soon, once more' : 'no place asks, it is not used'}`);
        judged = {place: place.number, question: place.ask.question};
        chosen = place.number;
        noticeTime = 0;
        if (!await post('/scan', {place: place.number, question: place.ask.question, text})) judged = null;
    },
    async hold(text) {
        const wanted = text.trim().toLowerCase();
        const found = [...tiles.values()].map(tile => tile.place)
            .find(place => place.name.toLowerCase() === wanted || String(place.number) === wanted);
        if (!found) return notice(`there is no place ${text}`);
        enter('scan');
        await post('/hold', {place: found.number, hold: !found.held});
    },
    async token(text) {
        sessionStorage.setItem('token', text);
        enter('scan');
        noticeTime = 0;
        if (unsent) await post(unsent.path, unsent.body);
    },
};

at('scan').addEventListener('submit', event => {
    event.preventDefault();
    const text = at('box').value;
    at('box').value = '';
    if (text.trim()) takes[mode](text).then(showBox);
});

document.addEventListener('keydown', event => {
    const keys = {Tab: next, F2: () => enter(mode === 'hold' ? 'scan' : 'hold'), F4: () => at('engineer').click(),
                  Escape: () => enter('scan')};
    if (keys[event.key] && !event.altKey && !event.ctrlKey) {
        event.preventDefault();
        keys[event.key]();
    } else {
        at('box').focus();
    }
});
at('next').addEventListener('click', () => { next(); at('box').focus(); });
at('hold').addEventListener('click', () => enter('hold'));
at('box').addEventListener('blur', () => setTimeout(() => at('box').focus()));
at('places').addEventListener('click', event => {
    for (const [number, tile] of tiles) {
        if (tile.box.contains(event.target)) chosen = number;
    }
    showBox();
});
window.addEventListener('focus', () => at('box').focus());
window.addEventListener('resize', layOut);

// ---- The counters, and what concerns all places

function showShift(shift) {
    const figures = [['units', shift.units], ['first pass', shift.yield === undefined ? '–' : `${shift.yield.toFixed(1)} %`],
                     ['cycle', shift.cycle === undefined ? '–' : duration(shift.cycle)], ['since', shift.since]];
    at('shift').replaceChildren();
    for (const [name, value] of figures) {
        const group = make(at('shift'), 'div', '');
        make(group, 'dt', '').textContent = name;
        make(group, 'dd', '').textContent = value;
    }
}

function showLine(line) {
    const urgent = line.stops ? 'The line stops: what runs ends first.'
        : line.waits ? `No new boards are taken: ${line.waits}` : '';
    const strangers = line.strangers ? [`strangers refused: ${line.strangers}, the last ${line.stranger}`] : [];
    set(at('line'), [urgent, ...line.troubles, ...strangers].filter(Boolean).join('   ·   '));
    at('line').classList.toggle('urgent', Boolean(urgent));
}

// ---- The station

function hear(event) {
    heard = now();
    const news = JSON.parse(event.data);
    if (news.version) {
        if (version && version !== news.version) return location.reload();  // the station is another, and so is its page
        version = news.version;
        judged = null;
        forget(news.places || []);
    }
    for (const place of news.places || []) show(place);
    if (news.shift) showShift(news.shift);
    if (news.line) showLine(news.line);
    showBox();
}

// A browser makes six connections to a station, and a stream keeps one: a tab that nobody sees has none.
function connect() {
    stream?.close();
    heard = now();
    if (document.hidden) return;
    stream = new EventSource('/events');
    stream.onmessage = hear;
}
document.addEventListener('visibilitychange', connect);

// The station is heard of every two seconds. What the browser does not notice, as a cable that was pulled, is noticed
// here; and what it gives up is begun anew.
setInterval(() => {
    if (document.hidden) return;
    const silent = now() - heard;
    at('lost').hidden = stream.readyState === EventSource.OPEN && silent < 5;
    if (silent > 8 || (stream.readyState === EventSource.CLOSED && silent > 1)) connect();
    for (const tile of tiles.values()) move(tile);
    showBox();
}, 250);

connect();
