// Sparkfall loader: fetches every asset the game needs, checks each one really
// decodes (JSON parses, pictures decode, sounds decode), reads the list of save
// files the server offers at /save, and publishes the outcome in
// window.gameReport and in the status line under the playing field.
'use strict';

const SPARKFALL_ASSETS = {
  data: ['data/levels.json', 'data/strings.json'],
  images: ['img/stars.png', 'img/spark.png', 'img/lantern.png'],
  sounds: ['audio/catch.ogg', 'audio/miss.ogg'],
};

window.gameReport = { ok: false, done: false, assets: [], saves: [], saveFiles: {}, errors: [] };

async function fetchOk(url) {
  const response = await fetch(url, { cache: 'no-store' });
  if (!response.ok) throw new Error(`${url}: HTTP ${response.status}`);
  return response;
}

async function loadJson(url) {
  const value = await (await fetchOk(url)).json();
  return { value, detail: `${Object.keys(value).length} members` };
}

async function loadImage(url) {
  const image = new Image();
  image.src = url;
  await image.decode();
  if (!image.naturalWidth) throw new Error(`${url}: empty picture`);
  return { value: image, detail: `${image.naturalWidth}x${image.naturalHeight}` };
}

async function loadSound(url) {
  const bytes = await (await fetchOk(url)).arrayBuffer();
  const magic = String.fromCharCode(...new Uint8Array(bytes, 0, 4));
  if (magic !== 'OggS') throw new Error(`${url}: not an Ogg stream`);
  // An offline context decodes without an audio device and without a user gesture.
  const decoder = new OfflineAudioContext(1, 1, 22050);
  const buffer = await decoder.decodeAudioData(bytes.slice(0));
  return { value: buffer, detail: `${buffer.duration.toFixed(2)}s` };
}

async function track(kind, url, load) {
  const entry = { kind, url, ok: false, detail: '' };
  window.gameReport.assets.push(entry);
  try {
    const { value, detail } = await load(url);
    entry.ok = true;
    entry.detail = detail;
    return value;
  } catch (error) {
    entry.detail = String(error.message || error);
    window.gameReport.errors.push(entry.detail);
    return null;
  }
}

// The server answers /save with one file name per line.
async function loadSaveNames() {
  const text = await (await fetchOk('/save')).text();
  return text.split('\n').filter((name) => name.length > 0);
}

async function loadSaves() {
  let names = [];
  try {
    names = await loadSaveNames();
  } catch (error) {
    window.gameReport.errors.push(`save listing: ${error.message || error}`);
    return {};
  }
  window.gameReport.saves = names;
  const files = {};
  for (const name of names.filter((n) => n.endsWith('.json'))) {
    const save = await track('save', `save/${encodeURIComponent(name)}`, loadJson);
    if (save) files[name] = save;
  }
  window.gameReport.saveFiles = files;
  return files;
}

function showSaves(strings, files) {
  document.getElementById('saves-heading').textContent = strings ? strings.savesHeading : 'Saves';
  const list = document.getElementById('save-list');
  list.replaceChildren();
  for (const name of window.gameReport.saves) {
    const item = document.createElement('li');
    const save = files[name];
    let summary = '';
    if (save && 'score' in save) summary = ` — ${save.name || '?'}: ${save.score} sparks`;
    else if (save && 'best' in save) summary = ` — best ${save.best}, ${save.plays} plays`;
    item.textContent = name + summary;
    list.appendChild(item);
  }
}

function showStatus() {
  const report = window.gameReport;
  const status = document.getElementById('status');
  const loaded = report.assets.filter((a) => a.ok).length;
  if (report.ok) {
    status.textContent = `Ready: ${loaded} assets loaded, ${report.saves.length} saves listed`;
  } else {
    status.textContent = `Failed: ${report.errors.join('; ')}`;
    status.classList.add('failed');
  }
}

async function sparkfallLoad() {
  const [levels, strings] = await Promise.all(
    SPARKFALL_ASSETS.data.map((url) => track('json', url, loadJson)));
  const [stars, spark, lantern] = await Promise.all(
    SPARKFALL_ASSETS.images.map((url) => track('image', url, loadImage)));
  const [catchSound, missSound] = await Promise.all(
    SPARKFALL_ASSETS.sounds.map((url) => track('sound', url, loadSound)));
  const saveFiles = await loadSaves();
  showSaves(strings, saveFiles);

  const report = window.gameReport;
  report.ok = report.errors.length === 0 && report.saves.length > 0;
  report.done = true;
  showStatus();
  return { levels, strings, stars, spark, lantern, catchSound, missSound, saveFiles };
}
