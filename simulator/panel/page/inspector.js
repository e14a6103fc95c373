// One row in detail: what the device has, what a manager reads and why, the commands that change it.
import { h, lampIcon, put, STATES } from './dom.js';
import { ageOf, ageText, deviceText, isLate, managerText, numbers, TITLES, why } from './cells.js';
import { chart } from './charts.js';

export const quote = (words) => words.map((word) => (/^[\w./=:-]+$/.test(word) ? word : `"${word.replace(/(["\\$`])/g,
  '\\$1')}"`)).join(' ');

export class Inspector {
  constructor(device) {
    this.device = device;
    this.updates = [];
    this.node = h('section', { class: 'card inspector', 'aria-label': 'Selected value', tabindex: -1 });
    this.empty();
  }

  empty() {
    this.row = null;
    this.updates = [];
    this.node.classList.remove('open');
    this.node.replaceChildren(h('h2', {}, 'Selected value'),
      h('p', { class: 'hint' }, 'Choose a lamp, a transponder or a value to see both sides of it and to change it.'));
  }

  show(cell, cells) {
    this.row = cells.filter((item) => item.table === cell.table && item.index === cell.index);
    this.updates = [];
    const close = h('button', { class: 'quiet close', 'aria-label': 'Close', onclick: () => this.device.escape() },
      '✕');
    const first = this.row.find((item) => item.id === cell.id);
    const others = this.row.filter((item) => item !== first);
    this.node.replaceChildren(h('header', {}, h('h2', {}, cell.row), close),
      h('p', { class: 'hint' }, `${TITLES[cell.table]} · ${cell.table}, row ${cell.index}`),
      this.cell(first, true), ...others.map((item) => this.cell(item, false)));
    this.node.classList.add('open');
    this.update();
  }

  cell(cell, isFirst) {
    const icon = h('span');
    const has = h('dd'), reads = h('dd'), reason = h('p', { class: 'why' }), age = h('span', { class: 'hint' });
    const graph = isFirst && cell.unit ? h('div', { class: 'spark' }) : null;
    const plot = graph && chart(graph, 96, [`device, ${cell.unit}`, `manager, ${cell.unit}`], true);
    let state = '';
    this.updates.push(() => {
      const { cells, loads, agent, history } = this.device;
      const entry = cells[cell.id];
      if (!entry) return;
      const seconds = ageOf(loads, cell.table, this.device.now());
      if (state !== entry[3]) icon.replaceChildren(lampIcon(state = entry[3]),
        h('span', { class: 'sr' }, STATES[state]));
      put(has, deviceText(cell, entry));
      put(reads, managerText(cell, entry) + (cell.words[entry[1]] !== undefined ? `(${entry[1]})` : ''));
      reads.classList.toggle('late', isLate(entry));
      put(age, ageText(seconds));
      put(reason, why(cell, entry, seconds, agent.answers !== false));
      plot?.(history.map(([time, , values]) => [time, ...numbers(cell, values[cell.id] ?? [])]));
    });
    return h('article', { class: 'cell' }, h('h3', {}, icon, cell.object),
      h('dl', { class: 'pair' }, h('div', {}, h('dt', {}, 'Device has'), has),
        h('div', {}, h('dt', {}, 'Manager reads'), reads)),
      reason, graph, h('p', { class: 'oid' }, h('code', {}, `KVSNMP-MIB::${cell.id}`), h('code', {}, cell.oid), age),
      cell.controls.map((control) => this.control(cell, control)));
  }

  control(cell, { label, choices, field }) {
    const run = (words) => this.device.talctl(words);
    if (field) {
      const input = h('input', { 'aria-label': `${cell.object}: new value`, inputmode: cell.unit ? 'decimal' : 'text',
        value: this.device.cells[cell.id]?.[0] ?? '' });
      const words = () => field.map((word) => (word === '$' ? input.value : word));
      const command = h('code', { class: 'command' }, quote(['talctl', ...words()]));
      input.addEventListener('input', () => put(command, quote(['talctl', ...words()])));
      return h('form', { class: 'control', onsubmit: (event) => { event.preventDefault(); run(words()); } },
        h('span', { class: 'label' }, label), input, h('button', {}, 'Set'), command);
    }
    const command = h('code', { class: 'command' });
    const buttons = Object.entries(choices).map(([text, words]) => {
      const show = () => put(command, quote(['talctl', ...words]));
      return h('button', { type: 'button', onclick: () => run(words), onmouseenter: show, onfocus: show }, text);
    });
    put(command, quote(['talctl', ...Object.values(choices)[0]]));
    return h('div', { class: 'control', role: 'group', 'aria-label': label }, h('span', { class: 'label' }, label),
      h('span', { class: 'choices' }, buttons), command);
  }

  update() {
    for (const set of this.updates) set();
  }
}
