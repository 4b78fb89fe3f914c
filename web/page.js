// The page: one lane per track on a shared time axis, refreshed from
// /api/timeline, and a player for stored (VOD) and live HLS playlists.
import { TimeAxis, clock, dateTime, drawAxis, drawLane } from './timeline.js';

const REFRESH_MS = 2000;
const $ = (id) => document.getElementById(id);

const axis = new TimeAxis(Date.now() - 3600_000, Date.now() + 60_000);
// What the browser test and the curious read: the page's view of playback.
const state = window.loopstorePage = {
  axis,
  tracks: [], nowMs: Date.now(), playing: null, playingDateMs: null, liveDelayMs: null,
  // The playing date of the first picture shown since the last click.
  firstPlayingDateMs: null,
  selection: null, refreshes: 0,
  show(from, to) { $('follow').checked = false; axis.show(from, to); draw(); refresh(); },
};
let hls = null;
let loading = false;

function setStatus(text) { $('status').textContent = text; }

async function getJson(url) {
  const answer = await fetch(url, { credentials: 'same-origin' });
  const body = await answer.json().catch(() => ({}));
  if (!answer.ok) throw new Error(body.error || `${answer.status} ${answer.statusText}`);
  return body;
}

// ---- timeline ----

function following() { return $('follow').checked; }

async function refresh() {
  if (loading) return;
  loading = true;
  try {
    if (following()) {
      const span = axis.span();
      axis.show(Date.now() - span * 0.95, Date.now() + span * 0.05);
    }
    const margin = axis.span() * 0.5;
    const gap = axis.gapFor($('axis').clientWidth);
    const answer = await getJson(`/api/timeline?from=${Math.round(axis.from - margin)}` +
                                 `&to=${Math.round(axis.to + margin)}&gap=${gap}`);
    state.tracks = answer.tracks;
    state.nowMs = answer.now_ms;
    state.refreshes += 1;
    draw();
    setStatus(`${answer.tracks.length} tracks, updated ${clock(answer.now_ms)}`);
  } catch (e) {
    setStatus(`Cannot read the timeline: ${e.message}`);
  } finally {
    loading = false;
  }
}

function rowFor(track) {
  let row = document.querySelector(`.row[data-track="${track.id}"]`);
  if (row) return row;
  row = document.createElement('div');
  row.className = 'row';
  row.dataset.track = track.id;
  const label = document.createElement('div');
  label.className = 'label';
  const name = document.createElement('span');
  name.textContent = `Track ${track.id}`;
  const live = document.createElement('button');
  live.type = 'button';
  live.className = 'live';
  live.textContent = 'Live';
  live.setAttribute('aria-label', `Play track ${track.id} live`);
  live.addEventListener('click', () => playLive(track.id));
  label.append(name, live);
  const lane = document.createElement('div');
  lane.className = 'lane';
  lane.tabIndex = 0;
  lane.setAttribute('role', 'button');
  attachLane(lane, track.id);
  row.append(label, lane);
  $('rows').append(row);
  return row;
}

function draw() {
  drawAxis($('axis'), axis);
  const shown = new Set(state.tracks.map((t) => String(t.id)));
  for (const row of document.querySelectorAll('#rows .row'))
    if (!shown.has(row.dataset.track)) row.remove();
  const now = following() ? Date.now() : state.nowMs;
  for (const track of state.tracks) {
    const marks = {};
    if (state.selection && state.selection.track === track.id) marks.selection = state.selection;
    if (state.playing && state.playing.track === track.id && state.playingDateMs !== null)
      marks.playhead = state.playingDateMs;
    drawLane(rowFor(track).querySelector('.lane'), axis, track, marks, now);
  }
}

// Shows everything every track holds, from its beginning to its end.
async function fit() {
  let from = Infinity, to = -Infinity;
  try {
    for (const t of (await getJson('/api/tracks')).tracks) {
      if (t.beginning_ms !== null) from = Math.min(from, t.beginning_ms);
      if (t.end_ms !== null) to = Math.max(to, t.end_ms);
    }
  } catch (e) {
    setStatus(`Cannot list the tracks: ${e.message}`);
  }
  if (from === Infinity || to === -Infinity) return;
  const pad = Math.max(1000, (to - from) * 0.02);
  state.show(from - pad, to + pad);
}

function showLast(span) {
  axis.show(Date.now() - span * 0.95, Date.now() + span * 0.05);
  $('follow').checked = true;
}

// ---- lane interaction: wheel zooms, drag pans, click plays, shift-drag selects ----

function fractionIn(lane, clientX) {
  const r = lane.getBoundingClientRect();
  return Math.min(1, Math.max(0, (clientX - r.left) / r.width));
}

function attachLane(lane, trackId) {
  lane.addEventListener('wheel', (e) => {
    e.preventDefault();
    $('follow').checked = false;
    axis.zoom(fractionIn(lane, e.clientX), Math.exp(e.deltaY * 0.002));
    draw();
    scheduleRefresh();
  }, { passive: false });
  lane.addEventListener('pointerdown', (e) => startDrag(lane, trackId, e));
  lane.addEventListener('keydown', (e) => {
    if (e.key === 'Enter' || e.key === ' ') {
      e.preventDefault();
      playFrom(trackId, axis.atFraction(0.5));
    }
  });
}

