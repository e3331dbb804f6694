// The three engines against varnok-serve --https, each trusting the launcher's CA the way it takes trust:
// Chromium from the NSS db under its HOME, Firefox from its profile's cert9.db, WebKitGTK from the system
// bundle (which tests/https/run mounts over the machine's for this run only). Over https the probe page
// is a secure context and registers a service worker, and the sample game loads with every file 200;
// over plain http the probe is no secure context.
// Usage (in the namespace, with a display): node --test engines.test.mjs   (VARNOK_HTTPS_HOST, VARNOK_HTTPS_CA)
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import { ANSWERS, ENGINES, GAME_SCREEN, waitFor } from '../clients/engines.mjs';

const HOST = process.env.VARNOK_HTTPS_HOST, CA = process.env.VARNOK_HTTPS_CA;
const HTTPS = `https://${HOST}:8081/`, HTTP = `http://${HOST}:8080/`;
// The table's files that the sample game holds (the client test adds the others), and the listing.
const examples = new URL('../../examples', import.meta.url).pathname;
const SERVED = Object.entries(ANSWERS).filter(([answer]) => answer.startsWith('200 ')).flatMap(([, names]) => names)
  .filter((name) => name === '/save' || name === '/' || fs.existsSync(examples + name));
const rows = [];
// Each of SERVED fetched from the page: "STATUS NAME" (a function made from text, as the engines take
// a function's source, and WebKit's driver no arguments).
const fetchServed = (0, eval)(`() => Promise.all(${JSON.stringify(SERVED)}.map((name) =>
  fetch(name, { cache: 'no-store' }).then((answer) => answer.status + ' ' + name)))`);

const made = fs.mkdtempSync(`${os.tmpdir()}/varnok-https-`);  // the engines' folders, removed at the end

/** `folder` (under `made`), made with a fresh NSS db at `under` in it that trusts the CA for servers. */
function nssWithCa(folder, under = '') {
  fs.mkdirSync(`${made}/${folder}/${under}`, { recursive: true });
  for (const args of [['-N', '--empty-password'], ['-A', '-n', 'Varnok local CA', '-t', 'C,,', '-i', CA]]) {
    const run = spawnSync('certutil', [...args, '-d', `sql:${made}/${folder}/${under}`], { encoding: 'utf8' });
    assert.equal(run.status, 0, `certutil ${args[0]}: ${run.stderr}`);
  }
  return `${made}/${folder}`;
}

const TRUST = {
  Blink: () => ({ env: { ...process.env, HOME: nssWithCa('blink', '.pki/nssdb') }, host: HOST }),
  Gecko: () => ({ profile: nssWithCa('gecko') }),
  // WebKit: the system bundle, which tests/https/run mounts over the machine's with the CA in it.
};

/** The probe's report at `url`. */
const probe = (page, url) => page.goto(url)
  .then(() => waitFor(`the probe at ${url}`, () => page.evaluate(() => window.probeReport), 20000));

for (const [engine, launch] of Object.entries(ENGINES)) {
  test(`${engine} trusts the CA: a secure context over https, none over http, the game whole`, { timeout: 240000 }, async () => {
    const browser = await launch(TRUST[engine]?.());
    try {
      const secure = await probe(browser.page, `${HTTPS}probe.html`);
      await browser.page.goto(HTTPS);
      await waitFor('the game over https', () => browser.page.evaluate(() => window.gameReport?.done), 30000);
      const status = await browser.page.evaluate(() => document.getElementById('status').textContent);
      const answers = await browser.page.evaluate(fetchServed);
      // Plain HTTP last: a connection the browser opens to the server ahead of time and leaves idle holds
      // the one-at-a-time server until the browser closes it.
      const plain = await probe(browser.page, `${HTTP}probe.html`);
      if (engine === 'Blink' && process.env.VARNOK_DOC_IMAGES === '1')
        fs.writeFileSync(new URL('../../docs/images/https-phone.png', import.meta.url), await browser.page.screenshot({ scale: 'css' }));
      rows.push(`| ${engine} | ${secure.secure}, ${secure.worker} | ${plain.secure}, ${plain.worker} | ${status}; ${answers.filter((a) => a.startsWith('200')).length} of ${SERVED.length} files 200 |`);
      assert.deepEqual({ secure, plain, status, answers }, { secure: { secure: true, worker: 'registered' },
        plain: { secure: false, worker: 'none' }, status: GAME_SCREEN[0], answers: SERVED.map((n) => `200 ${n}`) });
    } finally {
      await browser.close();
    }
  });
}

test.after(() => fs.rmSync(made, { recursive: true, force: true }));
test.after(() => console.log(['| Engine | https: secure context, service worker | http: the same | the game over https |',
  '|---|---|---|---|', ...rows].join('\n')));
