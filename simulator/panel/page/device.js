// The page of one device.
import { h, lampIcon, post, put, STATES } from './dom.js';
import { ageOf, numbers, rowName } from './cells.js';
import { Drawing } from './drawing.js';
import { Inspector, quote } from './inspector.js';
import { chart } from './charts.js';

const LEVELS = ['crit', 'err', 'warning', 'notice'];
const SAMPLES = 450;
const duration = (seconds) => (seconds < 120 ? `${seconds} s` : `${Math.floor(seconds / 60)} min`);
const card = (title, ...content) => h('section', { class: 'card' }, h('h2', {}, title), ...content);

export class Device {
  constructor(name) {
    this.name = decodeURIComponent(name);
    this.base = `/device/${name}`;
    document.title = `${this.name} · Front panel`;
    Object.assign(this, { cells: {}, loads: {}, agent: {}, about: {}, history: [], model: [], offset: 0, seen: 0 });
    this.state = h('div', { class: 'state', role: 'status' });
    this.title = h('h1', {}, this.name);
    this.subtitle = h('p');
    this.inspector = new Inspector(this);
    this.body = h('div', { class: 'columns' });
    this.node = h('div', { class: 'device' }, h('header', { class: 'top' },
      this.back = h('a', { class: 'back', href: '/' }, 'Fleet'),
        h('div', { class: 'names' }, this.title, this.subtitle), this.state), this.body);
  }

  now() { return Date.now() / 1000 + this.offset; }

  take(message) {
    if (message.whole) {
      this.offset = message.now - Date.now() / 1000;
      this.history = message.history ?? this.history;
      this.back.hidden = message.only;
      if (message.model) this.build(message);
    }
    for (const part of ['loads', 'about', 'agent', 'status', 'why', 'worst', 'faults', 'switches', 'scenario'])
      if (part in message) this[part] = message[part];
    if (message.cells) {
      Object.assign(this.cells, message.cells);
      this.drawing?.update(message.cells);
    }
    if (message.sample) this.history = [...this.history, message.sample].slice(-SAMPLES);
    if (message.traps && this.drawing) this.addTraps(message.traps);
    if (this.drawing) this.draw(message);
    this.drawHead();
  }

  build(message) {
    this.model = message.model;
    this.cells = {};
    this.drawing = new Drawing(this.model, (cell) => this.select(cell));
    this.faultList = h('ul', { class: 'faults' });
    this.trapList = h('ol', { class: 'traps', 'aria-live': 'polite' });
    this.switchList = h('div', { class: 'switches' });
    this.switchSum = h('summary');
    this.log = h('ol', { class: 'log' });
    this.rate = h('dd'), this.uptime = h('dd'), this.answers = h('dd'),
      this.scenarioState = h('p', { class: 'hint', role: 'status' });
    const exec = (action, name) => {
      const command = `${message.command} exec --name ${this.name} -- sh -c '${message.actions[action]}'`;
      return h('button', { title: command, onclick: () => this.run(`${this.base}/agent`, action, command) }, name);
    };
    const scenario = ([name, about]) => h('button', { title: about,
      onclick: () => this.run(`${this.base}/scenario`, name, `talctl scenario ${name}`) }, name.replaceAll('-', ' '));
    this.body.replaceChildren(
      h('main', {}, this.drawing.node, this.graphs()),
      h('aside', {}, this.inspector.node,
        card('Traps, as the receiver decoded them', this.trapList),
        card('Messages', this.raiseForm(message.messages), this.faultList,
          h('details', {}, this.switchSum, this.switchList)),
        card('Scenarios', h('div', { class: 'choices' }, Object.entries(message.scenarios).map(scenario)), this.scenarioState),
        card('SNMP agent', h('dl', { class: 'pair' }, h('div', {}, h('dt', {}, 'Answers'), this.answers),
          h('div', {}, h('dt', {}, 'Runs for'), this.uptime),
          h('div', {}, h('dt', {}, 'Requests'), this.rate)), this.share = h('p', { class: 'hint' }),
        h('div', { class: 'choices' }, exec('restart', 'Restart snmpd'), exec('kill', 'Kill snmpd'))),
        card('Commands of your clicks', this.log)));
    this.inspector.empty();
  }

  // Parts

  raiseForm(messages) {
    const id = h('select', { 'aria-label': 'Message' },
      messages.map(([, name, ids]) => h('optgroup', { label: name }, ids.map((item) => h('option', {}, item)))));
    const level = h('select', { 'aria-label': 'Level' }, LEVELS.map((item) => h('option', {}, item)));
    const text = h('input', { 'aria-label': 'Text', value: 'Raised on the panel' });
    const words = () => ['fault', 'raise', 'panel', id.value, id.value, level.value, text.value, '--replace'];
    const command = h('code', { class: 'command' });
    const show = () => put(command, quote(['talctl', ...words()]));
    const submit = (event) => {
      event.preventDefault();
      this.talctl(words());
    };
    const form = h('form', { class: 'raise', oninput: show, onsubmit: submit }, id, level, text, h('button', {}, 'Raise'), command);
    show();
    return form;
  }

