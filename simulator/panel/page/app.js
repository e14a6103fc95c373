// The page of a device or of the fleet, by the address.
import { h, put } from './dom.js';
import { Device } from './device.js';
import { Fleet } from './fleet.js';

const path = location.pathname.match(/^\/device\/([^/]+)$/);
const view = path ? new Device(path[1]) : new Fleet();
const link = document.getElementById('link');
document.getElementById('app').replaceChildren(view.node);

let source = null;
let heard = Date.now();

function connect() {
  source?.close();
  source = new EventSource(path ? `${location.pathname}/events` : '/events');
  heard = Date.now();
  source.onmessage = (event) => {
    heard = Date.now();
    link.hidden = true;
    const message = JSON.parse(event.data);
    if (Object.keys(message).length) view.take(message);
  };
  source.onerror = () => {
    link.hidden = false;
    put(link, 'The panel does not answer. The values below are the last ones.');
    if (source.readyState === EventSource.CLOSED) setTimeout(connect, 2000);
  };
}

connect();
setInterval(() => {
  view.tick?.();
  if (Date.now() - heard > 25000) connect();
}, 1000);
document.addEventListener('keydown', (event) => { if (event.key === 'Escape') view.escape?.(); });
addEventListener('pagehide', () => source.close());
