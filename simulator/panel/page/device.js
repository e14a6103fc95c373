// The page of one device.
import { h, lampIcon, list, refresh, STATES } from './dom.js';
import { inspect, rowName } from './cells.js';
import { chart } from './charts.js';
import { drawing } from './drawing.js';

const SAMPLES = 300;
const GRAPHS = { tempCurrent: 'Temperatures, °C', voltageValue: 'Voltages, % of nominal', fanSpeed: 'Fans, rpm' };
const card = (title, ...content) => h('section', { class: 'card' }, h('h2', {}, title), ...content);
const quote = (words) => words.map((word) => (/^[\w./=:-]+$/.test(word) ? word
  : `"${word.replace(/(["\\$`])/g, '\\$1')}"`)).join(' ');

export class Device {
  constructor(name) {
    Object.assign(this, { name: decodeURIComponent(name), base: `/device/${name}`, cells: {}, about: {}, agent: {},
      history: [], plots: [], offset: 0 });
    document.title = `${this.name} · Front panel`;
    this.log = h('ol', { class: 'log' });
    this.inspector = h('section', { class: 'card inspector', 'aria-label': 'Selected value', tabindex: -1 });
    this.body = h('div', { class: 'columns' });
    const about = () => [this.about.name, this.about.model, this.about.text, this.about.location, this.about.address];
    this.node = h('div', { class: () => (this.status === 'running' ? 'device' : 'device lost') },
      h('header', { class: 'top' }, h('a', { href: '/', hidden: () => this.only }, '‹ Fleet'),
        h('div', { class: 'names' }, h('h1', {}, () => this.about.sysName || this.name),
          h('p', { class: 'hint' }, () => about().filter(Boolean).join(' · '))),
        h('div', { class: 'state', role: 'status', 'data-state': () => this.state() },
          lampIcon(() => this.state(), 20), () => STATES[this.state()])), this.body);
  }

  state() {
    if (this.status !== 'running') return this.status ?? 'starting';
    return this.agent.answers === false ? 'silent' : this.worst;
  }

  now() { return Date.now() / 1000 + this.offset; }

  // A message has the parts that have changed.
  take(message) {
    Object.assign(this, message);
    if (message.at) this.offset = message.at - Date.now() / 1000;
    if (message.sample && !message.history) this.history = [...this.history, message.sample].slice(-SAMPLES);
    if (message.model) this.build();
    refresh();
    if (message.sample || message.model) for (const draw of this.plots) draw(this.history);
  }

  build() {
    const agent = (action, text) => this.button(text, action, 'agent',
      `${this.command} exec --name ${this.name} -- sh -c '${this.actions[action]}'`);
    const scenarios = this.scenarios.map((name) =>
      this.button(name.replaceAll('-', ' '), name, 'scenario', `talctl scenario ${name}`));
    this.chosen = null;
    this.body.replaceChildren(h('main', {}, drawing(this), this.graphs()), h('aside', {}, this.inspector,
      card('Traps, as the receiver decoded them', list(h('ol', { class: 'traps', 'aria-live': 'polite' }),
        () => this.traps, trapItem, 'None yet.')),
      card('Messages', this.raiseForm(), list(h('ul', { class: 'faults' }), () => this.faults,
        (fault) => this.faultItem(fault), 'No message is active.'), this.trapSwitches()),
      card('Scenarios', h('div', { class: 'choices' }, scenarios), h('p', { class: 'hint' }, () => this.scenario)),
      card('SNMP agent', h('p', {}, () => `${this.agent.rate ?? 'No'} requests per second, with the panel’s`),
        h('div', { class: 'choices' }, agent('restart', 'Restart snmpd'), agent('kill', 'Kill snmpd'))),
      card('Commands of your clicks', this.log)));
    this.select(null);
  }

