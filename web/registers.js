// Registers of both amplifiers: read, write, update bits; a monitor table that updates live
// and marks each value that changed.
import { fillTable, hex, live, run, show, showError } from './api.js';

const kMarkMs = 2000;
const field = (id) => document.getElementById(id).value.trim();

async function access(argv) {
  const verdict = document.getElementById('reg-verdict');
  try {
    const reply = await run(argv);
    const result = reply.result || {};
    fillTable(document.getElementById('reg-table'), ['register', 'channel', 'value', 'written'],
      (result.channels || []).map((c) => [hex(result.register), c.name, hex(c.value), hex(c.written)]));
    show(verdict, reply);
  } catch (error) {
    showError(verdict, error);
  }
}

let monitor = null;

function startMonitor() {
  const verdict = document.getElementById('monitor-verdict');
  const registers = field('monitor-registers').split(/[\s,]+/).filter(Boolean);
  const table = document.getElementById('monitor-table');
  const cells = new Map(); // "register/channel" -> cell
  table.replaceChildren();
  verdict.textContent = 'monitor running';
  verdict.className = 'verdict';
  document.getElementById('monitor-start').disabled = true;
  document.getElementById('monitor-stop').disabled = false;
  const argv = ['monitor', '--interval', String(Number(field('monitor-interval')) || 500), ...registers];
  monitor = live(argv, (sample) => {
    for (const reg of sample.registers) {
      for (const c of reg.channels) {
        const key = `${reg.register}/${c.name}`;
        if (!cells.has(key)) {
          const row = table.insertRow();
          row.insertCell().textContent = hex(reg.register);
          row.insertCell().textContent = c.name;
          cells.set(key, row.insertCell());
        }
        // A changed value stays marked for kMarkMs, long enough to be seen.
        const cell = cells.get(key);
        const text = hex(c.value);
        if (cell.textContent && cell.textContent !== text) cell.dataset.changedAt = String(Date.now());
        cell.className = Date.now() - Number(cell.dataset.changedAt || 0) < kMarkMs ? 'num changed' : 'num';
        cell.textContent = text;
      }
    }
  }, (end) => {
    monitor = null;
    verdict.textContent = `${end.status || 'ended'}, exit ${end.exit}` +
      (end.error ? ` (${end.error.class}: ${end.error.message})` : '');
    verdict.className = 'verdict ' + (end.ok ? 'ok' : 'bad');
    document.getElementById('monitor-start').disabled = false;
    document.getElementById('monitor-stop').disabled = true;
  });
}

export function init() {
  document.getElementById('reg-read').onclick = () => access(['reg', 'read', field('reg-address')]);
  document.getElementById('reg-write').onclick = () =>
    access(['reg', 'write', field('reg-address'), field('reg-value')]);
  document.getElementById('reg-update').onclick = () =>
    access(['reg', 'update', field('reg-address'), field('reg-mask'), field('reg-value')]);
  document.getElementById('monitor-start').onclick = startMonitor;
  document.getElementById('monitor-stop').onclick = () =>
    monitor && monitor.stop().catch((e) => showError(document.getElementById('monitor-verdict'), e));
}
