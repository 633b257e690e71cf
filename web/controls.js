// Controls of card 0: a searchable list with their values; set one.
import { run, show, showError } from './api.js';

function filter() {
  const words = document.getElementById('controls-search').value.toLowerCase().split(/\s+/).filter(Boolean);
  for (const row of document.querySelectorAll('#controls-table tr[data-name]')) {
    const name = row.dataset.name.toLowerCase();
    row.classList.toggle('hidden', !words.every((w) => name.includes(w)));
  }
}

async function load() {
  const verdict = document.getElementById('controls-verdict');
  const table = document.getElementById('controls-table');
  try {
    const reply = await run(['controls']);
    table.replaceChildren();
    const head = table.insertRow();
    for (const h of ['id', 'name', 'type', 'values', 'range or items']) head.insertCell().textContent = h;
    for (const c of (reply.result && reply.result.controls) || []) {
      const row = table.insertRow();
      row.dataset.name = c.name;
      const range = c.items ? c.items.join(' | ') : c.min !== undefined ? `${c.min} … ${c.max}` : '';
      for (const text of [c.id, c.name, c.type, c.values.join(' '), range]) row.insertCell().textContent = text;
      row.onclick = () => {
        document.getElementById('controls-name').value = c.name;
        document.getElementById('controls-values').value = c.values.join(' ');
      };
    }
    show(verdict, reply);
    filter();
  } catch (error) {
    showError(verdict, error);
  }
}

async function set() {
  const verdict = document.getElementById('controls-verdict');
  const name = document.getElementById('controls-name').value;
  const values = document.getElementById('controls-values').value.trim().split(/\s+/).filter(Boolean);
  try {
    const reply = await run(['set', name, ...values]);
    if (show(verdict, reply)) {
      verdict.textContent = `${reply.result.name} = ${reply.result.values.join(' ')}`;
      const row = [...document.querySelectorAll('#controls-table tr[data-name]')]
        .find((r) => r.dataset.name === reply.result.name);
      if (row) row.cells[3].textContent = reply.result.values.join(' ');
    }
  } catch (error) {
    showError(verdict, error);
  }
}

export function init() {
  document.getElementById('controls-load').onclick = load;
  document.getElementById('controls-search').oninput = filter;
  document.getElementById('controls-set').onclick = set;
}
