'use strict';
// The console: every schedule type with its schedules, drawn as a week grid
// or a list of coming changes, editable by drawing on the grid or through
// the text form, and kept current by the server's event stream.

const PALETTE = 8;
const typeViews = new Map(), timers = new Map();
let token = null;

const $ = (root, selector) => root.querySelector(selector);
const byId = (id) => document.getElementById(id);
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));
const yes = (v) => v === true || v === 'true' || v === '1';
const schedulePath = (type, id) =>
  '/api/types/' + encodeURIComponent(type) + '/schedules/' + encodeURIComponent(id);

const el = (tag, cls = '', text = '') =>
  Object.assign(document.createElement(tag), { className: cls, textContent: text });
const clone = (id) => byId(id).content.firstElementChild.cloneNode(true);

// Runs fn once, 300 ms after the last of a burst of calls with the same key.
function later(key, fn, ms = 300) {
  clearTimeout(timers.get(key));
  timers.set(key, setTimeout(() => { timers.delete(key); fn(); }, ms));
}

function setBanner(text) {
  Object.assign(byId('banner'), { textContent: text, hidden: !text });
}

// The token comes in the address's fragment, which browsers never send; it
// stays in this tab only and leaves the address bar at once.
function takeToken() {
  const m = /(?:^#|&)token=([^&]*)/.exec(location.hash);
  if (m) {
    sessionStorage.setItem('token', decodeURIComponent(m[1]));
    history.replaceState(null, '', location.pathname + location.search);
  }
  token = sessionStorage.getItem('token');
  if (!token) askToken();
}

function askToken(message) {
  token = null;
  sessionStorage.removeItem('token');
  if (message) byId('token-message').textContent = message;
  byId('token-form').hidden = false;
  byId('token-input').focus();
}

function tokenEntered(event) {
  event.preventDefault();
  token = byId('token-input').value.trim();
  sessionStorage.setItem('token', token);
  byId('token-input').value = '';
  byId('token-form').hidden = true;
  loadTypes();
}

// A call of the API. It fails with the server's error sentence, and with
// its status and answer attached; a refused token is asked for again.
async function api(method, path, body) {
  if (!token) throw Object.assign(new Error('no access token'), { status: 401, body: {} });
  const headers = { Authorization: 'Bearer ' + token, 'Content-Type': 'application/json' };
  const res = await fetch(path, { method, headers, cache: 'no-store',
    body: body && JSON.stringify(body) });
  const data = await res.json().catch(() => ({}));
  if (res.status === 401) askToken('The token was refused; enter it again.');
  if (res.ok) return data;
  const error = new Error(data.error || 'the server answered ' + res.status);
  throw Object.assign(error, { status: res.status, body: data });
}

async function loadTypes() {
  try {
    const data = await api('GET', '/api/types');
    setBanner('');
    sync(byId('types'), typeViews, data.types, (t) => t.name, (t) => new TypeView(t.name));
    if (!data.types.length) byId('types').append(el('p', 'empty', 'No type is registered.'));
  } catch (e) {
    if (e.status === 502) setBanner('Scheduler not on the bus');
    else if (e.status !== 401) setBanner('Cannot load the schedules: ' + e.message);
  }
}

// Brings parent's views in line with items: views of items that went away
// are dropped, new ones made, and all updated in the items' order. A view
// moves only when out of place, since moving takes the focus from it.
function sync(parent, views, items, key, make) {
  const keys = new Set(items.map(key));
  for (const [k, view] of views) if (!keys.has(k)) { view.el.remove(); views.delete(k); }
  $(parent, ':scope > p.empty')?.remove();
  items.forEach((item, i) => {
    if (!views.has(key(item))) views.set(key(item), make(item));
    const view = views.get(key(item));
    view.update(item);
    if (parent.children[i] !== view.el) parent.insertBefore(view.el, parent.children[i] || null);
  });
}

// Shows a text form's error under the field: the message, the line with a
// caret under the column, and the cursor put at that column.
function showTextError(field, err) {
  const column = Number(err.body.column), text = field.value;
  const at = Math.min(column - 1, text.length);
  const start = text.lastIndexOf('\n', at - 1) + 1, stop = text.indexOf('\n', at);
  const box = el('div', 'text-error');
  box.setAttribute('role', 'alert');
  box.dataset.column = String(column);
  box.append(el('span', 'message', err.message), el('pre', 'caret',
    text.slice(start, stop < 0 ? text.length : stop) + '\n' + ' '.repeat(at - start) + '^'));
  (field.closest('label') || field).after(box);
  field.focus();
  field.setSelectionRange(at, at);
}

function clearTextError(field) {
  const next = (field.closest('label') || field).nextElementSibling;
  if (next && next.classList.contains('text-error')) next.remove();
}

// Shows why a call failed, or clears it with e null: a text form's error
// at its column in the field, any other in the paragraph p.
function report(e, p, field) {
  if (field) clearTextError(field);
  if (e && field && e.body && e.body.column) showTextError(field, e);
  else Object.assign(p, { textContent: e ? e.message : '', hidden: !e });
}

class TypeView {
  constructor(name) {
    Object.assign(this, { name, states: [], cards: new Map(), el: clone('type-template') });
    this.el.dataset.type = name;
    $(this.el, '.type-name').textContent = name;
    $(this.el, '.new-schedule').addEventListener('submit', (e) => {
      e.preventDefault();
      this.add();
    });
  }

  // The colour class of a state: one of the palette by its place among the
  // type's states, pale for the schedule's default, grey for one unknown.
  colour(state, schedule) {
    if (schedule && state === schedule.default) return 'st-default';
    const i = this.states.indexOf(state);
    return i < 0 ? 'st-none' : 'st-' + (i % PALETTE);
  }

  update(t) {
    // The legend is made anew only when the states change, so that a live
    // reload leaves the page's elements as they are.
    if (String(t.states) !== String(this.states)) {
      this.states = t.states;
      const chips = t.states.map((s) => el('li', 'chip ' + this.colour(s), s));
      chips.push(el('li', 'chip st-default', "a schedule's default"));
      $(this.el, '.legend').replaceChildren(...chips);
    }
    $(this.el, '.type-path').textContent = t.path;
    // By ID, so that a card stays where it was when its schedule changes.
    const schedules = [...t.schedules].sort((a, b) => (a.id < b.id ? -1 : a.id > b.id ? 1 : 0));
    sync($(this.el, '.schedules'), this.cards, schedules, (s) => s.id, (s) => new Card(this, s.id));
  }

  async add() {
    const form = $(this.el, '.new-schedule'), id = $(form, '.new-id'), text = $(form, '.new-text');
    report(null, $(form, '.card-error'), text);
    try {
      await api('PUT', schedulePath(this.name, id.value.trim()), { text: text.value });
      id.value = text.value = '';
      loadTypes();
    } catch (e) {
      report(e, $(form, '.card-error'), text);
    }
  }
}

// One schedule's card. It keeps the schedule as the server last gave it;
// its week grid keeps what was painted on it but not saved yet.
class Card {
  constructor(view, id) {
    Object.assign(this, { view, id, textDirty: false });
    this.el = clone('schedule-template');
    const save = (entries) =>
      this.call('PUT', this.path, { base: this.s.base, default: this.s.default, entries });
    this.grid = new WeekGrid(this.find('.grid-area'), (state) => view.colour(state, this.s), save);
    Object.assign(this.el.dataset, { type: view.name, id });
    this.find('.schedule-id').textContent = id;
    const wiring = [
      ['.enable', 'change', (e) => this.post('enable', { enable: e.target.checked })],
      ['.override', 'change', (e) => this.post('override', { state: e.target.value })],
      ['.delete', 'click', () => this.remove()],
      ['.save-text', 'click', () => this.saveText()],
      // Once a person is in the text, it is theirs until saved: a live
      // update must not put the old text back under their cursor.
      ['.text-form', 'focus', () => { this.textDirty = true; }],
      ['.text-form', 'input', () => { this.textDirty = true; }],
    ];
    for (const [selector, type, fn] of wiring) this.find(selector).addEventListener(type, fn);
  }

  find(selector) { return $(this.el, selector); }
  get path() { return schedulePath(this.view.name, this.id); }

  update(s) {
    this.s = s;
    this.find('.base').textContent = s.base;
    this.setBadge(s.current);
    this.find('.next-change').textContent = s.nextLocal || 'none pending';
    this.find('.enable').checked = s.enabled;
    this.setTemporary(s.temporary);
    this.fillStates();
    this.find('.override').value = s.override;
    if (!this.textDirty) this.find('.text-form').value = s.text;
    this.grid.show(s);
    this.showUpcoming(s.upcoming);
  }

  setBadge(state) {
    const badge = this.find('.current-state');
    badge.textContent = badge.dataset.state = state;
    badge.className = 'current-state badge ' + this.view.colour(state, this.s);
  }

  setTemporary(on) {
    this.find('.temporary').textContent = on ? 'overridden until the next change' : '';
  }

  // The controls that list the type's states, rebuilt when those change.
  fillStates() {
    const states = this.view.states, def = this.s.default, key = states.concat(def).join('\n');
    if (key === this.statesKey) return;
    this.statesKey = key;
    const options = (list) => list.map((s) => new Option(s, s));
    this.find('.override').replaceChildren(new Option('none', ''), ...options(states));
    this.grid.fillStates(states, def);
    this.find('.temp-buttons').replaceChildren(...states.map((s) => {
      const b = el('button', 'temp-override', 'Now: ' + s);
      b.type = 'button';
      b.addEventListener('click', () => this.post('override-state', { state: s }));
      return b;
    }));
  }

  // A change the bus announced shows at once; the rest (the grid) comes
  // with the schedule read shortly after. The next change is shown in the
  // gateway's local time when the event brings it, else in the browser's.
  applyChanges(c, nextLocal) {
    if ('CurrentState' in c) { this.s.current = c.CurrentState; this.setBadge(c.CurrentState); }
    if ('NextStateChange' in c) {
      const at = typeof nextLocal === 'string' ? nextLocal : c.NextStateChange &&
        new Date(c.NextStateChange).toLocaleString(undefined,
          { weekday: 'short', day: 'numeric', month: 'short', hour: '2-digit', minute: '2-digit' });
      this.find('.next-change').textContent = at || 'none pending';
    }
    if ('Enable' in c) this.find('.enable').checked = yes(c.Enable);
    if ('Override' in c) this.find('.override').value = c.Override;
    if ('TemporaryOverride' in c) this.setTemporary(yes(c.TemporaryOverride));
    later('schedule\n' + this.view.name + '\n' + this.id, () => this.refresh());
  }

  async refresh() {
    try {
      this.update(await api('GET', this.path));
    } catch (e) {
      if (e.status !== 404) this.fail(e);
    }
  }

  fail(e, field) { report(e, this.find('.card-error'), field); }

  // Sends a change and shows the schedule as the answer has it; on an error
  // the controls go back to what the schedule was. A text form's error goes
  // to its field.
  async call(method, path, body, field) {
    this.fail(null, field);
    try {
      this.update(await api(method, path, body));
      return true;
    } catch (e) {
      this.fail(e, field);
      this.update(this.s);
      return false;
    }
  }

  post(what, body) { return this.call('POST', this.path + '/' + what, body); }

  async remove() {
    if (!confirm('Delete the schedule "' + this.id + '" of ' + this.view.name + '?')) return;
    try {
      await api('DELETE', this.path);
      this.el.remove();
      this.view.cards.delete(this.id);
    } catch (e) { this.fail(e); }
  }

  async saveText() {
    const field = this.find('.text-form');
    if (await this.call('PUT', this.path, { text: field.value }, field)) {
      this.textDirty = false;
      field.value = this.s.text;
    }
  }

  showUpcoming(upcoming) {
    const list = this.find('.upcoming');
    list.hidden = !upcoming;
    if (!upcoming) return;
    list.replaceChildren(...upcoming.map((u) => {
      const li = el('li');
      const badge = el('span', 'badge ' + this.view.colour(u.state, this.s), u.state);
      li.append(el('time', '', u.local), ' ', badge);
      return li;
    }));
    if (!upcoming.length) list.append(el('li', 'empty', 'no change ahead'));
  }
}

// The event stream, read with fetch since EventSource cannot send the token.
// After an error it connects again, waiting 1 s, then longer up to 5 s.
async function followEvents() {
  const status = byId('stream-state');
  for (let wait = 1000; ; wait = Math.min(wait * 2, 5000)) {
    if (!token) { await sleep(500); continue; }
    try {
      const headers = { Authorization: 'Bearer ' + token };
      const res = await fetch('/api/events', { headers, cache: 'no-store' });
      if (res.status === 401) askToken('The token was refused; enter it again.');
      if (res.ok && res.body) {
        status.textContent = 'live';
        wait = 1000;
        await readEvents(res.body.getReader());
      }
    } catch (e) {
      // A dropped connection: connect again below.
    }
    status.textContent = 'reconnecting';
    await sleep(wait);
  }
}

// Server-sent events: "field: value" lines, a blank line ends an event,
// lines starting with ":" are comments.
async function readEvents(reader) {
  const decoder = new TextDecoder();
  let buffer = '', name = '', data = [];
  for (;;) {
    const { value, done } = await reader.read();
    if (done) return;
    buffer += decoder.decode(value, { stream: true });
    const lines = buffer.split('\n');
    buffer = lines.pop();
    for (const line of lines.map((l) => l.replace(/\r$/, ''))) {
      const colon = line.indexOf(':'), field = colon < 0 ? line : line.slice(0, colon);
      const v = colon < 0 ? '' : line.slice(colon + 1).replace(/^ /, '');
      if (line === '' && data.length) dispatch(name || 'message', data.join('\n'));
      if (line === '') [name, data] = ['', []];
      else if (field === 'event') name = v;
      else if (field === 'data') data.push(v);
    }
  }
}

function dispatch(name, text) {
  let d;
  try { d = JSON.parse(text); } catch (e) { return; }
  const card = name === 'schedule' && typeViews.get(d.type)?.cards.get(d.id);
  if (card) card.applyChanges(d.changes || {}, d.nextLocal);
  else if (['schedule', 'added', 'removed', 'changed'].includes(name)) later('types', loadTypes);
  else if (name === 'scheduler' && d.present) { setBanner(''); later('types', loadTypes); }
  else if (name === 'scheduler') setBanner('Scheduler not on the bus');
}

byId('token-form').addEventListener('submit', tokenEntered);
// An address with a token, opened in this tab again, brings its token.
window.addEventListener('hashchange', () => {
  if (location.hash.includes('token=')) {
    takeToken();
    loadTypes();
  }
});
takeToken();
if (token) loadTypes();
followEvents();
setInterval(() => typeViews.forEach((v) => v.cards.forEach((c) => c.grid.placeNow())), 30000);
