'use strict';
// The operator's page. What the station says goes into the page as text, never as markup.

const at = id => document.getElementById(id);
const tiles = new Map();    // by the place's number: its elements, and what is known of the place
let version;                // of this page's files
let stream;
let heard = 0;              // when the station was last heard of

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

window.addEventListener('resize', layOut);
window.addEventListener('DOMContentLoaded', connect);
