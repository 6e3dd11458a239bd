'use strict';
// Draws the charts of an engineer's page from its data. The tables beside them say the same without scripts.
(() => {
const data = JSON.parse(document.getElementById('document').textContent);
const rows = name => data.tables[name]?.rows ?? [];
const colour = name => getComputedStyle(document.body).getPropertyValue(name).trim();
const HOUR = 3600e3, DAY = 24 * HOUR;

// ---- times: those of the station's clock, wherever the browser is

const zones = data.zone.map(zone => [Date.parse(zone.from), zone.minutes * 60e3]);
const ahead = time => (zones.findLast(zone => zone[0] <= time) ?? zones[0])[1];
const local = time => new Date(time + ahead(time)).toISOString().replace('T', ' ');
const clock = time => local(time).slice(0, 16);

// Ticks at full hours or days of that clock, ten at most.
function timeTicks(axis) {
    const steps = [1 / 60, 1 / 12, 1 / 4, 1, 3, 6, 12, 24, 48, 168, 336, 672, 2184, 8760].map(hours => hours * HOUR);
    const step = steps.find(one => (axis.max - axis.min) / one <= 10) ?? 10 * 365 * DAY;
    axis.ticks = [];
    for (let time = Math.ceil((axis.min + ahead(axis.min)) / step) * step; ; time += step) {
        const value = time - ahead(time - ahead(time));
        if (value > axis.max) break;
        axis.ticks.push({value});
    }
}
function timeText(time) {
    const text = local(time);
    return text.slice(11, 16) === '00:00' ? text.slice(5, 10) : text.slice(11, 16);
}
const timeAxis = (min, max) => ({type: 'linear', min, max, offset: false, afterBuildTicks: timeTicks,
    ticks: {callback: timeText, maxRotation: 0}, grid: {color: colour('--rule'), offset: false}});

// ---- what all charts share

const charts = [];
function draw(name, title, make) {
    const place = document.querySelector(`[data-chart=${name}]`);
    const config = place && make();
    if (!config) return place?.remove();
    const canvas = place.appendChild(document.createElement('canvas'));
    canvas.setAttribute('role', 'img');
    canvas.setAttribute('aria-label', title);
    place.classList.add('drawn');
    charts.push({canvas, make, chart: new Chart(canvas, config)});
}
// Paper is white, whatever the screen is.
function drawAgain() {
    for (const one of charts) {
        one.chart.destroy();
        one.chart = new Chart(one.canvas, one.make());
    }
}
// Goes where the row of a table leads.
const follow = (table, index) => document.querySelectorAll(`#${table} tbody tr`)[index]?.querySelector('a')?.click();
// `to` says where a click on a mark leads.
const options = (lines, scales, to, more) => ({
    animation: false, maintainAspectRatio: false, scales, ...more,
    interaction: {mode: 'nearest', intersect: false, axis: 'xy'},
    onClick: (event, marks) => { if (marks.length && to) to(marks[0].element.$context.raw, marks[0].index); },
    plugins: {legend: {display: false}, tooltip: {displayColors: false, callbacks: {title: () => '', label: lines}},
              ...more?.plugins},
});

const limitLine = (points, name) => ({type: 'line', label: name, data: points, borderColor: colour('--text'), borderWidth: 1.5,
    borderDash: [7, 5], pointRadius: 0, pointHitRadius: 4, stepped: 'before'});

// ---- failures by step

function failures() {
    const steps = rows('failures').slice(0, 20);
    if (!steps.length) return null;
    document.querySelector('[data-chart=failures]').style.height = `${3 + 2 * steps.length}rem`;
    const most = innerWidth < 600 ? 16 : 44, cut = text => text.length > most ? text.slice(0, most - 1) + '…' : text;
    const lines = mark => {
        const row = steps[mark.dataIndex];
        return [row.step, `${row.failures} failures, ${row.percent.toFixed(1)} %`,
                `with those above ${row.cumulative_percent.toFixed(1)} %`];
    };
    return {
        data: {labels: steps.map(row => cut(row.step)), datasets: [
            {type: 'line', data: steps.map(row => row.cumulative_percent), borderColor: colour('--text'), borderWidth: 1.5,
             pointRadius: 3, pointBackgroundColor: colour('--back'), pointBorderColor: colour('--text')},
            {type: 'bar', data: steps.map(row => row.percent), backgroundColor: colour('--bar'), maxBarThickness: 22}]},
        options: options(lines, {x: {min: 0, max: 100, ticks: {callback: value => value + ' %'}, grid: {color: colour('--rule')}},
            y: {grid: {display: false}, ticks: {autoSkip: false}}},
            (_, index) => follow('failures', index), {indexAxis: 'y'}),
    };
}

// ---- yield and units over time

// Returns the lower end of the axis, below all yields but those of a few runs.
function lowest(all) {
    const busy = Math.max(...all.map(row => row.runs)) / 4;
    const low = Math.min(...all.filter(row => row.runs >= busy).map(row => row.first_pass_yield ?? 100));
    return [99, 98, 95, 90, 80, 60].find(bound => bound < low) ?? 0;
}
function times() {
    const all = rows('times').map((row, index) => ({row, index, from: Date.parse(row.since), to: row.until ? Date.parse(row.until) : Date.now()}));
    all.sort((a, b) => a.from - b.from);  // the reader may have sorted the table
    if (!all.length) return null;
    const step = Math.max(...all.map(one => one.to - one.from)), low = lowest(all.map(one => one.row));
    const first = all[0].to - Math.max(step, all[0].to - all[0].from), last = Math.max(all.at(-1).from + step, first + 6 * step);
    // The first and the last one may be cut by the period; between two that are no neighbours the line ends.
    const points = all.flatMap((one, index) => [
        ...index && all[index - 1].to < one.from ? [{x: (all[index - 1].to + one.from) / 2}] : [],
        {...one, x: index ? one.from + step / 2 : one.to - step / 2}]);
    const at = value => points.map(point => ({...point, y: point.row ? value(point.row) : null}));
    const below = row => row && row.first_pass_yield < low;
    const lines = mark => {
        const {row, from, to, target} = mark.raw;
        if (target) return `target ${target}`;
        return [`${clock(from)} to ${clock(to)}`,
                row.first_pass_yield === null ? 'no first run' : `first pass ${row.first_pass_yield.toFixed(1)} %`,
                `${row.runs} runs of ${row.units} units, ${row.retests} of them retests`];
    };
    const target = step <= 12 * HOUR ? Math.round(data.target * step / HOUR) : 0;
    return {
        data: {datasets: [
            {type: 'line', yAxisID: 'y', borderColor: colour('--text'), borderWidth: 1.5, clip: 8, pointRotation: 180,
             data: at(row => row.first_pass_yield === null ? null : Math.max(row.first_pass_yield, low)),
             pointStyle: mark => below(mark.raw?.row) ? 'triangle' : 'circle', pointRadius: points.length > 200 ? 1.5 : 3,
             pointBackgroundColor: colour('--back'), pointBorderColor: colour('--text')},
            {type: 'bar', yAxisID: 'units', data: at(row => row.units), backgroundColor: colour('--bar'), barPercentage: 1,
             categoryPercentage: .85},
            ...target ? [{...limitLine([first, last].map(x => ({x, y: target, target})), 'target'), yAxisID: 'units'}] : []]},
        options: options(lines, {
            x: timeAxis(first, last),
            units: {position: 'left', min: 0, suggestedMax: target * 1.25, stack: 'one', stackWeight: 2,
                    title: {display: true, text: target ? `units (target ${target})` : 'units'},
                    ticks: {precision: 0, maxTicksLimit: 4,
                            callback: (count, index, all) => index && index === all.length - 1 ? '' : count},
                    grid: {color: colour('--rule')}},
            y: {position: 'left', min: low, max: 100, weight: 1, stack: 'one', stackWeight: 4,
                title: {display: true, text: 'first pass yield, %'}, grid: {color: colour('--rule')}}},
            raw => raw.row && follow('times', raw.index)),
    };
}

// ---- a value over time, beside its histogram

const byTime = name => [...rows(name)].sort((a, b) => Date.parse(a.started) - Date.parse(b.started));
const readings = byTime('readings'), groups = byTime('groups');
const marks = readings.length ? readings : groups;
const numbers = marks.flatMap(row => [row.value ?? row.lowest, row.value ?? row.highest]).filter(value => value !== null);
const limits = marks.flatMap(row => [row.minimum, row.maximum]).filter(value => value !== null && value !== undefined);
const unit = marks.find(row => row.unit)?.unit ?? '';
const span = [Math.min(...numbers, ...limits), Math.max(...numbers, ...limits)];
const room = span[1] > span[0] ? (span[1] - span[0]) * .06 : Math.max(Math.abs(span[1]) * .1, .5);
const valueAxis = () => ({type: 'linear', min: span[0] - room, max: span[1] + room, grid: {color: colour('--rule')},
    title: {display: unit !== '', text: unit}, ticks: {includeBounds: false, callback: ticks}});
// As many digits as tell two ticks apart.
function ticks(value, index, all) {
    const step = Math.abs(all[1]?.value - all[0].value) || 1, top = Math.max(...all.map(one => Math.abs(one.value)));
    if (top < 1e-4 || top >= 1e7) {
        const power = Math.floor(Math.log10(top)), digits = Math.max(0, Math.ceil(power - Math.log10(step) - 1e-9));
        return value === 0 ? '0' : (value / 10 ** power).toFixed(digits) + 'e' + power;
    }
    return value.toFixed(Math.max(0, Math.ceil(-Math.log10(step) - 1e-9)));
}

const placesOf = rows => [...new Set(rows.map(row => row.place))].sort((a, b) => a.localeCompare(b, 'en', {numeric: true}));
const SHAPES = ['circle', 'rect', 'triangle', 'rectRot', 'star', 'cross'];
function overTime() {
    if (!marks.length) return null;
    const times = marks.map(row => Date.parse(row.started));
    const first = times[0], last = Math.max(Date.parse(marks.at(-1).until ?? marks.at(-1).started), first + 60e3);
    const bound = name => {
        const points = marks.map((row, index) => ({x: times[index], y: row[name], limit: name}));
        return limitLine([{...points[0], x: first}, ...points, {...points.at(-1), x: last}], name);
    };
    const places = placesOf(readings);
    const failed = row => row.verdict === 'failed' || row.failed > 0;
    const point = row => ({x: Date.parse(row.started), y: row.value ?? row.mean, row});
    const sets = readings.length ? places.map((place, index) => ({label: place, type: 'scatter',
        data: readings.filter(row => row.place === place && row.value !== null).map(point),
        pointStyle: context => failed(context.raw?.row ?? {}) ? 'crossRot' : SHAPES[index % SHAPES.length],
        pointRadius: context => failed(context.raw?.row ?? {}) || context.raw?.row.run === data.query.run ? 7 : 2.5,
        borderWidth: context => failed(context.raw?.row ?? {}) ? 2.5 : 1,
        borderColor: context => failed(context.raw?.row ?? {}) ? colour('--bad') : hue(index),
        backgroundColor: hue(index)})) : [
        {label: 'lowest to highest', type: 'bar', data: groups.map(row => ({x: Date.parse(row.started), y: [row.lowest, row.highest], row})),
         backgroundColor: colour('--bar'), barThickness: 2},
        {label: 'mean', type: 'line', data: groups.map(point), borderColor: colour('--text'), borderWidth: 1.5, pointRadius: 0},
        {label: 'failed', type: 'scatter', pointStyle: 'crossRot', pointRadius: 6, borderWidth: 2.5, borderColor: colour('--bad'),
         data: groups.filter(failed).map(row => ({x: Date.parse(row.started), row,
             y: row.maximum !== null && row.highest > row.maximum ? row.highest : row.lowest}))}];
    const lines = mark => {
        const {row, limit} = mark.raw;
        if (limit) return `${limit} ${mark.parsed.y} ${unit}`;
        if (row.run) return [`${+row.value.toPrecision(9)} ${unit} ${row.verdict}`, row.serial ?? '', row.place, clock(Date.parse(row.started))];
        return [`${+row.lowest.toPrecision(9)} to ${+row.highest.toPrecision(9)} ${unit}`, `mean ${row.mean.toPrecision(7)}`,
                `${row.measured} measured, ${row.failed} failed`, clock(Date.parse(row.started))];
    };
    return {data: {datasets: [...sets, bound('minimum'), bound('maximum')].filter(set => set.data.some(one => one.y !== null))},
            options: options(lines, {x: timeAxis(first, last), y: valueAxis()},
                raw => raw.row?.run && follow('readings', rows('readings').indexOf(raw.row)),
                {plugins: {legend: {display: places.length > 1 && places.length <= 6, position: 'bottom',
                    labels: {usePointStyle: true, boxHeight: 6, filter: item => !/imum$/.test(item.text)}}}})};
}

function histogram() {
    const bars = rows('histogram'), levels = [...new Set(bars.map(row => row.lowest))];
    if (levels.length < 2) return null;
    const most = Math.max(...levels.map(level => bars.filter(row => row.lowest === level).reduce((sum, row) => sum + row.measured, 0)));
    const beside = Chart.getChart(document.querySelector('[data-chart=readings] canvas'));  // on the same level
    const bound = name => {
        const limit = rows('values').map(row => row[name]).find(value => value !== null) ?? null;
        return limitLine([0, most].map(x => ({x, y: limit, limit: name})), name);
    };
    const lines = mark => {
        const {row, limit} = mark.raw;
        if (limit) return `${limit} ${mark.parsed.y} ${unit}`;
        return [`${+row.lowest.toPrecision(6)} to ${+row.highest.toPrecision(6)} ${unit}`, row.place ?? 'all places',
                `${row.measured} measured, ${row.failed} failed`];
    };
    const parts = placesOf(bars).map((place, index) => {
        const own = bars.filter(row => row.place === place);
        return {type: 'bar', label: place, stack: 'all', barPercentage: 1, categoryPercentage: .9, backgroundColor: place === null ? colour('--bar') : hue(index),
                data: own.map(row => ({x: row.measured, y: (row.lowest + row.highest) / 2, row})),
                borderColor: own.map(row => colour(row.failed ? '--bad' : '--back')), borderWidth: own.map(row => row.failed ? 2 : 0)};
    });
    return {data: {datasets: [...parts, bound('minimum'), bound('maximum')].filter(set => set.data.some(one => one.y !== null))},
            options: options(lines, {x: {type: 'linear', min: 0, max: most, stacked: true, ticks: {precision: 0, maxTicksLimit: 4}, grid: {color: colour('--rule')}},
                y: {...valueAxis(), title: {display: false}, grid: {color: colour('--rule'), offset: false}, offset: false}},
                null, {indexAxis: 'y', layout: {padding: {bottom: beside?.legend.options.display ? beside.legend.height : 0}}})};
}
const hue = index => colour(`--place-${index % 6}`);

Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
Chart.defaults.font.size = 12;
function start() {
    Chart.defaults.color = colour('--text');
    if (charts.length) return drawAgain();
    draw('failures', 'Failures by step, the most frequent first', failures);
    draw('times', 'First pass yield and number of units over time', times);
    draw('readings', 'The measured values over time, with their limits', overTime);
    draw('histogram', 'How often values were measured, with their limits', histogram);
}
start();
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', start);
addEventListener('beforeprint', start);
addEventListener('afterprint', start);
})();
