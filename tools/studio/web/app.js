// sorn-hp studio page: shows the design the server makes of the current tuning and edits that
// tuning. The server holds the tuning and designs it; the page keeps only what it is showing, the
// undo history and the decoded audio. Every edit sends the whole tuning (PUT /api/tuning) and
// redraws from the State that comes back.
'use strict';

const GROUPS = ['lc', 'hp', 'ea'];
const GROUP_COLOURS = {lc: '#d9480f', hp: '#1971c2', ea: '#2f9e44'};
const FREQ_RANGE = [20, 24000];
const HIT_RADIUS = 10;           // CSS pixels around a marker that grab it
const POLL_MS = 120;             // how often a running job is asked for its progress
const HISTORY_KEY = 'sorn-hp-studio-history';

const $ = (id) => document.getElementById(id);
const clone = (v) => JSON.parse(JSON.stringify(v));
const same = (a, b) => JSON.stringify(a) === JSON.stringify(b);

const page = {
  state: null,        // the last State the server sent
  tuning: null,       // what the page shows: the server's tuning, or ahead of it during a drag
  past: [],           // undo stack of tunings
  future: [],         // redo stack
  selected: null,     // {group, index} of the point the arrow keys move
  plot: null,
  timings: [],        // edit-to-screen times in ms, from the pointer event to the drawn curve
};

// ---------------------------------------------------------------- status line

// What the server did on the reader's behalf with the last accepted tuning (e.g. resampling).
function withNotes(text) {
  const n = page.state && page.state.notes;
  return Array.isArray(n) && n.length ? `${text}; ${n.join('; ')}` : text;
}

function status(text, isError) {
  const el = $('status');
  el.textContent = text;
  el.classList.toggle('error', !!isError);
}

// ---------------------------------------------------------------- HTTP

async function request(method, url, body) {
  const init = {method, headers: {}};
  if (body !== undefined) {
    init.body = JSON.stringify(body);
    init.headers['Content-Type'] = 'application/json';
  }
  const res = await fetch(url, init);
  const text = await res.text();
  let data = null;
  try { data = text ? JSON.parse(text) : null; } catch (e) { data = null; }
  if (!res.ok) {
    const reason = data && data.error ? data.error : `${res.status} ${res.statusText}`;
    throw new Error(reason);
  }
  return data;
}

// Sends a file's bytes with upload progress; returns {promise, abort}.
function upload(url, file, onProgress) {
  const xhr = new XMLHttpRequest();
  const promise = new Promise((resolve, reject) => {
    xhr.open('POST', url);
    xhr.setRequestHeader('Content-Type', 'application/octet-stream');
    xhr.upload.onprogress = (e) => { if (e.lengthComputable) onProgress(e.loaded / e.total); };
    xhr.onload = () => {
      let data = null;
      try { data = JSON.parse(xhr.responseText); } catch (e) { data = null; }
      if (xhr.status >= 200 && xhr.status < 300 && data) resolve(data);
      else reject(new Error(data && data.error ? data.error : `${xhr.status} ${xhr.statusText}`));
    };
    xhr.onerror = () => reject(new Error('the upload failed (connection lost)'));
    xhr.onabort = () => reject(new Error('cancelled'));
    xhr.send(file);
  });
  return {promise, abort: () => xhr.abort()};
}

// Follows a background job until it ends; resolves with its result, rejects with its error.
function followJob(id, onProgress) {
  let stopped = false;
  const promise = new Promise((resolve, reject) => {
    const tick = async () => {
      if (stopped) return;
      let job;
      try { job = await request('GET', `/api/jobs/${encodeURIComponent(id)}`); } catch (e) { reject(e); return; }
      if (job.state === 'running') {
        onProgress(job.progress || 0);
        setTimeout(tick, POLL_MS);
      } else if (job.state === 'done') {
        onProgress(1);
        resolve(job.result);
      } else if (job.state === 'cancelled') {
        reject(new Error('cancelled'));
      } else {
        reject(new Error(job.error || 'the job failed'));
      }
    };
    tick();
  });
  const cancel = async () => {
    try { await request('DELETE', `/api/jobs/${encodeURIComponent(id)}`); } catch (e) { /* it may have ended */ }
  };
  return {promise, cancel, stop: () => { stopped = true; }};
}

// ---------------------------------------------------------------- tuning helpers

function groupOf(t, g) {
  if (!t[g]) t[g] = {enabled: false, points: []};
  return t[g];
}

function isOn(v) { return v === true || (typeof v === 'number' && v >= 1); }

function limits() {
  const l = (page.state && page.state.limits) || {};
  return {
    freqMin: l.freq_min ?? 10, freqMax: l.freq_max ?? 22000,
    gainMin: l.gain_min ?? -60, gainMax: l.gain_max ?? 60,
    points: l.points || {lc: 12, hp: 12, ea: 8},
  };
}

const clamp = (v, lo, hi) => Math.min(hi, Math.max(lo, v));

