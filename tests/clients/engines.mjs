// The three engines phones use, each from Debian and driven by its own driver, and the table of what the
// sample game asks for with the status and type of each answer: shared by the client and https tests.
import { spawn } from 'node:child_process';
import net from 'node:net';
import assert from 'node:assert/strict';
import { chromium } from 'playwright-core';
import puppeteer from 'puppeteer-core';
import { Builder } from 'selenium-webdriver';

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

/** Polls `check` until it gives a truthy value; `what` names it on a time-out (a text, or a function that makes one). */
export async function waitFor(what, check, ms = 15000) {
  for (let end = Date.now() + ms, value; Date.now() < end; await sleep(100)) if ((value = await check())) return value;
  throw new Error(`timed out after ${ms} ms waiting for ${typeof what === 'function' ? what() : what}`);
}

export const freePort = () => new Promise((resolve) => {
  const probe = net.createServer().listen(0, '0.0.0.0', () => { resolve(probe.address().port); probe.close(); });
});

// Every name a run asks for, by the status and type that come back. An engine may
// or may not ask for the icons that the game and the not-found page link to.
export const ANSWERS = {
  '200 text/html; charset=UTF-8': ['/', '/index.html'], '200 text/css': ['/css/game.css'],
  '200 text/javascript': ['/js/loader.js', '/js/game.js', '/module.js'],
  '200 application/ogg': ['/audio/catch.ogg', '/audio/miss.ogg'],
  '200 application/json':
    ['/data/levels.json', '/data/strings.json', '/save/global.json', '/save/slot1.json', '/save/slot2.json'],
  '200 image/png': ['/img/stars.png', '/img/spark.png', '/img/lantern.png', '/img/icon.png'],
  '200 text/plain; charset=UTF-8': ['/save', '/module.mjs', '/empty.wasm', '/picture.svg'],
  '404 *.html': ['/no-such-sprite.png', '/index.html?v=2', '/icon/icon.png'],
};
export const GAME_SCREEN = ['Ready: 10 assets loaded, 3 saves listed',
  'global.json — best 27, 12 plays', 'slot1.json — Ada: 27 sparks', 'slot2.json — Tomas: 11 sparks'];
/** A tap starts the round, a drag moves the lantern, and touches held under the lowest spark catch it. */
export async function playByTouch(context, page) {
  assert.deepEqual(await page.evaluate(() => [innerWidth, devicePixelRatio, matchMedia('(pointer: coarse)').matches]),
    [390, 3, true], 'phone width, pixel ratio and touch');
  const cdp = await context.newCDPSession(page);
  const box = await page.evaluate(() => document.getElementById('game').getBoundingClientRect().toJSON());
  const touch = (type, fieldX) => cdp.send('Input.dispatchTouchEvent', { type, touchPoints: fieldX === undefined ? []
    : [{ x: box.left + fieldX * (box.width / 360), y: box.top + 0.9 * box.height }] });
  const game = () => page.evaluate(() => ({ state: sparkfall.state, x: sparkfall.lanternX, score: sparkfall.score,
    spark: [...sparkfall.sparks].sort((a, b) => b.y - a.y)[0]?.x }));
  await touch('touchStart', 180).then(() => touch('touchEnd'));
  for (let x = 180; x >= 40; x -= 10) await touch(x === 180 ? 'touchStart' : 'touchMove', x).then(() => sleep(30));
  await sleep(300).then(() => touch('touchEnd'));
  const { state, x } = await game();
  assert.deepEqual([state, x < 60], ['playing', true], 'a tap starts the round, a drag takes the lantern to the left');
  for (let step = 0; step < 80 && (await game()).score < 2; step += 1)
    await touch('touchStart', (await game()).spark ?? 180).then(() => sleep(150)).then(() => touch('touchEnd'));
  assert.ok((await game()).score >= 1, 'no spark caught by touch');
}

export const ENGINES = {
  // '' gives it a fresh profile; `env` may name another HOME, whose .pki/nssdb holds the CAs it trusts, and
  // `host` an address it may reach besides 127.0.0.1.
  async Blink({ env, host = '127.0.0.1' } = {}) {
    const context = await chromium.launchPersistentContext('', { executablePath: '/usr/bin/chromium', env,
      args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-sync',
        '--disable-background-networking', '--disable-component-update',
        `--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1, EXCLUDE ${host}`], // no name resolves
      viewport: { width: 390, height: 844 }, deviceScaleFactor: 3, isMobile: true, hasTouch: true });
    const [page] = context.pages();
    return { page, close: () => context.close(), play: () => playByTouch(context, page), picture: 'game-phone.png' };
  },
  // Puppeteer's fresh profile turns updates, telemetry and safe browsing off; every name
  // the browser looks up comes back as 127.0.0.1, and links on a page are not looked up ahead.
  // `profile` may name a profile folder whose cert9.db holds the CAs it trusts.
  async Gecko({ profile } = {}) {
    const browser = await puppeteer.launch({ browser: 'firefox', executablePath: '/usr/bin/firefox-esr', userDataDir: profile,
      extraPrefsFirefox: { 'network.dns.native-is-localhost': true, 'network.dns.disablePrefetch': true } });
    const [page] = await browser.pages();
    // Debian 12's Firefox ESR 140 takes the size but knows no screen orientation, which is asked for too.
    await page.setViewport({ width: 420, height: 760 }).catch((error) => error.message.includes('OrientationOverride')
      || browser.close().then(() => { throw error; }));
    return { page, close: () => browser.close(), picture: 'game-browser.png' };
  },
  async WebKit() {
    const port = await freePort();
    const service = spawn('WebKitWebDriver', [`--port=${port}`], { stdio: 'ignore' });
    const driver = await waitFor('WebKitWebDriver', () => new Builder().usingServer(`http://127.0.0.1:${port}`)
      .withCapabilities({ browserName: 'MiniBrowser' }).build().then((session) => session, () => null));
    const page = { goto: (url) => driver.get(url), evaluate: (fn) => driver.executeScript(`return (${fn})()`) };
    return { page, close: () => driver.quit().finally(() => service.kill()) };
  },
};

