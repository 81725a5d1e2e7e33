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

