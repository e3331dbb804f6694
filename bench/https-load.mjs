// The sample game's first load and reload in headless Chromium over HTTP and over HTTPS, each through a
// user-space delay line: a TCP relay that holds every connection for one round trip before it relays
// anything (the TCP handshake) and then delays every chunk by half a round trip each way.
// The delay lines run in a process of their own (--relay), so that the browser's driver never holds them up.
// Usage: node bench/https-load.mjs [--relay] RTT_MS LOADS LISTEN:PLAIN_PORT LISTEN:HTTPS_PORT
import net from 'node:net';
import { spawn } from 'node:child_process';
import { chromium } from '../tests/clients/node_modules/playwright-core/index.mjs';

const relayOnly = process.argv[2] === '--relay';
const argv = process.argv.slice(relayOnly ? 3 : 2);
const [rtt, loads] = argv.slice(0, 2).map(Number);
const lines = argv.slice(2).map((pair) => pair.split(':').map(Number));
const later = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

/** Relays `listen` to `target` on 127.0.0.1 with the delays above. */
function delayLine(listen, target) {
  return net.createServer((client) => {
    client.pause();
    const upstream = net.connect(target, '127.0.0.1');
    // Each chunk goes out as it comes in: Nagle's wait on small writes would add stalls the link has not.
    client.setNoDelay(true);
    upstream.setNoDelay(true);
    const pipe = (from, to) => {
      from.on('data', (chunk) => later(rtt / 2).then(() => to.destroyed || to.write(chunk)));
      from.on('end', () => later(rtt / 2).then(() => to.end()));
      from.on('error', () => to.destroy());
    };
    pipe(upstream, client);
    later(rtt).then(() => { pipe(client, upstream); client.resume(); });
  }).listen(listen, '127.0.0.1');
}

if (relayOnly) {
  lines.forEach(([listen, target]) => delayLine(listen, target));
  console.log('relaying');
} else {
  await main();
}

async function main() {
const relay = spawn(process.execPath, [new URL(import.meta.url).pathname, '--relay', ...argv], { stdio: ['ignore', 'pipe', 'inherit'] });
await new Promise((resolve) => relay.stdout.once('data', resolve));
const browser = await chromium.launch({ executablePath: '/usr/bin/chromium',
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run'] });
const median = (values) => values.sort((a, b) => a - b)[values.length >> 1];
const timed = async (step, page) => {
  const start = performance.now();
  await step();
  await page.waitForFunction(() => window.gameReport?.done, null, { timeout: 30000 });
  return performance.now() - start;
};
console.log(`The sample game until its "Ready" line, median of ${loads}, ${rtt} ms round trip\n`);
console.log('| scheme | first load ms | reload ms |\n|---|---|---|');
for (const [scheme, [listen]] of [['http', lines[0]], ['https', lines[1]]]) {
  const first = [], again = [];
  for (let i = 0; i < loads; i += 1) {
    const context = await browser.newContext({ ignoreHTTPSErrors: true });  // a fresh cache and no open connection
    const page = await context.newPage();
    const url = `${scheme}://127.0.0.1:${listen}/`;
    first.push(await timed(() => page.goto(url), page));
    again.push(await timed(() => page.reload(), page));
    await context.close();
  }
  console.log(`| ${scheme} | ${median(first).toFixed(0)} | ${median(again).toFixed(0)} |`);
}
await browser.close();
relay.kill();
}
