// sorn-hp studio page, the rest of the page: the tables and other values of the tuning, applying
// the State the server answers with, importing a correction, listening with A/B, exporting, and
// the start. Loaded last, after core.js and plot.js.

'use strict';

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
