// Shows what the collector tells, as it happens. What is shown of the root that is chosen is in the
// address of the page.

import {addressOf, ask, at, part, show, showParts, sync, timeOf} from './elements.js';
import * as past from './past.js';

const ROW = 44;         // the height of a row, as page.css has it
const SILENCE = 12000;  // milliseconds after which the collector is not there; it says more often
                        // that it is

const known = new Map();  // what there is to say of each root
let roots = [];           // the same in the order of the list
let isConnected = true;   // the collector, with its broker
let lead = 0;             // of the collector's clock, in milliseconds
let active;               // the row that the keyboard reaches
let chosen;               // the root whose devices are shown, null for none
let when;                 // the time that the address leads to, null for now
let aim;                  // the device in it that the address leads to, null for none
let isAimed = true;       // that one is in sight, or there is none
let devices = [];         // of all roots, that are looked for
let isMore = false;       // there are more of these
let answer;  // what there is of the chosen root: null when nothing is, undefined when not known yet
const nodes = new Map();         // its devices by identifier
const elements = new WeakMap();  // of the devices
let news;                        // where they come from
let told = '';                   // identifies the latest of the list
let last = '';                   // when some came
let timer;                       // of the end of patience
let search;                      // the timer of the next search for devices

// A root is as unwell as the worst device in it. Without a broker no root is current, which the
// page says once.
const isCurrent = (root) => root.condition === 'current' || !isConnected;
const isWell = (root) => root.health === 'OK' && isCurrent(root);
const LEVELS = ['ERROR', 'WARNING', 'OK'];
const ORDER = ['ERROR', 'WARNING', '?', 'OK'];
const rank = (root) => isWell(root) ? ORDER.length : ORDER.indexOf(root.health);

// What its reporter says of a root that has a worse device somewhere is not all there is to say.
function messageOf({health, errors, warnings, global_status: own}) {
  if (!own) return '';
  const counts = [];
  if (errors) counts.push(`${errors} in error`);
  if (warnings) counts.push(`${warnings} with a warning`);
  const word = own.level === health ? own.message : `says ${own.level}`;
  return [...counts, word].filter(Boolean).join(', ');
}

// For how long the root has been as it is, to the collector's knowledge.
function ageOf({condition, condition_since: lost, health_since: health}) {
  const since = condition === 'current' ? health : lost;
  const seconds = Math.max(0, (Date.now() + lead - Date.parse(since)) / 1000);
  const units = [[60, 1, 's'], [3600, 60, 'min'], [172800, 3600, 'h'], [Infinity, 86400, 'd']];
  const [, length, unit] = units.find(([end]) => seconds < end);
  return {age: `for ${Math.floor(seconds / length)} ${unit}`, since};
}

function namesOf({id = '', name}) {
  return name && name !== id ? {name, id} : {name: id, id: ''};
}

function matches(item, field) {
  const sought = field.value.trim().toLowerCase();
  return Object.values(namesOf(item)).some((name) => name.toLowerCase().includes(sought));
}

// Within the time that is chosen.
const hrefOf = (root, device) => addressOf(root, device, when);

// Rows of the list: the roots, and below them the devices that are looked for.
function rowsOf(candidates) {
  const isUnwell = at('unwell').checked;
  const rowsOfRoots = candidates.filter((root) => matches(root, at('findRoot'))).map((root) => {
    const state = isCurrent(root) ? `${root.devices} devices` : root.condition;
    const message = messageOf(root);
    return {key: root.id, address: hrefOf(root.id), root, state, message, named: root};
  });
  const rowsOfDevices =
      devices.filter((device) => !isUnwell || device.health !== 'OK').map((device) => {
        const {root, id, message} = device;
        const address = hrefOf(root, id);
        return {key: address, address, state: `in ${root}`, message, named: device};
      });
  return [...rowsOfRoots, ...rowsOfDevices];
}

