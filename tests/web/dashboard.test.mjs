// The dashboard in headless chromium against `tvoxsp serve` on the virtual pair: each view
// does what an engineer would do with it, and keeps a screenshot (TVOXSP_ARTIFACTS).
import assert from 'node:assert/strict';
import { mkdir, writeFile } from 'node:fs/promises';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { artifacts, startDashboard } from './harness.mjs';

let dash;
let page;

before(async () => {
  await mkdir(artifacts, { recursive: true });
  dash = await startDashboard();
  page = await dash.browser.newPage();
  page.on('dialog', (dialog) => dialog.accept());
  page.on('pageerror', (error) => { throw error; });
});

after(async () => { await dash?.stop(); });

const text = (selector) => page.$eval(selector, (e) => e.textContent);
const tab = (view) => page.click(`#tabs button[data-view=${view}]`);
const shot = (name) => page.screenshot({ path: join(artifacts, `dashboard-${name}.png`), fullPage: true });
const waitText = (selector, pattern, timeout = 30000) => page.waitForFunction(
  (s, p) => new RegExp(p).test(document.querySelector(s).textContent), { timeout }, selector, pattern.source);

test('the page opens with its token and shows both speakers', async () => {
  await page.goto(dash.url);
  await page.waitForSelector('body[data-ready="1"]');
  await page.waitForFunction(() => document.querySelectorAll('#speakers-table tr').length === 3);
  const rows = await page.$$eval('#speakers-table tr', (trs) => trs.slice(1).map((tr) => tr.cells[0].textContent));
  assert.deepEqual(rows, ['T', 'B']);
  assert.equal(new URL(page.url()).search, '', 'the token left the address bar');
  await shot('speakers');
});

test('calibrate shows both channels in ohms', async () => {
  await tab('calibrate');
  await page.click('#calibrate-run');
  await waitText('#calibrate-verdict', /calibration success/);
  const ohms = await page.$$eval('#calibrate-table tr', (trs) => trs.slice(1).map((tr) => tr.cells[1].textContent));
  assert.deepEqual(ohms, ['6.00 Ω', '6.00 Ω']);
  await shot('calibrate');
});

test('a shorted speaker fails the calibration, named', async () => {
  await tab('simulator');
  await page.select('tr[data-speaker=B] select[name=fault]', 'shorted');
  await page.click('tr[data-speaker=B] button');
  await waitText('#sim-verdict', /speaker B --fault shorted: done/);
  await tab('calibrate');
  await page.click('#calibrate-run');
  await waitText('#calibrate-verdict', /calibration failed/);
  assert.match(await text('#calibrate-verdict'), /measurement: .*; B: .*out of range/);
  const rows = await page.$$eval('#calibrate-table tr', (trs) => trs.slice(1).map((tr) => [tr.cells[1].textContent, tr.cells[7].textContent]));
  assert.deepEqual(rows[0], ['6.00 Ω', '']);
  assert.equal(rows[1][0], '0.10 Ω');
  assert.match(rows[1][1], /out of range/);
  await tab('simulator');
  await page.select('tr[data-speaker=B] select[name=fault]', 'none');
  await page.click('tr[data-speaker=B] button');
  await waitText('#sim-verdict', /speaker B --fault none: done/);
});

test('the live log plots samples, the loud signal raises the temperature maximum, stop ends it cleanly', async () => {
  await tab('live');
  await page.$eval('#live-interval', (e) => { e.value = '20'; });
  await page.click('#live-start');
  await page.waitForFunction(() => window.tvoxspLive.received >= 10);
  const before = Number(await page.$eval('#live-max-T', (e) => e.dataset.c1Max));
  await tab('simulator');
  await page.click('#sim-loud');
  await waitText('#sim-verdict', /loud test signal played/);
  await tab('live');
  await page.waitForFunction((b) => Number(document.querySelector('#live-max-T').dataset.c1Max) > b + 1, {}, before);
  await shot('live');
  await page.click('#live-stop');
  await waitText('#live-verdict', /rtlog exit/);
  const end = await page.evaluate(() => window.tvoxspLive.ended);
  assert.equal(end.ok, true);
  assert.equal(end.exit, 0);
  assert.equal(end.samples, await page.evaluate(() => window.tvoxspLive.received), 'every sample reached the page');
});

test('a tuning file is checked, sent as delta after confirmation, and the driver holds it', async () => {
  const file = join(dash.simDir, 'delta.txt');
  await writeFile(file, '5,100,200,300,4292077319\n3,7,1987764275\n');
  await tab('tuning');
  await (await page.$('#tuning-file')).uploadFile(file);
  await page.click('#tuning-check');
  await waitText('#tuning-verdict', /2 blocks \(delta\): would load/);
  await page.click('[data-send=delta]');
  await waitText('#tuning-verdict', /sent 2 blocks of delta.txt as delta tuning/);
  await shot('tuning');
  assert.match(await dash.tvoxsim('driver', 'config', '0xA1AF0D'), /100 200 300/);
});

test('a register reads on both amplifiers, and the monitor marks the value a write changed', async () => {
  await tab('registers');
  await page.click('#reg-read');
  await page.waitForFunction(() => document.querySelectorAll('#reg-table tr').length === 3);
  const channels = await page.$$eval('#reg-table tr', (trs) => trs.slice(1).map((tr) => tr.cells[1].textContent));
  assert.deepEqual(channels, ['T', 'B']);
  await page.$eval('#monitor-registers', (e) => { e.value = '0x2020'; });
  await page.$eval('#monitor-interval', (e) => { e.value = '50'; });
  await page.click('#monitor-start');
  await page.waitForFunction(() => document.querySelectorAll('#monitor-table tr').length === 2);
  await page.$eval('#reg-value', (e) => { e.value = '0x9'; });
  await page.click('#reg-write');
  await page.waitForSelector('#monitor-table td.changed');
  assert.deepEqual(await page.$$eval('#monitor-table td.changed', (tds) => tds.map((td) => td.textContent)), ['0x9', '0x9']);
  await shot('registers');
  await page.click('#monitor-stop');
  await waitText('#monitor-verdict', /exit 0$/);
});

test('controls are listed, searched and set', async () => {
  await tab('controls');
  await page.click('#controls-load');
  await waitText('#controls-verdict', /ok/);
  await page.type('#controls-search', 'T DSP Mode');
  const shown = await page.$$eval('#controls-table tr[data-name]:not(.hidden)', (trs) => trs.map((tr) => tr.dataset.name));
  assert.deepEqual(shown, ['T DSP Mode']);
  await page.click('#controls-table tr[data-name="T DSP Mode"]');
  await page.$eval('#controls-values', (e) => { e.value = '2'; });
  await page.click('#controls-set');
  await waitText('#controls-verdict', /T DSP Mode = 2/);
  await shot('controls');
  await tab('simulator');
  await page.click('#sim-speakers');
  await waitText('#sim-verdict', /speakers: done/);
  await shot('simulator');
});
