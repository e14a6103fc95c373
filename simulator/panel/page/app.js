// The page of a device or of the fleet, by the address.
import { refresh } from './dom.js';
import { Device } from './device.js';
import { Fleet } from './fleet.js';

const path = location.pathname.match(/^\/device\/([^/]+)$/);
const view = path ? new Device(path[1]) : new Fleet();
const link = document.getElementById('link');
document.getElementById('app').replaceChildren(view.node);

function connect() {
  const source = new EventSource(path ? `${location.pathname}/events` : '/events');
  source.onmessage = (event) => {
    link.hidden = true;
    view.take(JSON.parse(event.data));
  };
  source.onerror = () => {
    link.hidden = false;
    if (source.readyState === EventSource.CLOSED) setTimeout(connect, 2000);
  };
  addEventListener('pagehide', () => source.close()); // a page that is kept for "back" costs nothing
}

connect();
setInterval(refresh, 1000);
document.addEventListener('keydown', (event) => { if (event.key === 'Escape') view.select?.(null); });