// Keeps a moved point a whole number of Hz and dB, inside the limits and strictly between its
// neighbours (the tables are in increasing frequency).
function placePoint(points, i, freq, gain) {
  const lim = limits();
  const lo = i > 0 ? points[i - 1][0] + 1 : lim.freqMin;
  const hi = i < points.length - 1 ? points[i + 1][0] - 1 : lim.freqMax;
  return [clamp(Math.round(freq), lo, Math.max(lo, hi)), clamp(Math.round(gain), lim.gainMin, lim.gainMax)];
}

// ---------------------------------------------------------------- edits and history

let chain = Promise.resolve();

// Runs the steps that send a tuning one after another, in the order they were asked for, so each
// starts from the tuning the one before left.
function serial(step) {
  const p = chain.then(step);
  chain = p.catch(() => {});
  return p;
}

const putTuning = (t) => serial(() => request('PUT', '/api/tuning', t));

function saveHistory() {
  try {
    sessionStorage.setItem(HISTORY_KEY, JSON.stringify({past: page.past, future: page.future,
      current: page.state && page.state.tuning}));
  } catch (e) { /* storage full or off: the history lives on in this page */ }
}

function restoreHistory(serverTuning) {
  try {
    const h = JSON.parse(sessionStorage.getItem(HISTORY_KEY) || 'null');
    if (h && same(h.current, serverTuning)) {
      page.past = h.past || [];
      page.future = h.future || [];
    }
  } catch (e) { /* a broken entry only loses the history */ }
}

function updateHistoryButtons() {
  $('undo').disabled = page.past.length === 0;
  $('redo').disabled = page.future.length === 0;
}

// One edit: sends the new tuning; when the server accepts it, the tuning before becomes an undo step.
function edit(next, what) {
  return serial(async () => {
    const before = clone(page.state.tuning);
    try {
      const s = await request('PUT', '/api/tuning', next);
      page.past.push(before);
      page.future = [];
      applyState(s);
      status(withNotes(`${what} (revision ${s.revision})`));
    } catch (e) {
      status(e.message, true);
      page.tuning = clone(page.state.tuning);
      render();
    }
    updateHistoryButtons();
    saveHistory();
  });
}

// Undo and redo move the current tuning between the two stacks; a drag still under way finishes first.
async function undoRedo(from, to, word) {
  if (drag.active) return;
  if (drag.settled) await drag.settled;
  return serial(async () => {
    if (from.length === 0) return;
    const target = from.pop();
    const current = clone(page.state.tuning);
    try {
      const s = await request('PUT', '/api/tuning', target);
      to.push(current);
      applyState(s);
      status(withNotes(`${word} (revision ${s.revision})`));
    } catch (e) {
      from.push(target);
      status(e.message, true);
    }
    updateHistoryButtons();
    saveHistory();
  });
}

const undo = () => undoRedo(page.past, page.future, 'undone');
const redo = () => undoRedo(page.future, page.past, 'redone');

// ---------------------------------------------------------------- drag edits

// A drag sends the tuning as it moves; while a request is out only the latest position waits, so
// the curve follows the pointer as fast as the server designs. The whole drag is one undo step.
const drag = {active: null, before: null, latest: null, busy: false, since: null, settled: null, settle: null};

async function pumpDrag() {
  if (drag.busy) return;
  drag.busy = true;
  while (drag.latest) {
    const t = drag.latest;
    const since = drag.since;
    drag.latest = null;
    drag.since = null;
    try {
      const s = await putTuning(t);
      page.pendingMark = since;
      applyState(s, {keepTuning: drag.active !== null || drag.latest !== null});
    } catch (e) {
      status(e.message, true);
    }
  }
  drag.busy = false;
  finishDrag();
}

function finishDrag() {
  if (drag.active || drag.busy || !drag.before) return;
  if (!same(drag.before, page.state.tuning)) {
    page.past.push(drag.before);
    page.future = [];
    status(withNotes(`moved a point (revision ${page.state.revision})`));
  }
  drag.before = null;
  drag.settle();
  drag.settled = null;
  page.tuning = clone(page.state.tuning);
  render();
  updateHistoryButtons();
  saveHistory();
}

function movePoint(group, index, freq, gain, eventTime) {
  const pts = groupOf(page.tuning, group).points;
  const [f, g] = placePoint(pts, index, freq, gain);
  if (pts[index][0] === f && pts[index][1] === g) return false;
  pts[index] = [f, g];
  drag.latest = clone(page.tuning);
  if (drag.since === null) drag.since = eventTime;
  drawMarkersOnly();
  updateTableValues();
  pumpDrag();
  return true;
}

// ---------------------------------------------------------------- plot

function freqLabel(v) {
  if (v >= 1000) return `${+(v / 1000).toFixed(1)}k`;
  return `${Math.round(v)}`;
}

const LABELLED = new Set([20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000]);

function markerXY(u, f, g) {
  return [u.valToPos(f, 'x'), u.valToPos(g, 'y')];
}