  graphs() {
    const pick = (object) => this.model.filter((cell) => cell.object === object);
    this.plots = [['Temperatures, °C', pick('tempCurrent'), (cell, values) => numbers(cell, values)[0]],
      ['Voltages, % of nominal', pick('voltageValue').filter((cell) => cell.nominal), (cell, values) =>
        (numbers(cell, values)[0] ?? NaN) / cell.nominal * 100],
      ['Fans, rpm', pick('fanSpeed'), (cell, values) => numbers(cell, values)[0]]]
      .filter(([, cells]) => cells.length).map(([title, cells, value]) => {
        const node = h('div', { class: 'plot' });
        const draw = chart(node, 150, cells.map(rowName));
        const row = ([time, , values]) => [time, ...cells.map((cell) => value(cell, values[cell.id] ?? []))];
        return { title, node, draw: (history) => draw(history.map(row)) };
      });
    const node = h('div', { class: 'plot' });
    const draw = chart(node, 150, ['requests']);
    this.plots.push({ title: 'SNMP requests per second', node, draw: (history) =>
      draw(history.map(([time, rate]) => [time, rate])) });
    return h('section', { class: 'graphs', 'aria-label': 'Last 15 minutes' }, h('h2', {}, 'Last 15 minutes'),
      this.plots.map(({ title, node: plot }) => h('figure', {}, h('figcaption', {}, title), plot)));
  }

  // Drawing

  draw(message) {
    if (message.faults) {
      const none = h('li', { class: 'hint' }, 'No message is active.');
      this.faultList.replaceChildren(...(this.faults.length ? this.faults.map((fault) => this.faultItem(fault)) : [none]));
    }
    if (message.switches) {
      const names = Object.keys(this.switches);
      put(this.switchSum, `Traps enabled: ${names.filter((name) => this.switches[name]).length} of ${names.length}`);
      this.switchList.replaceChildren(...names.map((name) =>
        h('label', { class: 'check' }, h('input', { type: 'checkbox', checked: this.switches[name],
        onchange: (event) => this.talctl(['trap', event.target.checked ? 'enable' : 'disable', name]) }), name)));
    }
    if (message.scenario) put(this.scenarioState, `${this.scenario.name}: ${this.scenario.state}`);
    if (message.agent) {
      put(this.answers, this.agent.answers ? 'yes' : 'no');
      this.answers.classList.toggle('late', !this.agent.answers);
      put(this.uptime, this.agent.uptime === undefined ? '–' : duration(this.agent.uptime));
      put(this.rate, typeof this.agent.rate !== 'number' ? '–' : `${this.agent.rate.toFixed(1)} /s`);
      put(this.share, typeof this.agent.own !== 'number'
        ? '' : `${this.agent.own.toFixed(1)} of them per second are the panel’s.`);
    }
    if (message.sample || message.whole) for (const plot of this.plots) plot.draw(this.history);
    this.inspector.update();
    this.tick();
  }

  drawHead() {
    const { status, worst, about, agent } = this;
    const state = status !== 'running' ? status : agent.answers === false ? 'silent' : worst ?? 'ok';
    put(this.title, about.sysName || this.name);
    put(this.subtitle, [about.name !== about.sysName && about.name, about.model, about.text, about.location,
      about.address].filter(Boolean).join(' · '));
    const text = { gone: 'The device is gone', silent: this.why || 'snmpd does not answer',
      starting: 'Waiting for the device' }[state] ?? STATES[state];
    if (this.state.dataset.state !== state || this.state.dataset.text !== text) {
      Object.assign(this.state.dataset, { state, text });
      this.state.replaceChildren(lampIcon(state, 20), text);
    }
    this.node.classList.toggle('lost', status !== 'running');
  }

  faultItem(fault) {
    const clear = ['fault', 'clear', fault.reporter, fault.ref];
    const name = fault.id || fault.ref;
    return h('li', {}, lampIcon(fault.state), h('span', {}, h('strong', {}, name), ` ${fault.text}`),
      h('button', { class: 'quiet', title: quote(['talctl', ...clear]), 'aria-label': `Clear ${name}`,
        onclick: () => this.talctl(clear) }, 'Clear'));
  }

  addTraps(traps) {
    const items = traps.map(({ at, name, level, text, values }) => h('li', {},
      h('time', {}, at), h('strong', {}, name),
      level ? h('span', { class: 'chip', 'data-level': level }, level) : null,
      h('span', { class: 'text' }, text),
      h('details', {}, h('summary', {}, `${Object.keys(values).length} variables`),
        h('dl', {}, Object.entries(values).map(([label, value]) => [h('dt', {}, label), h('dd', {}, value)])))));
    this.trapList.querySelector('.hint')?.remove();
    this.trapList.prepend(...items.reverse());
    while (this.trapList.children.length > 100) this.trapList.lastChild.remove();
    if (!this.trapList.children.length) this.trapList.append(h('li', { class: 'hint' }, 'None yet.'));
  }

  tick() {
    if (!this.drawing) return;
    for (const { table, bar, text } of this.drawing.ages) {
      const age = ageOf(this.loads, table, this.now());
      put(text, age === null ? '≤ 60 s' : age > 60 ? 'expired' : `${age} s`);
      bar.style.width = `${Math.min(100, (age ?? 0) / 0.6)}%`;
    }
    this.inspector.update();
  }

  // Clicks

  select(cell) {
    this.chosen = document.activeElement;
    this.inspector.show(cell, this.model);
    for (const item of this.drawing.node.querySelectorAll('.item')) {
      item.classList.toggle('chosen', item.dataset.cell === cell.id);
    }
    this.inspector.node.focus({ preventScroll: true });
  }

  escape() {
    if (!this.inspector.row) return;
    this.inspector.empty();
    this.chosen?.focus();
    for (const item of this.drawing.node.querySelectorAll('.chosen')) item.classList.remove('chosen');
  }

  talctl(words) { return this.run(`${this.base}/talctl`, words, quote(['talctl', ...words])); }

  async run(path, value, command) {
    const result = h('span', { class: 'hint' }, '…');
    this.log.prepend(h('li', {}, h('code', {}, command), result));
    while (this.log.children.length > 20) this.log.lastChild.remove();
    const answer = await post(path, value);
    put(result, answer.ok ? 'done' : answer.text);
    result.classList.toggle('late', !answer.ok);
    if (!answer.ok) this.inspector.update();
  }
}
