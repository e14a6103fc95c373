// The page of one device.
import { h, lampIcon, list, post, refresh, STATES } from './dom.js';
import { numbers, rowName } from './cells.js';
import { chart } from './charts.js';
import { drawing } from './drawing.js';
import { inspect } from './inspector.js';

const LEVELS = ['crit', 'err', 'warning', 'notice'];
const SAMPLES = 300;
const GRAPHS = { tempCurrent: 'Temperatures, °C', voltageValue: 'Voltages, % of nominal', fanSpeed: 'Fans, rpm' };
const card = (title, ...content) => h('section', { class: 'card' }, h('h2', {}, title), ...content);
const hint = (...text) => h('p', { class: 'hint' }, ...text);
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
      h('header', { class: 'top' }, h('a', { class: 'back', href: '/', hidden: () => this.only }, 'Fleet'),
        h('div', { class: 'names' }, h('h1', {}, () => this.about.sysName || this.name),
          h('p', {}, () => about().filter(Boolean).join(' · '))),
        h('div', { class: 'state', role: 'status', 'data-state': () => this.state() },
          lampIcon(() => this.state(), 20), () => this.stateText())), this.body);
  }

  state() {
    if (this.status !== 'running') return this.status ?? 'starting';
    return this.agent.answers === false ? 'silent' : this.worst;
  }

  stateText() {
    return { gone: 'The device is gone', silent: this.why || 'snmpd does not answer',
      starting: 'Waiting for the device' }[this.state()] ?? STATES[this.state()];
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
    if (message.sample) this.drawChosen?.(this.history);
  }

  build() {
    const scenarios = Object.entries(this.scenarios).map(([name, about]) =>
      h('button', { title: about, onclick: () => this.run('scenario', name, `talctl scenario ${name}`) },
        name.replaceAll('-', ' ')));
    const agent = (action, text) => {
      const title = `${this.command} exec --name ${this.name} -- sh -c '${this.actions[action]}'`;
      return h('button', { title, onclick: () => this.run('agent', action, title) }, text);
    };
    const pair = (label, text) => h('div', {}, h('dt', {}, label), h('dd', {}, text));
    this.chosen = null;
    this.body.replaceChildren(h('main', {}, drawing(this), this.graphs()), h('aside', {}, this.inspector,
      card('Traps, as the receiver decoded them', list(h('ol', { class: 'traps', 'aria-live': 'polite' }),
        () => this.traps, trapItem, hint('None yet.'))),
      card('Messages', this.raiseForm(), list(h('ul', { class: 'faults' }), () => this.faults,
        (fault) => this.faultItem(fault), hint('No message is active.')), this.trapSwitches()),
      card('Scenarios', h('div', { class: 'choices' }, scenarios)),
      card('SNMP agent', h('dl', { class: 'pair' }, pair('Answers', () => (this.agent.answers ? 'yes' : 'no')),
        pair('Runs for', () => `${Math.floor((this.agent.uptime ?? 0) / 60)} min`),
        pair('Requests, with the panel’s', () => `${this.agent.rate?.toFixed(1) ?? '–'} /s`)),
      h('div', { class: 'choices' }, agent('restart', 'Restart snmpd'), agent('kill', 'Kill snmpd'))),
      card('Commands of your clicks', this.log)));
    this.select(null);
  }

  raiseForm() {
    const id = h('select', { 'aria-label': 'Message' }, this.messages.map(([name, ids]) =>
      h('optgroup', { label: name }, ids.map((item) => h('option', {}, item)))));
    const level = h('select', { 'aria-label': 'Level' }, LEVELS.map((item) => h('option', {}, item)));
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
    return h('form', { class: name, onsubmit, oninput: refresh }, fields, this.commandOf(words));
  }

  commandOf(words) { return h('code', { class: 'command' }, () => quote(['talctl', ...words()])); }

  faultItem(fault) {
    const clear = ['fault', 'clear', fault.reporter, fault.ref];
    const name = fault.id || fault.ref;
    return h('li', {}, lampIcon(fault.state), h('span', {}, h('strong', {}, name), ` ${fault.text}`),
      h('button', { title: quote(['talctl', ...clear]), 'aria-label': `Clear ${name}`,
        onclick: () => this.talctl(clear) }, 'Clear'));
  }

  trapSwitches() {
    const enabled = () => this.switches?.filter(([, isEnabled]) => isEnabled).length;
    const change = ({ target }, name) => this.talctl(['trap', target.checked ? 'enable' : 'disable', name]);
    return h('details', {},
      h('summary', {}, () => `Traps enabled: ${enabled()} of ${this.switches?.length}`),
      list(h('div', { class: 'switches' }), () => this.switches, ([name, checked]) => h('label', {},
        h('input', { type: 'checkbox', checked, onchange: (event) => change(event, name) }), name)));
  }

  graphs() {
    const graph = (title, cells, value) => {
      const [node, draw] = chart(title, 150, cells.map(rowName));
      this.plots.push((history) => draw(history.map(([time, , entries]) =>
        [time, ...cells.map((cell) => value(cell, entries[cell.id] ?? []))])));
      return node;
    };
    const [requests, draw] = chart('SNMP requests per second', 150, ['requests']);
    this.plots = [draw];
    return h('section', { class: 'card graphs' }, h('h2', {}, 'Last 15 minutes'),
      Object.entries(GRAPHS).map(([object, title]) => {
        const cells = this.model.filter((cell) => cell.object === object);
        return cells.length ? graph(title, cells, (cell, entry) =>
          (numbers(cell, entry)[0] ?? NaN) * (cell.nominal ? 100 / cell.nominal : 1)) : null;
      }), requests);
  }

  select(cell) {
    const before = this.chosen;
    this.chosen = cell;
    this.drawChosen = inspect(this, cell);
    this.drawChosen?.(this.history);
    refresh();
    if (cell) this.inspector.focus({ preventScroll: true });
    else if (before) this.body.querySelector(`[data-cell="${before.id}"]`)?.focus();
  }

  talctl(words) { return this.run('talctl', words, quote(['talctl', ...words])); }

  async run(action, value, command) {
    const result = h('span', { class: 'hint' }, '…');
    this.log.prepend(h('li', {}, h('code', {}, command), result));
    const answer = await post(`${this.base}/${action}`, value);
    result.textContent = answer.ok ? 'done' : answer.text;
    result.classList.toggle('late', !answer.ok);
  }
}

function trapItem({ at, name, level, text, values }) {
  return h('li', {}, h('time', {}, at), h('strong', {}, name), h('span', { class: 'chip', 'data-level': level }, level),
    h('span', { class: 'text' }, text),
    h('details', {}, h('summary', {}, `${Object.keys(values).length} variables`),
      h('dl', {}, Object.entries(values).map(([label, value]) => [h('dt', {}, label), h('dd', {}, value)]))));
}
