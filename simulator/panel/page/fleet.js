// The fleet: a tile for each device.
import { h, lampIcon, list, refresh, STATES } from './dom.js';

const SUMS = { silent: 'without an answer', bad: 'with a fault', warn: 'with a warning', starting: 'starting',
  notice: 'with a notice', ok: 'in order' };

export class Fleet {
  constructor() {
    document.title = 'Fleet · Front panel';
    this.tiles = {};
    this.take({});
    const empty = h('li', {}, 'No device runs. Start one: scripts/device --model 6420');
    this.node = h('div', { class: 'fleet' }, h('header', { class: 'top' },
      h('h1', {}, () => (this.shown.length === 1 ? '1 device' : `${this.shown.length} devices`)),
      list(h('ul', { class: 'sums', 'aria-label': 'Devices by state' }), () => this.sums, ([state, count]) =>
        h('li', { 'data-state': state }, lampIcon(state, 13), `${count} ${SUMS[state]}`))),
    h('main', {}, list(h('ul', { class: 'tiles' }), () => this.shown, tileOf, empty)));
  }

  take({ tiles = this.tiles }) {
    if (tiles === this.tiles && this.shown) return;
    const focused = document.activeElement?.getAttribute('href');
    const names = new Intl.Collator('en', { numeric: true });
    this.tiles = tiles;
    this.shown = Object.values(tiles).sort((a, b) => names.compare(a.name, b.name));
    const states = Map.groupBy(this.shown, (tile) => tile.state);
    this.sums = Object.keys(SUMS).filter((state) => states.has(state))
      .map((state) => [state, states.get(state).length]);
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