function drawMarkers(u) {
  if (!page.tuning) return;
  const ctx = u.ctx;
  const dpr = devicePixelRatio || 1;
  ctx.save();
  ctx.beginPath();
  ctx.rect(u.bbox.left, u.bbox.top, u.bbox.width, u.bbox.height);
  ctx.clip();
  for (const g of GROUPS) {
    const grp = page.tuning[g];
    if (!grp || !Array.isArray(grp.points)) continue;
    const on = isOn(grp.enabled);
    grp.points.forEach(([f, gain], i) => {
      const x = u.valToPos(f, 'x', true);
      const y = u.valToPos(gain, 'y', true);
      const sel = page.selected && page.selected.group === g && page.selected.index === i;
      ctx.beginPath();
      ctx.arc(x, y, (sel ? 7 : 5) * dpr, 0, 2 * Math.PI);
      ctx.lineWidth = (sel ? 3 : 2) * dpr;
      ctx.strokeStyle = GROUP_COLOURS[g];
      ctx.fillStyle = on ? GROUP_COLOURS[g] : '#ffffff';
      ctx.globalAlpha = on ? 0.9 : 0.6;
      ctx.fill();
      ctx.stroke();
    });
  }
  ctx.restore();
}

function onDrawn() {
  if (page.pendingMark != null) {
    page.timings.push(performance.now() - page.pendingMark);
    page.pendingMark = null;
  }
}

function plotSize() {
  const w = Math.max(320, $('response').clientWidth - 8);
  return {width: w, height: Math.round(Math.min(460, Math.max(260, w * 0.42)))};
}

function makePlot() {
  const opts = {
    ...plotSize(),
    scales: {
      x: {distr: 3, log: 10, auto: false, range: FREQ_RANGE},
      y: {auto: false, range: (u) => yRange()},
    },
    axes: [
      {label: 'frequency (Hz)', filter: (u, splits) => splits, values: (u, splits) => splits.map((v) => LABELLED.has(Math.round(v)) ? freqLabel(v) : '')},
      {label: 'level (dB)', values: (u, splits) => splits.map((v) => `${v > 0 ? '+' : ''}${v}`)},
    ],
    cursor: {drag: {x: false, y: false}, points: {show: false}},
    legend: {show: true, live: false},
    series: [
      {label: 'Hz'},
      {label: 'achieved', stroke: '#212529', width: 2},
      {label: 'requested', stroke: '#868e96', width: 1.5, dash: [6, 4]},
      {label: 'target', stroke: '#ae3ec9', width: 1.5},
      {label: 'error', stroke: '#f08c00', width: 1},
      ...GROUPS.map((g) => ({label: g, stroke: GROUP_COLOURS[g] + '80', width: 1})),
    ],
    hooks: {
      draw: [(u) => { drawMarkers(u); onDrawn(); }],
      setCursor: [(u) => showReadout(u)],
    },
  };
  const empty = [[20, 24000], ...Array.from({length: 7}, () => [null, null])];
  page.plot = new uPlot(opts, empty, $('plot'));
  hookPointer(page.plot);
  window.addEventListener('resize', () => page.plot.setSize(plotSize()));
}

function yRange() {
  const lim = limits();
  let lo = -12, hi = 12;
  const c = page.state && page.state.curve;
  // Above 20 kHz the design falls away steeply; that fall would squash the range that matters.
  const take = (arr) => {
    if (arr) arr.forEach((v, i) => { if (v != null && isFinite(v) && c.freq[i] <= 20000) { lo = Math.min(lo, v); hi = Math.max(hi, v); } });
  };
  if (c) { take(c.achieved); take(c.requested); take(c.target); take(c.error); }
  if (page.tuning) for (const g of GROUPS) for (const p of (page.tuning[g] || {}).points || []) { lo = Math.min(lo, p[1]); hi = Math.max(hi, p[1]); }
  lo = Math.max(lim.gainMin, Math.floor((lo - 2) / 3) * 3);
  hi = Math.min(lim.gainMax, Math.ceil((hi + 2) / 3) * 3);
  return [lo, hi];
}

function plotData(s) {
  const c = s.curve;
  const blank = c.freq.map(() => null);
  const groups = c.groups || {};
  return [c.freq, c.achieved, c.requested, c.target || blank, c.error || blank,
    ...GROUPS.map((g) => groups[g] || blank)];
}

function showReadout(u) {
  const i = u.cursor.idx;
  if (i == null || !page.state) return;
  const c = page.state.curve;
  const f = u.posToVal(u.cursor.left, 'x');
  const fmt = (v) => (v == null ? '–' : `${v >= 0 ? '+' : ''}${v.toFixed(2)} dB`);
  let text = `${Math.round(f)} Hz   achieved ${fmt(c.achieved[i])}   requested ${fmt(c.requested[i])}`;
  if (c.target) text += `   target ${fmt(c.target[i])}   error ${fmt(c.error[i])}`;
  for (const g of GROUPS) if (c.groups && c.groups[g]) text += `   ${g} ${fmt(c.groups[g][i])}`;
  text += `   (pointer at ${u.posToVal(u.cursor.top, 'y').toFixed(1)} dB)`;
  $('readout').textContent = text;
}

function drawMarkersOnly() {
  page.plot.redraw(false, false);
}

