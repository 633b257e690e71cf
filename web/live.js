// Live protection: the live log streamed from `tvoxsp --json rtlog`, one plot per channel of
// the last N seconds (coil temperature, excursion, register 0x4308 and their maxima), the
// amplifier's active spans shaded. Samples are kept whole for the CSV; plots redraw once per
// frame from a window thinned to about two points per pixel.
import uPlot from './uplot/uPlot.esm.js';
import { live, showError } from './api.js';

const kColumns = ['c1', 'c1_max', 'c3', 'c3_max', 'reg', 'reg_max'];
const kMaxSamples = 2_000_000; // per channel, about 30 minutes at 1 ms
const kMaxStats = 1_000_000; // delays and frame times kept for the benchmark

// What the benchmark and the tests read: samples that reached the page, the delay from the
// server reading a sample to the plot showing it, and the frames drawn.
export const stats = { received: 0, latencies: [], frames: [], ended: null };
window.tvoxspLive = stats;

const channels = new Map(); // name -> {t, cols, active, plot, maxima}
let session = null;
let paused = false;
let dirty = false;
let pendingStamps = [];

function channel(name) {
  if (!channels.has(name)) {
    const ch = { t: [], active: [], cols: Object.fromEntries(kColumns.map((c) => [c, []])) };
    ch.maxima = document.createElement('div');
    ch.maxima.id = `live-max-${name}`;
    document.getElementById('live-maxima').appendChild(ch.maxima);
    const holder = document.createElement('div');
    document.getElementById('live-plots').appendChild(holder);
    ch.plot = makePlot(name, holder);
    channels.set(name, ch);
  }
  return channels.get(name);
}

// Shades each run of samples whose amplifier was active.
const shading = {
  hooks: {
    drawClear: (u) => {
      const xs = u.data[0];
      const active = u.activeData || [];
      const { ctx, bbox } = u;
      ctx.save();
      ctx.fillStyle = 'rgba(255, 150, 0, 0.15)';
      for (let i = 0; i < xs.length; i++) {
        if (!active[i]) continue;
        const from = i;
        while (i + 1 < xs.length && active[i + 1]) i++;
        const x0 = u.valToPos(xs[from], 'x', true);
        const x1 = u.valToPos(xs[Math.min(i + 1, xs.length - 1)], 'x', true);
        ctx.fillRect(x0, bbox.top, Math.max(1, x1 - x0), bbox.height);
      }
      ctx.restore();
    },
  },
};

function makePlot(name, holder) {
  const line = (label, scale, stroke, dash) => ({ label, scale, stroke, width: 1.5, dash, points: { show: false } });
  const opts = {
    title: `${name}`,
    width: Math.max(400, document.body.clientWidth - 60),
    height: 260,
    plugins: [shading],
    cursor: { drag: { x: true, y: false } },
    scales: { x: { time: false } },
    axes: [{ label: 's' }, { scale: 'temp', label: 'temperature' },
      { scale: 'exc', side: 1, label: 'excursion', grid: { show: false } }],
    series: [{ label: 't (s)' },
      line('temperature', 'temp', '#c20'), line('temperature max', 'temp', '#c20', [4, 4]),
      line('excursion', 'exc', '#06c'), line('excursion max', 'exc', '#06c', [4, 4]),
      line('0x4308', 'reg', '#393'), line('0x4308 max', 'reg', '#393', [4, 4])],
    hooks: { setSelect: [() => { setPaused(true); }] },
  };
  return new uPlot(opts, [[], [], [], [], [], [], []], holder);
}

function onSample(sample, received) {
  stats.received++;
  pendingStamps.push(received);
  for (const c of sample.channels) {
    const ch = channel(c.name);
    if (ch.t.length >= kMaxSamples) continue;
    ch.t.push(sample.t_ms / 1000);
    ch.active.push(c.active ? 1 : 0);
    for (const col of kColumns) ch.cols[col].push(c[col]);
    ch.last = c;
  }
  dirty = true;
}

function firstAtOrAfter(t, value) {
  let lo = 0;
  let hi = t.length;
  while (lo < hi) {
    const mid = (lo + hi) >> 1;
    if (t[mid] < value) lo = mid + 1;
    else hi = mid;
  }
  return lo;
}