function startDrag(lane, trackId, down) {
  lane.setPointerCapture(down.pointerId);
  const startFraction = fractionIn(lane, down.clientX);
  const startTime = axis.atFraction(startFraction);
  const selecting = down.shiftKey;
  let last = down.clientX;
  let moved = false;
  const move = (e) => {
    if (Math.abs(e.clientX - down.clientX) > 3) moved = true;
    if (!moved) return;
    if (selecting) {
      const t = axis.atFraction(fractionIn(lane, e.clientX));
      state.selection = { track: trackId, from: Math.min(startTime, t), to: Math.max(startTime, t) };
    } else {
      $('follow').checked = false;
      axis.pan((e.clientX - last) / lane.getBoundingClientRect().width);
      last = e.clientX;
    }
    draw();
  };
  const up = () => {
    lane.removeEventListener('pointermove', move);
    lane.removeEventListener('pointerup', up);
    lane.removeEventListener('pointercancel', up);
    if (!moved) playFrom(trackId, startTime);
    else if (selecting) showSelection();
    else scheduleRefresh();
  };
  lane.addEventListener('pointermove', move);
  lane.addEventListener('pointerup', up);
  lane.addEventListener('pointercancel', up);
}

let refreshTimer = null;
function scheduleRefresh() {
  clearTimeout(refreshTimer);
  refreshTimer = setTimeout(refresh, 150);
}

// ---- selection: protect, download ----

function showSelection() {
  const s = state.selection;
  $('selection').hidden = !s;
  if (!s) return;
  const from = Math.round(s.from), to = Math.round(s.to);
  $('selection-text').textContent =
    `Track ${s.track}: ${dateTime(from)} – ${dateTime(to)} (${Math.round((to - from) / 1000)} s)`;
  $('download').href = `/api/tracks/${s.track}/export.mp4?from=${from}&to=${to}`;
}

async function protectSelection() {
  const s = state.selection;
  if (!s) return;
  const label = window.prompt('Label for the protected range (may be empty):', '');
  if (label === null) return;
  try {
    const body = { from_ms: Math.round(s.from), to_ms: Math.round(s.to) };
    if (label) body.label = label;
    const answer = await fetch(`/api/tracks/${s.track}/protections`, {
      method: 'POST', credentials: 'same-origin',
      headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body),
    });
    const reply = await answer.json().catch(() => ({}));
    if (!answer.ok) throw new Error(reply.error || answer.statusText);
    setStatus(`Protected as ${reply.id}`);
    state.selection = null;
    showSelection();
    refresh();
  } catch (e) {
    setStatus(`Cannot protect: ${e.message}`);
  }
}

// ---- player ----

// The time the picture shows, from EXT-X-PROGRAM-DATE-TIME.
function playingDate() {
  const video = $('video');
  if (hls) return hls.playingDate ? hls.playingDate.getTime() : null;
  const start = video.getStartDate ? video.getStartDate().getTime() : NaN;
  return Number.isFinite(start) ? start + video.currentTime * 1000 : null;
}

function load(url, live) {
  const video = $('video');
  if (hls) { hls.destroy(); hls = null; }
  // hls.js gives the playing date; native HLS (Safari) only where hls.js cannot run.
  if (window.Hls && window.Hls.isSupported()) {
    hls = new window.Hls(live ? { liveSyncDurationCount: 1, liveMaxLatencyDurationCount: 4 } : {});
    hls.on(window.Hls.Events.ERROR, (_, data) => {
      if (data.fatal) setStatus(`Playback failed: ${data.details}`);
    });
    hls.loadSource(url);
    hls.attachMedia(video);
  } else if (video.canPlayType('application/vnd.apple.mpegurl')) {
    video.src = url;
  } else {
    setStatus('This browser cannot play HLS');
    return;
  }
  video.play().catch(() => {});
}

function playFrom(trackId, at) {
  const track = state.tracks.find((t) => t.id === trackId);
  const newest = track && track.newest_ms ? track.newest_ms : Date.now();
  const from = Math.round(at);
  state.playing = { track: trackId, live: false, from };
  forgetPlayingDate();
  // An hour at most: the playlist lists every chunk.
  const to = Math.max(from + 1000, Math.min(newest, from + 3600_000));
  load(`/api/tracks/${trackId}/vod.m3u8?from=${from}&to=${to}`, false);
  $('playing').textContent = `Track ${trackId} from ${dateTime(from)}`;
}

function playLive(trackId) {
  state.playing = { track: trackId, live: true };
  forgetPlayingDate();
  load(`/api/tracks/${trackId}/live.m3u8`, true);
  $('playing').textContent = `Track ${trackId} live`;
}

function forgetPlayingDate() {
  state.playingDateMs = null;
  state.firstPlayingDateMs = null;
  state.liveDelayMs = null;
}

function updatePlayhead() {
  if (!state.playing) return;
  const date = playingDate();
  if (date === null) return;
  state.playingDateMs = date;
  if (state.firstPlayingDateMs === null) state.firstPlayingDateMs = date;
  const where = state.playing.live ? 'live' : 'stored';
  let text = `Track ${state.playing.track} (${where}) at ${dateTime(date)}`;
  if (state.playing.live) {
    state.liveDelayMs = Date.now() - date;
    text += `, live delay ${(state.liveDelayMs / 1000).toFixed(1)} s`;
  }
  $('playing').textContent = text;
  draw();
}

// ---- start ----

$('zoom-hour').addEventListener('click', () => { showLast(3600_000); refresh(); });
$('zoom-day').addEventListener('click', () => { showLast(24 * 3600_000); refresh(); });
$('zoom-fit').addEventListener('click', fit);
$('follow').addEventListener('change', () => refresh());
$('protect').addEventListener('click', protectSelection);
$('clear-selection').addEventListener('click', () => { state.selection = null; showSelection(); draw(); });
$('video').addEventListener('timeupdate', updatePlayhead);
window.addEventListener('resize', draw);
// Near the live edge the lanes follow the recording; elsewhere they stay put.
setInterval(() => { if (following() || axis.to > Date.now() - axis.span()) refresh(); }, REFRESH_MS);
refresh();
