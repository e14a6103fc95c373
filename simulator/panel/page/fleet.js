// The fleet: a tile for each device.
import { h, lampIcon, put, STATES } from './dom.js';

const SUMS = { silent: 'without an answer', bad: 'with a fault', warn: 'with a warning', starting: 'starting',
  notice: 'with a notice', ok: 'in order' };
const ORDER = Object.keys(SUMS);

export class Fleet {
  constructor() {
    document.title = 'Fleet · Front panel';
    this.tiles = {};
    this.worstFirst = false;
    this.sums = h('ul', { class: 'sums', 'aria-label': 'Devices by state' });
    this.list = h('ul', { class: 'tiles' });
    this.title = h('h1', {}, 'Fleet');
    this.sort = h('input', { type: 'checkbox', onchange: () => { this.worstFirst = this.sort.checked; this.draw(); } });
    this.node = h('div', { class: 'fleet' },
      h('header', { class: 'top' }, this.title, this.sums, h('label', { class: 'check' }, this.sort, 'Worst first')),
      h('main', {}, this.list));
  }

  take(message) {
    if (message.whole) this.tiles = {};
    for (const [name, tile] of Object.entries(message.tiles ?? {})) {
      if (tile) this.tiles[name] = tile;
      else delete this.tiles[name];
    }
    this.draw();
  }

  draw() {
    const names = new Intl.Collator('en', { numeric: true });
    const tiles = Object.values(this.tiles).sort((a, b) =>
      (this.worstFirst ? ORDER.indexOf(a.state) - ORDER.indexOf(b.state) : 0) || names.compare(a.name, b.name));
    put(this.title, tiles.length === 1 ? '1 device' : `${tiles.length} devices`);
    this.sums.replaceChildren(...ORDER.map((state) => [state, tiles.filter((tile) => tile.state === state).length])
      .filter(([, count]) => count).map(([state, count]) =>
        h('li', { 'data-state': state }, lampIcon(state, 13), `${count} ${SUMS[state]}`)));
    const focused = document.activeElement?.getAttribute?.('href');
    this.list.replaceChildren(...(tiles.length
      ? tiles.map(tileOf) : [h('li', { class: 'empty' }, 'No device runs. Start one: scripts/device --model 6420')]));
    if (focused) this.list.querySelector(`a[href="${CSS.escape(focused)}"]`)?.focus();
  }
}

function tileOf(tile) {
  return h('li', {}, h('a', { class: 'tile', href: `/device/${encodeURIComponent(tile.name)}`,
    'data-state': tile.state },
    h('span', { class: 'tile-state' }, lampIcon(tile.state, 15), STATES[tile.state],
      tile.faults ? h('span', { class: 'count' }, tile.faults === 1 ? '1 message' : `${tile.faults} messages`) : null),
    h('strong', {}, tile.name), h('span', { class: 'model' }, String(tile.model),
      h('span', {}, (tile.text ?? '').replace(/^Orvane /, ''))),
    h('span', { class: 'where' }, tile.location ?? ''), h('code', {}, tile.address)));
}
