// The start-up screen in a real terminal: xterm under Xvfb runs the server, the
// screen is photographed, and zbarimg must read from the picture the same
// pairing code that the "QR: " line shows as text. The drawing is the symbol
// reflected in its diagonal, so the picture is also decoded reflected back.
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { freePort, keepPicture, prepareGameCopy, requireTools, sleep, waitFor, writeArtifact } from './lib/harness.mjs';

const TITLE = 'varnok-startup-screen';
const MARKER = '5641524e4f4b51523031';

let display;
let xvfb;
let xterm;
let game;
let port;
let work;

function run(command, args) {
  const result = spawnSync(command, args, { encoding: 'utf8', timeout: 30000 });
  if (result.error) throw result.error;
  return result;
}

function freeDisplay() {
  for (let number = 91; number < 140; number += 1) {
    if (!fs.existsSync(`/tmp/.X11-unix/X${number}`) && !fs.existsSync(`/tmp/.X${number}-lock`)) return number;
  }
  throw new Error('no free X display number between :91 and :139');
}

/** The symbol's text as zbarimg reads it from a picture, or null when it finds none. */
function scan(picture) {
  const result = run('zbarimg', ['--quiet', '--raw', '-Sdisable', '-Sqrcode.enable', picture]);
  return result.status === 0 ? result.stdout.replace(/\n$/, '') : null;
}

function stopChild(child) {
  if (child && child.exitCode === null && child.signalCode === null) child.kill('SIGTERM');
}

before(async () => {
  requireTools(['Xvfb', 'xterm', 'xwininfo', 'import', 'convert', 'zbarimg'],
    'xvfb xterm x11-utils imagemagick zbar-tools fonts-dejavu-core');
  work = fs.mkdtempSync(path.join(os.tmpdir(), 'varnok-terminal-'));
  display = `:${freeDisplay()}`;
  xvfb = spawn('Xvfb', [display, '-screen', '0', '1024x1000x24', '-nolisten', 'tcp'], { stdio: 'ignore' });
  await waitFor('Xvfb to start', () => fs.existsSync(`/tmp/.X11-unix/X${display.slice(1)}`), 10000);

  // The pictures for the documentation show the sample's own port, 8080, when it is free.
  port = await freePort(process.env.VARNOK_DOC_IMAGES === '1' ? 8080 : 0);
  game = prepareGameCopy(port);
  // The script records the server's process id so that only that process is stopped.
  const starter = path.join(work, 'start-server');
  fs.writeFileSync(starter, `#!/bin/sh\necho $$ > '${work}/server.pid'\nexec '${game.link}'\n`, { mode: 0o755 });
  xterm = spawn('xterm', ['-display', display, '-geometry', '80x56+0+0', '-bg', 'white', '-fg', 'black',
    '-fa', 'DejaVu Sans Mono', '-fs', '9', '-T', TITLE, '-l', '-lf', path.join(work, 'screen.log'),
    '-e', starter], { cwd: game.dir, stdio: 'ignore' });
});

after(async () => {
  const pidFile = work && path.join(work, 'server.pid');
  if (pidFile && fs.existsSync(pidFile)) {
    try { process.kill(Number(fs.readFileSync(pidFile, 'utf8')), 'SIGTERM'); } catch { /* already gone */ }
  }
  stopChild(xterm);
  stopChild(xvfb);
  await sleep(200);
  if (game) fs.rmSync(game.dir, { recursive: true, force: true });
  if (work) fs.rmSync(work, { recursive: true, force: true });
});

test('the QR drawing on the start-up screen scans to the printed pairing code', async () => {
  const log = path.join(work, 'screen.log');
  const screenText = () => (fs.existsSync(log) ? fs.readFileSync(log, 'latin1') : '');
  await waitFor('the start-up screen', () => screenText().includes(`Listening on 0.0.0.0:${port}`), 20000);
  await sleep(500); // let xterm finish painting

  const text = screenText();
  const line = text.match(/QR: ([^\r\n]*)/);
  assert.ok(line, `no "QR: " line on the screen:\n${text}`);
  const code = line[1].split(',')[0];
  assert.match(code, new RegExp(`^${MARKER}${(port & 0xffff).toString(16).padStart(4, '0')}([0-9a-f]{8})*$`));

  const windowId = run('xwininfo', ['-display', display, '-name', TITLE]).stdout.match(/Window id: (0x[0-9a-f]+)/);
  assert.ok(windowId, 'the xterm window was not found');
  const shot = path.join(work, 'startup-terminal.png');
  const back = path.join(work, 'startup-terminal-transposed.png');
  assert.equal(run('import', ['-display', display, '-window', windowId[1], shot]).status, 0, 'screenshot failed');
  assert.equal(run('convert', [shot, '-transpose', back]).status, 0, 'transpose failed');

  const asDrawn = scan(shot);
  const reflectedBack = scan(back);
  const outcome = { code, asDrawn, reflectedBack };
  writeArtifact('terminal-qr.json', outcome);
  const framed = path.join(work, 'startup-terminal-framed.png');
  run('convert', [shot, '-trim', '+repage', '-bordercolor', 'white', '-border', '12', framed]);
  keepPicture(fs.existsSync(framed) ? framed : shot, 'startup-terminal.png');
  console.log(`QR as drawn: ${asDrawn === null ? 'zbarimg found no symbol (the drawing is reflected)' : `read "${asDrawn}"`}`);
  console.log(`QR reflected back (-transpose): ${reflectedBack === null ? 'no symbol' : `read "${reflectedBack}"`}`);

  assert.equal(reflectedBack, code, 'the picture reflected back must scan to the "QR: " text');
  if (asDrawn !== null) assert.equal(asDrawn, code, 'the picture as drawn scanned to another text');
});