// The marker nearest to (x, y) in the overlay's CSS pixels, within HIT_RADIUS.
function hitMarker(u, x, y) {
  let best = null, bestD = HIT_RADIUS;
  for (const g of GROUPS) {
    const pts = ((page.tuning || {})[g] || {}).points || [];
    pts.forEach(([f, gain], i) => {
      const [mx, my] = markerXY(u, f, gain);
      const d = Math.hypot(mx - x, my - y);
      if (d <= bestD) { bestD = d; best = {group: g, index: i}; }
    });
  }
  return best;
}

function hookPointer(u) {
  const over = u.over;
  over.tabIndex = 0;
  over.setAttribute('role', 'application');
  over.setAttribute('aria-label', 'Response plot: drag a point, or select one and use the arrow keys');
  over.addEventListener('pointerdown', (e) => {
    if (!page.state || e.button !== 0) return;
    const r = over.getBoundingClientRect();
    const hit = hitMarker(u, e.clientX - r.left, e.clientY - r.top);
    if (!hit) return;
    e.preventDefault();
    over.focus();
    over.setPointerCapture(e.pointerId);
    page.selected = hit;
    drag.active = hit;
    if (!drag.before) {
      drag.before = clone(page.state.tuning);
      drag.settled = new Promise((resolve) => { drag.settle = resolve; });
    }
    drawMarkersOnly();
    highlightRow();
  });
  over.addEventListener('pointermove', (e) => {
    const r = over.getBoundingClientRect();
    if (!drag.active) {
      over.style.cursor = hitMarker(u, e.clientX - r.left, e.clientY - r.top) ? 'grab' : '';
      return;
    }
    const f = u.posToVal(e.clientX - r.left, 'x');
    const g = u.posToVal(e.clientY - r.top, 'y');
    movePoint(drag.active.group, drag.active.index, f, g, e.timeStamp);
  });
  const end = (e) => {
    if (!drag.active) return;
    drag.active = null;
    if (over.hasPointerCapture(e.pointerId)) over.releasePointerCapture(e.pointerId);
    finishDrag();
  };
  over.addEventListener('pointerup', end);
  over.addEventListener('pointercancel', end);
  over.addEventListener('keydown', onPlotKey);
}

// Arrow keys move the selected point: left/right by 1/24 octave (Shift: 1/3), up/down by 1 dB
// (Shift: 3 dB); Tab-free selection with [ and ]; Delete removes it.
function onPlotKey(e) {
  const sel = page.selected;
  if (e.key === '[' || e.key === ']') {
    selectNext(e.key === ']' ? 1 : -1);
    e.preventDefault();
    return;
  }
  if (!sel) return;
  const pts = groupOf(page.tuning, sel.group).points;
  const p = pts[sel.index];
  if (!p) return;
  let f = p[0], g = p[1];
  const oct = e.shiftKey ? 1 / 3 : 1 / 24, db = e.shiftKey ? 3 : 1;
  if (e.key === 'ArrowLeft') f = Math.min(f - 1, f * Math.pow(2, -oct));
  else if (e.key === 'ArrowRight') f = Math.max(f + 1, f * Math.pow(2, oct));
  else if (e.key === 'ArrowUp') g += db;
  else if (e.key === 'ArrowDown') g -= db;
  else if (e.key === 'Delete' || e.key === 'Backspace') { e.preventDefault(); removePoint(sel.group, sel.index); return; }
  else return;
  e.preventDefault();
  const next = clone(page.tuning);
  next[sel.group].points[sel.index] = placePoint(pts, sel.index, f, g);
  edit(next, `moved ${sel.group} point ${sel.index + 1}`);
}

function selectNext(step) {
  const all = [];
  for (const g of GROUPS) (((page.tuning || {})[g] || {}).points || []).forEach((_, i) => all.push({group: g, index: i}));
  if (!all.length) return;
  const at = page.selected ? all.findIndex((s) => s.group === page.selected.group && s.index === page.selected.index) : -1;
  page.selected = all[(at + step + all.length) % all.length];
  drawMarkersOnly();
  highlightRow();
}

// ---------------------------------------------------------------- tables

function groupTitle(g) {
  const n = limits().points[g];
  return `${g} (up to ${n} points)`;
}

function buildTables() {
  const host = $('groups');
  host.textContent = '';
  for (const g of GROUPS) {
    const grp = groupOf(page.tuning, g);
    const box = document.createElement('fieldset');
    box.className = 'group';
    box.style.setProperty('--group-colour', GROUP_COLOURS[g]);
    const legend = document.createElement('legend');
    const on = document.createElement('input');
    on.type = 'checkbox';
    on.id = `${g}-enabled`;
    on.checked = isOn(grp.enabled);
    on.addEventListener('change', () => {
      const next = clone(page.tuning);
      next[g].enabled = on.checked;
      edit(next, `${g} ${on.checked ? 'on' : 'off'}`);
    });
    const lab = document.createElement('label');
    lab.append(on, ` ${groupTitle(g)}`);
    legend.append(lab);
    box.append(legend);

    const table = document.createElement('table');
    table.id = `${g}-table`;
    table.innerHTML = '<thead><tr><th scope="col">#</th><th scope="col">Hz</th><th scope="col">dB</th><th scope="col"><span class="sr">remove</span></th></tr></thead>';
    const body = document.createElement('tbody');
    grp.points.forEach((p, i) => body.append(pointRow(g, i, p)));
    table.append(body);
    box.append(table);

    const add = document.createElement('button');
    add.type = 'button';
    add.textContent = 'Add point';
    add.id = `${g}-add`;
    add.disabled = grp.points.length >= limits().points[g];
    add.addEventListener('click', () => addPoint(g));
    box.append(add);
    host.append(box);
  }
  highlightRow();
}

