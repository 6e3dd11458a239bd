'use strict';
// The tiles: what stands at each place, in a size that fits them all.

const kVerdicts = {passed: 'pass', failed: 'fail', again: 'again'};
const kMostSpelled = 16;    // places whose tiles have room for hints; with more of them a list has the hints
const kWidestBorder = 8;    // px, of a failed tile
const kMostMarks = 24;      // a plan with more steps has several in a mark
const kWrapped = 1.25;      // a text of many lines, which end with words, compared with it in one line
const kSilent = 120;        // seconds in which any board has booted and connected
// Lengths in px: u text, v the verdict, width of a text's line; and lines of texts.
let layout = {mode: 'full', u: 16, v: 32, width: 100, hints: 1, texts: 1};

// Takes in the station's news of a place.
function learn(place, first) {
    const tile = tileOf(place.number);
    const before = tile.place?.stage;
    for (const [from, ...texts] of [[place, 'name', 'blocked', 'todo'], [place.ask, 'problem'],
                                    [place.failure, 'text', 'hint']]) {
        for (const text of texts) { if (from?.[text]) from[text] = translated(from[text]); }
    }
    tile.place = place;
    tile.came = now();
    if (first || before === place.stage) return;
    sound(place.stage);
    if (!kVerdicts[place.stage] && place.stage !== 'asking') return;
    const text = kVerdicts[place.stage] ? say(kVerdicts[place.stage]) : place.ask.prompt;
    const texts = [place.name, place.unit, text, place.todo || place.failure?.hint];
    make(at('live'), 'p').textContent = texts.filter(Boolean).join(', ');
    while (at('live').children.length > 10) at('live').firstChild.remove();
}

function tileOf(number) {
    if (!tiles.has(number)) {
        const tile = {box: document.createElement('section'), key: ''};
        for (const [part, tag] of [['head', 'div'], ['unit', 'p'], ['main', 'p'], ['hint', 'p'], ['text', 'p'],
                                   ['picture', 'img'], ['marks', 'div']]) {
            tile[part] = make(tile.box, tag, part);
            tile[part].dir = 'auto';
        }
        tile.picture.alt = '';  // the prompt or the hint says it in words
        tile.picture.hidden = true;
        tile.name = make(tile.head, 'h2', 'name');
        tile.time = make(tile.head, 'p', 'time');
        tiles.set(number, tile);
        const later = [...tiles.keys()].filter(n => n > number).sort((a, b) => a - b)[0];
        at('places').insertBefore(tile.box, later ? tiles.get(later).box : null);
        layOut();
    }
    return tiles.get(number);
}

// Removes the places that the line no longer has.
function forget(places) {
    for (const [number, tile] of tiles) {
        if (places.some(place => place.number === number)) continue;
        tile.box.remove();
        tiles.delete(number);
    }
    layOut();
}

// ---- What a tile says

const stepOf = (number, place, title) => `${number}/${place.steps} ${title}`;

function waitingView(place, waited) {
    if (place.held) return {state: 'held', verdict: say('hold'), text: say('held')};
    const why = place.blocked || translated(line.waits || '');
    const blocked = {state: 'blocked', short: '!'};
    if (why) return {...blocked, words: say('noBoards', {why}), hint: say(place.blocked ? 'placeHint' : 'lineHint')};
    if (place.powered === undefined) return {words: say('waiting')};
    const on = place.powered + waited;
    if (on < kSilent) return {words: say('starting')};
    return {...blocked, words: say('silent', {time: duration(on)}), hint: say('silentHint')};
}

function runningView(place, waited) {
    const inStep = place.age + waited;
    const late = inStep - place.usual;
    const left = place.behind === undefined ? 0 : Math.max(place.estimate - inStep, 0) + place.behind;
    const overdue = place.usual > 0 && late > Math.max(3, place.usual / 4);
    return {words: place.step ? stepOf(place.step, place, place.title) : say('sofar', {time: duration(inStep)}),
            short: `${place.step || 0}/${place.steps}`,
            time: left > 0 && !overdue ? say('left', {time: duration(left)})
                : say('sofar', {time: duration(place.elapsed + waited)}),
            text: overdue ? say('overdue', {time: duration(late)}) : ''};
}

function endedView(place, waited) {
    const failure = place.failure || {};
    const age = say(place.seen ? 'seenFor' : 'for', {time: duration(place.age + waited)});
    return {verdict: say(kVerdicts[place.stage]), hint: place.todo || failure.hint,
            time: place.stage === 'passed' ? say('took', {time: duration(place.seconds)}) : age,
            text: failure.step ? `${stepOf(failure.step, place, failure.title)}: ${failure.text}` : failure.text};
}

