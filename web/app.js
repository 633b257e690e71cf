// The dashboard: one view per tab; the Simulator tab only where the virtual pair is.
import { info } from './api.js';
import * as calibrate from './calibrate.js';
import * as controls from './controls.js';
import * as live from './live.js';
import * as registers from './registers.js';
import * as simulator from './simulator.js';
import * as speakers from './speakers.js';
import * as tuning from './tuning.js';

function select(view) {
  for (const b of document.querySelectorAll('#tabs button')) b.classList.toggle('active', b.dataset.view === view);
  for (const s of document.querySelectorAll('.view')) s.classList.toggle('active', s.id === `view-${view}`);
}

for (const module of [calibrate, controls, live, registers, simulator, speakers, tuning]) module.init();
for (const button of document.querySelectorAll('#tabs button')) button.onclick = () => select(button.dataset.view);
select('speakers');

const target = await info();
document.getElementById('target').textContent =
  target.target === 'adb' ? `phone over adb ${target.serial}` : 'this machine (virtual pair when inside tvoxsim run)';
document.getElementById('tab-simulator').hidden = !target.simulator;
// The token stays out of the address bar once the cookie holds it.
history.replaceState(null, '', location.pathname);
document.body.dataset.ready = '1';
speakers.refresh();
