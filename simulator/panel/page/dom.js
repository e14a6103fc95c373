// Elements without markup in strings: texts of devices are always text nodes.
const SVG = 'http://www.w3.org/2000/svg';

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (value !== false && value !== null && value !== undefined) element.setAttribute(name, value === true
      ? '' : value);
  }
  element.append(...children.flat().filter((child) => child !== null && child !== undefined));
  return element;
}

export const h = (name, attributes = {}, ...children) => fill(document.createElement(name), attributes, children);
export const s = (name, attributes = {}, ...children) =>
  fill(document.createElementNS(SVG, name), attributes, children);

export function put(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export async function post(path, value) {
  try {
    const answer = await fetch(path,
      { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(value) });
    return answer.ok ? await answer.json() : { ok: false, text: await answer.text() };
  } catch {
    return { ok: false, text: 'the panel does not answer' };
  }
}

// Lamps have a shape for each state, so that colour is not needed to read them.
const SHAPES = {
  ok: 'M-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z', notice: 'M-5 0a5 5 0 1 0 10 0a5 5 0 1 0-10 0z',
  warn: 'M0-6L6.2 5H-6.2z', bad: 'M0-6.5L6.5 0L0 6.5L-6.5 0z',
  off: 'M-4 0a4 4 0 1 0 8 0a4 4 0 1 0-8 0z', unknown: 'M-4 0a4 4 0 1 0 8 0a4 4 0 1 0-8 0z',
  silent: 'M-5-5L5 5M5-5L-5 5', gone: 'M-5-5L5 5M5-5L-5 5', starting: 'M-4 0a4 4 0 1 0 8 0',
};
export const STATES = { ok: 'In order', notice: 'Notice', warn: 'Warning', bad: 'Fault', off: 'Off', unknown: 'Unknown',
  silent: 'No answer', gone: 'Gone', starting: 'Starting' };

export function lamp(x, y) {
  const path = s('path', { transform: `translate(${x} ${y})`, class: 'lamp' });
  return { node: path, set(state) { path.setAttribute('d',
    SHAPES[state] ?? SHAPES.unknown); path.dataset.state = state; } };
}

export function lampIcon(state, size = 16) {
  const made = lamp(0, 0);
  made.set(state);
  return s('svg', { viewBox: '-8 -8 16 16', width: size, height: size, 'aria-hidden': 'true' }, made.node);
}
