// Headless Chromium plays the sample game from the real server over 127.0.0.1.
// Every response the browser receives is recorded and checked against the
// server's content-type table; the game reports what it fetched and decoded.
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';
import { keepPicture, requireTools, startServer, writeArtifact } from './lib/harness.mjs';

const CHROMIUM = process.env.VARNOK_CHROMIUM || '/usr/bin/chromium';
const CHROMIUM_ARGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync'];

const TYPE_BY_EXTENSION = {
  '.html': 'text/html; charset=UTF-8',
  '.js': 'text/javascript',
  '.css': 'text/css',
  '.json': 'application/json',
  '.png': 'image/png',
  '.ogg': 'application/ogg',
};
const GAME_FILES = ['/', '/css/game.css', '/js/loader.js', '/js/game.js', '/data/levels.json',
  '/data/strings.json', '/img/stars.png', '/img/spark.png', '/img/lantern.png', '/audio/catch.ogg',
  '/audio/miss.ogg', '/save', '/save/global.json', '/save/slot1.json', '/save/slot2.json'];
const SAVES = ['global.json', 'slot1.json', 'slot2.json'];

let server;
let profile;
let context;
let page;
const responses = [];
const failures = [];

function expectedType(pathname) {
  if (pathname === '/' || pathname === '/save') {
    return pathname === '/' ? TYPE_BY_EXTENSION['.html'] : 'text/plain; charset=UTF-8';
  }
  return TYPE_BY_EXTENSION[path.extname(pathname)] || 'text/plain; charset=UTF-8';
}

async function loadGame(action) {
  const first = responses.length;
  await action();
  await page.waitForFunction(() => window.gameReport && window.gameReport.done, null, { timeout: 30000 });
  const report = await page.evaluate(() => window.gameReport);
  return { report, seen: responses.slice(first) };
}

function assertGameLoaded(report) {
  assert.equal(report.ok, true, `game reported errors: ${report.errors.join('; ')}`);
  assert.deepEqual(report.errors, []);
  const kinds = report.assets.map((asset) => asset.kind).sort();
  assert.deepEqual(kinds, ['image', 'image', 'image', 'json', 'json', 'save', 'save', 'save', 'sound', 'sound']);
  for (const asset of report.assets) assert.equal(asset.ok, true, `${asset.url}: ${asset.detail}`);
  assert.deepEqual([...report.saves].sort(), SAVES);
  assert.equal(report.saveFiles['global.json'].best, 27);
}

before(async () => {
  requireTools([CHROMIUM], 'chromium fonts-dejavu-core');
  server = await startServer();
  profile = fs.mkdtempSync(path.join(os.tmpdir(), 'varnok-chromium-'));
  context = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM,
    headless: true,
    args: CHROMIUM_ARGS,
    viewport: { width: 420, height: 760 },
  });
  context.on('response', (response) => {
    responses.push({
      url: response.url(),
      status: response.status(),
      type: response.headers()['content-type'] ?? null,
    });
  });
  context.on('requestfailed', (request) => failures.push(`${request.url()}: ${request.failure()?.errorText}`));
  page = context.pages()[0] ?? await context.newPage();
});

after(async () => {
  writeArtifact('browser-responses.json', { responses, failures });
  await context?.close();
  if (profile) fs.rmSync(profile, { recursive: true, force: true });
  await server?.stop();
});

test('the game loads, decodes every asset and shows the save listing', async () => {
  const { report } = await loadGame(() => page.goto(server.url));
  assertGameLoaded(report);
  const status = await page.textContent('#status');
  assert.match(status, /^Ready: 10 assets loaded, 3 saves listed$/);
  const listed = await page.$$eval('#save-list li', (items) => items.map((item) => item.textContent));
  assert.deepEqual(listed.map((line) => line.split(' ')[0]).sort(), SAVES);
  const details = Object.fromEntries(report.assets.map((asset) => [asset.url, asset.detail]));
  assert.equal(details['img/lantern.png'], '64x40');
  assert.equal(details['img/spark.png'], '32x32');
  assert.match(details['audio/catch.ogg'], /^0\.\d\ds$/);
});

test('a reload and a second address load the game again', async () => {
  for (const action of [() => page.reload(), () => page.goto(`${server.url}index.html`)]) {
    const { report, seen } = await loadGame(action);
    assertGameLoaded(report);
    assert.ok(seen.length >= 10, `only ${seen.length} responses on this load`);
  }
});

test('every response carries the status and type the server gives for its name', () => {
  assert.deepEqual(failures, []);
  const seenPaths = new Set();
  for (const { url, status, type } of responses) {
    const { pathname } = new URL(url);
    seenPaths.add(pathname);
    assert.equal(status, 200, `${url} answered ${status}`);
    assert.equal(type, expectedType(pathname), `content type of ${url}`);
  }
  for (const file of GAME_FILES) assert.ok(seenPaths.has(file), `the browser never fetched ${file}`);
});

test('missing names and query strings get the not-found page', async () => {
  const answers = await page.evaluate(async (names) => Promise.all(names.map(async (name) => {
    const response = await fetch(name, { cache: 'no-store' });
    return { name, status: response.status, type: response.headers.get('content-type'), body: await response.text() };
  })), ['/no-such-sprite.png', '/data/levels.json?v=2', '/save/slot9.json']);
  for (const answer of answers) {
    assert.equal(answer.status, 404, answer.name);
    assert.equal(answer.type, '*.html', answer.name);
    assert.match(answer.body, /404 Not Found/, answer.name);
  }
});

test('keys start a round, move the lantern and play sounds', async () => {
  await page.keyboard.press('Space');
  const startX = await page.evaluate(() => window.sparkfall.lanternX);
  await page.keyboard.down('ArrowLeft');
  await page.waitForTimeout(300);
  await page.keyboard.up('ArrowLeft');
  const game = await page.evaluate(() => ({
    state: window.sparkfall.state, x: window.sparkfall.lanternX, sounds: window.sparkfall.soundsPlayed,
  }));
  assert.equal(game.state, 'playing');
  assert.ok(game.x < startX - 20, `lantern stayed near ${startX} (now ${game.x})`);
  assert.ok(game.sounds >= 1);
  // Steer towards the lowest spark for a few seconds so the picture shows play.
  for (let step = 0; step < 40; step += 1) {
    const view = await page.evaluate(() => {
      const lowest = [...window.sparkfall.sparks].sort((a, b) => b.y - a.y)[0];
      return { gap: lowest ? lowest.x - window.sparkfall.lanternX : 0, score: window.sparkfall.score,
               sparks: window.sparkfall.sparks.length };
    });
    if (view.score >= 2 && view.sparks >= 2) break;
    const key = view.gap < -8 ? 'ArrowLeft' : view.gap > 8 ? 'ArrowRight' : null;
    if (key) await page.keyboard.down(key);
    await page.waitForTimeout(100);
    if (key) await page.keyboard.up(key);
  }
  const shot = path.join(os.tmpdir(), `varnok-game-${process.pid}.png`);
  await page.screenshot({ path: shot });
  keepPicture(shot, 'game-browser.png');
  fs.rmSync(shot);
});
