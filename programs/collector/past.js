// What the collector's history has: what changed, and the course of a number.

import {addressOf, ask, at, make, mark, part, show, sync, timeOf} from './elements.js';

const MOST = 1000;  // lines that are shown

export let isKept = false;  // there is a history

let root;          // what the page shows, null for nothing
let device;        // the same
let time;          // the same, null for now
let oldest = 0;    // moment that is kept
let lines = [];    // the latest first
let newest;        // the place of the latest
let older;         // where those that are older go on, nothing when these are all
let question = 0;  // the latest one: answers to others are too late

// Whether there is a history.
export async function begin() {
  const state = await ask('history', {});
  isKept = state.recording || Boolean(state.oldest);
  oldest = Date.parse(state.oldest) || 0;
  for (const name of ['history', 'whenLabel']) at(name).hidden = !isKept;
  const reason = state.recording ? '' : `Nothing is recorded: ${state.reason}`;
  show(at('recording'), isKept ? reason : '');
}

// The page shows another root, device or time.
export function choose(...shown) {
  const isSame = [root, device, time].every((one, i) => one === shown[i]);
  [root, device, time] = shown;
  const isPast = time !== null;
  document.body.classList.toggle('past', isPast);
  at('then').hidden = !isPast;
  at('now').href = addressOf(root, device);
  if (isPast) {
    const local = new Date(time);
    local.setMinutes(local.getMinutes() - local.getTimezoneOffset());
    at('when').value = local.toISOString().slice(0, 19);
  } else {
    at('when').value = '';
  }
  if (!isSame) load();
}

// The tree of the root as it was, in place of what there is of it now.
export async function treeThen() {
  try {
    const {tree, since, seen} = await ask(`roots/${encodeURIComponent(root)}`, {at: time});
    const isSeen = Date.parse(seen) >= Date.parse(time);
    const unseen = isSeen ? '' : `; what happened after ${timeOf(seen)} was not recorded`;
    return {condition: tree ? 'as it was' : 'not there', since, unseen, tree};
  } catch (refusal) {
    return {condition: refusal.message};
  }
}

const isOpen = () => !at('changes').hidden;
const isEverywhere = () => root === null || at('everywhere').checked;

function filter() {
  const what = isEverywhere() ? {} : device === null ? {root} : {root, device};
  // Those of the moment itself are part of it.
  return time === null ? what : {...what, until: new Date(Date.parse(time) + 1).toISOString()};
}

function where() {
  if (isEverywhere()) return 'in all roots';
  return device === null ? `in ${root}` : `in ${device} and below`;
}

// Later by its place, which is a row of the history and a number of lines in it.
function isLater(one, other) {
  const [row, line] = one.split('.').map(Number);
  const [otherRow, otherLine] = (other ?? '0.0').split('.').map(Number);
  return row > otherRow || (row === otherRow && line > otherLine);
}

function add(changes, isNew) {
  for (const {place} of changes) newest = isLater(place, newest) ? place : newest;
  lines = isNew ? [...changes.reverse(), ...lines].slice(0, MOST) : [...lines, ...changes];
}

function draw(isFirst) {
  show(at('where'), where());
  at('everywhereLabel').hidden = root === null;
  at('older').hidden = !older || lines.length >= MOST;
  at('nothing').hidden = lines.length > 0;
  sync(at('lines'), lines.map((line) => [line.place, line]), 'change', (place, line, isNew) => {
    const moment = part(place, 'time');
    show(moment, timeOf(line.time));
    if (line.root) moment.href = addressOf(line.root, line.device || null, line.time);
    show(part(place, 'root'), isEverywhere() ? line.root : '');
    show(part(place, 'text'), line.text);
    if (isNew && !isFirst) mark(place);
  });
}

// Begins the list anew.
async function load() {
  if (!isOpen()) return;
  const mine = ++question;
  const {changes, next} = await ask('changes', filter());
  if (mine !== question) return;
  lines = [];
  newest = undefined;
  older = next;
  add(changes, false);
  draw(true);
}

async function loadOlder() {
  const mine = ++question;
  const {changes, next} = await ask('changes', {...filter(), after: older});
  if (mine !== question) return;
  older = next;
  add(changes, false);
  draw(true);
}