function drawList() {
  const isUnwell = at('unwell').checked;
  const shown = rowsOf(isUnwell ? roots.filter((root) => !isWell(root)) : roots);
  const ofRoots = shown.filter((row) => row.root);
  const count = ({length}, what) => length && `${length.toLocaleString('en')} ${what}`;
  const isAt = (level) => roots.filter((root) => root.health === level);
  const counts = {
    roots: count(roots, roots.length === 1 ? 'root' : 'roots') || 'no roots',
    ...Object.fromEntries(LEVELS.map((level) => [level, count(isAt(level), level)])),
    lost: count(roots.filter((root) => !isCurrent(root)), 'not current'),
    shown: ofRoots.length < roots.length && (count(ofRoots, 'shown') || 'none shown'),
    found: count(devices, isMore ? 'devices found, and more' : 'devices found')
  };
  sync(
      at('counts'), Object.entries(counts).filter(([, text]) => text), 'count',
      (place, text, isNew) => {
        show(place, text, isNew);
        const level = text.split(' ')[1];
        if (LEVELS.includes(level)) place.dataset.level = level;
      });
  at('rows').style.height = `${shown.length * ROW}px`;
  if (!shown.some((row) => row.key === active)) active = shown[0]?.key;
  // Only the rows in sight are elements, and the one that the keyboard is at.
  const first = at('list').scrollTop / ROW - 8;
  const end = first + at('list').clientHeight / ROW + 16;
  const pairs = [];
  shown.forEach((row, i) => {
    if ((i > first && i < end) || row.key === active) pairs.push([row.key, {...row, i}]);
  });
  const isChosen = hrefOf(chosen, aim ?? undefined);
  sync(at('rows'), pairs, 'row', (row, {key, address, root, named, state, message, i}, isNew) => {
    const {health} = named;
    const {age = '', since = ''} = root ? ageOf(root) : {};
    row.key = key;
    row.href = address;
    row.tabIndex = key === active ? 0 : -1;
    row.ariaSelected = root ? root.id === chosen : address === isChosen;
    row.ariaPosInSet = i + 1;
    row.ariaSetSize = shown.length;
    row.style.top = `${i * ROW}px`;
    part(row, 'state').classList.toggle('gone', Boolean(root) && !isCurrent(root));
    part(row, 'health').dataset.level = health;
    part(row, 'age').title = since && `since ${since}`;
    show(part(row, 'age'), age);
    showParts(row, {...namesOf(named), state, health, message}, isNew);
  });
}

// Asks for the devices whose identifier or name has the text that roots are looked for by.
async function findDevices() {
  const sought = at('findRoot').value.trim();
  let found = {devices: [], complete: true};
  try {
    if (sought) {
      found = await ask('devices', {find: sought});
    }
  } catch {
    // The line for trouble says that the collector does not answer.
  }
  if (at('findRoot').value.trim() !== sought) return;
  // A row leads to the root itself.
  const known = new Set(roots.filter((root) => matches(root, at('findRoot'))).map(({id}) => id));
  devices = found.devices.filter(({root, id}) => root !== id || !known.has(id));
  isMore = !found.complete;
  drawList();
}

// A [key, item] pair for the device if it is to be shown or one below it is, else nothing.
function sift(node) {
  const isHidden = at('unwell').checked && node.global_status?.level === 'OK';
  const isShown = (matches(node, at('find')) && !isHidden) || node.id === aim;
  const below = (node.sub_devices ?? []).flatMap(sift);
  return isShown || below.length ? [[node.id, {node, isShown, below}]] : [];
}

function noticeOf(pairs) {
  if (chosen === null) return 'Choose a root.';
  if (answer === null) return 'The collector knows no such root.';
  if (when !== null) return answer?.tree === undefined && answer ? 'There was no tree then.' : '';
  if (answer && !answer.tree) return 'Its tree has not arrived yet.';
  if (answer && !pairs.length) return 'No device is like that.';
  if (answer && !isAimed) return `There is no device ${aim}.`;
  return '';
}

function drawTree() {
  const tree = answer?.tree;
  const pairs = tree ? sift(tree) : [];
  document.body.classList.toggle('open', chosen !== null);
  document.body.classList.toggle(
      'lost', when === null && Boolean(answer) && answer.condition !== 'current');
  show(at('chosen'), tree?.name || chosen);
  drawHead();
  sync(at('tree'), pairs, 'device', showDevice);
  if (tree && !isAimed) leadThere();
  show(at('notice'), noticeOf(pairs));
}

