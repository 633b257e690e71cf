// The server's endpoints. Every reply of a tvoxsp command is {result, exit, stderr}: result is
// the document `tvoxsp --json` printed (null when it printed none).

async function post(path, body) {
  const response = await fetch(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
  });
  const reply = await response.json();
  if (!response.ok) throw new Error(reply.error || `${path}: HTTP ${response.status}`);
  return reply;
}

export const run = (argv) => post('api/run', { argv });
export const tuning = (argv, name, content) => post('api/tuning', { argv, name, content });
export const sim = (argv) => post('api/sim', { argv });
export const loud = () => post('api/loud', {});
export const info = async () => (await fetch('api/info')).json();

// What a reply says in one line: the tool's error when it failed, else "ok".
export function verdict(reply) {
  const result = reply.result;
  if (result && result.ok) return { ok: true, text: 'ok' };
  if (result && result.error) return { ok: false, text: `${result.error.class}: ${result.error.message}` };
  const said = (reply.stderr || reply.output || '').trim();
  return { ok: false, text: `exit ${reply.exit}${said ? ': ' + said : ''}` };
}

export function show(element, reply) {
  const v = verdict(reply);
  element.textContent = v.text;
  element.className = 'verdict ' + (v.ok ? 'ok' : 'bad');
  return v.ok;
}

export function showError(element, error) {
  element.textContent = error.message;
  element.className = 'verdict bad';
}

// A live command: onSample(object, receivedMs) per sample line, onEnd(object) once with the
// command's end object. stop() asks for the clean stop sequence; the end still arrives.
export function live(argv, onSample, onEnd) {
  const source = new EventSource('api/live?argv=' + encodeURIComponent(JSON.stringify(argv)));
  let stream = null;
  let ended = false;
  const finish = (object) => {
    if (ended) return;
    ended = true;
    source.close();
    onEnd(object);
  };
  // Every event is "RECEIVED_MS OBJECT": when the server read the line, then the line.
  const split = (data) => {
    const space = data.indexOf(' ');
    return [Number(data.slice(0, space)), JSON.parse(data.slice(space + 1))];
  };
  source.addEventListener('started', (event) => { stream = split(event.data)[1].stream; });
  source.onmessage = (event) => {
    const [received, object] = split(event.data);
    if (object.type === 'end') finish(object);
    else onSample(object, received);
  };
  source.onerror = () => finish({ type: 'end', ok: false, exit: -1,
    error: { class: 'failed', message: 'the stream broke off' } });
  return {
    stop: () => (stream === null ? Promise.resolve() : post('api/stop', { stream })),
  };
}

// A table from a header row and rows of cells (text or {text, className}).
export function fillTable(table, header, rows) {
  table.replaceChildren();
  const head = table.insertRow();
  for (const h of header) {
    const th = document.createElement('th');
    th.textContent = h;
    head.appendChild(th);
  }
  for (const row of rows) {
    const tr = table.insertRow();
    for (const cell of row) {
      const td = tr.insertCell();
      if (cell !== null && typeof cell === 'object') {
        td.textContent = cell.text;
        td.className = cell.className || '';
      } else {
        td.textContent = cell ?? '';
      }
    }
  }
}

export const hex = (n) => (typeof n === 'number' ? '0x' + n.toString(16).toUpperCase() : '');
export const ohms = (n) => (typeof n === 'number' ? n.toFixed(2) + ' Ω' : '—');