// The window [from, end) thinned to buckets of `step` samples, each drawn as its smallest and
// largest value so that no peak is lost.
function windowData(ch, from, points) {
  const end = ch.t.length;
  const step = Math.max(1, Math.ceil((end - from) / points));
  const data = [[], ...kColumns.map(() => [])];
  const active = [];
  for (let i = from; i < end; i += step) {
    const last = Math.min(end, i + step) - 1;
    const xs = step === 1 ? [ch.t[i]] : [ch.t[i], ch.t[last]];
    data[0].push(...xs);
    let on = 0;
    for (let k = i; k <= last; k++) on |= ch.active[k];
    for (const _ of xs) active.push(on);
    kColumns.forEach((col, s) => {
      const values = ch.cols[col];
      if (step === 1) {
        data[s + 1].push(values[i]);
        return;
      }
      let lo = Infinity;
      let hi = -Infinity;
      for (let k = i; k <= last; k++) {
        lo = Math.min(lo, values[k]);
        hi = Math.max(hi, values[k]);
      }
      data[s + 1].push(lo, hi);
    });
  }
  return { data, active };
}

function redraw() {
  const seconds = Number(document.getElementById('live-window').value) || 60;
  for (const [name, ch] of channels) {
    if (ch.t.length === 0) continue;
    const from = firstAtOrAfter(ch.t, ch.t[ch.t.length - 1] - seconds);
    const { data, active } = windowData(ch, from, ch.plot.width);
    ch.plot.activeData = active;
    ch.plot.setData(data);
    const last = ch.last;
    ch.maxima.dataset.c1Max = last.c1_max;
    ch.maxima.textContent = `${name}: temperature ${last.c1.toFixed(2)} (max ${last.c1_max.toFixed(2)}),` +
      ` excursion ${last.c3.toFixed(4)} (max ${last.c3_max.toFixed(4)}), 0x4308 ${last.reg}` +
      ` (max ${last.reg_max})${last.active ? ', active' : ''}`;
  }
  const now = performance.timeOrigin + performance.now();
  for (const stamp of pendingStamps) if (stats.latencies.length < kMaxStats) stats.latencies.push(now - stamp);
  pendingStamps = [];
  document.getElementById('live-count').textContent = `${stats.received} samples`;
}

function frame(time) {
  if (stats.frames.length < kMaxStats) stats.frames.push(time);
  if (dirty && !paused) {
    dirty = false;
    redraw();
  }
  if (session) requestAnimationFrame(frame);
}

function setPaused(value) {
  paused = value;
  document.getElementById('live-pause').textContent = paused ? 'Resume' : 'Pause';
  if (!paused) dirty = true;
}

function start() {
  const verdict = document.getElementById('live-verdict');
  const interval = String(Number(document.getElementById('live-interval').value) || 100);
  for (const ch of channels.values()) {
    ch.plot.destroy();
    ch.maxima.remove();
  }
  channels.clear();
  document.getElementById('live-plots').replaceChildren();
  Object.assign(stats, { received: 0, latencies: [], frames: [], ended: null });
  setPaused(false);
  verdict.textContent = 'live log running';
  verdict.className = 'verdict';
  document.getElementById('live-start').disabled = true;
  document.getElementById('live-stop').disabled = false;
  document.getElementById('live-pause').disabled = false;
  session = live(['rtlog', '--interval', interval], onSample, (end) => {
    session = null;
    stats.ended = end;
    dirty = true;
    redraw();
    verdict.textContent = `${end.status || 'ended'}: ${end.samples ?? stats.received} samples, exit ${end.exit}` +
      (end.error ? ` (${end.error.class}: ${end.error.message})` : '');
    verdict.className = 'verdict ' + (end.ok ? 'ok' : 'bad');
    document.getElementById('live-start').disabled = false;
    document.getElementById('live-stop').disabled = true;
  });
  requestAnimationFrame(frame);
}

function downloadCsv() {
  const lines = ['channel,t_s,' + kColumns.join(',') + ',active'];
  for (const [name, ch] of channels)
    for (let i = 0; i < ch.t.length; i++)
      lines.push([name, ch.t[i], ...kColumns.map((c) => ch.cols[c][i]), ch.active[i]].join(','));
  const link = document.createElement('a');
  link.href = URL.createObjectURL(new Blob([lines.join('\n') + '\n'], { type: 'text/csv' }));
  link.download = 'rtlog.csv';
  link.click();
  URL.revokeObjectURL(link.href);
}

export function init() {
  document.getElementById('live-start').onclick = start;
  document.getElementById('live-stop').onclick = () =>
    session && session.stop().catch((e) => showError(document.getElementById('live-verdict'), e));
  document.getElementById('live-pause').onclick = () => setPaused(!paused);
  document.getElementById('live-csv').onclick = downloadCsv;
}
