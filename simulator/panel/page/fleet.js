// The fleet: a tile for each device.
import { h, lampIcon, list, refresh, STATES } from './dom.js';

const ORDER = ['silent', 'bad', 'warn', 'starting', 'notice', 'ok']; // worst first

export class Fleet {
  constructor() {
    document.title = 'Fleet · Front panel';
    this.tiles = [];
    const empty = h('li', {}, 'No device runs. Start one: scripts/device --model 6420');
    const troubled = () => this.tiles.filter(({ state }) => ['bad', 'warn', 'silent'].includes(state)).length;
    this.node = h('div', { class: 'fleet' }, h('header', { class: 'top' },
      h('h1', {}, () => `Devices: ${this.tiles.length}, in trouble: ${troubled()}`)),
      h('main', {}, list(h('ul', { class: 'tiles' }), () => this.tiles, tileOf, empty)));
  }

  take({ tiles }) {
    if (!tiles) return;
    const focused = document.activeElement?.getAttribute('href');
    this.tiles = Object.values(tiles).sort((a, b) => ORDER.indexOf(a.state) - ORDER.indexOf(b.state)
      || a.name.localeCompare(b.name, 'en', { numeric: true }));
    refresh();
    if (focused) document.querySelector(`a[href="${CSS.escape(focused)}"]`)?.focus();
  }
}

function tileOf({ name, state, faults, model, text, location: place, address }) {
  return h('li', {}, h('a', { class: 'tile', href: `/device/${encodeURIComponent(name)}`, 'data-state': state },
    h('span', { class: 'head' }, lampIcon(state, 15), STATES[state],
      h('span', {}, faults ? `${faults} message${faults === 1 ? '' : 's'}` : '')),
    h('strong', {}, name), h('span', { class: 'model' }, `${model} ${(text ?? '').replace(/^Orvane /, '')}`),
    h('span', { class: 'hint' }, place ?? ''), h('code', {}, address)));
}
