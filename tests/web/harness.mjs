// A dashboard on the virtual pair for the browser tests and the benchmark: a fresh simulator
// folder, `tvoxsp serve` inside it (as `tvoxsim run` starts it), and Debian's chromium driven by puppeteer-core.
import { execFile, spawn } from 'node:child_process';
import { mkdtemp, rm } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { promisify } from 'node:util';
import puppeteer from 'puppeteer-core';

const build = resolve(process.env.TVOXSP_BUILD_DIR || 'build');
export const tvoxsimPath = join(build, 'sim', 'tvoxsim');
export const tvoxspPath = join(build, 'tools', 'tvoxsp', 'tvoxsp');
export const artifacts = process.env.TVOXSP_ARTIFACTS || join(build, 'web-artifacts');

export async function startDashboard() {
  const simDir = await mkdtemp(join(tmpdir(), 'tvoxsp-web-'));
  const run = promisify(execFile);
  await run(tvoxsimPath, ['init', '--force', simDir]);
  // What `tvoxsim run` would set; a sanitized build needs its runtime first in LD_PRELOAD
  // (TVOXSIM_PRELOAD_ENV, from CTest), which node itself must not get.
  const env = { ...process.env };
  for (const [, name, value] of (await run(tvoxsimPath, ['env', simDir])).stdout.matchAll(/export (\w+)='([^']*)'/g))
    env[name] = value;
  if (process.env.TVOXSIM_PRELOAD_ENV) env.LD_PRELOAD = process.env.TVOXSIM_PRELOAD_ENV;
  const server = spawn(tvoxspPath, ['serve', '--port', '0'], { env, stdio: ['ignore', 'pipe', 'inherit'] });
  const url = await new Promise((resolveUrl, reject) => {
    let out = '';
    server.stdout.on('data', (chunk) => {
      out += chunk;
      const found = out.match(/open (http:\/\/\S+)\n/);
      if (found) resolveUrl(found[1]);
    });
    server.on('exit', (code) => reject(new Error(`tvoxsp serve exited with ${code}: ${out}`)));
  });
  const browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--window-size=1280,900'],
    defaultViewport: { width: 1280, height: 900 },
  });
  return {
    url,
    simDir,
    browser,
    // The simulator's tool on this dashboard's folder: its standard output.
    tvoxsim: async (...args) =>
      (await run(tvoxsimPath, args, { env: { ...process.env, TVOXSIM_DIR: simDir } })).stdout,
    async stop() {
      await browser.close();
      const exited = new Promise((done) => server.on('exit', done));
      server.kill('SIGINT');
      await exited;
      await rm(simDir, { recursive: true, force: true });
    },
  };
}
