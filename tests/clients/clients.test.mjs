// Real clients against the real server. The sample game runs in the three engines
// that phones use: Blink (Chromium, shaped as a phone and played by touch), Gecko
// (Firefox) and WebKit; each gets its own server and the same checks. Then xterm
// shows the start-up screen, and zbarimg reads the pairing code from a picture of it.
// WebKit and xterm use the X display that the run provides.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { ANSWERS, ENGINES, GAME_SCREEN, freePort, sleep, waitFor } from './engines.mjs';

// Each test's bound: a first start of a browser on a slow machine takes a while.
const TEST_TIMEOUT = { timeout: 180000 };

/**
 * Copies examples/ and `extraFiles` to a fresh folder with a link to the server
 * and the port in package.json (the server adds the other settings): the server
 * serves the folder of the path it was started through and reads package.json
 * from its working folder.
 */
function prepareGameCopy(port, extraFiles = {}) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'varnok-clients-'));
  fs.cpSync(new URL('../../examples', import.meta.url), dir,
    { recursive: true, filter: (name) => !name.endsWith('/varnok-http-server') });
  for (const [name, bytes] of Object.entries(extraFiles)) fs.writeFileSync(path.join(dir, name), bytes);
  fs.writeFileSync(path.join(dir, 'package.json'), JSON.stringify({ varnok: { port } }));
  fs.symlinkSync(process.env.VARNOK_BINARY, path.join(dir, 'varnok-http-server'));
  return { dir, link: path.join(dir, 'varnok-http-server') };
}

/**
 * Starts the server on a copy of the game. Browsers talk to a pass-through (`url`)
 * that forwards the bytes unchanged and notes "PATH STATUS TYPE" for each request.
 */
async function startServer(extraFiles) {
  const port = await freePort();
  const { dir, link } = prepareGameCopy(port, extraFiles);
  const child = spawn(link, [], { cwd: dir, stdio: ['ignore', 'pipe', 'inherit'] });
  let output = '';
  child.stdout.on('data', (chunk) => { output += chunk; });
  const ended = () => child.exitCode !== null || child.signalCode !== null;
  await waitFor('the server to listen', () => ended() || output.includes(`Listening on 0.0.0.0:${port}\n`), 10000);
  assert.ok(!ended(), `the server ended during start-up:\n${output}`);
  const answers = [];
  const recorder = net.createServer((client) => {
    const upstream = net.connect(port, '127.0.0.1');
    let [request, head] = ['', ''];
    client.on('data', (chunk) => { request += chunk; });
    upstream.on('data', (chunk) => head.includes('\r\n\r\n') || !(head += chunk).includes('\r\n\r\n') // until the head is in
      || answers.push(`${request.split(' ')[1]} ${head.split(' ')[1]} ${head.match(/\r\nContent-Type: ([^\r]*)/)?.[1]}`));
    client.pipe(upstream).on('error', () => client.destroy());
    upstream.pipe(client).on('error', () => upstream.destroy());
  });
  await new Promise((resolve) => recorder.listen(0, '127.0.0.1', resolve));
  return {
    url: `http://127.0.0.1:${recorder.address().port}/`, answers,
    /** Stops both; a server that had already ended (a crash, a sanitizer report) is an error. */
    stop() {
      recorder.close();
      fs.rmSync(dir, { recursive: true, force: true });
      assert.ok(child.kill(), `the server ended while serving:\n${output}`);
    },
  };
}

// Kinds of file a published game might hold that the type table does not know.
const FIXTURES = { 'module.mjs': 'export {};\n', 'module.js': 'export {};\n', 'empty.wasm': '\0asm\x01\0\0\0',
  'picture.svg': '<svg xmlns="http://www.w3.org/2000/svg" width="8" height="8"><rect width="8" height="8"/></svg>' };
const FIXTURES_USED = { '.mjs module': 'refused', '.js module': 'used', 'instantiateStreaming .wasm': 'refused',
  'instantiate .wasm bytes': 'used', '.svg picture': 'refused', 'the same svg as image/svg+xml': 'used' };

async function useFixtures() { // runs in the page
  const script = (src) => new Promise((onload, onerror) => document.head.append(
    Object.assign(document.createElement('script'), { type: 'module', src, onload, onerror })));
  const picture = (src) => Object.assign(new Image(), { src }).decode();
  const wasm = () => fetch('/empty.wasm', { cache: 'no-store' });
  const svg = encodeURIComponent(await (await fetch('/picture.svg')).text());
  const tries = { '.mjs module': script('/module.mjs'), '.js module': script('/module.js'),
    'instantiateStreaming .wasm': WebAssembly.instantiateStreaming(wasm()),
    'instantiate .wasm bytes': wasm().then((r) => r.arrayBuffer()).then((bytes) => WebAssembly.instantiate(bytes)),
    '.svg picture': picture('/picture.svg'), 'the same svg as image/svg+xml': picture(`data:image/svg+xml,${svg}`) };
  return Object.fromEntries(await Promise.all(
    Object.entries(tries).map(([what, p]) => p.then(() => [what, 'used'], () => [what, 'refused']))));
}

