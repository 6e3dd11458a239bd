'use strict';
// The operator's page: what the station says, and what concerns the whole line. tiles.js shows the places, box.js takes
// answers and keys. What the station says goes into the page as text, never as markup.

const at = id => document.getElementById(id);
const tiles = new Map();    // by the place's number: its elements, and what is known of the place
let words = {};             // every text of the page, by its name
let sayings = [];           // of each text that the station itself says: its name, and an expression for it in English
let line = {};              // what concerns all places
let shift = {};
let version, served;        // of this page's files; of those that the station has now
let stream;
let heard = 0;              // when the station was last heard

const now = () => performance.now() / 1000;

function say(name, values = {}) {
    return (words[name] ?? name).replace(/\{(\w+)\}/g, (all, key) => values[key] ?? all);
}

// A text of the station in the page's language, and what it quotes, too. One that has no words stays as it is.
function translated(text) {
    for (const [name, english] of sayings) {
        const found = english.exec(text);
        if (!found) continue;
        return say(name, Object.fromEntries(Object.entries(found.groups ?? {})
            .map(([key, value]) => [key, translated(value)])));
    }
    return text;
}

const expressionFor = text => new RegExp(
    `^${text.replace(/[.*+?^$()|[\]\\]/g, '\\$&').replace(/\{(\w+)\}/g, '(?<$1>.+)')}$`, 's');

async function learnWords() {
    const [ours, english] = await Promise.all(['/words.json', '/words.en.json'].map(
        async path => (await fetch(path)).json()));
    sayings = Object.keys(english).filter(name => name.startsWith('said:'))
        .map(name => [name, expressionFor(english[name])]);
    words = ours;
}

function make(parent, tag, name = '') {
    const element = document.createElement(tag);
    if (name) element.className = name;
    parent.append(element);
    return element;
}

function set(element, text) {
    if (element.textContent !== text) element.textContent = text;
}

// "40 s", "3 min", "2 h"
function duration(seconds) {
    const [unit, size] = seconds < 100 ? ['seconds', 1] : seconds < 6000 ? ['minutes', 60] : ['hours', 3600];
    return say(unit, {n: Math.max(0, Math.round(seconds / size))});
}

// ---- The counters, and what concerns all places

function showShift() {
    const due = Math.floor((shift.target || 0) * (shift.seconds + now() - shift.came) / 3600);
    const figures = [[shift.target ? 'unitsTarget' : 'units', shift.target ? `${shift.units} / ${due}` : shift.units],
                     ['failed', shift.failed],
                     ['yield', shift.yield === undefined ? '–' : `${shift.yield.toFixed(1)} %`],
                     ['cycle', shift.cycle === undefined ? '–' : duration(shift.cycle)], ['since', shift.since]];
    figures.forEach(([name, value], i) => {
        const group = at('shift').children[i] || make(at('shift'), 'div');
        set(group.children[0] || make(group, 'dt'), say(name));
        set(group.children[1] || make(group, 'dd'), String(value));
    });
}

function showLine() {
    const urgent = line.stops ? say('stops') : line.waits ? say('waits', {why: translated(line.waits)}) : '';
    const strangers = line.strangers ? say('strangers', {n: line.strangers, last: line.stranger}) : '';
    const troubles = (line.troubles || []).toReversed().map(text => text.replace(/(?<=^\S+ ).*/, translated));
    set(at('line'), [urgent, ...troubles, strangers].filter(Boolean).join('   ·   '));
    at('line').classList.toggle('urgent', Boolean(urgent));
}

// ---- Sound, off until somebody wants it

// Of each sound the tones, in Hz. None is below what the loudspeaker of a screen plays.
const kTones = {asking: [660, 880], failed: [780, 585, 440], again: [525, 525]};
const kTone = 0.25;         // seconds from one tone to the next
const ends = {};            // when the last sound of each kind ends
let speaker = null;

const loud = () => localStorage.getItem('sound') === 'on';

function sound(stage) {
    if (!loud() || !kTones[stage]) return;
    speaker ??= new AudioContext();
    // Until the first key or tap a browser plays nothing, and would play all of it at once after that.
    if (speaker.state !== 'running' && !navigator.userActivation?.hasBeenActive) return;
    speaker.resume();
    if (ends[stage] > speaker.currentTime) return;
    const start = Math.max(speaker.currentTime, ...Object.values(ends));  // two at once would be too loud to play
    ends[stage] = start + kTones[stage].length * kTone;
    kTones[stage].forEach((frequency, i) => {
        const tone = new OscillatorNode(speaker, {frequency});
        tone.connect(new GainNode(speaker, {gain: 0.5})).connect(speaker.destination);
        tone.start(start + i * kTone);
        tone.stop(start + (i + 0.8) * kTone);
    });
}

function toggleSound() {
    localStorage.setItem('sound', loud() ? 'off' : 'on');
    showKeys();
    sound('asking');
}

// ---- The station

function hear(event) {
    heard = now();
    const news = JSON.parse(event.data);
    if (news.version) {
        version ??= news.version;
        served = news.version;
        forget(news.places || []);
    }
    if (news.line) line = news.line;
    for (const place of news.places || []) learn(place, Boolean(news.version));
    if (news.shift) shift = {...news.shift, came: now()};
    showLine();
    refresh();
    // Another station serves another page. What somebody types now comes first.
    if (version !== served && !at('box').value && !drops && !judged) location.reload();
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

function showKeys() {
    const sounds = loud() ? 'soundOffKey' : 'soundOnKey';
    for (const [id, name] of [['hold', 'holdKey'], ['engineer', 'engineerKey'], ['steps', 'stepsKey'],
                              ['seen', 'seenKey'], ['sound', sounds], ['done', 'closeKey'], ['title', 'title']]) {
        set(at(id), say(name));
    }
}

function showWords() {
    document.documentElement.lang = words.language;
    document.documentElement.dir = words.direction;
    document.title = say('title');
    set(at('lost').querySelector('strong'), say('lost'));
    set(at('lost').querySelector('p'), say('lostHint'));
    at('look').querySelector('tr').replaceChildren();
    for (const name of ['step', 'result', 'time', 'values']) {
        make(at('look').querySelector('tr'), 'th').textContent = say(name);
    }
    showKeys();
}

function refresh() {
    for (const tile of tiles.values()) show(tile);
    showList();
    showBox();
    if (shift.since) showShift();
    if (looked && now() - lookedAt > 1) look(looked.number);
}

// The station is heard of every two seconds. What the browser does not notice, as a cable that was pulled, is noticed
// here; and what it gives up is begun anew.
function watch() {
    if (document.hidden || !stream) return;
    const silent = now() - heard;
    at('lost').hidden = stream.readyState === EventSource.OPEN && silent < 5;
    if (silent > 8 || (stream.readyState === EventSource.CLOSED && silent > 1)) connect();
    refresh();
}

window.addEventListener('DOMContentLoaded', async () => {
    while (!words.language) {
        try { await learnWords(); }
        catch { await new Promise(resolve => setTimeout(resolve, 1000)); }
    }
    showWords();
    new ResizeObserver(layOut).observe(document.querySelector('main'));
    setInterval(watch, 250);
    connect();
});
