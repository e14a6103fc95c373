// The drawing of the unit: a module for each table with rows, a line with its transponders for each channel.
import { h, lamp, lampIcon, put, s, STATES } from './dom.js';
import { deviceText, isLate, managerText, rowName, stateText, TITLES } from './cells.js';

const WIDTH = 360, ROW = 24, HEAD = 20;
// The cell of a row that its lamp and figures show.
const MAIN = ['tempCurrent', 'fanSpeed', 'voltageValue', 'powerLive', 'lineInStatus', 'lineInMicStatus', 'controlInputStatus',
  'controlOutputState', 'ethMonitoringMonitored', 'relayStatus'];

export class Drawing {
  constructor(cells, select) {
    this.items = new Map(); // by cell
    this.ages = [];
    this.select = select;
    const tables = byTable(cells);
    const channels = (tables.get('ampChannelTable') ?? []).filter((cell) => cell.object === 'ampChannelStatus');
    const columns = [h('div'), h('div')];
    const heights = [0, 0];
    const add = ([module, height]) => {
      const place = heights[0] <= heights[1] ? 0 : 1;
      columns[place].append(module);
      heights[place] += height + 56;
    };
    channels.forEach((cell) => add(this.channel(cell, tables)));
    for (const [table, found] of tables) if (!/^(let|amp)Channel/.test(table)) add(this.module(table, found));
    this.node = h('div', { class: 'unit' }, columns,
      h('p', { class: 'legend' }, ['ok', 'warn', 'bad', 'off', 'unknown'].map((state) =>
      h('span', {}, lampIcon(state, 12), STATES[state])),
        h('span', { class: 'late' }, 'manager reads an older value')));
  }

  frame(title, tables, height, content) {
    const ages = tables.map((table) => {
      const bar = h('i');
      const text = h('span');
      this.ages.push({ table, bar, text });
      const name = tables.length > 1 ? h('span', {}, /^let/.test(table) ? 'LETs' : 'output') : null;
      return h('span', { class: 'age', title: `${table}: how long ago its cache was filled` }, name, h('b', {}, bar),
        text);
    });
    return [h('section', { class: 'module' }, h('header', {}, h('h3', {}, title), ages),
      s('svg', { viewBox: `0 0 ${WIDTH} ${height}`, role: 'group', 'aria-label': title }, content)), height];
  }

  module(table, cells) {
    const rows = cells.filter((cell) => MAIN.includes(cell.object));
    return this.frame(TITLES[table], [table], HEAD + rows.length * ROW,
      [...heads(), ...rows.map((cell, place) => this.row(cell, HEAD + place * ROW))]);
  }

  channel(cell, tables) {
    const lets = (tables.get(`letChannel${cell.index}Table`) ?? []).filter((item) => item.object.endsWith('Status'));
    const line = tables.get('ampChannelTable').find((item) => item.object === 'ampChannelLineState'
      && item.index === cell.index);
    const top = HEAD + 2 * ROW;
    const wire = lets.length ? this.wire(line, lets, top) : [];
    return this.frame(rowName(cell), ['ampChannelTable', ...(lets.length ? [lets[0].table] : [])],
      top + (lets.length ? 118 : 0),
      [...heads(), this.row(cell, HEAD, 'Output stage'), this.row(line, HEAD + ROW, 'Loudspeaker line'), ...wire]);
  }

  // The line leaves the amplifier, passes the first five transponders, turns, and passes the others.
  wire(line, lets, top) {
    const upper = top + 30, lower = top + 82;
    const path = s('path', { class: 'wire',
      d: `M34 ${upper}H324a14 14 0 0 1 14 14V${lower - 14}a14 14 0 0 1-14 14H66` });
    const mark = s('text', { class: 'wire-mark', x: 338, y: (upper + lower) / 2 + 5, 'text-anchor': 'middle' });
    this.watch(line, (entry) => {
      const state = line.words[entry[2] ?? entry[1]] ?? 'unknown';
      path.dataset.state = entry[3];
      path.dataset.line = state;
      put(mark, { ok: '', shorted: '⚡', open: '✕', interrupted: '✕' }[state] ?? '!');
      mark.dataset.state = entry[3];
    });
    const amplifier = s('path', { class: 'amplifier', d: `M12 ${upper - 15}v30l24-15z` });
    return [path, amplifier, mark, ...lets.map((cell, place) => {
      const x = place < 5 ? 66 + place * 58 : 298 - (place - 5) * 58;
      const y = place < 5 ? upper : lower;
      const light = lamp(x, y);
      const item = this.item(cell, `LET ${cell.index}`, s('circle', { class: 'seat', cx: x, cy: y, r: 12 }), light.node,
        s('text', { class: 'small', x, y: y + 25, 'text-anchor': 'middle' }, String(cell.index)));
      this.watch(cell, (entry) => { light.set(entry[3]); item.classList.toggle('late', isLate(entry)); });
      return item;
    })];
  }