function drawHead() {
  if (when !== null) {
    const {condition, since, unseen} = answer ?? {};
    show(at('thenTime'), timeOf(when));
    show(
        at('about'),
        answer && (since ? `${condition} since ${timeOf(since)}${unseen}` : condition));
    return;
  }
  const reason = answer?.reason && ` (${answer.reason})`;
  const reporter = answer?.reporter || 'not known';
  show(at('about'), answer && `${answer.condition}${reason} · reporter ${reporter}`);
}

// Leads to the device that the address names.
function leadThere() {
  const all = [...document.querySelectorAll('details')];
  const device = all.find((one) => one.key === aim);
  isAimed = Boolean(device);
  if (!device) return;
  for (let one = device; one; one = one.parentElement.closest('details')) one.open = true;
  const summary = device.querySelector('summary');
  summary.scrollIntoView({block: 'center'});
  summary.focus({preventScroll: true});
}

function showDevice(device, {node, isShown, below}, isNew) {
  elements.set(node, device);
  showOwn(device, node, isShown, isNew);
  sync(part(device, 'below'), below, 'device', showDevice);
}

function showOwn(device, node, isShown, isNew) {
  const {level: health = '?', message} = node.global_status ?? {};
  const kind = String(node.device_class ?? '').toLowerCase();
  device.key = node.id;
  device.classList.toggle('aim', node.id === aim);
  part(device, 'link').href = hrefOf(chosen, node.id);
  part(device, 'health').dataset.level = health;
  showParts(device, {health, ...namesOf(node), message, kind}, isNew);
  showItems(part(device, 'statuses'), isShown ? node.statuses : []);
  showItems(part(device, 'properties'), isShown ? node.properties : []);
}

function showItems(list, items = []) {
  const pairs = items.map((item) => [item.name, item]);
  sync(list, pairs, 'item', (line, item, isNew) => {
    const value = valueOf(item);
    const place = line.querySelector('dd');
    line.classList.toggle('long', value?.length > 24);
    place.classList.toggle('unknown', value === undefined);
    // A click on a number shows its course.
    const isNumber = past.isKept && item.type !== 'STRING' && list.classList.contains('statuses');
    place.status = isNumber ? item.name : undefined;
    place.role = isNumber ? 'button' : null;
    place.tabIndex = isNumber ? 0 : -1;
    show(line.querySelector('dt'), item.name);
    show(place, value ?? 'not known', isNew);
  });
}

function valueOf({double_value, int_value, uint_value, string_value, value}) {
  if (double_value !== undefined) return String(Number(Number(double_value).toPrecision(12)));
  const whole = uint_value ?? int_value;
  if (whole !== undefined) return BigInt(whole).toLocaleString('en');
  return string_value ?? value;
}

function takeList({connected, time, complete, roots: changed, gone = []}) {
  isConnected = connected;
  lead = Date.parse(time) - Date.now();
  if (complete) known.clear();
  for (const root of changed) known.set(root.id, root);
  for (const id of gone) known.delete(id);
  // In the order of their identifiers where they are equally unwell, as new ones stand at the end.
  const byName = (one, other) => one.id < other.id ? -1 : 1;
  roots = [...known.values()].sort((one, other) => rank(one) - rank(other) || byName(one, other));
  drawList();
}

function collect(node) {
  if (!nodes.has(node.id)) nodes.set(node.id, node);
  node.sub_devices?.forEach(collect);
}

function replace(other) {
  answer = other;
  nodes.clear();
  if (answer?.tree) collect(answer.tree);
  drawTree();
}

