// Calibrate and Diagnose: a progress bar while the 3 seconds of silence play, then each
// channel's measurement in ohms and why a channel failed.
import { fillTable, ohms, run, show, showError } from './api.js';

const kRunMs = 3000;

async function measure(command) {
  const verdict = document.getElementById('calibrate-verdict');
  const progress = document.getElementById('calibrate-progress');
  const buttons = [document.getElementById('calibrate-run'), document.getElementById('diagnose-run')];
  const argv = document.getElementById('calibrate-force').checked ? [command, '--force'] : [command];
  buttons.forEach((b) => { b.disabled = true; });
  verdict.textContent = `${command} running…`;
  verdict.className = 'verdict';
  progress.hidden = false;
  const start = performance.now();
  const timer = setInterval(() => { progress.value = Math.min(kRunMs, performance.now() - start); }, 50);
  try {
    const reply = await run(argv);
    const channels = (reply.result && reply.result.channels) || [];
    fillTable(document.getElementById('calibrate-table'),
      ['speaker', 'ohms', 'CAL_R', 'range', 'status', command === 'diagnose' ? 'F0 (Hz)' : 'stored',
        'DSP uses', 'reason'],
      channels.map((ch) => [ch.name, { text: ohms(ch.ohms), className: ch.reason ? 'bad' : 'ok' },
        ch.cal_r, ch.range ? `${ohms(ch.range.min_ohms)} – ${ohms(ch.range.max_ohms)}` : '',
        ch.status, command === 'diagnose' ? (ch.f0 ?? '—') : (ch.stored ? 'yes' : 'no'),
        ohms(ch.in_use_ohms), { text: ch.reason || '', className: 'bad' }]));
    show(verdict, reply);
    const failed = channels.filter((ch) => ch.reason).map((ch) => `${ch.name}: ${ch.reason}`);
    if (reply.result && reply.result.result)
      verdict.textContent = [reply.result.result + (reply.result.ok ? '' : ` (${verdict.textContent})`),
        ...failed].join('; ');
  } catch (error) {
    showError(verdict, error);
  } finally {
    clearInterval(timer);
    progress.hidden = true;
    buttons.forEach((b) => { b.disabled = false; });
  }
}

export function init() {
  document.getElementById('calibrate-run').onclick = () => measure('calibrate');
  document.getElementById('diagnose-run').onclick = () => measure('diagnose');
}
