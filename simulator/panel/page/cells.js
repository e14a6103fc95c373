// What a cell shows, and one row in detail.
import { h, lampIcon, STATES } from './dom.js';

// An entry is [the device's text, the manager's value, the value that the device's text gives, how serious it is].
export const TITLES = {
  tempTable: 'Temperatures', fanTable: 'Fans', voltageTable: 'Voltages', powerTable: 'Power sources',
  lineInTable: 'Line inputs', ampChannelTable: 'Amplifier channels', ethMonitoringTable: 'Ethernet',
  relayTable: 'Relays', letChannel1Table: 'Transponders, channel 1', letChannel2Table: 'Transponders, channel 2',
  controlInputTable: 'Control inputs', controlOutputTable: 'Control outputs',
};
const LET_DELAY = ' The status is derived only when the transponder is enabled, disabled or reported.';
const STATION_DELAY = ' A station checks one line each second, which takes up to 26 s more.';
const NUMBER = /^-?[\d.]+$/;

export const rowName = (cell) => cell.row.replace(/^Temperature Sensor: |^Internal voltage |^Internal /, '')
  .replace(/^(LET \d+) .*/, '$1').replace(/(\.0)?V$/, ' V').replace('Microphone ', 'Mic ')
  .replace('External Control', 'External').replace('ac_power', 'AC').replace('dc_power', 'DC');

const figure = (cell, value) => `${cell.decimals === 3 ? value.toFixed(2) : value.toFixed(cell.decimals)} ${cell.unit}`;

export function deviceText(cell, [text]) {
  return cell.unit && NUMBER.test(text) ? figure(cell, Number(text)) : text || '–';
}

export function managerText(cell, [, served]) {
  const text = cell.words[served] ?? served ?? '–';
  return cell.unit && NUMBER.test(text) ? figure(cell, Number(text) / 10 ** cell.decimals) : text;
}

export const isLate = ([, served, code]) => code !== null && (served ?? null) !== null && String(code) !== served;

// The panel asks every 3 s, so no cache is older than 63 s: a later one was filled unseen.
export function ageOf(loads, table, now) {
  const age = Math.max(0, Math.round(now - (loads?.[table] ?? -Infinity)));
  return age <= 63 ? age : null;
}

export function why(cell, entry, age, answers) {
  if (!answers) return 'snmpd does not answer. The manager’s value is its last reading.';
  if (entry[2] === null && !entry[0]) {
    return 'Nothing feeds this cell, or the panel has not heard what does: see the manager’s value.';
  }
  if (!isLate(entry)) return 'The manager reads the value that the device has.';
  const filled = age === null || age > 60 ? 'which is up to 60 s old.'
    : `filled ${age} s ago. The first request after another ${60 - age} s reads the device again.`;
  const delay = cell.kind === 'let' ? LET_DELAY : cell.line ? STATION_DELAY : '';
  return `The manager reads the table’s cache, ${filled}${delay}`;
}

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
    h('label', {}, label, ' ', input), h('button', {}, 'Set'));
}

function buttons(device, { label, choices }) {
  return h('div', { class: 'choices', role: 'group', 'aria-label': label }, h('label', {}, label),
    Object.entries(choices).map(([text, words]) => device.button(text, words)));
}
