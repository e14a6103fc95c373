// The drawing of the unit: a module for each table with rows, a line with its transponders for each channel.
import { h, lamp, lampIcon, STATES } from './dom.js';
import { ageOf, deviceText, isLate, managerText, rowName, TITLES } from './cells.js';

const WIDTH = 360, ROW = 24, HEAD = 20;
// The cell of a row that its lamp and figures show.
const MAIN = ['tempCurrent', 'fanSpeed', 'voltageValue', 'powerLive', 'lineInStatus', 'lineInMicStatus',
  'controlInputStatus', 'controlOutputState', 'ethMonitoringMonitored', 'relayStatus'];
const BLADES = ['M0 0C-2-4-1-8 3-8C5-5 3-2 0 0', 'C4-2 8-1 8 3C5 5 2 3 0 0', 'C2 4 1 8-3 8C-5 5-3 2 0 0',
  'C-4 2-8 1-8-3C-5-5-2-3 0 0z'].join('');
const short = (text, most) => (text.length > most ? `${text.slice(0, most - 1)}…` : text);

// `view` has the cells' entries, `select` opens one, `chosen` is the open one.
export function drawing(view) {
  const tables = Map.groupBy(view.model, (cell) => cell.table);
  const stages = (tables.get('ampChannelTable') ?? []).filter((cell) => cell.object === 'ampChannelStatus');
  const modules = stages.map((cell) => channel(view, cell, tables));
  const rows = Map.groupBy(view.model.filter((cell) => MAIN.includes(cell.object)), (cell) => cell.table);
  for (const [table, cells] of [...rows].sort(([, a], [, b]) => a.length - b.length)) {
    modules.push(module(view, table, cells));
  }
  return h('div', { class: 'unit' }, modules,
    h('p', { class: 'legend' }, ['ok', 'warn', 'bad', 'off', 'unknown'].map((state) =>
      h('span', {}, lampIcon(state, 12), STATES[state])),
    h('span', { class: 'late' }, 'manager reads an older value')));
}

function frame(view, title, tables, height, content) {
  const head = (x, text) => h('text', { class: 'small', x, y: 13, 'text-anchor': 'end' }, text);
  const ages = tables.map((table) => {
    const age = () => ageOf(view.loads, table, view.now());
    return h('label', { class: 'age', title: `${table}: how long ago its cache was filled` },
      tables.length > 1 && (table.startsWith('let') ? 'LETs ' : 'output '),
      h('meter', { max: 60, value: () => age() ?? 0 }), () => (age() === null ? '≤ 60 s' : `${age()} s`));
  });
  return h('section', { class: 'module' }, h('header', {}, h('h3', {}, title), ages),
    h('svg', { viewBox: `0 0 ${WIDTH} ${height}`, role: 'group', 'aria-label': title },
      head(274, 'device'), head(354, 'manager'), content));
}

function module(view, table, rows) {
  return frame(view, TITLES[table], [table], HEAD + rows.length * ROW,
    rows.map((cell, place) => row(view, cell, HEAD + place * ROW)));
}

function channel(view, cell, tables) {
  const lets = (tables.get(`letChannel${cell.index}Table`) ?? []).filter((item) => item.object.endsWith('Status'));
  const line = tables.get('ampChannelTable').find((item) => item.object === 'ampChannelLineState'
    && item.index === cell.index);
  const top = HEAD + 2 * ROW;
  return frame(view, rowName(cell), ['ampChannelTable', ...lets.slice(0, 1).map((item) => item.table)],
    top + (lets.length && 118), [row(view, cell, HEAD, 'Output stage'),
      row(view, line, HEAD + ROW, 'Loudspeaker line'), ...(lets.length ? wire(view, line, lets, top) : [])]);
}