  raiseForm() {
    const option = (item) => h('option', {}, item);
    const groups = this.messages.map(([name, ids]) => h('optgroup', { label: name }, ids.map(option)));
    const id = h('select', { 'aria-label': 'Message' }, groups);
    const level = h('select', { 'aria-label': 'Level' }, ['crit', 'err', 'warning', 'notice'].map(option));
    const text = h('input', { 'aria-label': 'Text', value: 'Raised on the panel' });
    const words = () => ['fault', 'raise', 'panel', id.value, id.value, level.value, text.value, '--replace'];
    return this.form('raise', words, id, level, text, h('button', {}, 'Raise'));
  }

  // Shows the command that it sends.
  form(name, words, ...fields) {
    const onsubmit = (event) => {
      event.preventDefault();
      this.talctl(words());
    };
    return h('form', { class: name, onsubmit, oninput: refresh }, fields,
      h('code', { class: 'command' }, () => quote(['talctl', ...words()])));
  }

  button(text, value, action = 'talctl', command = quote(['talctl', ...value])) {
    return h('button', { title: command, onclick: () => this.run(action, value, command) }, text);
  }

  faultItem({ id, ref, reporter, text, state }) {
    return h('li', {}, lampIcon(state), h('span', {}, h('strong', {}, id || ref), ` ${text}`),
      this.button('Clear', ['fault', 'clear', reporter, ref]));
  }

  trapSwitches() {
    const enabled = () => this.switches?.filter(([, isEnabled]) => isEnabled).length;
    return h('details', {},
      h('summary', {}, () => `Traps enabled: ${enabled()} of ${this.switches?.length}`),
      list(h('div', { class: 'switches' }), () => this.switches, ([name, checked]) => {
        const words = ['trap', checked ? 'disable' : 'enable', name];
        return h('label', { title: quote(['talctl', ...words]) },
          h('input', { type: 'checkbox', checked, onchange: () => this.talctl(words) }), name);
      }));
  }

  graphs() {
    const graph = (title, cells) => {
      const [node, draw] = chart(title, 150, cells.map(rowName));
      this.plots.push((history) => draw(history.map(([time, , entries]) =>
        [time, ...cells.map((cell) => Math.abs(entries[cell.id]) * (cell.nominal ? 100 / cell.nominal : 1))])));
      return node;
    };
    const [requests, draw] = chart('SNMP requests per second', 150, ['requests']);
    this.plots = [draw];
    return h('section', { class: 'card graphs' }, h('h2', {}, 'Last 15 minutes'),
      Object.entries(GRAPHS).map(([object, title]) => {
        const cells = this.model.filter((cell) => cell.object === object);
        return cells.length ? graph(title, cells) : null;
      }), requests);
  }

  select(cell) {
    const before = this.chosen;
    this.chosen = cell;
    inspect(this, cell);
    refresh();
    if (cell) this.inspector.focus({ preventScroll: true });
    else if (before) this.body.querySelector(`[data-cell="${before.id}"]`)?.focus();
  }

  talctl(words) { return this.run('talctl', words, quote(['talctl', ...words])); }

  async run(action, value, command) {
    const result = h('span', { class: 'hint' }, '…');
    this.log.prepend(h('li', {}, h('code', {}, command), ' ', result));
    const headers = { 'Content-Type': 'application/json' };
    const answer = await fetch(`${this.base}/${action}`, { method: 'POST', headers, body: JSON.stringify(value) })
      .then((response) => response.json()).catch(() => ({ text: 'the panel does not answer' }));
    result.textContent = answer.ok ? 'done' : answer.text;
  }
}

function trapItem({ at, name, level, text, values }) {
  return h('li', {}, h('time', {}, at), h('strong', {}, name),
    level && h('span', { class: 'chip', 'data-level': level }, level),
    h('span', { class: 'text' }, text),
    h('details', {}, h('summary', {}, `${Object.keys(values).length} variables`),
      h('dl', {}, Object.entries(values).map(([label, value]) => [h('dt', {}, label), h('dd', {}, value)]))));
}