const kViews = {
    waiting: waitingView,
    running: runningView,
    asking: (place, waited) => ({words: place.ask.prompt, short: '?', problem: place.ask.problem,
                                 time: say('for', {time: duration(place.age + waited)})}),
    passed: endedView, failed: endedView, again: endedView,
};

function show(tile) {
    const place = tile.place;
    const view = kViews[place.stage](place, now() - tile.came);
    if (place.held && place.stage !== 'waiting') view.text = [say('heldNext'), view.text].filter(Boolean).join(' · ');
    const brief = layout.mode === 'tiny' || (layout.mode === 'small' && place.stage === 'asking');
    const main = view.verdict || (brief && view.short) || view.words;
    const meant = tile.box.classList.contains('meant');
    const state = [place.stage, view.state, place.seen && 'seen', place.held && 'reserved', view.hint && 'hinted',
                   (view.hint || '').length > 45 && 'long', meant && 'meant', pictureOf(place) && 'pictured'];
    const name = ['tile', ...state].filter(Boolean).join(' ');
    if (tile.box.className !== name) tile.box.className = name;
    set(tile.time, view.time || '');
    set(tile.name, fit(place.name, layout.width - beside(view)));
    set(tile.unit, fit(place.unit || '', layout.width / (layout.mode === 'full' ? 1 : 0.8)));
    tile.unit.title = place.unit || '';
    tile.name.title = place.name;
    tile.main.classList.toggle('verdict', Boolean(view.verdict) || (brief && Boolean(view.short)));
    set(tile.main, main || '');
    set(tile.hint, view.hint || '');
    set(tile.text, view.problem || view.text || '');
    const used = Math.ceil(kWrapped * widthOf(view.hint || '', 1) / layout.width);
    tile.text.style.setProperty('--lines', layout.texts + Math.max(0, layout.hints - used));
    tile.text.classList.toggle('wrong', Boolean(view.problem));
    showPicture(tile.picture, pictureOf(place));
    showMarks(tile, place);
}

const pictureOf = place => place.ask?.picture || place.failure?.picture;

function showPicture(image, address) {
    image.hidden = !address;
    if (address && image.getAttribute('src') !== address) image.src = address;
}

// The width of what stands beside a name, in px.
function beside(view) {
    if (layout.mode === 'tiny') return layout.verdict;
    return layout.mode === 'full' && view.time ? widthOf(view.time, 0.8) + 0.3 * layout.u : 0;
}

// A row of marks: each one is one step, or several of a long plan.
function showMarks(tile, place) {
    const letters = [...(place.marks || '')];
    if (place.step && place.stage !== 'passed' && letters[place.step - 1] === '.') letters[place.step - 1] = 'r';
    const size = Math.ceil(letters.length / kMostMarks);
    const marks = [];
    for (let i = 0; i < letters.length; i += size) {
        const group = letters.slice(i, i + size);
        marks.push('fr'.split('').find(letter => group.includes(letter)) || (group.includes('.') ? 'w' : 'p'));
    }
    const key = marks.join('');
    if (tile.key !== key) {
        tile.key = key;
        tile.marks.replaceChildren();
        for (const mark of marks) make(tile.marks, 'i', mark);
    }
    const running = tile.marks.querySelector('.r');
    if (running) running.style.setProperty('--part', `${100 * partOf(place, now() - tile.came)}%`);
}

// How much of the step is done: as much as the time and the bytes say, whichever is less.
function partOf(place, waited) {
    const usual = place.estimate || place.usual;
    const time = usual > 0 ? (place.age + waited) / usual : place.sent === undefined ? 0 : 1;
    return Math.min(time, place.sent ?? 1, 0.99);
}

// ---- Sizes

const canvas = document.createElement('canvas').getContext('2d');

// The width of a text in px at `size` times the text's size.
function widthOf(text, size, weight = 'bold') {
    canvas.font = `${weight} ${size * layout.u}px ${getComputedStyle(document.body).fontFamily}`;
    return canvas.measureText(text).width;
}

// Shortens the middle of a text that is wider: its ends tell names and serials apart.
function fit(text, width) {
    if (widthOf(text, 1) <= width) return text;
    const characters = [...text];
    let kept = 2;
    for (let step = 1 << Math.floor(Math.log2(characters.length)); step > 0; step >>= 1) {
        if (widthOf(shortened(characters, kept + step), 1) <= width) kept += step;
    }
    return shortened(characters, kept);
}

function shortened(characters, kept) {
    return characters.slice(0, Math.ceil(kept / 2)).join('') + '…' + characters.slice(-Math.floor(kept / 2)).join('');
}

