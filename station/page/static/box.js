'use strict';
// The box: what an operator scans or types, and which question it answers. Text belongs to the question that was shown
// at its first character, and goes to no other one.

const kSettle = 0.7;        // seconds in which nobody has read yet that another place asks now
const kNoticeTime = 8;      // seconds
const kScanned = 0.05;      // seconds per character
let mode = 'scan';          // what the box takes: an answer, a place for one of kActs, or the token
let shown = null;           // the question that stands beside the box: {place, name, question}
let settled = 0;            // when somebody can have read it
let begun = null;           // the question that the text in the box was begun for: as `shown`, or {question: 0}
let drops = false;          // what comes up to the next Enter is the rest of a text that was dropped
let judged = 0;             // the question whose answer the station judges
let answered = 0;           // the place that was answered last
let unsent = null;          // what waits for the token
let said = {text: '', until: 0};
let capsLock = false;
let typed = 0;              // when the first character of the text in the box came

// The places that ask, those first that have waited for longest.
function asking() {
    return [...tiles.values()].map(tile => tile.place).filter(place => place.ask)
        .sort((a, b) => a.ask.since - b.ask.since || a.number - b.number);
}

const shownPlace = () => asking().find(place => shown && place.ask.question === shown.question);

// Says something about a question, for as long as that one is shown; about none: for some seconds.
function notice(text, question = 0) { said = {text, question, until: question ? Infinity : now() + kNoticeTime}; }

function choose(place, at) {
    shown = place ? {place: place.number, name: place.name, question: place.ask.question} : null;
    settled = at;
}

// Empties the box. The rest of a scan that still comes belongs to nobody.
function drop(text) {
    at('box').value = '';
    begun = null;
    drops = true;
    notice(text);
}

// Shows another question when the one that was shown is gone: the same place's next one after a wrong answer, or that
// of the place that has waited longest.
function followQuestions() {
    const places = asking();
    if (!places.some(place => place.ask.question === judged)) judged = 0;
    const again = !at('box').value && places.find(
        place => place.number === answered && place.ask.problem && place.ask.question !== judged);
    if (shownPlace() && !again) return;
    const next = again || places[0];
    if (!next && !shown) return;
    const gone = shown;
    const moves = gone && next && next.number !== gone.place;
    if (next?.ask.question !== gone?.question) choose(next, moves ? now() + kSettle : 0);
    if (again) answered = 0;
    if (begun && at('box').value) {
        drop(begun.name ? say('stale', {place: begun.name}) : say('late', {place: shown.name}));
    }
}

function next() {
    const places = asking();
    if (places.length < 2) return;
    enter('scan');
    choose(places[(places.indexOf(shownPlace()) + 1) % places.length], 0);
    showBox();
}

function showBox() {
    followQuestions();
    const place = shownPlace();
    const others = asking().length - 1;
    const scans = mode === 'scan';
    document.body.dataset.mode = mode;
    document.body.classList.toggle('asks', scans && Boolean(place));
    document.body.classList.toggle('settles', now() < settled);
    at('box').type = mode === 'token' ? 'password' : 'text';
    set(at('whose'), scans ? place?.name || say('none') : say(`${mode}Mode`));
    at('whose').classList.toggle('heard', scans && !place);
    const prompt = !scans ? say(`${mode}Prompt`) : place ? place.ask.prompt : say('none');
    set(at('prompt'), prompt);
    set(at('next'), say('nextKey', {n: others}));
    if (now() > said.until || (said.question && said.question !== shown?.question)) said = {text: '', until: 0};
    const problem = said.text || (scans && place?.ask.problem) || '';
    set(at('notice'), capsLock ? `${problem} ${say('capsLock')}`.trim() : problem);
    for (const tile of tiles.values()) tile.box.classList.toggle('meant', scans && tile.place === place);
    at('next').hidden = others < 1;
}

function enter(wanted) {
    mode = wanted;
    at('box').value = '';
    begun = null;
    drops = false;
    showBox();
    at('box').focus();
}

// The words for what the station refuses, by the status of its reply.
const kRefusals = {'400 /scan': 'tooLong', '409 /scan': 'gone', '409 /seen': 'nothingSeen', '409 /hold': 'noPlace',
                   413: 'tooLong', 429: 'tokenSoon'};

// Returns why the station did not take it, in words; empty: it did.
async function post(path, body) {
    const headers = {'Content-Type': 'application/json'};
    const token = sessionStorage.getItem('token');
    if (token) headers.Authorization = `Bearer ${token}`;
    try {
        const reply = await fetch(path, {method: 'POST', headers, body: JSON.stringify(body)});
        if (reply.ok) return '';
        if (reply.status === 401) {
            unsent = {path, body};
            sessionStorage.removeItem('token');
            enter('token');
        }
        const word = {401: token ? 'tokenWrong' : 'tokenNeeded', ...kRefusals};
        const place = tiles.get(body.place)?.place.name;
        return say(word[reply.status] || word[`${reply.status} ${path}`] || 'refused',
                   {place, text: body.text ?? body.place, why: (await reply.json()).error});
    } catch {
        return say('unsent');
    }
}

const send = async (path, body) => notice(await post(path, body));

// Each command that names a place, and what to do there. Without a name it means the only place that it fits.
const kActs = {
    hold: {fits: () => true, act: place => send('/hold', {place: place.number, hold: !place.held})},
    steps: {fits: () => true, act: place => look(place.number)},
    seen: {fits: place => kVerdicts[place.stage] && place.stage !== 'passed' && !place.seen,
           act: place => send('/seen', {place: place.number})},
};

