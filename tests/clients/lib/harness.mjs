// Shared pieces of the client tests: a served copy of the sample game, the real
// server process, free ports, bounded waits and the artifact folders.
import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

export const REPO = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../../..');
export const BINARY = path.resolve(process.env.VARNOK_BINARY || path.join(REPO, 'build/varnok-http-server'));
export const ARTIFACTS = path.join(REPO, 'tests/artifacts');
const DOC_IMAGES = path.join(REPO, 'docs/images');

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

/** Polls `check` every 100 ms until it returns a truthy value or `ms` pass. */
export async function waitFor(what, check, ms = 15000) {
  const deadline = Date.now() + ms;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`timed out after ${ms} ms waiting for ${what}`);
    await sleep(100);
  }
}

/** A port nothing listens on: `preferred` when it is free, else one the system picks. */
export function freePort(preferred = 0) {
  return new Promise((resolve, reject) => {
    const probe = net.createServer();
    probe.once('error', (error) => (preferred ? freePort().then(resolve, reject) : reject(error)));
    probe.listen(preferred, '0.0.0.0', () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
  });
}

/** Fails with the packages to install when one of the tools is missing. */
export function requireTools(tools, packages) {
  const missing = tools.filter((tool) => spawnSync('sh', ['-c', `command -v ${tool}`]).status !== 0);
  if (missing.length) {
    throw new Error(`missing ${missing.join(', ')}: install ${packages} (scripts/install-deps browser)`);
  }
  if (!fs.existsSync(BINARY)) throw new Error(`no server binary at ${BINARY} (build it, or set VARNOK_BINARY)`);
}

/**
 * Copies examples/ to a fresh folder, sets the port in its package.json and
 * links the server binary into it: the server serves the folder of the path it
 * was started through and reads package.json from its working folder.
 */
export function prepareGameCopy(port) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'varnok-clients-'));
  fs.cpSync(path.join(REPO, 'examples'), dir, { recursive: true });
  fs.rmSync(path.join(dir, 'varnok-http-server'), { force: true });
  const settingsPath = path.join(dir, 'package.json');
  const settings = JSON.parse(fs.readFileSync(settingsPath, 'utf8'));
  settings.varnok = { ...settings.varnok, port, 'buffer-size': 1000, 'main-file': 'index.html', rootdir: './' };
  fs.writeFileSync(settingsPath, JSON.stringify(settings, null, 2));
  const link = path.join(dir, 'varnok-http-server');
  fs.symlinkSync(BINARY, link);
  return { dir, link };
}

/** Starts the real server on a copy of the game and waits for its "Listening on" line. */
export async function startServer() {
  const port = await freePort();
  const { dir, link } = prepareGameCopy(port);
  const child = spawn(link, [], { cwd: dir, stdio: ['ignore', 'pipe', 'pipe'] });
  let output = '';
  let exited = false;
  child.stdout.on('data', (chunk) => { output += chunk; });
  child.stderr.on('data', (chunk) => { output += chunk; });
  child.on('exit', () => { exited = true; });
  const ready = `Listening on 0.0.0.0:${port}\n`;
  await waitFor('the server to listen', () => {
    if (exited) throw new Error(`server exited during start-up:\n${output}`);
    return output.includes(ready);
  }, 10000);
  return {
    port,
    dir,
    url: `http://127.0.0.1:${port}/`,
    output: () => output,
    /** Stops the server; a server that had already died (a crash, a sanitizer report) is an error. */
    async stop() {
      const diedEarly = exited;
      if (!exited) {
        child.kill('SIGTERM');
        await waitFor('the server to stop', () => exited, 5000);
      }
      fs.rmSync(dir, { recursive: true, force: true });
      if (diedEarly) throw new Error(`the server ended while serving:\n${output}`);
    },
  };
}

/** Keeps a picture under tests/artifacts/, and under docs/images/ when VARNOK_DOC_IMAGES=1. */
export function keepPicture(source, name) {
  fs.mkdirSync(ARTIFACTS, { recursive: true });
  fs.copyFileSync(source, path.join(ARTIFACTS, name));
  if (process.env.VARNOK_DOC_IMAGES === '1') {
    fs.mkdirSync(DOC_IMAGES, { recursive: true });
    fs.copyFileSync(source, path.join(DOC_IMAGES, name));
  }
}

export function writeArtifact(name, value) {
  fs.mkdirSync(ARTIFACTS, { recursive: true });
  fs.writeFileSync(path.join(ARTIFACTS, name), typeof value === 'string' ? value : JSON.stringify(value, null, 2));
}