// Lines of text above each other in a tile and ems beside each other, that each mode has room for.
const kModes = {full: {high: 10.7, wide: 12}, small: {high: 5.4, wide: 7.5}, tiny: {high: 1.5, wide: 11}};

// As many columns as make the text largest, and leave few holes.
function columnsFor(mode, width, height, gap) {
    let best = {u: 0, score: 0};
    for (let columns = 1; columns <= tiles.size; ++columns) {
        const rows = Math.ceil(tiles.size / columns);
        const w = (width - gap * (columns - 1)) / columns, h = (height - gap * (rows - 1)) / rows;
        const u = Math.min(h / kModes[mode].high, w / kModes[mode].wide);
        const score = u * Math.sqrt(tiles.size / (columns * rows));
        if (score > best.score) best = {u, score, columns, w, h, mode};
    }
    return best;
}

function longestVerdict(size) {
    const texts = Object.values(kVerdicts).map(name => `✗ ${say(name)}`);
    return Math.max(...[say('hold'), ...texts].map(text => widthOf(text, size, 900)));
}

// All verdicts have one size: the largest at which the longest of these words fits into what the other lines leave.
// Returns it, and how many lines hints and texts have.
function verdictSize({mode, u, w, h}, pad) {
    const longest = longestVerdict(100 / layout.u) / 100;  // the widths of small letters are rounded
    const hints = Math.min(3, Math.max(1, Math.ceil(32 * u / w)));
    const others = {full: 1.2 + 1.2 + 1.2 * hints + 0.92 + 0.6, small: 1.2 + 0.95 + 0.55, tiny: 0}[mode];
    if (mode === 'tiny') return {hints, texts: 1, v: 0.85 * u};
    const rest = h - 2 * pad - u * others;
    const v = Math.min(rest / 1.1, (w - 2 * pad) / longest / 1.02);
    const spare = Math.max(0, Math.floor((rest - 1.1 * v) / u / 1.2));
    return {hints: hints + Math.min(2, spare), texts: 1 + Math.max(0, spare - 2), v};
}

function layOut() {
    if (tiles.size === 0 || !words.language) return;
    const main = document.querySelector('main'), area = main.getBoundingClientRect();
    const tall = area.height > area.width, gap = Math.max(4, area.width / 200);
    const split = (mode, part) =>
        columnsFor(mode, area.width * (tall ? 1 : part), area.height * (tall ? part : 1), gap);
    let best = split('full', 1);
    if (tiles.size > kMostSpelled || best.u < 11) best = split('small', 0.73);
    if (best.u < 11) best = split('tiny', 0.73);
    const pad = best.u * (best.mode === 'full' ? 0.25 : 0.1) + 4;
    layout = {...best, width: best.w - 2 * pad - (best.mode === 'tiny' ? 6 : 12)};
    const {hints, texts, v} = verdictSize(best, pad + kWidestBorder);
    Object.assign(layout, {hints, texts});
    layout.verdict = longestVerdict(v / layout.u) + 4;
    at('list').hidden = best.mode === 'full';
    main.className = `${best.mode} ${tall ? 'tall' : 'wide'}`;
    for (const [name, value] of [['--columns', best.columns], ['--u', `${best.u}px`], ['--v', `${v}px`],
                                 ['--pad', `${pad}px`], ['--gap', `${gap}px`], ['--hints', hints]]) {
        main.style.setProperty(name, value);
    }
    for (const tile of tiles.values()) { if (tile.place) show(tile); }
}

// ---- With many places: those that failed, with what to do

function showList() {
    if (at('list').hidden) return;
    const failed = [...tiles.values()].filter(({place}) => place.stage === 'failed' || place.stage === 'again')
        .sort((a, b) => Boolean(a.place.seen) - Boolean(b.place.seen) || b.place.age - a.place.age);
    set(at('count'), failed.length ? say('count', {n: failed.length}) : say('noneFailed'));
    const list = at('list').querySelector('ul');
    while (list.children.length > failed.length) list.lastChild.remove();
    failed.forEach(({place, came, name}, i) => {
        const item = list.children[i] || make(list, 'li');
        const view = endedView(place, now() - came);
        item.className = place.stage;
        const texts = [[name.textContent, 'strong'], [view.verdict, 'b'], [view.time, 'span'],
                       [view.hint || view.text || '', 'p']];
        texts.forEach(([text, tag], j) => {
            const part = item.children[j] || make(item, tag);
            part.dir = 'auto';
            set(part, text);
        });
    });
    // If there are too many, each has one line; of still more only the names are there.
    for (const form of ['', 'lines', 'names']) {
        list.className = form;
        if (list.scrollHeight <= list.clientHeight) return;
    }
}
