// Asks the collector once a second, and shows what is new. What is shown of the root that is chosen
// is in the address of the page.

const ROW = 44;  // the height of a row, as page.css has it
const still = matchMedia('(prefers-reduced-motion: reduce)');

let roots = [];
let isConnected = true;  // the collector, with its broker
let active;              // the root whose row the keyboard reaches
let chosen;              // the root whose devices are shown, null for none
let answer;     // what there is of it: null when nothing is, undefined when it is not known yet
let tags = {};  // of what is shown
let last = '';  // when that came
let running;    // the controller of the latest question
let timer;      // of the next one

class Refusal extends Error {}

const at = (id) => document.getElementById(id);

// The first one counts: the parts of a device come before those of the devices below it.
const part = (element, name) => element.querySelector(`.${name}`);

// Whatever comes from a device is shown by this, as text. What changed is marked for a while.
function show(element, text, isNew = true) {
  text ??= '';
  if (element.textContent === text) return;
  element.textContent = text;
  if (isNew) return;
  const colors = {backgroundColor: ['var(--changed)', 'transparent']};
  element.animate(colors, {duration: 3000, easing: still.matches ? 'step-end' : 'ease-in'});
}

function showParts(element, texts, isNew) {
  for (const [name, text] of Object.entries(texts)) show(part(element, name), text, isNew);
}

// Makes the children of an element those of [key, item] pairs, and touches only what differs.
function sync(parent, pairs, shape, update) {
  const old = parent.kept ?? new Map();
  const kept = new Map();
  for (const [key, item] of pairs) kept.set(kept.has(key) ? `${key}\0${kept.size}` : key, item);
  for (const [key, element] of old) {
    if (!kept.has(key)) element.remove();
  }
  [...kept].forEach(([key, item], i) => {
    const element = old.get(key) ?? at(shape).content.firstElementChild.cloneNode(true);
    if (parent.children[i] !== element) parent.insertBefore(element, parent.children[i]);
    kept.set(key, element);
    update(element, item, !old.has(key));
  });
  parent.kept = kept;
}

// A root is as unwell as the worst device in it. Without a broker no root is current, which the
// page says once.
const isCurrent = (root) => root.condition === 'current' || !isConnected;
const isWell = (root) => root.health === 'OK' && isCurrent(root);
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

function namesOf({id = '', name}) {
  return name && name !== id ? {name, id} : {name: id, id: ''};
}

function matches(item, field) {
  const sought = field.value.trim().toLowerCase();
  return Object.values(namesOf(item)).some((name) => name.toLowerCase().includes(sought));
}

function drawList() {
  const unwell = roots.filter((root) => !isWell(root));
  const candidates = at('unwell').checked ? unwell : roots;
  const shown = candidates.filter((root) => matches(root, at('findRoot')));
  const count = (list) => list.length.toLocaleString('en');
  const rest = shown.length < roots.length ? `; ${count(shown)} shown` : '';
  const levels =
      ['ERROR', 'WARNING'].map((level) => [level, roots.filter((root) => root.health === level)]);
  const details = levels.filter(([, list]) => list.length)
                      .map(([level, list]) => `, ${count(list)} ${level}`)
                      .join('');
  show(at('counts'), `${count(roots)} roots, ${count(unwell)} not well${details}${rest}`);
  at('rows').style.height = `${shown.length * ROW}px`;
  if (!shown.some((root) => root.id === active)) active = shown[0]?.id;
  // Only the rows in sight are elements, and the one that the keyboard is at.
  const first = at('list').scrollTop / ROW - 8;
  const end = first + at('list').clientHeight / ROW + 16;
  const pairs = [];
  shown.forEach((root, i) => {
    if ((i > first && i < end) || root.id === active) pairs.push([root.id, {root, i}]);
  });
  sync(at('rows'), pairs, 'row', (row, {root, i}, isNew) => {
    row.key = root.id;
    row.href = `#${new URLSearchParams({root: root.id})}`;
    row.tabIndex = root.id === active ? 0 : -1;
    row.ariaSelected = root.id === chosen;
    row.ariaPosInSet = i + 1;
    row.ariaSetSize = shown.length;
    row.style.top = `${i * ROW}px`;
    part(row, 'state').classList.toggle('gone', !isCurrent(root));
    part(row, 'health').dataset.level = root.health;
    const state = isCurrent(root) ? `${root.devices} devices` : root.condition;
    const {health} = root;
    showParts(row, {...namesOf(root), state, health, message: messageOf(root)}, isNew);
  });
}