// All of the chosen root, or what has changed of it.
function takeRoot({id, known: isKnown, devices: changed, ...rest}) {
  if (id !== chosen || when !== null) return;
  const isFirst = !answer && isKnown;
  if (changed && answer) {
    answer = {tree: answer.tree, ...rest};
    const isSifted = at('unwell').checked || at('find').value.trim();
    for (const {id: device, ...own} of changed) {
      const node = nodes.get(device);
      if (!node) continue;
      const {sub_devices} = node;
      for (const name of Object.keys(node)) delete node[name];
      Object.assign(node, {id: device, ...own, sub_devices});
      if (!isSifted) showOwn(elements.get(node), node, true, false);
    }
    if (isSifted) drawTree();
    if (!isSifted) drawHead();
    document.body.classList.toggle('lost', answer.condition !== 'current');
    return;
  }
  replace(isKnown ? rest : null);
  if (isFirst) at('rows').kept?.get(chosen)?.scrollIntoView({block: 'nearest'});
}

// Hears of the fleet and of the root that is chosen, if the page is seen.
function listen() {
  clearTimeout(timer);
  news?.close();
  if (document.hidden) return;
  const what = new URLSearchParams({after: told});
  if (chosen !== null && when === null) what.set('root', chosen);
  news = new EventSource(`api/events?${what}`);
  const take = (kind, use) => news.addEventListener(kind, ({data, lastEventId}) => {
    clearTimeout(timer);
    timer = setTimeout(fail, SILENCE);
    told = lastEventId || told;
    last = `What is shown is of ${new Date().toLocaleTimeString('en-GB')}. `;
    use(data);
    show(at('trouble'), isConnected ? '' : 'The collector has no broker. What is shown is old.');
  });
  take('list', (data) => takeList(JSON.parse(data)));
  take('root', (data) => takeRoot(JSON.parse(data)));
  take('beat', () => {});
  news.addEventListener('error', fail);
  timer = setTimeout(fail, SILENCE);
}

function fail() {
  news.close();
  clearTimeout(timer);
  show(at('trouble'), `The collector does not answer. ${last}Asking again.`);
  timer = setTimeout(listen, 1000);
}

function choose() {
  const address = new URLSearchParams(location.hash.slice(1));
  const isSame = address.get('root') === chosen && address.get('at') === when;
  chosen = address.get('root');
  when = address.get('at');
  aim = address.get('device');
  isAimed = aim === null;
  active = isAimed ? chosen ?? active : location.hash;
  at('find').value = '';
  past.choose(chosen, aim, when);
  if (isSame) {
    drawTree();
    drawList();
    return;
  }
  answer = undefined;
  nodes.clear();
  drawTree();
  if (roots.length) drawList();
  if (!at('list').checkVisibility()) {
    at('chosen').focus();
  } else if (chosen === null) {
    at('rows').kept?.get(active)?.focus();
  }
  listen();
  if (when !== null && chosen !== null) showThen();
}

async function showThen() {
  const asked = location.hash;
  const then = await past.treeThen();
  if (location.hash === asked) replace(then);
}

function showCourse({target}) {
  const {status} = target;
  if (!status) return;
  const device = target.closest('details').key;
  past.toggleCourse(target.closest('.values'), {root: chosen, device, status});
}

addEventListener('click', showCourse);
addEventListener('keydown', (event) => {
  if (event.key === 'Enter' || (event.key === ' ' && event.target.status)) showCourse(event);
});

addEventListener('keydown', (event) => {
  const step = {ArrowDown: 1, ArrowUp: -1, PageDown: 10, PageUp: -10}[event.key];
  const kind = event.target.role ? '#rows a' : 'summary';
  const all = [...document.querySelectorAll(kind)].filter((one) => one.checkVisibility());
  const place = all.indexOf(event.target);
  if (!step || place < 0) return;
  event.preventDefault();
  all[Math.max(0, Math.min(all.length - 1, place + step))].focus();
});

addEventListener('input', (event) => {
  if (event.target !== at('findRoot')) {
    for (const device of document.querySelectorAll('details')) device.open = true;
  }
  if (event.target === at('findRoot')) {
    clearTimeout(search);
    search = setTimeout(findDevices, 300);
  }
  drawList();
  drawTree();
});

at('rows').addEventListener('focusin', (event) => {
  active = event.target.key;
  drawList();
});
at('list').addEventListener('scroll', drawList);
addEventListener('resize', drawList);
addEventListener('hashchange', choose);
document.addEventListener('visibilitychange', listen);
setInterval(drawList, 1000);  // for how long they have been like that
choose();
past.begin().then(drawTree, () => {});
