'use strict';
// The console: every schedule type with its schedules, drawn as a week grid
// or a list of coming changes, editable by drawing on the grid or through
// the text form, and kept current by the server's event stream.

const DAYS = ['Mon', 'Tue', 'Wed', 'Thu', 'Fri', 'Sat', 'Sun'];
const DAY = 86400, SLOT = 1800, SLOTS = 48, WEEK = 7 * DAY, PALETTE = 8;
const typeViews = new Map(), timers = new Map();
let token = null;

const $ = (root, selector) => root.querySelector(selector);
const byId = (id) => document.getElementById(id);
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));
const yes = (v) => v === true || v === 'true' || v === '1';
const two = (n) => String(n).padStart(2, '0');
const hhmm = (s) => two(Math.floor(s / 3600)) + ':' + two(Math.floor(s % 3600 / 60));
const schedulePath = (type, id) =>
  '/api/types/' + encodeURIComponent(type) + '/schedules/' + encodeURIComponent(id);

function el(tag, cls, text) {
  const e = document.createElement(tag);
  if (cls) e.className = cls;
  if (text !== undefined) e.textContent = text;
  return e;
}

// Runs fn once, 300 ms after the last of a burst of calls with the same key.
function later(key, fn, ms = 300) {
  clearTimeout(timers.get(key));
  timers.set(key, setTimeout(() => { timers.delete(key); fn(); }, ms));
}

function setBanner(text) {
  byId('banner').textContent = text;
  byId('banner').hidden = !text;
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
  const init = { method, cache: 'no-store', headers: { Authorization: 'Bearer ' + token } };
  if (body !== undefined) {
    init.headers['Content-Type'] = 'application/json';
    init.body = JSON.stringify(body);
  }
  const res = await fetch(path, init);
  const data = await res.json().catch(() => ({}));
  if (res.status === 401) askToken('The token was refused; enter it again.');
  if (!res.ok) {
    throw Object.assign(new Error(data.error || 'the server answered ' + res.status),
      { status: res.status, body: data });
  }
  return data;
}

