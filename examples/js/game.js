// Sparkfall: sparks fall from the night sky; move the lantern to catch them.
// Each missed spark costs a flame; the sky darkens and speeds up as the
// catches add up (data/levels.json). Controls: arrow keys or A/D, drag, or tap
// the left or right half of the field. Space or a tap starts a round.
'use strict';

const WIDTH = 360;
const HEIGHT = 540;
const LANTERN_Y = HEIGHT - 56;
const LANTERN_SPEED = 320;

const canvas = document.getElementById('game');
const context = canvas.getContext('2d');

const game = {
  assets: null,
  state: 'loading', // loading, title, playing, over
  sparks: [],
  lanternX: WIDTH / 2,
  score: 0,
  best: 0,
  lives: 3,
  level: 0,
  sinceSpawn: 0,
  keys: { left: false, right: false },
  pointerX: null,
  audio: null,
  soundsPlayed: 0,
};

function currentLevel() {
  const levels = game.assets.levels.levels;
  let index = 0;
  levels.forEach((level, i) => { if (game.score >= level.catches) index = i; });
  game.level = index;
  return levels[index];
}

// Sounds are decoded offline by the loader; playing them needs a live context,
// which browsers only allow after a tap or a key press.
function playSound(buffer) {
  if (!buffer) return;
  if (!game.audio) game.audio = new AudioContext();
  if (game.audio.state === 'suspended') game.audio.resume();
  const source = game.audio.createBufferSource();
  source.buffer = buffer;
  source.connect(game.audio.destination);
  source.start();
  game.soundsPlayed += 1;
}

function startRound() {
  game.state = 'playing';
  game.sparks = [];
  game.score = 0;
  game.lives = game.assets.levels.lives;
  game.sinceSpawn = 0;
  game.lanternX = WIDTH / 2;
  playSound(game.assets.catchSound);
}

function spawnSpark(level) {
  const drift = (Math.random() * 2 - 1) * level.drift;
  game.sparks.push({ x: 20 + Math.random() * (WIDTH - 40), y: -12, drift,
                     speed: level.fallSpeed * (0.85 + Math.random() * 0.3) });
}

function moveLantern(dt) {
  let direction = (game.keys.right ? 1 : 0) - (game.keys.left ? 1 : 0);
  if (game.pointerX !== null) {
    const gap = game.pointerX - game.lanternX;
    direction = Math.abs(gap) < 4 ? 0 : Math.sign(gap);
  }
  game.lanternX += direction * LANTERN_SPEED * dt;
  game.lanternX = Math.max(32, Math.min(WIDTH - 32, game.lanternX));
}

function update(dt) {
  if (game.state !== 'playing') return;
  const level = currentLevel();
  moveLantern(dt);
  game.sinceSpawn += dt * 1000;
  if (game.sinceSpawn >= level.spawnEveryMs) {
    game.sinceSpawn = 0;
    spawnSpark(level);
  }
  for (const spark of game.sparks) {
    spark.y += spark.speed * dt;
    spark.x = Math.max(12, Math.min(WIDTH - 12, spark.x + spark.drift * dt));
    const caught = spark.y >= LANTERN_Y - 8 && spark.y <= LANTERN_Y + 20 &&
                   Math.abs(spark.x - game.lanternX) < 30;
    if (caught) {
      spark.done = true;
      game.score += 1;
      game.best = Math.max(game.best, game.score);
      playSound(game.assets.catchSound);
    } else if (spark.y > HEIGHT + 12) {
      spark.done = true;
      game.lives -= 1;
      playSound(game.assets.missSound);
    }
  }
  game.sparks = game.sparks.filter((spark) => !spark.done);
  if (game.lives <= 0) {
    game.state = 'over';
    try { localStorage.setItem('sparkfall-best', String(game.best)); } catch (e) { /* private mode */ }
  }
}

function drawText(text, y, size, colour) {
  context.fillStyle = colour;
  context.font = `${size}px "DejaVu Sans", sans-serif`;
  context.textAlign = 'center';
  context.fillText(text, WIDTH / 2, y);
}