// What has been recorded since.
async function grow() {
  if (!newest) return load();
  const mine = ++question;
  const since = {order: 'oldest', after: newest, limit: MOST};
  const {changes, next} = await ask('changes', {...filter(), ...since});
  if (mine !== question) return;
  if (next && changes.length) return load();  // too much to catch up with
  if (!changes.length) return;
  add(changes, true);
  draw(false);
}

// Shows the course of a number below the values of its device, or takes it away.
export function toggleCourse(values, of) {
  const old = [...values.querySelectorAll('figure')].find((one) => one.of.status === of.status);
  if (old) return old.remove();
  const figure = make('course');
  figure.of = of;
  show(part(figure, 'status'), of.status);
  part(figure, 'length').addEventListener('change', () => drawCourse(figure));
  part(figure, 'close').addEventListener('click', () => figure.remove());
  part(figure, 'picture').addEventListener('pointermove', (event) => read(figure, event));
  part(figure, 'picture').addEventListener('pointerleave', () => show(part(figure, 'reading'), ''));
  values.append(figure);
  drawCourse(figure).then(() => figure.scrollIntoView({block: 'nearest'}));
}

async function drawCourse(figure) {
  if (!oldest) await begin();
  const until = time === null ? Date.now() : Date.parse(time) + 1;
  const since = Math.max(oldest, until - Number(part(figure, 'length').value));
  let spans = [];
  try {
    let from = new Date(since).toISOString();
    for (let i = 0; i < 20 && from; ++i) {  // each answer looks at a limited part
      const asked = {...figure.of, points: 600, since: from, until: new Date(until).toISOString()};
      const {spans: more, next} = await ask('values', asked);
      spans = [...spans, ...more];
      from = next;
    }
  } catch (refusal) {
    show(part(figure, 'range'), refusal.message);
    return;
  }
  const least = Math.min(...spans.map((span) => span.smallest));
  const most = Math.max(...spans.map((span) => span.largest));
  const x = (begin) => Math.max(0, (Date.parse(begin) - since) / (until - since) * 1000);
  const y = (value) => most === least ? 50 : 95 - (value - least) / (most - least) * 90;
  // A value lasts until the next one.
  let line = '';
  let isKnown = false;
  for (const {time: begin, last, unknown} of spans) {
    line += isKnown ? `H${x(begin)}V${y(last)}` : `M${x(begin)} ${y(last)}`;
    isKnown = !unknown;
  }
  if (isKnown) line += 'H1000';
  const bars =
      spans.filter((span) => span.smallest < span.largest)
          .map(({time: begin, smallest, largest}) => `M${x(begin)} ${y(smallest)}V${y(largest)}`);
  part(figure, 'line').setAttribute('d', line);
  part(figure, 'bars').setAttribute('d', bars.join(''));
  show(part(figure, 'first'), timeOf(since));
  show(part(figure, 'range'), spans.length ? `${least} to ${most}` : 'no values');
  show(part(figure, 'last'), timeOf(until));
  figure.spans = spans.map((span) => ({...span, x: x(span.time)}));
}

// What the course was at the pointer.
function read(figure, {offsetX, currentTarget}) {
  const place = offsetX / currentTarget.clientWidth * 1000;
  const span = figure.spans?.findLast((one) => one.x <= place);
  if (!span) return;
  const {time: begin, smallest, largest, last} = span;
  const range = smallest < largest ? ` (${smallest} to ${largest})` : '';
  show(part(figure, 'reading'), `${timeOf(begin)}: ${last}${range}`);
}

at('history').addEventListener('click', () => {
  at('changes').hidden = isOpen();
  at('history').ariaExpanded = isOpen();
  load();
});
at('everywhere').addEventListener('change', load);
at('older').addEventListener('click', loadOlder);
at('when').addEventListener('change', () => {
  const chosen = at('when').value && new Date(at('when').value).toISOString();
  location.hash = addressOf(root, device, chosen || null);
});
// It is written to the file once a second.
setInterval(() => {
  if (isOpen() && time === null && !document.hidden) grow().catch(() => {});
}, 1000);
setInterval(() => {
  if (isKept && !document.hidden) begin().catch(() => {});
  if (time !== null || document.hidden) return;
  for (const figure of document.querySelectorAll('figure')) drawCourse(figure);
}, 5000);
