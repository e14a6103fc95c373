// One row in detail: what the device has, what a manager reads and why, the commands that change it.
import { h, lampIcon, STATES } from './dom.js';
import { ageOf, deviceText, isLate, managerText, TITLES, why } from './cells.js';

// Fills the device's inspector.
export function inspect(device, chosen) {
  const node = device.inspector;
  node.classList.toggle('open', Boolean(chosen));
  if (!chosen) {
    node.replaceChildren(h('h2', {}, 'Selected value'), h('p', { class: 'hint' },
      'Choose a lamp, a transponder or a value to see both sides of it and to change it.'));
    return;
  }
  const others = device.model.filter((cell) => cell !== chosen && cell.table === chosen.table
    && cell.index === chosen.index);
  node.replaceChildren(h('header', {}, h('h2', {}, chosen.row),
    h('button', { 'aria-label': 'Close', onclick: () => device.select(null) }, '✕')),
  h('p', { class: 'hint' }, `${TITLES[chosen.table]} · ${chosen.table}, row ${chosen.index}`),
  ...[chosen, ...others].map((cell) => details(device, cell)));
}

function details(device, cell) {
  const entry = () => device.cells[cell.id] ?? [];
  const age = () => ageOf(device.loads, cell.table, device.now());
  const code = () => (cell.words[entry()[1]] === undefined ? '' : ` (${entry()[1]})`);
  return h('article', { class: 'cell' },
    h('h3', {}, lampIcon(() => entry()[3]), cell.object, h('span', { class: 'hint' }, () => STATES[entry()[3]])),
    h('dl', { class: 'pair' }, h('div', {}, h('dt', {}, 'Device has'), h('dd', {}, () => deviceText(cell, entry()))),
      h('div', {}, h('dt', {}, 'Manager reads'),
        h('dd', { class: () => (isLate(entry()) ? 'late' : '') }, () => managerText(cell, entry()) + code()))),
    h('p', { class: 'hint why' }, () => why(cell, entry(), age(), device.agent.answers !== false)),
    h('p', { class: 'hint oid' }, h('code', {}, `KVSNMP-MIB::${cell.id}`), h('code', {}, cell.oid),
      h('span', {}, () => `cache ${age() === null ? 'up to 60' : age()} s old`)),
    cell.controls.map((control) => (control.field ? field(device, cell, control) : buttons(device, control))));
}

function field(device, cell, { label, field: words }) {
  const input = h('input', { inputmode: cell.unit ? 'decimal' : 'text', value: device.cells[cell.id]?.[0] ?? '' });
  return device.form('control', () => words.map((word) => (word === '$' ? input.value : word)),
    h('label', {}, label, input), h('button', {}, 'Set'));
}

function buttons(device, { label, choices }) {
  return h('div', { class: 'choices', role: 'group', 'aria-label': label }, h('label', {}, label),
    Object.entries(choices).map(([text, words]) => device.button(text, words)));
}
