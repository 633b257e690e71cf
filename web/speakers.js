// Both speakers at a glance: the stored calibration beside the CAL_R the DSP uses, the kernel's
// value and the driver slot (`verify`), each amplifier's active flag and firmware.
import { fillTable, ohms, run, show, showError } from './api.js';

const value = (reply) => (reply.result?.ok && reply.result.values ? reply.result.values.join(' ') : '?');
const word = (v) => (v ? `${v.cal_r} (${ohms(v.ohms)})` : '—');

export async function refresh() {
  const verdict = document.getElementById('speakers-verdict');
  try {
    const verify = await run(['verify']);
    const channels = (verify.result && verify.result.channels) || [];
    const rows = [];
    for (const ch of channels) {
      const [active, firmware, mode] = await Promise.all(
        ['AMP Active Status', 'DSP1 Firmware', 'DSP Mode'].map((c) => run(['get', `${ch.name} ${c}`])));
      rows.push([ch.name, word(ch.stored), word(ch.dsp), word(ch.kernel), word(ch.slot),
        { text: ch.agree ? 'agree' : 'differ', className: ch.agree ? 'ok' : 'bad' },
        { text: ch.in_range ? 'yes' : 'no', className: ch.in_range ? 'ok' : 'bad' },
        value(active) === '1' ? 'active' : value(active) === '0' ? 'off' : '?',
        value(firmware), value(mode)]);
    }
    fillTable(document.getElementById('speakers-table'),
      ['speaker', 'stored', 'DSP uses', 'kernel', 'driver slot', 'verify', 'in range',
        'amplifier', 'firmware', 'DSP mode'], rows);
    show(verdict, verify);
  } catch (error) {
    showError(verdict, error);
  }
}

export function init() {
  document.getElementById('speakers-refresh').onclick = refresh;
}