function pointRow(g, i, p) {
  const tr = document.createElement('tr');
  tr.dataset.group = g;
  tr.dataset.index = i;
  const num = document.createElement('td');
  num.textContent = i + 1;
  tr.append(num);
  ['Hz', 'dB'].forEach((unit, k) => {
    const td = document.createElement('td');
    const input = document.createElement('input');
    input.type = 'number';
    input.step = '1';
    input.value = p[k];
    input.className = k === 0 ? 'freq' : 'gain';
    input.setAttribute('aria-label', `${g} point ${i + 1} ${unit}`);
    input.addEventListener('focus', () => { page.selected = {group: g, index: i}; drawMarkersOnly(); highlightRow(); });
    input.addEventListener('change', () => {
      const v = Number(input.value);
      if (input.value.trim() === '' || !Number.isFinite(v)) {
        status(`${g} point ${i + 1}: ${unit} must be a number`, true);
        input.value = page.tuning[g].points[i][k];
        return;
      }
      const next = clone(page.tuning);
      next[g].points[i][k] = v;  // sent as typed: the server says why a value is refused
      edit(next, `${g} point ${i + 1} ${unit} ${v}`);
    });
    td.append(input);
    tr.append(td);
  });
  const td = document.createElement('td');
  const rm = document.createElement('button');
  rm.type = 'button';
  rm.textContent = '×';
  rm.title = 'Remove this point';
  rm.setAttribute('aria-label', `remove ${g} point ${i + 1}`);
  rm.addEventListener('click', () => removePoint(g, i));
  td.append(rm);
  tr.append(td);
  return tr;
}

// Puts the shown tuning's values into the table inputs without rebuilding it (keeps focus), or
// rebuilds it when the number of points changed.
function updateTableValues() {
  for (const g of GROUPS) {
    const grp = groupOf(page.tuning, g);
    const rows = document.querySelectorAll(`#${g}-table tbody tr`);
    if (rows.length !== grp.points.length) { buildTables(); return; }
    rows.forEach((tr, i) => {
      const inputs = tr.querySelectorAll('input');
      grp.points[i].forEach((v, k) => { if (document.activeElement !== inputs[k]) inputs[k].value = v; });
    });
    $(`${g}-enabled`).checked = isOn(grp.enabled);
    $(`${g}-add`).disabled = grp.points.length >= limits().points[g];
  }
}

function highlightRow() {
  document.querySelectorAll('tr.selected').forEach((tr) => tr.classList.remove('selected'));
  const s = page.selected;
  if (!s) return;
  const tr = document.querySelector(`#${s.group}-table tbody tr[data-index="${s.index}"]`);
  if (tr) tr.classList.add('selected');
}

// A new point goes into the widest gap (in octaves) of the group, at the gain the table has there.
function addPoint(g) {
  const next = clone(page.tuning);
  const pts = groupOf(next, g).points;
  const lim = limits();
  let at = 0, f = 1000, gain = 0;
  if (pts.length === 0) {
    pts.push([1000, 0]);
  } else {
    const edges = [[lim.freqMin < 20 ? 20 : lim.freqMin, pts[0][1]], ...pts, [Math.min(20000, lim.freqMax), pts[pts.length - 1][1]]];
    let widest = -1;
    for (let i = 0; i + 1 < edges.length; ++i) {
      const w = Math.log2(edges[i + 1][0] / edges[i][0]);
      if (w > widest && edges[i + 1][0] - edges[i][0] >= 2) { widest = w; at = i; }
    }
    f = Math.round(Math.sqrt(edges[at][0] * edges[at + 1][0]));
    gain = Math.round((edges[at][1] + edges[at + 1][1]) / 2);
    pts.splice(at, 0, [f, gain]);
  }
  page.selected = {group: g, index: at};
  edit(next, `added a ${g} point at ${f} Hz`);
}

function removePoint(g, i) {
  const next = clone(page.tuning);
  next[g].points.splice(i, 1);
  page.selected = null;
  edit(next, `removed ${g} point ${i + 1}`);
}

// ---------------------------------------------------------------- other values

