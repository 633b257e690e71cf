// The virtual pair (local target only): its speakers and faults, the driver's faults and the
// loud test signal.
import { loud, show, showError, sim } from './api.js';

const output = () => document.getElementById('sim-output');
const verdict = () => document.getElementById('sim-verdict');

async function tvoxsim(argv) {
  try {
    const reply = await sim(argv);
    output().textContent = reply.output;
    verdict().textContent = `tvoxsim ${argv.join(' ')}: ${reply.exit === 0 ? 'done' : 'failed'}`;
    verdict().className = 'verdict ' + (reply.exit === 0 ? 'ok' : 'bad');
  } catch (error) {
    showError(verdict(), error);
  }
}

function applySpeaker(row) {
  const argv = ['speaker', row.dataset.speaker];
  for (const option of ['ohms', 'f0', 'fault']) {
    const value = row.querySelector(`[name=${option}]`).value.trim();
    if (value) argv.push(`--${option}`, value);
  }
  return tvoxsim(argv);
}

async function playLoud() {
  verdict().textContent = 'playing the loud test signal…';
  verdict().className = 'verdict';
  try {
    if (show(verdict(), await loud())) verdict().textContent = 'loud test signal played';
  } catch (error) {
    showError(verdict(), error);
  }
}

export function init() {
  for (const row of document.querySelectorAll('[data-speaker]'))
    row.querySelector('button').onclick = () => applySpeaker(row);
  document.getElementById('sim-driver-apply').onclick = () =>
    tvoxsim(['driver', 'fault', ...document.getElementById('sim-driver-fault').value.split(' ')]);
  document.getElementById('sim-speakers').onclick = () => tvoxsim(['speakers']);
  document.getElementById('sim-driver-config').onclick = () => tvoxsim(['driver', 'config']);
  document.getElementById('sim-loud').onclick = playLoud;
}
