// Opens the example page in headless Chromium, through the example parent, the daemon and a proxy.
//
//     node page.mjs FOLDER-OF-EXAMPLES DAEMON FAR-SIDE

import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, readFileSync, writeFileSync } from 'node:fs';
import { rm } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { pathToFileURL } from 'node:url';

const [examples, daemon, farSide] = process.argv.slice(2);
const patience = 20000;

const browser = ['/usr/bin/chromium', '/usr/bin/google-chrome'].find(existsSync);
if (!browser) {
  console.log('skipped: needs chromium: apt-get install chromium');
  process.exit(0);
}

const folder = mkdtempSync(join(tmpdir(), 'zk-test-'));
const children = [];
const start = (program, parameters, options) => {
  const child = spawn(program, parameters, { stdio: ['pipe', 'pipe', 'inherit'], ...options });
  children.push(child);
  return child;
};
const lineOf = (child) => new Promise((resolve, reject) => {
  createInterface({ input: child.stdout }).once('line', resolve);
  child.once('error', reject);
  child.once('exit', (status) => reject(new Error(`${child.spawnfile} ended: ${status}`)));
});

// What the page says on the browser's console until it has come to a result.
async function visit(url) {
  const chromium = start(browser, [
    '--headless', '--enable-logging=stderr', `--user-data-dir=${join(folder, 'profile')}`,
    '--no-first-run', '--disable-gpu', '--disable-quic', '--disable-sync', '--disable-extensions',
    '--disable-background-networking', '--disable-component-update', '--disable-default-apps',
    '--host-resolver-rules=MAP * ~NOTFOUND',
    // The far end's own address has to be one that the proxy can use.
    '--disable-features=WebRtcHideLocalIpsWithMdns',
    ...(process.getuid() === 0 ? ['--no-sandbox'] : []), url,
  ], { stdio: ['ignore', 'ignore', 'pipe'] });
  const said = [];
  for await (const line of createInterface({ input: chromium.stderr })) {
    said.push(line.match(/:CONSOLE.*?\] "(.*)", source: /)?.[1] ?? '');
    if (said.at(-1).startsWith('result: ')) {
      break;
    }
  }
  return said.filter((line) => line);
}

async function run() {
  const { proxyPort, stun } = JSON.parse(await lineOf(start(farSide, [])));
  const config = JSON.parse(readFileSync(join(examples, 'config.json'), 'utf8'));
  config.proxy.port = proxyPort;
  const configFile = join(folder, 'config.json');
  writeFileSync(configFile, JSON.stringify(config));
  const parent = start(process.execPath, [join(examples, 'parent.mjs'), configFile, daemon],
                       { env: { ...process.env, ZK_STUN_IPS: stun } });
  const port = (await lineOf(parent)).match(/turn:127\.0\.0\.1:(\d+)\?/)[1];
  const url = pathToFileURL(join(examples, 'page.html'));
  url.search = new URLSearchParams(
    { port, username: config.username, credential: config.credential });
  const said = await visit(url.href);
  console.log(said.join('\n'));
  const offered = said.filter((line) => line.startsWith('near: candidate:'));
  const relayOnly = offered.length > 0 && offered.every((line) => line.includes(' typ relay '));
  return said.at(-1) === 'result: connected' && relayOnly ? 0 : 1;
}

const finish = async (status) => {
  for (const child of children) {
    child.kill('SIGKILL');
  }
  // The browser's processes write for a moment longer than it lives.
  await rm(folder, { recursive: true, force: true, maxRetries: 10, retryDelay: 50 });
  process.exit(status);
};
setTimeout(() => {
  console.log('no result in time');
  finish(1);
}, patience).unref();
run().then(finish, (error) => {
  console.log(error);
  finish(1);
});