// The line leaves the amplifier, passes the first five transponders, turns, and passes the others.
function wire(view, line, lets, top) {
  const upper = top + 30, lower = top + 82;
  const entry = () => view.cells[line.id] ?? [];
  const state = () => line.words[entry()[2] ?? entry()[1]] ?? 'unknown';
  const mark = () => ({ ok: '', shorted: '⚡', open: '✕', interrupted: '✕' }[state()] ?? '!');
  return [h('path', { class: 'wire', 'data-state': () => entry()[3], 'data-line': state,
    d: `M34 ${upper}H324a14 14 0 0 1 14 14V${lower - 14}a14 14 0 0 1-14 14H66` }),
  h('path', { class: 'amplifier', d: `M12 ${upper - 15}v30l24-15z` }),
  h('text', { class: 'mark', 'data-state': () => entry()[3], x: 338, y: (upper + lower) / 2 + 5,
    'text-anchor': 'middle' }, mark),
  ...lets.map((cell, place) => {
    const x = place < 5 ? 66 + place * 58 : 298 - (place - 5) * 58;
    const y = place < 5 ? upper : lower;
    return item(view, cell, `LET ${cell.index}`, h('circle', { class: 'seat', cx: x, cy: y, r: 12 }),
      lamp(() => view.cells[cell.id]?.[3], `translate(${x} ${y})`),
      h('text', { class: 'small', x, y: y + 25, 'text-anchor': 'middle' }, String(cell.index)));
  })];
}

function row(view, cell, y, name = rowName(cell)) {
  const entry = () => view.cells[cell.id] ?? [];
  const dial = dialOf(cell, entry);
  return item(view, cell, name,
    h('rect', { class: 'hit', x: 1, y: y + 1, width: WIDTH - 2, height: ROW - 2, rx: 4 }),
    lamp(() => entry()[3], `translate(12 ${y + 12})`), h('text', { x: 26, y: y + 16 }, name),
    dial && h('g', { class: 'dial', transform: `translate(182 ${y + 12})` }, dial),
    h('text', { class: 'figure', x: 274, y: y + 16, 'text-anchor': 'end' },
      () => short(cell.words[entry()[2]] ?? deviceText(cell, entry()), dial ? 12 : 18)),
    h('text', { class: 'figure reads', x: 354, y: y + 16, 'text-anchor': 'end' },
      () => short(managerText(cell, entry()), 13)));
}

function item(view, cell, name, ...children) {
  const entry = () => view.cells[cell.id] ?? [];
  return h('g', { tabindex: 0, role: 'link', 'data-cell': cell.id, onclick: () => view.select(cell),
    onkeydown: ({ key }) => key === 'Enter' && view.select(cell),
    class: () => `item${isLate(entry()) ? ' late' : ''}${view.chosen === cell ? ' chosen' : ''}`,
    'data-state': () => entry()[3], 'aria-label': () => `${name}: ${STATES[entry()[3]]}. Device ${
      deviceText(cell, entry())}, manager ${managerText(cell, entry())}` }, children);
}

// A small instrument between the name and the figures.
function dialOf(cell, entry) {
  const value = () => Math.abs(Number(entry()[0])) || 0;
  if (cell.object === 'tempCurrent' || cell.nominal) {
    const share = () => (cell.nominal ? (value() / cell.nominal - 1) / 0.3 + 0.5 : value() / 100);
    const place = () => 36 * Math.min(1, Math.max(0.06, share()));
    return [h('rect', { class: 'track', x: -18, y: -2, width: 36, height: 4, rx: 2 }), cell.nominal
      ? h('rect', { class: 'lit', x: () => Math.min(15, place() - 19), y: -5, width: 3, height: 10, rx: 1.5 })
      : h('rect', { class: 'lit', x: -18, y: -2, width: place, height: 4, rx: 2 })];
  }
  if (cell.object === 'fanSpeed') return [h('path', { class: () => `lit${value() ? ' turning' : ''}`, d: BLADES })];
  if (!['input', 'relay', 'output'].includes(cell.kind)) return null;
  const isClosed = () => /^(closed|shorted|set|failSet|high)$/.test(cell.words[entry()[2] ?? entry()[1]]);
  return [h('path', { class: 'contact', d: () => `M-14 0H-6${isClosed() ? 'H6' : 'L5-6M6 0'}H14` })];
}
