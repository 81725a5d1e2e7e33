// sorn-hp studio page, the plot: the response curves and the tables' points drawn with uPlot,
// dragging a point (each position sent as an edit, the whole drag one undo step), the readout
// under the pointer and moving a selected point from the keyboard. Uses core.js.

'use strict';

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