// A [key, item] pair for the device if it is to be shown or one below it is, else nothing.
function sift(node) {
  const isHidden = at('unwell').checked && node.global_status?.level === 'OK';
  const isShown = matches(node, at('find')) && !isHidden;
  const below = (node.sub_devices ?? []).flatMap(sift);
  return isShown || below.length ? [[node.id, {node, isShown, below}]] : [];
}

function noticeOf(pairs) {
  if (chosen === null) return 'Choose a root.';
  if (answer === null) return 'The collector knows no such root.';
  if (answer && !answer.tree) return 'Its tree has not arrived yet.';
  if (answer && !pairs.length) return 'No device is like that.';
  return '';
}

function drawTree() {
  const tree = answer?.tree;
  const pairs = tree ? sift(tree) : [];
  document.body.classList.toggle('open', chosen !== null);
  document.body.classList.toggle('lost', Boolean(answer) && answer.condition !== 'current');
  show(at('chosen'), tree?.name || chosen);
  show(
      at('about'),
      answer &&
          `${answer.condition}${answer.reason && ` (${answer.reason})`} · reporter ${
              answer.reporter || 'not known'}`);
  show(at('notice'), noticeOf(pairs));
  sync(at('tree'), pairs, 'device', showDevice);
}

function showDevice(device, {node, isShown, below}, isNew) {
  const {level: health = '?', message} = node.global_status ?? {};
  const kind = String(node.device_class ?? '').toLowerCase();
  part(device, 'health').dataset.level = health;
  showParts(device, {health, ...namesOf(node), message, kind}, isNew);
  showItems(part(device, 'statuses'), isShown ? node.statuses : []);
  showItems(part(device, 'properties'), isShown ? node.properties : []);
  sync(part(device, 'below'), below, 'device', showDevice);
}

function showItems(list, items = []) {
  const pairs = items.map((item) => [item.name, item]);
  sync(list, pairs, 'item', (line, item, isNew) => {
    const value = valueOf(item);
    const place = line.querySelector('dd');
    line.classList.toggle('long', value?.length > 24);
    place.classList.toggle('unknown', value === undefined);
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

// What is there, null when nothing is, undefined when it is what is shown already.
async function get(kind, path, signal) {
  const response = await fetch(path, {cache: 'no-cache', signal});
  if (response.status === 404) return null;
  if (!response.ok) throw new Refusal(`The collector refuses to answer: ${response.status}.`);
  const tag = response.headers.get('ETag');
  if (tag && tag === tags[kind]) {
    response.body.cancel();
    return undefined;
  }
  const json = await response.json();
  tags[kind] = tag;  // not before: the answer may break off
  return json;
}

async function ask(signal) {
  const list = await get('list', 'api/roots', signal);
  if (list) {
    isConnected = list.connected;
    roots = list.roots.sort((one, other) => rank(one) - rank(other));
    drawList();
  }
  const path = `api/roots/${encodeURIComponent(chosen)}`;
  const isListed = roots.some((root) => root.id === chosen);
  const found = isListed ? await get('tree', path, signal) : null;
  if (found && !answer) at('rows').kept.get(chosen)?.scrollIntoView({block: 'nearest'});
  if (found !== undefined) {
    answer = found;
    drawTree();
  }
}

async function poll() {
  clearTimeout(timer);
  running?.abort();
  const mine = new AbortController();
  running = mine;
  setTimeout(() => mine.abort(), 10000);
  try {
    await ask(mine.signal);
    last = `What is shown is of ${new Date().toLocaleTimeString('en-GB')}. `;
    show(at('trouble'), isConnected ? '' : 'The collector has no broker. What is shown is old.');
  } catch (fault) {
    const isRefusal = fault instanceof Refusal;
    if (!isRefusal) tags = {};
    const trouble = isRefusal ? fault.message : 'The collector does not answer.';
    if (mine === running) show(at('trouble'), `${trouble} ${last}Asking again.`);
  }
  if (mine === running && !document.hidden) timer = setTimeout(poll, 1000);
}

function choose() {
  chosen = new URLSearchParams(location.hash.slice(1)).get('root');
  active = chosen ?? active;
  answer = undefined;
  tags.tree = undefined;
  at('find').value = '';
  drawTree();
  if (roots.length) drawList();
  if (!at('list').checkVisibility()) {
    at('chosen').focus();
  } else if (chosen === null) {
    at('rows').kept?.get(active)?.focus();
  }
  poll();
}

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
document.addEventListener('visibilitychange', poll);
choose();
