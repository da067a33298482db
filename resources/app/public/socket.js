// @ts-check
// The service's events for this page. A WebSocket, not an event stream over HTTP: the browser keeps
// six HTTP connections to the service, and an open stream in each of six pages would take every
// one. A closed socket is opened again a second later, to the address the page wants then; its
// first event is a fresh snapshot, so nothing is lost in between.

/** @typedef {import('../workspace/model.ts').PageEvent} PageEvent */

const RECONNECT_MS = 1000;

export class EventSocket {
  /** @type {WebSocket | null} */
  #socket = null;
  /** @type {ReturnType<typeof setTimeout> | undefined} */
  #reconnect;
  #address;
  #onEvent;
  #onConnection;

  /**
   * @param {() => string} address where to connect, asked afresh each time
   * @param {(event: PageEvent) => void} onEvent
   * @param {(connected: boolean) => void} onConnection
   */
  constructor(address, onEvent, onConnection) {
    this.#address = address;
    this.#onEvent = onEvent;
    this.#onConnection = onConnection;
  }

  /** Drops the socket there is, and opens one to the address wanted now. */
  open() {
    clearTimeout(this.#reconnect);
    this.#socket?.close();
    const socket = new WebSocket(this.#address());
    this.#socket = socket;
    // The socket of an address left behind may still deliver a little: only the current one counts.
    socket.addEventListener('message', (message) => { if (socket === this.#socket) this.#onEvent(JSON.parse(message.data)); });
    socket.addEventListener('open', () => { if (socket === this.#socket) this.#onConnection(true); });
    socket.addEventListener('close', () => {
      if (socket !== this.#socket) return;
      this.#onConnection(false);
      this.#reconnect = setTimeout(() => this.open(), RECONNECT_MS);
    });
  }
}
