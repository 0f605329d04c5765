// Asks the collector once a second, and shows what is new. What is shown of the root that is chosen
// is in the address of the page.

const ROW = 44;  // the height of a row, as page.css has it
const still = matchMedia('(prefers-reduced-motion: reduce)');

let roots = [];
let isConnected = true;  // the collector, with its broker
let active;              // the root whose row the keyboard reaches
let chosen;              // the root whose devices are shown, null for none
let aim;                 // the device in it that the address leads to, null for none
let isAimed = true;      // that one is in sight, or there is none
let devices = [];        // of all roots, that are looked for
let isMore = false;      // there are more of these
let answer;     // what there is of it: null when nothing is, undefined when it is not known yet
let tags = {};  // of what is shown
let last = '';  // when that came
let running;    // the controller of the latest question
let timer;      // of the next one
let search;     // the timer of the next search for devices

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

const addressOf = (root, device) =>
    `#${new URLSearchParams(device === undefined ? {root} : {root, device})}`;

// Rows of the list: the roots, and below them the devices that are looked for.
function rowsOf(candidates) {
  const isUnwell = at('unwell').checked;
  const rowsOfRoots = candidates.filter((root) => matches(root, at('findRoot'))).map((root) => {
    const state = isCurrent(root) ? `${root.devices} devices` : root.condition;
    const message = messageOf(root);
    return {key: root.id, address: addressOf(root.id), root, state, message, named: root};
  });
  const rowsOfDevices =
      devices.filter((device) => !isUnwell || device.health !== 'OK').map((device) => {
        const {root, id, message} = device;
        const address = addressOf(root, id);
        return {key: address, address, state: `in ${root}`, message, named: device};
      });
  return [...rowsOfRoots, ...rowsOfDevices];
}

function drawList() {
  const unwell = roots.filter((root) => !isWell(root));
  const shown = rowsOf(at('unwell').checked ? unwell : roots);
  const count = (list) => list.length.toLocaleString('en');
  const ofRoots = shown.filter((row) => row.root);
  const found =
      devices.length ? `; ${count(devices)}${isMore ? ' and more' : ''} devices found` : '';
  const rest = (ofRoots.length < roots.length ? `; ${count(ofRoots)} shown` : '') + found;
  const levels =
      ['ERROR', 'WARNING'].map((level) => [level, roots.filter((root) => root.health === level)]);
  const details = levels.filter(([, list]) => list.length)
                      .map(([level, list]) => `, ${count(list)} ${level}`)
                      .join('');
  show(at('counts'), `${count(roots)} roots, ${count(unwell)} not well${details}${rest}`);
  at('rows').style.height = `${shown.length * ROW}px`;
  if (!shown.some((row) => row.key === active)) active = shown[0]?.key;
  // Only the rows in sight are elements, and the one that the keyboard is at.
  const first = at('list').scrollTop / ROW - 8;
  const end = first + at('list').clientHeight / ROW + 16;
  const pairs = [];
  shown.forEach((row, i) => {
    if ((i > first && i < end) || row.key === active) pairs.push([row.key, {...row, i}]);
  });
  const isChosen = addressOf(chosen, aim ?? undefined);
  sync(at('rows'), pairs, 'row', (row, {key, address, root, named, state, message, i}, isNew) => {
    const {health} = named;
    row.key = key;
    row.href = address;
    row.tabIndex = key === active ? 0 : -1;
    row.ariaSelected = root ? root.id === chosen : address === isChosen;
    row.ariaPosInSet = i + 1;
    row.ariaSetSize = shown.length;
    row.style.top = `${i * ROW}px`;
    part(row, 'state').classList.toggle('gone', Boolean(root) && !isCurrent(root));
    part(row, 'health').dataset.level = health;
    showParts(row, {...namesOf(named), state, health, message}, isNew);
  });
}

// Asks for the devices whose identifier or name has the text that roots are looked for by.
async function findDevices() {
  const sought = at('findRoot').value.trim();
  let found = {devices: [], complete: true};
  try {
    if (sought) {
      const response = await fetch(`api/devices?${new URLSearchParams({find: sought})}`);
      if (response.ok) found = await response.json();
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
  if (answer && !answer.tree) return 'Its tree has not arrived yet.';
  if (answer && !pairs.length) return 'No device is like that.';
  if (answer && !isAimed) return `There is no device ${aim}.`;
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
  sync(at('tree'), pairs, 'device', showDevice);
  if (tree && !isAimed) lead();
  show(at('notice'), noticeOf(pairs));
}

// Leads to the device that the address names.
function lead() {
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
  const {level: health = '?', message} = node.global_status ?? {};
  const kind = String(node.device_class ?? '').toLowerCase();
  device.key = node.id;
  device.classList.toggle('aim', node.id === aim);
  part(device, 'link').href = addressOf(chosen, node.id);
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
  const address = new URLSearchParams(location.hash.slice(1));
  const isSame = address.get('root') === chosen;
  chosen = address.get('root');
  aim = address.get('device');
  isAimed = aim === null;
  active = isAimed ? chosen ?? active : location.hash;
  at('find').value = '';
  if (isSame) {
    drawTree();
    drawList();
    return;
  }
  answer = undefined;
  tags.tree = undefined;
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
document.addEventListener('visibilitychange', poll);
choose();