function buildOtherValues() {
  const t = page.tuning;
  $('surround').checked = isOn(t.surround) || t.surround === true;
  $('surround-note').textContent = isOn((t.lc || {}).enabled) ? '' : '(the effect applies the surround only while lc is on)';
  if (document.activeElement !== $('description')) $('description').value = t.description || '';
  const host = $('reserved');
  const words = Array.isArray(t.reserved) ? t.reserved : [0, 0, 0, 0, 0];
  if (host.children.length !== 5) {
    host.textContent = '';
    for (let i = 0; i < 5; ++i) {
      const input = document.createElement('input');
      input.type = 'number';
      input.step = '1';
      input.setAttribute('aria-label', `reserved word ${i + 1}`);
      input.addEventListener('change', () => {
        const next = clone(page.tuning);
        const w = Array.isArray(next.reserved) ? next.reserved : [0, 0, 0, 0, 0];
        w[i] = Number(input.value);
        next.reserved = w;
        edit(next, `reserved word ${i + 1} ${input.value}`);
      });
      host.append(input);
    }
  }
  [...host.children].forEach((input, i) => { if (document.activeElement !== input) input.value = words[i]; });
  const tg = t.target;
  $('target-info').textContent = tg && tg.points
    ? `Target: ${tg.source || 'unnamed'}, ${tg.points.length} points, level offset ${signed(tg.level_offset_db)} dB.`
    : 'No imported target.';
  $('target-remove').disabled = !tg;
}

const signed = (v, digits = 2) => `${v >= 0 ? '+' : ''}${Number(v).toFixed(digits)}`;

// ---------------------------------------------------------------- applying a State

function applyState(s, opts = {}) {
  page.state = s;
  if (!opts.keepTuning) page.tuning = clone(s.tuning);
  if (page.selected) {
    const pts = ((page.tuning[page.selected.group]) || {}).points || [];
    if (page.selected.index >= pts.length) page.selected = null;
  }
  render();
  listenStaleCheck();
}

function render() {
  if (!page.state) return;
  page.plot.setData(plotData(page.state));
  updateTableValues();
  buildOtherValues();
  $('summary').textContent = page.state.summary || '';
}

// ---------------------------------------------------------------- import

let importJob = null;

async function startImport(file) {
  const bar = $('import-progress'), cancel = $('import-cancel');
  $('import-figures').textContent = '';
  $('import-report').textContent = '';
  bar.hidden = false; cancel.hidden = false; bar.value = 0;
  status(`uploading ${file.name}…`);
  const up = upload(`/api/import?name=${encodeURIComponent(file.name)}`, file, (f) => { bar.value = 0.05 * f; });
  importJob = {abort: up.abort};
  try {
    const {job} = await up.promise;
    status(`fitting ${file.name}…`);
    const j = followJob(job, (p) => { bar.value = 0.05 + 0.95 * p; });
    importJob = {abort: j.cancel};
    const result = await j.promise;
    const fg = result.figures;
    $('import-figures').textContent = `RMS ${fg.rms_db.toFixed(2)} dB, largest ${fg.largest_db.toFixed(2)} dB at ${Math.round(fg.largest_hz)} Hz, level offset ${signed(fg.level_offset_db)} dB`;
    $('import-report').textContent = result.report || '';
    await edit(result.tuning, `imported ${file.name} (Undo goes back)`);
  } catch (e) {
    status(e.message === 'cancelled' ? `import of ${file.name} cancelled` : `import: ${e.message}`, e.message !== 'cancelled');
  } finally {
    importJob = null;
    bar.hidden = true; cancel.hidden = true;
    $('import-file').value = '';
  }
}

// ---------------------------------------------------------------- listen

const listen = {
  ctx: null, processed: null, original: null, revision: null, loudnessDb: 0,
  sources: [], gainP: null, gainO: null, startedAt: 0, offset: 0, playing: false, hearOriginal: false,
  job: null, seeking: false,
};

async function loadAudioList(select) {
  try {
    const {entries} = await request('GET', '/api/audio');
    const sel = $('audio-entry');
    const keep = select || sel.value;
    sel.textContent = '';
    for (const e of entries) {
      const o = document.createElement('option');
      o.value = e.entry;
      o.textContent = `${e.entry} (${formatTime(e.seconds)})`;
      sel.append(o);
    }
    if (keep && entries.some((e) => e.entry === keep)) sel.value = keep;
    $('render').disabled = entries.length === 0;
  } catch (e) {
    status(`audio list: ${e.message}`, true);
  }
}

function fillSelect(sel, values, chosen) {
  sel.textContent = '';
  for (const v of values) {
    const o = document.createElement('option');
    o.value = v; o.textContent = v;
    sel.append(o);
  }
  sel.value = chosen;
}

function formatTime(s) {
  s = Math.max(0, s || 0);
  const m = Math.floor(s / 60);
  return `${m}:${String(Math.floor(s - 60 * m)).padStart(2, '0')}`;
}

async function uploadAudio(file) {
  const bar = $('render-progress'), cancel = $('render-cancel');
  bar.hidden = false; cancel.hidden = false; bar.value = 0;
  status(`uploading ${file.name}…`);
  const up = upload(`/api/audio?name=${encodeURIComponent(file.name)}`, file, (f) => { bar.value = f; });
  listen.job = {abort: up.abort};
  try {
    const {entry} = await up.promise;
    await loadAudioList(entry);
    status(`uploaded ${file.name} as ${entry}`);
  } catch (e) {
    status(e.message === 'cancelled' ? 'upload cancelled' : `upload: ${e.message}`, e.message !== 'cancelled');
  } finally {
    listen.job = null;
    bar.hidden = true; cancel.hidden = true;
    $('audio-file').value = '';
  }
}