  row(cell, y, name = rowName(cell)) {
    const light = lamp(12, y + 12);
    const has = s('text', { class: 'figure', x: 274, y: y + 16, 'text-anchor': 'end' });
    const reads = s('text', { class: 'figure reads', x: 354, y: y + 16, 'text-anchor': 'end' });
    const dial = dialOf(cell, y + 12);
    const item = this.item(cell, name,
      s('rect', { class: 'hit', x: 1, y: y + 1, width: WIDTH - 2, height: ROW - 2, rx: 4 }), light.node,
      s('text', { class: 'name', x: 26, y: y + 16 }, name), ...(dial?.nodes ?? []), has, reads);
    this.watch(cell, (entry) => {
      light.set(entry[3]);
      put(has, short(stateText(cell, entry), dial ? 12 : 18));
      put(reads, short(managerText(cell, entry), 13));
      item.classList.toggle('late', isLate(entry));
      dial?.set(entry);
    });
    return item;
  }

  item(cell, name, ...children) {
    const open = () => this.select(cell);
    const node = s('g', { class: 'item', tabindex: 0, role: 'button', 'data-cell': cell.id, onclick: open,
      onkeydown: (event) => { if (event.key === 'Enter' || event.key === ' ') { event.preventDefault(); open(); } } },
        children);
    const set = (entry) => {
      node.dataset.state = entry[3];
      node.setAttribute('aria-label',
        `${name}: ${STATES[entry[3]]}. Device ${deviceText(cell, entry)}, manager ${managerText(cell, entry)}`);
    };
    this.watch(cell, set);
    return node;
  }

  watch(cell, set) {
    this.items.set(cell.id, [...(this.items.get(cell.id) ?? []), set]);
  }

  update(cells) {
    for (const [id, entry] of Object.entries(cells)) for (const set of this.items.get(id) ?? []) set(entry);
  }
}

function byTable(cells) {
  const found = new Map();
  for (const cell of cells) found.set(cell.table, [...(found.get(cell.table) ?? []), cell]);
  return found;
}

const short = (text, most) => (text.length > most ? `${text.slice(0, most - 1)}…` : text);

const heads = () => [s('text', { class: 'head', x: 274, y: 13, 'text-anchor': 'end' }, 'device'),
  s('text', { class: 'head', x: 354, y: 13, 'text-anchor': 'end' }, 'manager')];

// A small instrument between the name and the figures.
function dialOf(cell, y) {
  const at = (x) => `translate(${x} ${y})`;
  if (cell.object === 'tempCurrent' || (cell.object === 'voltageValue' && cell.nominal)) {
    const volts = cell.object === 'voltageValue';
    const needle = s('rect', { class: volts ? 'needle' : 'fill', x: 164, y: y - (volts ? 5 : 2), height: volts
      ? 10 : 4, width: 3, rx: 1.5 });
    const share = (value) => (volts ? (value / cell.nominal - 1) / 0.3 + 0.5 : value / 100);
    return { nodes: [s('rect', { class: 'track', x: 164, y: y - 2, width: 36, height: 4, rx: 2 }), volts
      ? s('path', { class: 'nominal', d: `M182 ${y - 5}v10` }) : null, needle],
      set([text]) {
        const place = 36 * Math.min(1, Math.max(0, share(Math.abs(Number(text)) || 0)));
        needle.setAttribute(volts ? 'x' : 'width', volts ? 164 + Math.min(place, 33) : Math.max(place, 2));
      } };
  }
  if (cell.object === 'fanSpeed') {
    const blades = s('path', { class: 'blades',
      d: 'M0 0C-2-4-1-8 3-8C5-5 3-2 0 0C4-2 8-1 8 3C5 5 2 3 0 0C2 4 1 8-3 8C-5 5-3 2 0 0C-4 2-8 1-8-3C-5-5-2-3 0 0z' });
    return { nodes: [s('g', { transform: at(180) }, s('circle', { class: 'ring', r: 9.5 }), blades)],
      set([text]) { blades.classList.toggle('turning', Number(text) > 0); } };
  }
  if (['input', 'relay', 'output'].includes(cell.kind)) {
    const arm = s('path', { class: 'arm' });
    return { nodes: [s('g', { transform: at(184), class: 'contact' }, s('path', { d: 'M-14 0H-6M6 0H14' }), arm,
      s('circle', { cx: -6, r: 2 }), s('circle', { cx: 6, r: 2 }))],
      set(entry) {
        const word = cell.words[entry[2] ?? entry[1]] ?? '';
        arm.setAttribute('d', /^(closed|shorted|set|failSet|high)$/.test(word) ? 'M-6 0H6' : 'M-6 0L5-6');
      } };
  }
  return null;
}
