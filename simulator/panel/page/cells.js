// What a cell shows: the device's words, and the value that a manager reads.
export const TITLES = {
  tempTable: 'Temperatures', fanTable: 'Fans', voltageTable: 'Voltages', powerTable: 'Power sources',
  lineInTable: 'Line inputs', ampChannelTable: 'Amplifier channels', ethMonitoringTable: 'Ethernet', relayTable: 'Relays',
  letChannel1Table: 'Transponders, channel 1', letChannel2Table: 'Transponders, channel 2',
  controlInputTable: 'Control inputs', controlOutputTable: 'Control outputs',
};
const LET_DELAY = ' The status is derived only when the transponder is enabled, disabled or reported.';
const STATION_DELAY = ' A station checks one line each second, which takes up to 26 s more.';
const NUMBER = /^-?[\d.]+$/;

export const rowName = (cell) => cell.row.replace(/^Temperature Sensor: |^Internal voltage |^Internal /, '')
  .replace(/^(LET \d+) .*/, '$1').replace(/(\.0)?V$/, ' V').replace('Microphone ', 'Mic ')
  .replace('External Control', 'External').replace('ac_power', 'AC').replace('dc_power', 'DC');

export function deviceText(cell, [text, , code]) {
  if (!text) return '–';
  return cell.unit && NUMBER.test(text) ? `${cell.decimals === 3 ? Number(text).toFixed(2) : text} ${cell.unit}` : text;
}

// In the words of the MIB, as the manager will read it.
export const stateText = (cell, entry) => (entry[2] !== null ? cell.words[entry[2]] : null) ?? deviceText(cell, entry);

export function managerText(cell, [, served]) {
  if (served === null || served === undefined) return '–';
  if (cell.words[served] !== undefined) return cell.words[served];
  if (!cell.unit || !NUMBER.test(served)) return served;
  return `${(Number(served) / 10 ** cell.decimals).toFixed(cell.decimals === 3 ? 2 : cell.decimals)} ${cell.unit}`;
}

export const isLate = ([, served, code]) => code !== null && served !== null && served !== undefined
  && String(code) !== served;

// For graphs: both values in the unit of the cell.
export function numbers(cell, [text, served]) {
  const has = NUMBER.test(text ?? '') ? Math.abs(Number(text)) : null;
  return [has, NUMBER.test(served ?? '') ? Number(served) / 10 ** cell.decimals : null];
}

// The panel asks every 6 s, so no cache is older than 66 s: a later one was filled unseen.
export function ageOf(loads, table, now) {
  const age = Math.max(0, Math.round(now - (loads?.[table] ?? -Infinity)));
  return age <= 66 ? age : null;
}

export function ageText(age) {
  if (age === null) return 'cache up to 60 s old';
  return age > 60 ? 'cache expired' : `cache ${age} s old`;
}

export function why(cell, entry, age, answers) {
  if (!answers) return 'snmpd does not answer. The manager’s value is its last reading.';
  if (entry[2] === null && !entry[0]) {
    return 'Nothing feeds this cell, or the panel has not heard what does: see the manager’s value.';
  }
  if (!isLate(entry)) return 'The manager reads the value that the device has.';
  const filled = age === null || age > 60 ? 'which is up to 60 s old.'
    : `filled ${age} s ago. The first request after another ${60 - age} s reads the device again.`;
  const isLine = cell.kind === 'relay' || (['input', 'output'].includes(cell.kind) && cell.path);
  return `The manager reads the table’s cache, ${filled}${cell.kind === 'let' ? LET_DELAY : isLine ? STATION_DELAY : ''}`;
}