async function startRender() {
  const entry = $('audio-entry').value;
  if (!entry) { status('pick or upload an audio file first', true); return; }
  const bar = $('render-progress'), cancel = $('render-cancel');
  bar.hidden = false; cancel.hidden = false; bar.value = 0;
  $('render').disabled = true;
  status(`rendering ${entry}…`);
  try {
    const {job} = await request('POST', '/api/render', {entry, device: $('device').value, format: $('format').value});
    const j = followJob(job, (p) => { bar.value = p; });
    listen.job = {abort: j.cancel};
    const result = await j.promise;
    status(`rendered ${entry}; decoding…`);
    await loadRendering(result);
    const notes = Array.isArray(result.notes) && result.notes.length ? `; ${result.notes.join('; ')}` : '';
    status(`rendered ${entry} (revision ${result.revision})${notes}`);
  } catch (e) {
    status(e.message === 'cancelled' ? 'rendering cancelled' : `render: ${e.message}`, e.message !== 'cancelled');
  } finally {
    listen.job = null;
    bar.hidden = true; cancel.hidden = true;
    $('render').disabled = false;
  }
}

async function fetchBuffer(url) {
  const res = await fetch(url);
  if (!res.ok) throw new Error(`${url}: ${res.status} ${res.statusText}`);
  return res.arrayBuffer();
}

async function loadRendering(result) {
  if (!listen.ctx) listen.ctx = new AudioContext();
  const [p, o] = await Promise.all([fetchBuffer(result.processed), fetchBuffer(result.original)]);
  const [bp, bo] = await Promise.all([listen.ctx.decodeAudioData(p), listen.ctx.decodeAudioData(o)]);
  const wasPlaying = listen.playing;
  const at = position();
  stopSources();
  listen.processed = bp;
  listen.original = bo;
  listen.revision = result.revision;
  listen.loudnessDb = result.loudness_match_db || 0;
  listen.urls = {processed: result.processed, original: result.original};
  listen.offset = Math.min(at, duration());
  $('player').hidden = false;
  $('seek').max = duration();
  $('loudness-note').textContent = matchNote();
  listenStaleCheck();
  updateTime();
  if (wasPlaying) startSources();
}

function duration() { return listen.processed ? Math.min(listen.processed.duration, listen.original.duration) : 0; }

function position() {
  if (!listen.playing) return listen.offset;
  return Math.min(duration(), listen.offset + listen.ctx.currentTime - listen.startedAt);
}

// Both buffers play all the time from the same start; A/B only changes which gain is open, so the
// switch is instant and keeps the position (the rendering is latency-compensated, so they line up).
function startSources() {
  const ctx = listen.ctx;
  listen.gainP = ctx.createGain();
  listen.gainO = ctx.createGain();
  setGains(true);
  listen.gainP.connect(ctx.destination);
  listen.gainO.connect(ctx.destination);
  const start = ctx.currentTime + 0.02;
  listen.sources = [[listen.processed, listen.gainP], [listen.original, listen.gainO]].map(([buf, gain]) => {
    const src = ctx.createBufferSource();
    src.buffer = buf;
    src.connect(gain);
    src.start(start, listen.offset);
    return src;
  });
  listen.sources[0].onended = () => { if (listen.playing && position() >= duration() - 0.05) { pause(); listen.offset = 0; updateTime(); } };
  listen.startedAt = start;
  listen.playing = true;
  $('play').textContent = 'Pause';
}

function stopSources() {
  for (const s of listen.sources) { s.onended = null; try { s.stop(); } catch (e) { /* not started */ } s.disconnect(); }
  listen.sources = [];
  if (listen.gainP) { listen.gainP.disconnect(); listen.gainO.disconnect(); }
  listen.playing = false;
  $('play').textContent = 'Play';
}

// loudness_match_db is RMS(processed) - RMS(original) in dB.
function matchGains() {
  if (!$('loudness').checked) return [1, 1];
  const d = listen.loudnessDb;
  return d > 0 ? [Math.pow(10, -d / 20), 1] : [1, Math.pow(10, d / 20)];
}

function matchNote() {
  const d = listen.loudnessDb;
  if (Math.abs(d) < 0.05) return 'the two play equally loud (RMS)';
  return `loudness matched by RMS: the ${d > 0 ? 'processed' : 'original'} version plays ${Math.abs(d).toFixed(1)} dB lower`;
}

