'use strict';
// The week grid of a Daily or Weekly schedule: a row per day and a cell per
// half hour, painted by pressing and dragging, with the present moment
// marked. It is loaded before console.js and needs nothing from it.

const DAYS = ['Mon', 'Tue', 'Wed', 'Thu', 'Fri', 'Sat', 'Sun'];
const DAY = 86400, SLOT = 1800, SLOTS = 48, WEEK = 7 * DAY;

const two = (n) => String(n).padStart(2, '0');
const hhmm = (s) => two(Math.floor(s / 3600)) + ':' + two(Math.floor(s % 3600 / 60));
const gridNode = (tag, cls, text = '') =>
  Object.assign(document.createElement(tag), { className: cls, textContent: text });

// Cuts out of the schedule's entries what the painted rectangles cover and
// puts the painted spans in. Entries keep their exact seconds wherever no
// rectangle touches them; events are left as they are. A Daily schedule
// has one day, whichever row was painted.
function editEntries(schedule, rects) {
  const daily = schedule.base === 'Daily';
  let entries = schedule.entries.map((e) => ({ ...e }));
  for (const r of rects) {
    for (let d = daily ? 0 : r.d0; d <= (daily ? 0 : r.d1); d++) {
      const lo = d * DAY + r.a * SLOT, hi = d * DAY + (r.b + 1) * SLOT;
      entries = entries.flatMap((e) => {
        if (e.begin === e.end || e.end <= lo || e.begin >= hi) return [e];
        const before = { ...e, end: lo }, after = { ...e, begin: hi };
        return [e.begin < lo && before, e.end > hi && after].filter(Boolean);
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
    else if (span?.state === e.state && e.begin <= span.end) span.end = Math.max(span.end, e.end);
    else out.push(span = e);
  }
  return out;
}

// The grid of one card, in the card's .grid-area. It keeps the rectangles
// painted but not saved yet. colour(state) names the class of a state's
// colour for the schedule shown; save(entries) stores the painted entries
// and tells whether that worked.
class WeekGrid {
  constructor(area, colour, save) {
    Object.assign(this, { area, colour, pending: [], drag: null, cells: null, s: null });
    this.table = area.querySelector('.grid');
    this.table.addEventListener('pointerdown', (e) => this.press(e));
    this.part('.cancel-grid').addEventListener('click', () => this.forget());
    this.part('.save-grid').addEventListener('click', async () => {
      if (await save(editEntries(this.s, this.pending))) this.forget();
    });
  }

  part(selector) { return this.area.querySelector(selector); }

  // Shows the schedule as the server just gave it; the area hides for a
  // schedule with no grid.
  show(schedule) {
    Object.assign(this, { s: schedule, shownAt: Date.now() });
    this.area.hidden = !schedule.grid;
    if (schedule.grid) this.paint();
    else this.nowLine?.remove();
  }

  // The paint choices: each state but the default, and erasing to it.
  fillStates(states, def) {
    this.part('.paint-state').replaceChildren(
      ...states.filter((s) => s !== def).map((s) => new Option(s, s)),
      new Option('erase (' + def + ')', def));
  }

  // Drops the painted rectangles, once saved or cancelled.
  forget() {
    this.pending = [];
    if (this.s?.grid) this.paint();
  }

  // The table is built once: hour labels every 3 hours, a row per day.
  build() {
    const head = this.table.createTHead().insertRow(), body = this.table.createTBody();
    head.append(gridNode('th', 'corner'));
    for (let h = 0; h < 24; h += 3) {
      head.append(Object.assign(gridNode('th', 'hour', two(h)), { colSpan: 6 }));
    }
    this.cells = DAYS.map((name, d) => {
      const row = body.insertRow();
      row.append(gridNode('th', 'day', name));
      return Array.from({ length: SLOTS }, (_, k) => {
        const td = row.appendChild(gridNode('td', 'cell'));
        Object.assign(td.dataset, { day: d, slot: k });
        return td;
      });
    });
    this.nowLine = gridNode('span', 'now-line');
  }

  // Each cell in its state: the last rectangle painted over it, else the
  // schedule's. A rectangle on a Daily schedule covers every row.
  paint() {
    if (!this.cells) this.build();
    const g = this.s.grid, daily = this.s.base === 'Daily';
    const rects = this.drag ? this.pending.concat(this.drag) : this.pending;
    this.cells.forEach((row, d) => row.forEach((td, k) => {
      const r = rects.findLast((r) => (daily || (d >= r.d0 && d <= r.d1)) && k >= r.a && k <= r.b);
      const state = r ? r.state : g.states[g.cells[d][k]];
      td.dataset.state = state;
      td.className = 'cell ' + this.colour(state) + (r ? ' edited' : '');
      td.title = DAYS[d] + ' ' + hhmm(k * SLOT) + '-' + hhmm((k + 1) * SLOT) + ' ' + state;
    }));
    this.part('.save-grid').hidden = this.part('.cancel-grid').hidden = !this.pending.length;
    this.placeNow();
  }

  // Marks the present moment: a line in today's row, moved on with the
  // page's clock between two answers of the server.
  placeNow() {
    const g = this.s?.grid;
    if (!g || !this.cells || g.now == null) { this.nowLine?.remove(); return; }
    const elapsed = Math.floor((Date.now() - this.shownAt) / 1000);
    const now = (g.now + elapsed) % WEEK, day = Math.floor(now / DAY), inDay = now % DAY;
    const cell = this.cells[day][Math.floor(inDay / SLOT)];
    this.nowLine.style.left = (inDay % SLOT) / SLOT * 100 + '%';
    if (this.nowLine.parentNode !== cell) cell.append(this.nowLine);
    const days = this.table.querySelectorAll('th.day');
    days.forEach((th, d) => th.classList.toggle('today', d === day));
    const label = elapsed < 60 ? g.nowLabel : DAYS[day] + ' ' + hhmm(inDay);
    this.part('.now-label').textContent = 'now: ' + label;
  }

  // Press, drag and release paint a rectangle of days and half hours. The
  // cell under the pointer is looked up by position, since a touch keeps
  // sending its events to the cell where it began.
  press(e) {
    const start = e.target.closest('td.cell');
    if (!start || e.button > 0) return;
    e.preventDefault();
    const d = +start.dataset.day, k = +start.dataset.slot;
    this.drag = { d0: d, d1: d, a: k, b: k, state: this.part('.paint-state').value };
    this.paint();
    const move = (ev) => {
      const cell = document.elementFromPoint(ev.clientX, ev.clientY)?.closest('td.cell');
      if (!cell || !this.table.contains(cell)) return;
      const d2 = +cell.dataset.day, k2 = +cell.dataset.slot;
      Object.assign(this.drag,
        { d0: Math.min(d, d2), d1: Math.max(d, d2), a: Math.min(k, k2), b: Math.max(k, k2) });
      this.paint();
    };
    const end = (ev) => {
      for (const [type, fn] of Object.entries(listeners)) window.removeEventListener(type, fn);
      if (ev.type === 'pointerup') this.pending.push(this.drag);
      this.drag = null;
      this.paint();
    };
    const listeners = { pointermove: move, pointerup: end, pointercancel: end };
    for (const [type, fn] of Object.entries(listeners)) window.addEventListener(type, fn);
  }
}
