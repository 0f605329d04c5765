// What the page is made of: texts of devices in elements that are made from templates.

const still = matchMedia('(prefers-reduced-motion: reduce)');

export const at = (id) => document.getElementById(id);

// The first one counts: the parts of a device come before those of the devices below it.
export const part = (element, name) => element.querySelector(`.${name}`);

export const make = (shape) => at(shape).content.firstElementChild.cloneNode(true);

// Leads the eye to it for a while.
export function mark(element) {
  const colors = {backgroundColor: ['var(--changed)', 'transparent']};
  element.animate(colors, {duration: 3000, easing: still.matches ? 'step-end' : 'ease-in'});
}

// Whatever comes from a device is shown by this, as text. What changed is marked.
export function show(element, text, isNew = true) {
  text ??= '';
  if (element.textContent === text) return;
  element.textContent = text;
  if (!isNew) mark(element);
}

export function showParts(element, texts, isNew) {
  for (const [name, text] of Object.entries(texts)) show(part(element, name), text, isNew);
}

// Makes the children of an element those of [key, item] pairs, and touches only what differs.
export function sync(parent, pairs, shape, update) {
  const old = parent.kept ?? new Map();
  const kept = new Map();
  for (const [key, item] of pairs) kept.set(kept.has(key) ? `${key}\0${kept.size}` : key, item);
  for (const [key, element] of old) {
    if (!kept.has(key)) element.remove();
  }
  [...kept].forEach(([key, item], i) => {
    const element = old.get(key) ?? make(shape);
    if (parent.children[i] !== element) parent.insertBefore(element, parent.children[i]);
    kept.set(key, element);
    update(element, item, !old.has(key));
  });
  parent.kept = kept;
}

// The part of the address of this page that leads there. What is null is left out.
export function addressOf(root, device, time) {
  const parts = Object.entries({root, device, at: time}).filter(([, text]) => text != null);
  return `#${new URLSearchParams(parts)}`;
}

// A time of the collector as people here write it.
export const timeOf = (text) => new Date(text).toLocaleString('sv');

// What the collector answers; its reason, as an error, where it refuses.
export async function ask(path, parameters) {
  const response = await fetch(`api/${path}?${new URLSearchParams(parameters)}`);
  const json = await response.json();
  if (!response.ok) throw new Error(json.error);
  return json;
}