function setGains(now) {
  if (!listen.gainP) return;
  // Matching only ever lowers the louder of the two, so it cannot push either into clipping.
  const [mp, mo] = matchGains();
  const p = listen.hearOriginal ? 0 : mp, o = listen.hearOriginal ? mo : 0;
  const t = listen.ctx.currentTime;
  if (now) { listen.gainP.gain.value = p; listen.gainO.gain.value = o; return; }
  listen.gainP.gain.setTargetAtTime(p, t, 0.003);  // a 3 ms glide: instant to the ear, no click
  listen.gainO.gain.setTargetAtTime(o, t, 0.003);
}

function pause() {
  listen.offset = position();
  stopSources();
}

async function togglePlay() {
  if (!listen.processed) return;
  if (listen.playing) { pause(); return; }
  await listen.ctx.resume();
  if (listen.offset >= duration() - 0.05) listen.offset = 0;
  startSources();
  tickTime();
}

function toggleAB() {
  listen.hearOriginal = !listen.hearOriginal;
  const b = $('ab');
  b.setAttribute('aria-pressed', String(!listen.hearOriginal));
  b.textContent = listen.hearOriginal ? 'Hearing: original' : 'Hearing: processed';
  setGains(false);
}

function seek(to) {
  const wasPlaying = listen.playing;
  if (wasPlaying) stopSources();
  listen.offset = clamp(to, 0, duration());
  if (wasPlaying) startSources();
  updateTime();
}

function updateTime() {
  const p = position();
  if (!listen.seeking) $('seek').value = p;
  $('time').textContent = `${formatTime(p)} / ${formatTime(duration())}`;
}

function tickTime() {
  updateTime();
  if (listen.playing) requestAnimationFrame(tickTime);
}

function listenStaleCheck() {
  if (listen.revision == null || !page.state) return;
  $('stale').hidden = listen.revision === page.state.revision;
}

// ---------------------------------------------------------------- start

function isTyping(el) {
  return el && (el.tagName === 'INPUT' && el.type !== 'checkbox' && el.type !== 'range' || el.tagName === 'TEXTAREA' || el.tagName === 'SELECT');
}

function wire() {
  $('undo').addEventListener('click', undo);
  $('redo').addEventListener('click', redo);
  document.addEventListener('keydown', (e) => {
    const mod = e.ctrlKey || e.metaKey;
    if (mod && (e.key === 'z' || e.key === 'Z')) {
      if (isTyping(document.activeElement)) return;  // the field's own undo
      e.preventDefault();
      if (e.shiftKey) redo(); else undo();
    } else if (mod && (e.key === 'y' || e.key === 'Y') && !isTyping(document.activeElement)) {
      e.preventDefault();
      redo();
    } else if ((e.key === 'b' || e.key === 'B') && !mod && !isTyping(document.activeElement) && listen.processed) {
      toggleAB();
    }
  });
  $('surround').addEventListener('change', () => {
    const next = clone(page.tuning);
    next.surround = $('surround').checked;
    edit(next, `surround ${next.surround ? 'on' : 'off'}`);
  });
  $('description').addEventListener('change', () => {
    const next = clone(page.tuning);
    const v = $('description').value;
    if (v) next.description = v; else delete next.description;
    edit(next, 'description changed');
  });
  $('target-remove').addEventListener('click', () => {
    const next = clone(page.tuning);
    delete next.target;
    edit(next, 'target removed');
  });
  $('import-file').addEventListener('change', () => { const f = $('import-file').files[0]; if (f) startImport(f); });
  $('import-cancel').addEventListener('click', () => { if (importJob) importJob.abort(); });
  $('audio-file').addEventListener('change', () => { const f = $('audio-file').files[0]; if (f) uploadAudio(f); });
  $('render').addEventListener('click', startRender);
  $('render-cancel').addEventListener('click', () => { if (listen.job) listen.job.abort(); });
  $('play').addEventListener('click', togglePlay);
  $('ab').addEventListener('click', toggleAB);
  $('loudness').addEventListener('change', () => setGains(false));
  const sk = $('seek');
  sk.addEventListener('input', () => { listen.seeking = true; $('time').textContent = `${formatTime(+sk.value)} / ${formatTime(duration())}`; });
  sk.addEventListener('change', () => { listen.seeking = false; seek(+sk.value); });
}

async function start() {
  wire();
  makePlot();
  try {
    const s = await request('GET', '/api/state');
    restoreHistory(s.tuning);
    page.tuning = clone(s.tuning);
    page.state = s;
    buildTables();
    applyState(s);
    fillSelect($('device'), s.limits.devices || ['wired-headphone'], 'wired-headphone');
    fillSelect($('format'), s.limits.formats || ['float'], 'float');
    updateHistoryButtons();
    status(withNotes(`ready: revision ${s.revision}, designed at ${s.rate} Hz`));
  } catch (e) {
    status(`cannot reach the studio: ${e.message}`, true);
  }
  loadAudioList();
}

// For the browser tests and the benchmark: where a table point sits on screen, and the timings.
window.studio = {
  page,
  markerClientXY(group, index) {
    const u = page.plot;
    const [f, g] = page.tuning[group].points[index];
    const r = u.over.getBoundingClientRect();
    const [x, y] = markerXY(u, f, g);
    return {x: r.left + x, y: r.top + y};
  },
  listen,
  drag,
};

start();