function start(wanted) {
    const places = [...tiles.values()].map(tile => tile.place).filter(kActs[wanted].fits);
    if (wanted === 'seen' && looked) {
        kActs.seen.act(looked);
        return close();
    }
    if (mode === wanted || places.length !== 1) return enter(mode === wanted ? 'scan' : wanted);
    enter('scan');
    kActs[wanted].act(places[0]);
}

async function takeAnswer(text, mine) {
    if (!mine.question) return notice(say('nobody', {text}));
    if (judged) return notice(say('twice', {text}), judged);
    notice('');
    judged = mine.question;
    answered = mine.place;
    const problem = await post('/scan', {place: mine.place, question: mine.question, text});
    if (!problem) return;
    judged = 0;
    notice(problem);
}

async function takePlace(text) {
    const wanted = text.trim().toLowerCase(), {fits, act} = kActs[mode];
    const found = [...tiles.values()].map(tile => tile.place).filter(fits)
        .find(place => place.name.toLowerCase() === wanted || String(place.number) === wanted);
    if (!found) return notice(say('noPlace', {text}));
    enter('scan');
    await act(found);
}

async function takeToken(text) {
    sessionStorage.setItem('token', text);
    enter('scan');
    if (unsent) await send(unsent.path, unsent.body);
}

// ---- What a place did so far, for the engineer beside it

let looked = null;  // the place
let lookedAt = 0;

function valueText({name, value, unit, min, max}) {
    const limits = min === undefined && max === undefined ? '' : ` (${min ?? '…'} – ${max ?? '…'})`;
    return `${name} ${value}${unit ? ` ${unit}` : ''}${limits}`;
}

async function look(number) {
    lookedAt = now();
    looked = tiles.get(number).place;
    const reply = await fetch(`/api/steps?place=${number}`);
    if (!reply.ok) return;
    const {steps} = await reply.json();
    if (looked?.number !== number) return;  // meanwhile closed, or another place is looked at
    at('look').hidden = false;
    set(at('looked'), [looked.name, looked.unit].filter(Boolean).join('  '));
    const rows = at('look').querySelector('tbody');
    while (rows.children.length > steps.length) rows.lastChild.remove();
    steps.forEach((step, i) => {
        const row = rows.children[i] || make(rows, 'tr');
        const passed = step.verdict === 'passed';
        row.className = passed ? 'p' : 'f';
        const texts = [`${i + 1} ${step.title}`, passed ? '✓' : '✗', say('seconds', {n: step.seconds.toFixed(1)}),
                       step.measurements.map(valueText).join(', ') || translated(step.failure || '') || step.reply];
        texts.forEach((text, j) => set(row.children[j] || make(row, 'td'), text));
    });
}

function close() {
    looked = null;
    at('look').hidden = true;
}

// ---- Keys and taps

// Before the first character, the box says whose answer it is.
at('box').addEventListener('beforeinput', event => {
    followQuestions();
    if (mode !== 'scan') return;
    if (!drops && !at('box').value) {
        begun = shown || {question: 0};
        typed = now();
        answered = 0;
        if (now() < settled) drop(say('moved', {place: shown.name}));
    }
    if (drops && event.cancelable && event.inputType !== 'insertLineBreak') event.preventDefault();
    showBox();
});

at('scan').addEventListener('submit', event => {
    event.preventDefault();
    followQuestions();
    const text = at('box').value, mine = begun;
    at('box').value = '';
    begun = null;
    drops = false;
    if (!text.trim() || (mode === 'scan' && !mine)) return;
    const take = mode === 'scan' ? takeAnswer : mode === 'token' ? takeToken : takePlace;
    take(text, mine).then(showBox);
});

// Some scanners end with Tab. Nobody types as fast as a scanner.
const isScan = () => begun && at('box').value.length > 2 && now() - typed < kScanned * at('box').value.length;

function tab() {
    if (isScan()) return at('scan').requestSubmit();
    next();
}

const scroll = pages => at('look').querySelector('div').scrollBy(0, pages * at('look').clientHeight * 0.8);

document.addEventListener('keydown', event => {
    capsLock = event.getModifierState('CapsLock');
    if (event.isComposing) return;  // the keys belong to the input method
    const keys = {Tab: tab, F2: () => start('hold'), F4: () => at('engineer').click(), F6: () => start('steps'),
                  F8: () => start('seen'), F9: toggleSound, Escape: () => { close(); enter('scan'); },
                  PageDown: () => scroll(1), PageUp: () => scroll(-1)};
    if (keys[event.key] && !event.altKey && !event.ctrlKey) {
        event.preventDefault();
        keys[event.key]();
    } else {
        at('box').focus();
    }
});
at('next').addEventListener('click', () => { next(); at('box').focus(); });
for (const act of ['hold', 'steps', 'seen']) at(act).addEventListener('click', () => start(act));
at('sound').addEventListener('click', toggleSound);
at('done').addEventListener('click', () => { close(); at('box').focus(); });
at('line').addEventListener('click', () => send('/seen', {place: 0}));
at('box').addEventListener('blur', () => setTimeout(() => at('box').focus()));
at('places').addEventListener('click', event => {
    const tapped = [...tiles.values()].find(tile => tile.box.contains(event.target));
    if (!tapped) return;
    if (!tapped.place.ask) return look(tapped.place.number);
    enter('scan');
    choose(tapped.place, 0);
    showBox();
});
window.addEventListener('focus', () => at('box').focus());