function drawHud(strings) {
  context.font = '15px "DejaVu Sans", sans-serif';
  context.fillStyle = '#ffe9a8';
  context.textAlign = 'left';
  context.fillText(`${strings.score} ${game.score}`, 12, 24);
  context.textAlign = 'center';
  context.fillText(`${strings.level}: ${game.assets.levels.levels[game.level].name}`, WIDTH / 2, 24);
  context.textAlign = 'right';
  context.fillText(`${strings.best} ${game.best}`, WIDTH - 12, 24);
  context.textAlign = 'left';
  context.fillText(strings.lives, 12, 46);
  const labelWidth = context.measureText(strings.lives).width;
  for (let i = 0; i < game.lives; i += 1) {
    context.drawImage(game.assets.spark, 18 + labelWidth + i * 20, 32, 18, 18);
  }
}

function draw() {
  const { stars, spark, lantern, strings } = game.assets;
  if (!game.sky) {
    game.sky = context.createLinearGradient(0, 0, 0, HEIGHT);
    game.sky.addColorStop(0, '#070b24');
    game.sky.addColorStop(1, '#24306a');
    game.starField = context.createPattern(stars, 'repeat');
  }
  context.fillStyle = game.sky;
  context.fillRect(0, 0, WIDTH, HEIGHT);
  context.fillStyle = game.starField;
  context.fillRect(0, 0, WIDTH, HEIGHT);
  for (const s of game.sparks) context.drawImage(spark, s.x - 16, s.y - 16);
  context.drawImage(lantern, game.lanternX - 32, LANTERN_Y - 10);
  drawHud(strings);
  if (game.state === 'title') {
    drawText(strings.title, 190, 44, '#ffcc55');
    drawText(strings.tagline, 230, 15, '#e8e4d0');
    drawText(strings.start, 300, 17, '#ffe9a8');
    drawText(strings.controls, 330, 12, '#9aa6e0');
  } else if (game.state === 'over') {
    drawText(strings.gameOver, 220, 26, '#ff9a6b');
    drawText(`${strings.score}: ${game.score}`, 260, 20, '#ffe9a8');
    drawText(strings.again, 300, 15, '#e8e4d0');
  }
}

function fieldX(event) {
  const box = canvas.getBoundingClientRect();
  return (event.clientX - box.left) * (WIDTH / box.width);
}

function bindControls() {
  const keyNames = { ArrowLeft: 'left', KeyA: 'left', ArrowRight: 'right', KeyD: 'right' };
  window.addEventListener('keydown', (event) => {
    if (keyNames[event.code]) game.keys[keyNames[event.code]] = true;
    if (event.code === 'Space' || event.code === 'Enter') {
      event.preventDefault();
      if (game.state === 'title' || game.state === 'over') startRound();
    }
  });
  window.addEventListener('keyup', (event) => {
    if (keyNames[event.code]) game.keys[keyNames[event.code]] = false;
  });
  canvas.addEventListener('pointerdown', (event) => {
    if (game.state === 'title' || game.state === 'over') { startRound(); return; }
    game.pointerX = fieldX(event);
    canvas.setPointerCapture(event.pointerId);
  });
  canvas.addEventListener('pointermove', (event) => {
    if (game.pointerX !== null) game.pointerX = fieldX(event);
  });
  const release = () => { game.pointerX = null; };
  canvas.addEventListener('pointerup', release);
  canvas.addEventListener('pointercancel', release);
}

function loop(previous) {
  requestAnimationFrame((now) => {
    update(Math.min(0.05, (now - previous) / 1000));
    draw();
    loop(now);
  });
}

sparkfallLoad().then((assets) => {
  if (!window.gameReport.ok) return;
  game.assets = assets;
  const savedBest = assets.saveFiles['global.json'] ? assets.saveFiles['global.json'].best : 0;
  let localBest = 0;
  try { localBest = Number(localStorage.getItem('sparkfall-best')) || 0; } catch (e) { /* private mode */ }
  game.best = Math.max(savedBest || 0, localBest);
  game.lives = assets.levels.lives;
  game.state = 'title';
  window.sparkfall = game;
  bindControls();
  loop(performance.now());
});
