// What a cell shows: the device's words, and the value that a manager reads.
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

// In the words of the MIB, as the manager will read it.
export const stateText = (cell, entry) => cell.words[entry[2]] ?? deviceText(cell, entry);

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
