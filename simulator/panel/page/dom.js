// Elements without markup in strings: texts of devices are always text nodes.
const SVG = 'http://www.w3.org/2000/svg';
const SVG_NAMES = ['svg', 'g', 'path', 'rect', 'circle', 'text'];
let bindings = [];

// An attribute or a child that is a function is asked again by `refresh`.
export function h(name, attributes = {}, ...children) {
  const node = SVG_NAMES.includes(name) ? document.createElementNS(SVG, name) : document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
    else bind(node, value, (shown) => node[shown || shown === 0 ? 'setAttribute' : 'removeAttribute'](key, shown));
  }
  for (const child of children.flat(2)) {
    const text = typeof child === 'function' ? new Text() : child;
    node.append(text || '');
    if (text !== child) bind(node, child, (shown) => { text.data = shown ?? ''; });
  }
  return node;
}

function bind(node, value, show) {
  let shown;
  const update = () => {
    const next = typeof value === 'function' ? value() : value;
    if (next !== shown) show(shown = next);
  };
  update();
  if (typeof value === 'function') bindings.push({ node, update });
}

// Fills an element with the items of a list, whenever it is another list.
export function list(node, items, make, empty = '') {
  bind(node, items, (found) => node.replaceChildren(...(found?.length ? found.map(make) : [empty])));
  return node;
}

export function refresh() {
  bindings = bindings.filter(({ node }) => node.isConnected);
  for (const { update } of bindings) update();
}

// Lamps have a shape for each state, so that colour is not needed to read them.
const CIRCLE = 'M-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z', CROSS = 'M-5-5L5 5M5-5L-5 5';
const SHAPES = { warn: 'M0-6L6.2 5H-6.2z', bad: 'M0-6.5L6.5 0L0 6.5L-6.5 0z', silent: CROSS, gone: CROSS };
export const STATES = { ok: 'In order', notice: 'Notice', warn: 'Warning', bad: 'Fault', off: 'Off', unknown: 'Unknown',
  silent: 'No answer', gone: 'The device is gone', starting: 'Starting' };

export const lamp = (state, transform = '') => h('path', { class: 'lamp', transform, 'data-state': state,
  d: () => SHAPES[state()] ?? CIRCLE });

export const lampIcon = (state, size = 16) => h('svg', { viewBox: '-8 -8 16 16', width: size, height: size,
  'aria-hidden': 'true' }, lamp(typeof state === 'function' ? state : () => state));