async function playthrough({ page, play }, server) {
  for (const name of ['no-such-sprite.png', 'index.html?v=2']) {
    await page.goto(server.url + name);
    const shown = await page.evaluate(() => [document.title, document.querySelector('h1')?.textContent]);
    assert.deepEqual(shown, ['404 Not Found', '404 Not Found'], `the not-found answer to /${name} is not shown as a page`);
  }
  for (const name of ['', 'index.html']) {
    await page.goto(server.url + name);
    await waitFor(`the game at /${name}`, () => page.evaluate(() => window.gameReport?.done), 30000);
    assert.deepEqual(await page.evaluate(() => [document.getElementById('status').textContent,
      ...[...document.querySelectorAll('#save-list li')].map((item) => item.textContent).sort()]), GAME_SCREEN);
  }
  assert.deepEqual(await page.evaluate(useFixtures), FIXTURES_USED, 'files the type table does not know');
  await play?.();
  const got = [...new Set(server.answers)].sort();
  const expected = Object.entries(ANSWERS).flatMap(([answer, names]) => names.map((name) => `${name} ${answer}`))
    .filter((line) => !['/img/icon.png', '/icon/icon.png'].includes(line.split(' ')[0]) || got.includes(line)).sort();
  assert.deepEqual(got, expected, 'the names asked for, and the status and type of each');
}

for (const [engine, launch] of Object.entries(ENGINES)) {
  test(`${engine} loads the sample game, gets the answers in the table and shows the not-found page`, TEST_TIMEOUT, async () => {
    const server = await startServer(FIXTURES);
    const browser = await launch().catch((error) => { server.stop(); throw error; });
    await playthrough(browser, server).then(() => browser.picture && browser.page.screenshot({ scale: 'css' }))
      .then((bytes) => bytes && process.env.VARNOK_DOC_IMAGES === '1' // refreshes the documentation's picture
        && fs.writeFileSync(new URL(`../../docs/images/${browser.picture}`, import.meta.url), bytes))
      .finally(() => browser.close().finally(server.stop));
  });
}

const run = (command, ...args) => spawnSync(command, args, { encoding: 'utf8', timeout: 30000 });
/** The text zbarimg reads from a picture, or null when it finds no symbol. */
const scan = (picture) => run('zbarimg', '--quiet', '--raw', '-Sdisable', '-Sqrcode.enable', picture).stdout.trim() || null;

// The drawing is the symbol reflected in its diagonal, so the picture is also decoded reflected back.
test('the QR drawing on the start-up screen scans to the printed pairing code', TEST_TIMEOUT, async () => {
  const port = await freePort();
  const game = prepareGameCopy(port);
  const file = (name) => path.join(game.dir, name);
  const xterm = spawn('xterm', ['-geometry', '80x56+0+0', '-bg', 'white', '-fg', 'black', '-fa', 'DejaVu Sans Mono',
    '-fs', '9', '-T', 'varnok-startup', '-l', '-lf', file('screen.log'), '-e', game.link], { cwd: game.dir, stdio: 'ignore' });
  try {
    const screen = () => (fs.existsSync(file('screen.log')) ? fs.readFileSync(file('screen.log'), 'latin1') : '');
    await waitFor(() => `the start-up screen, so far:\n${screen()}`, () => screen().includes(`Listening on 0.0.0.0:${port}`), 20000)
      .then(() => sleep(500)); // and for xterm to finish painting
    const code = screen().match(/QR: ([0-9a-f]*)/)?.[1];
    assert.match(code ?? screen(), new RegExp(`^5641524e4f4b51523031${port.toString(16).padStart(4, '0')}([0-9a-f]{8})*$`));
    assert.equal(run('import', '-window', 'varnok-startup', file('shot.png')).status, 0, 'no picture of the terminal');
    run('convert', file('shot.png'), '-trim', '+repage', '-bordercolor', 'white', '-border', '12',
      '-transpose', file('back.png'));
    assert.equal(scan(file('back.png')), code, 'the picture reflected back must scan to the "QR: " text');
    assert.ok([null, code].includes(scan(file('shot.png'))), 'the picture as drawn scanned to another text');
  } finally {
    xterm.kill(); // closing the terminal hangs up on the server
    fs.rmSync(game.dir, { recursive: true, force: true });
  }
});
