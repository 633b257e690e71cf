// The live log at a 1 ms interval streamed to the dashboard in headless chromium for 30 s (a
// 60-second plot window): samples per second that reach the page against those the log
// produced, the delay from the server reading a sample to the plot drawing it (median, p99),
// and the page's frame rate (lowest and median over each second).
//   TVOXSP_BUILD_DIR=build node bench/dashboard_bench.mjs [SECONDS]
import { startDashboard } from '../tests/web/harness.mjs';

const seconds = Number(process.argv[2] || 30);
const quantile = (sorted, q) => sorted[Math.min(sorted.length - 1, Math.floor(q * sorted.length))];

const dash = await startDashboard();
try {
  const page = await dash.browser.newPage();
  await page.goto(dash.url);
  await page.waitForSelector('body[data-ready="1"]');
  await page.click('#tabs button[data-view=live]');
  await page.$eval('#live-interval', (e) => { e.value = '1'; });
  await page.$eval('#live-window', (e) => { e.value = '60'; });
  await page.click('#live-start');
  await page.waitForFunction(() => window.tvoxspLive.received > 0, { timeout: 30000 });
  const t0 = Date.now();
  await new Promise((done) => setTimeout(done, seconds * 1000));
  await page.click('#live-stop');
  await page.waitForFunction(() => window.tvoxspLive.ended !== null, { timeout: 30000 });
  const elapsed = (Date.now() - t0) / 1000;
  const { received, latencies, frames, ended } = await page.evaluate(() => window.tvoxspLive);
  const sorted = [...latencies].sort((a, b) => a - b);
  // Frames per whole second of the run, from the frame time stamps.
  const perSecond = new Map();
  for (const t of frames) perSecond.set(Math.floor(t / 1000), (perSecond.get(Math.floor(t / 1000)) || 0) + 1);
  const fps = [...perSecond.values()].slice(1, -1).sort((a, b) => a - b);
  const report = {
    seconds: Number(elapsed.toFixed(1)),
    samples_logged: ended.samples,
    samples_on_page: received,
    samples_per_second_on_page: Math.round(received / elapsed),
    every_sample_reached_the_page: received === ended.samples,
    latency_ms_median: Number(quantile(sorted, 0.5).toFixed(1)),
    latency_ms_p99: Number(quantile(sorted, 0.99).toFixed(1)),
    fps_lowest: fps[0],
    fps_median: quantile(fps, 0.5),
    end: `${ended.status}, exit ${ended.exit}`,
  };
  console.log(JSON.stringify(report, null, 2));
} finally {
  await dash.stop();
}
