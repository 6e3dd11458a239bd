'use strict';
// The box: what an operator scans or types, and which question it answers. Text belongs to the question that was shown at
// its first character, and goes to no other one.

const kSettle = 0.7;        // seconds in which nobody has read yet that another place asks now
const kNoticeTime = 8;      // seconds
let mode = 'scan';          // what the box takes: an answer, a place to hold, or the token
let shown = null;           // the question that stands beside the box: {place, name, question}
let settled = 0;            // when somebody can have read it
let begun = null;           // the question that the text in the box was begun for: as `shown`, or {question: 0}
let drops = false;          // what comes up to the next Enter is the rest of a text that was dropped
let judged = 0;             // the question whose answer the station judges
let answered = 0;           // the place that was answered last
let unsent = null;          // what waits for the token
let said = {text: '', until: 0};

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
    notice(`${text} Not used. Press Enter or Esc, then answer again.`);
}

// Shows another question when the one that was shown is gone: the same place's next one after a wrong answer, or that of
// the place that has waited for longest.
function followQuestions() {
    const places = asking();
    if (!places.some(place => place.ask.question === judged)) judged = 0;
    const again = !at('box').value && places.find(
        place => place.number === answered && place.ask.problem && place.ask.question !== judged);
    if (shownPlace() && !again) return;
    const next = again || places[0];
    if (!next && !shown) return;
    const gone = shown;
    if (next?.ask.question !== gone?.question) choose(next, gone && next?.number !== gone.place ? now() + kSettle : 0);
    if (again) answered = 0;
    if (begun && at('box').value) {
        drop(begun.name ? `${begun.name} asks no more: it was answered elsewhere, or its board has gone.`
            : `${shown.name} asks only now.`);
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
    const texts = {
        scan: place ? [place.name, place.ask.prompt] : ['', 'no place asks for anything'],
        hold: ['Hold', 'the name of a place that is to take no board, or that is to take boards again; Esc: none'],
        token: ['Token', 'of the line\'s file: who changes something from another machine needs it; Esc: none'],
    }[mode];
    document.body.dataset.mode = mode;
    document.body.classList.toggle('asks', mode === 'scan' && Boolean(place));
    document.body.classList.toggle('settles', now() < settled);
    at('box').type = mode === 'token' ? 'password' : 'text';
    set(at('whose'), texts[0]);
    set(at('prompt'), texts[1] + (mode === 'scan' && others > 0 ? ` (${others} more ${others > 1 ? 'wait' : 'waits'})` : ''));
    if (now() > said.until || (said.question && said.question !== shown?.question)) said = {text: '', until: 0};
    set(at('notice'), said.text || (mode === 'scan' && place && place.ask.problem) || '');
    at('notice').classList.toggle('wrong', Boolean(at('notice').textContent));
    for (const tile of tiles.values()) tile.box.classList.toggle('meant', mode === 'scan' && tile.place === place);
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
        return (await reply.json()).error;
    } catch (error) {
        return `not sent: ${error.message}`;
    }
}

async function send(path, body, about = '') {
    const problem = await post(path, body);
    if (problem) notice(about + problem);
    return !problem;
}

const takes = {
    async scan(text, mine) {
        if (!mine.question) return notice(`${text}: no place asks, it is not used`);
        if (judged) return notice(`${mine.name}: ${text} came too soon after the answer before. Not used.`, judged);
        judged = mine.question;
        answered = mine.place;
        if (!await send('/scan', {place: mine.place, question: mine.question, text}, `${mine.name}: ${text}: `)) judged = 0;
    },
    async hold(text) {
        const wanted = text.trim().toLowerCase();
        const found = [...tiles.values()].map(tile => tile.place)
            .find(place => place.name.toLowerCase() === wanted || String(place.number) === wanted);
        if (!found) return notice(`there is no place ${text}`);
        enter('scan');
        await send('/hold', {place: found.number, hold: !found.held});
    },
    async token(text) {
        sessionStorage.setItem('token', text);
        enter('scan');
        if (unsent) await send(unsent.path, unsent.body);
    },
};

// Before the first character, the box says whose answer it is.
at('box').addEventListener('beforeinput', event => {
    followQuestions();
    if (mode !== 'scan') return;
    if (!drops && !at('box').value) {
        begun = shown || {question: 0};
        answered = 0;
        if (now() < settled) drop(`${shown.name} asks only since a moment.`);
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
    if (text.trim() && (mine || mode !== 'scan')) takes[mode](text, mine).then(showBox);
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
    const tapped = [...tiles.values()].find(tile => tile.box.contains(event.target));
    if (!tapped?.place.ask) return;
    enter('scan');
    choose(tapped.place, 0);
    showBox();
});
window.addEventListener('focus', () => at('box').focus());