async function loadTypes() {
  try {
    const data = await api('GET', '/api/types');
    setBanner('');
    sync(byId('types'), typeViews, data.types, (t) => t.name, (t) => new TypeView(t.name));
    if (!data.types.length) byId('types').append(el('p', 'empty', 'No schedule type is registered.'));
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

// Cuts out of the schedule's entries what the painted rectangles cover and
// puts the painted spans in. Entries keep their exact seconds wherever no
// rectangle touches them; events are left as they are. A Daily schedule
// has one day, whichever row was painted.
function editEntries(schedule, rects) {
  let entries = schedule.entries.map((e) => ({ ...e }));
  for (const r of rects) {
    const last = schedule.base === 'Daily' ? 0 : r.d1;
    for (let d = schedule.base === 'Daily' ? 0 : r.d0; d <= last; d++) {
      const lo = d * DAY + r.a * SLOT, hi = d * DAY + (r.b + 1) * SLOT;
      entries = entries.flatMap((e) => {
        if (e.begin === e.end || e.end <= lo || e.begin >= hi) return [e];
        return [e.begin < lo && { ...e, end: lo }, e.end > hi && { ...e, begin: hi }].filter(Boolean);
      });
      if (r.state !== schedule.default) entries.push({ begin: lo, end: hi, state: r.state });
    }
  }
  return mergeEntries(entries);
}

// Sorted by begin, with touching or overlapping spans of one state joined.
function mergeEntries(entries) {
  entries.sort((x, y) => x.begin - y.begin || x.end - y.end);
  const out = [];
  let span = null;
  for (const e of entries) {
    if (e.begin === e.end) out.push(e);
    else if (span && span.state === e.state && e.begin <= span.end) span.end = Math.max(span.end, e.end);
    else out.push(span = e);
  }
  return out;
}

// Shows a text form's error under the field: the message, the line with a
// caret under the column, and the cursor put at that column.
function showTextError(field, err) {
  clearTextError(field);
  const column = Number(err.body.column), text = field.value, at = Math.min(column - 1, text.length);
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

function showError(p, e) {
  p.textContent = e ? e.message : '';
  p.hidden = !e;
}

function clone(id) { return byId(id).content.firstElementChild.cloneNode(true); }

class TypeView {
  constructor(name) {
    Object.assign(this, { name, states: [], cards: new Map(), el: clone('type-template') });
    this.el.dataset.type = name;
    $(this.el, '.type-name').textContent = name;
    $(this.el, '.new-schedule').addEventListener('submit', (e) => { e.preventDefault(); this.add(); });
  }

  // The colour class of a state: one of the palette by its place among the
  // type's states, pale for the schedule's default, grey for one unknown.
  colour(state, schedule) {
    if (schedule && state === schedule.default) return 'st-default';
    const i = this.states.indexOf(state);
    return i < 0 ? 'st-none' : 'st-' + (i % PALETTE);
  }

  update(t) {
    this.states = t.states;
    $(this.el, '.type-path').textContent = t.path;
    $(this.el, '.legend').replaceChildren(...t.states.map((s) => el('li', 'chip ' + this.colour(s), s)),
      el('li', 'chip st-default', "a schedule's default"));
    // By ID, so that a card stays where it was when its schedule changes.
    const schedules = [...t.schedules].sort((a, b) => (a.id < b.id ? -1 : a.id > b.id ? 1 : 0));
    sync($(this.el, '.schedules'), this.cards, schedules, (s) => s.id, (s) => new Card(this, s.id));
  }

  async add() {
    const form = $(this.el, '.new-schedule'), id = $(form, '.new-id'), text = $(form, '.new-text');
    clearTextError(text);
    showError($(form, '.card-error'), null);
    try {
      await api('PUT', schedulePath(this.name, id.value.trim()), { text: text.value });
      id.value = text.value = '';
      loadTypes();
    } catch (e) {
      if (e.body && e.body.column) showTextError(text, e);
      else showError($(form, '.card-error'), e);
    }
  }
}

// One schedule's card. It keeps the schedule as the server last gave it and
// the rectangles painted on its grid but not saved yet.
class Card {
  constructor(view, id) {
    Object.assign(this, { view, id, pending: [], drag: null, textDirty: false, el: clone('schedule-template') });
    Object.assign(this.el.dataset, { type: view.name, id });
    this.find('.schedule-id').textContent = id;
    const wiring = [
      ['.enable', 'change', (e) => this.post('enable', { enable: e.target.checked })],
      ['.override', 'change', (e) => this.post('override', { state: e.target.value })],
      ['.delete', 'click', () => this.remove()],
      ['.save-grid', 'click', () => this.saveGrid()],
      ['.cancel-grid', 'click', () => { this.pending = []; this.paint(); }],
      ['.save-text', 'click', () => this.saveText()],
      ['.text-form', 'input', () => { this.textDirty = true; }],
      ['.grid', 'pointerdown', (e) => this.press(e)],
    ];
    for (const [selector, type, fn] of wiring) this.find(selector).addEventListener(type, fn);
  }

  find(selector) { return $(this.el, selector); }
  get path() { return schedulePath(this.view.name, this.id); }

  update(s) {
    Object.assign(this, { s, fetchedAt: Date.now() });
    this.find('.base').textContent = s.base;
    this.setBadge(s.current);
    this.find('.next-change').textContent = s.nextLocal || 'none pending';
    this.find('.enable').checked = s.enabled;
    this.setTemporary(s.temporary);
    this.fillStates();
    this.find('.override').value = s.override;
    if (!this.textDirty) this.find('.text-form').value = s.text;
    this.find('.grid-area').hidden = !s.grid;
    if (s.grid) this.paint();
    this.showUpcoming(s.upcoming);
  }

  setBadge(state) {
    const badge = this.find('.current-state');
    badge.textContent = badge.dataset.state = state;
    badge.className = 'current-state badge ' + this.view.colour(state, this.s);
  }

  setTemporary(on) { this.find('.temporary').textContent = on ? 'overridden until the next change' : ''; }

  // The controls that list the type's states, rebuilt when those change.
  fillStates() {
    const states = this.view.states, def = this.s.default, key = states.concat(def).join('\n');
    if (key === this.statesKey) return;
    this.statesKey = key;
    this.find('.override').replaceChildren(new Option('none', ''), ...states.map((s) => new Option(s, s)));
    this.find('.paint-state').replaceChildren(...states.filter((s) => s !== def).map((s) => new Option(s, s)),
      new Option('erase (' + def + ')', def));
    this.find('.temp-buttons').replaceChildren(...states.map((s) => {
      const b = el('button', 'temp-override', 'Now: ' + s);
      b.type = 'button';
      b.addEventListener('click', () => this.post('override-state', { state: s }));
      return b;
    }));
  }

  // A change the bus announced shows at once; the rest (grid, local time
  // of the next change) comes with the schedule read shortly after.
  applyChanges(c) {
    if ('CurrentState' in c) { this.s.current = c.CurrentState; this.setBadge(c.CurrentState); }
    if ('NextStateChange' in c) {
      this.find('.next-change').textContent = c.NextStateChange ? new Date(c.NextStateChange).toLocaleString(
        undefined, { weekday: 'short', day: 'numeric', month: 'short', hour: '2-digit', minute: '2-digit' })
        : 'none pending';
    }
    if ('Enable' in c) this.find('.enable').checked = yes(c.Enable);
    if ('Override' in c) this.find('.override').value = c.Override;
    if ('TemporaryOverride' in c) this.setTemporary(yes(c.TemporaryOverride));
    later('schedule\n' + this.view.name + '\n' + this.id, () => this.refresh());
  }

  async refresh() {
    try { this.update(await api('GET', this.path)); } catch (e) { if (e.status !== 404) this.fail(e); }
  }

  fail(e) { showError(this.find('.card-error'), e); }

  // Sends a change and shows the schedule as the answer has it; on an error
  // the controls go back to what the schedule was.
  async call(method, path, body) {
    this.fail(null);
    try {
      this.update(await api(method, path, body));
      return true;
    } catch (e) {
      this.fail(e);
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

  async saveGrid() {
    const s = this.s, entries = editEntries(s, this.pending);
    if (await this.call('PUT', this.path, { base: s.base, default: s.default, entries })) {
      this.pending = [];
      this.paint();
    }
  }

  async saveText() {
    const field = this.find('.text-form');
    clearTextError(field);
    this.fail(null);
    try {
      const s = await api('PUT', this.path, { text: field.value });
      this.textDirty = false;
      this.update(s);
    } catch (e) {
      if (e.body && e.body.column) showTextError(field, e);
      else this.fail(e);
    }
  }

  showUpcoming(upcoming) {
    const list = this.find('.upcoming');
    list.hidden = !upcoming;
    if (!upcoming) return;
    list.replaceChildren(...upcoming.map((u) => {
      const li = el('li');
      li.append(el('time', '', u.local), ' ', el('span', 'badge ' + this.view.colour(u.state, this.s), u.state));
      return li;
    }));
    if (!upcoming.length) list.append(el('li', 'empty', 'no change ahead'));
  }

  // The grid is built once: hour labels every 3 hours, a row per day.
  buildGrid() {
    const table = this.find('.grid'), head = table.createTHead().insertRow(), body = table.createTBody();
    head.append(el('th', 'corner'));
    for (let h = 0; h < 24; h += 3) head.append(Object.assign(el('th', 'hour', two(h)), { colSpan: 6 }));
    this.cells = DAYS.map((name, d) => {
      const row = body.insertRow();
      row.append(el('th', 'day', name));
      return Array.from({ length: SLOTS }, (_, k) => {
        const td = row.appendChild(el('td', 'cell'));
        Object.assign(td.dataset, { day: d, slot: k });
        return td;
      });
    });
    this.nowLine = el('span', 'now-line');
  }

  paint() {
    if (!this.cells) this.buildGrid();
    const g = this.s.grid, daily = this.s.base === 'Daily';
    const rects = this.drag ? this.pending.concat(this.drag) : this.pending;
    this.cells.forEach((row, d) => row.forEach((td, k) => {
      const r = rects.findLast((r) => (daily || (d >= r.d0 && d <= r.d1)) && k >= r.a && k <= r.b);
      const state = r ? r.state : g.states[g.cells[d][k]];
      td.dataset.state = state;
      td.className = 'cell ' + this.view.colour(state, this.s) + (r ? ' edited' : '');
      td.title = DAYS[d] + ' ' + hhmm(k * SLOT) + '-' + hhmm((k + 1) * SLOT) + ' ' + state;
    }));
    this.find('.save-grid').hidden = this.find('.cancel-grid').hidden = !this.pending.length;
    this.placeNow();
  }

  // Marks the present moment: a line in today's row, moved on with the
  // page's clock between two answers of the server.
  placeNow() {
    const g = this.s && this.s.grid;
    if (!g || !this.cells || g.now == null) { this.nowLine?.remove(); return; }
    const elapsed = Math.floor((Date.now() - this.fetchedAt) / 1000);
    const now = (g.now + elapsed) % WEEK, day = Math.floor(now / DAY), inDay = now % DAY;
    const cell = this.cells[day][Math.floor(inDay / SLOT)];
    this.nowLine.style.left = (inDay % SLOT) / SLOT * 100 + '%';
    if (this.nowLine.parentNode !== cell) cell.append(this.nowLine);
    this.el.querySelectorAll('th.day').forEach((th, d) => th.classList.toggle('today', d === day));
    this.find('.now-label').textContent = 'now: ' + (elapsed < 60 ? g.nowLabel : DAYS[day] + ' ' + hhmm(inDay));
  }

  // Press, drag and release paint a rectangle of days and half hours. The
  // cell under the pointer is looked up by position, since a touch keeps
  // sending its events to the cell where it began.
  press(e) {
    const start = e.target.closest('td.cell');
    if (!start || e.button > 0) return;
    e.preventDefault();
    const d = +start.dataset.day, k = +start.dataset.slot;
    this.drag = { d0: d, d1: d, a: k, b: k, state: this.find('.paint-state').value };
    this.paint();
    const move = (ev) => {
      const cell = document.elementFromPoint(ev.clientX, ev.clientY)?.closest('td.cell');
      if (!cell || !this.el.contains(cell)) return;
      const d2 = +cell.dataset.day, k2 = +cell.dataset.slot;
      Object.assign(this.drag, { d0: Math.min(d, d2), d1: Math.max(d, d2), a: Math.min(k, k2), b: Math.max(k, k2) });
      this.paint();
    };
    const end = (ev) => {
      for (const type of ['pointermove', 'pointerup', 'pointercancel']) {
        window.removeEventListener(type, type === 'pointermove' ? move : end);
      }
      if (ev.type === 'pointerup') this.pending.push(this.drag);
      this.drag = null;
      this.paint();
    };
    window.addEventListener('pointermove', move);
    window.addEventListener('pointerup', end);
    window.addEventListener('pointercancel', end);
  }
}

// The event stream, read with fetch since EventSource cannot send the token.
// After an error it connects again, waiting 1 s, then longer up to 5 s.
async function followEvents() {
  const status = byId('stream-state');
  for (let wait = 1000; ; wait = Math.min(wait * 2, 5000)) {
    if (!token) { await sleep(500); continue; }
    try {
      const res = await fetch('/api/events', { headers: { Authorization: 'Bearer ' + token }, cache: 'no-store' });
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
  
  else if (['schedule', 'added', 'removed', 'changed'].includes(name)) later('types', loadTypes);
  else if (name === 'scheduler' && d.present) { setBanner(''); later('types', loadTypes); }
  else if (name === 'scheduler') setBanner('Scheduler not on the bus');
}

byId('token-form').addEventListener('submit', tokenEntered);
// An address with a token, opened in this tab again, brings its token.
window.addEventListener('hashchange', () => { if (location.hash.includes('token=')) { takeToken(); loadTypes(); } });
takeToken();
if (token) loadTypes();
followEvents();
setInterval(() => typeViews.forEach((v) => v.cards.forEach((c) => c.placeNow())), 30000);
