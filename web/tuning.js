// Tuning: the file's blocks as `tuning check` judges them, sending it after a confirmation, and
// the protection module's switches.
import { fillTable, hex, run, show, showError, tuning } from './api.js';

const kSendAs = { load: 'receive configuration', delta: 'delta tuning', params: 'module parameters' };

async function pickedFile() {
  const file = document.getElementById('tuning-file').files[0];
  if (!file) throw new Error('pick a tuning file first');
  return { name: file.name, content: await file.text() };
}

function showBlocks(reply) {
  const blocks = (reply.result && reply.result.blocks) || [];
  fillTable(document.getElementById('tuning-table'), ['line', 'size', 'CRC', 'judgement'],
    blocks.map((b) => [b.line, b.size, hex(b.crc),
      { text: b.ok ? 'ok' : b.message || 'rejected', className: b.ok ? 'ok' : 'bad' }]));
}

async function check() {
  const verdict = document.getElementById('tuning-verdict');
  try {
    const { name, content } = await pickedFile();
    const reply = await tuning(['tuning', 'check'], name, content);
    showBlocks(reply);
    if (show(verdict, reply))
      verdict.textContent = `${reply.result.blocks.length} blocks (${reply.result.kind}): ` +
        (reply.result.loads ? 'would load' : 'would not load');
  } catch (error) {
    showError(verdict, error);
  }
}

async function send(how) {
  const verdict = document.getElementById('tuning-verdict');
  try {
    const { name, content } = await pickedFile();
    if (!window.confirm(`Send ${name} to the protection module as ${kSendAs[how]}?`)) return;
    const argv = ['tuning', how];
    if (document.getElementById('tuning-force').checked) argv.push('--force');
    const reply = await tuning(argv, name, content);
    if (show(verdict, reply))
      verdict.textContent = `sent ${reply.result.sent_blocks} blocks of ${name} as ${kSendAs[how]}`;
  } catch (error) {
    showError(verdict, error);
  }
}

async function switchModule(argv) {
  const verdict = document.getElementById('module-verdict');
  try {
    if (show(verdict, await run(argv))) verdict.textContent = `${argv.join(' ')}: done`;
  } catch (error) {
    showError(verdict, error);
  }
}

export function init() {
  document.getElementById('tuning-check').onclick = check;
  for (const button of document.querySelectorAll('[data-send]'))
    button.onclick = () => send(button.dataset.send);
  for (const button of document.querySelectorAll('[data-module]'))
    button.onclick = () => switchModule(['module', button.dataset.module]);
  for (const button of document.querySelectorAll('[data-swap]'))
    button.onclick = () => switchModule(['module', 'swap', button.dataset.swap]);
}
