// The page of a device or of the fleet, by the address.
import { refresh } from './dom.js';
import { Device } from './device.js';
import { Fleet } from './fleet.js';

const path = location.pathname.match(/^\/device\/([^/]+)$/);
const view = path ? new Device(path[1]) : new Fleet();
const link = document.getElementById('link');
document.getElementById('app').replaceChildren(view.node);

let source = null;
let heard = 0;

function connect() {
  source?.close();
  source = new EventSource(path ? `${location.pathname}/events` : '/events');
  heard = Date.now();
  source.onmessage = (event) => {
    heard = Date.now();
    link.hidden = true;
    view.take(JSON.parse(event.data));
  };
  source.onerror = () => { link.hidden = false; };
}

connect();
setInterval(() => {
  refresh();
  if (Date.now() - heard > (source.readyState === EventSource.CLOSED ? 3000 : 25000)) connect();
}, 1000);
document.addEventListener('keydown', (event) => { if (event.key === 'Escape') view.select?.(null); });
addEventListener('pagehide', () => source.close());
