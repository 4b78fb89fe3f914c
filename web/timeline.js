// The shared time axis: which span of time the lanes show, and drawing the
// recorded ranges, protections, selection and playhead of one track's lane.
// Times are milliseconds since the Unix epoch.

const MINUTE = 60_000;
const HOUR = 60 * MINUTE;
const DAY = 24 * HOUR;
const TICK_STEPS = [1000, 5000, 10_000, 30_000, MINUTE, 5 * MINUTE, 10 * MINUTE, 30 * MINUTE,
                    HOUR, 3 * HOUR, 6 * HOUR, 12 * HOUR, DAY, 2 * DAY, 7 * DAY, 14 * DAY, 28 * DAY];
const SHORTEST_VIEW = 10_000;
const LONGEST_VIEW = 90 * DAY;

export class TimeAxis {
  constructor(from, to) {
    this.from = from;
    this.to = to;
  }

  span() { return this.to - this.from; }
  toFraction(ms) { return (ms - this.from) / this.span(); }
  atFraction(f) { return this.from + f * this.span(); }

  // Zooms by `factor` (< 1 in) keeping the time at fraction `f` in place.
  zoom(f, factor) {
    const span = Math.min(LONGEST_VIEW, Math.max(SHORTEST_VIEW, this.span() * factor));
    const pivot = this.atFraction(f);
    this.from = pivot - f * span;
    this.to = this.from + span;
  }

  pan(fraction) {
    const shift = fraction * this.span();
    this.from -= shift;
    this.to -= shift;
  }

  show(from, to) {
    const span = Math.max(SHORTEST_VIEW, to - from);
    this.from = from;
    this.to = from + span;
  }

  // Pauses shorter than about two pixels do not show: the server merges them.
  gapFor(widthPx) { return Math.max(1000, Math.round(2 * this.span() / Math.max(1, widthPx))); }

  ticks(widthPx) {
    const minimum = this.span() * 90 / Math.max(1, widthPx);
    const step = TICK_STEPS.find((s) => s >= minimum) ?? TICK_STEPS[TICK_STEPS.length - 1];
    const offset = new Date(this.from).getTimezoneOffset() * MINUTE;
    const out = [];
    for (let t = Math.ceil((this.from - offset) / step) * step + offset; t <= this.to; t += step)
      out.push({ at: t, text: step >= DAY ? day(t) : clock(t, step < MINUTE) });
    return out;
  }
}

function pad(n) { return String(n).padStart(2, '0'); }

export function clock(ms, seconds = true) {
  const d = new Date(ms);
  const hm = `${pad(d.getHours())}:${pad(d.getMinutes())}`;
  return seconds ? `${hm}:${pad(d.getSeconds())}` : hm;
}

function day(ms) {
  const d = new Date(ms);
  return `${pad(d.getMonth() + 1)}-${pad(d.getDate())}`;
}

export function dateTime(ms) {
  const d = new Date(ms);
  return `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())} ${clock(ms)}`;
}

function box(cls, axis, from, to) {
  const el = document.createElement('div');
  el.className = cls;
  const left = Math.max(0, axis.toFraction(from));
  const right = Math.min(1, axis.toFraction(to));
  el.style.left = `${left * 100}%`;
  el.style.width = `${Math.max(0, right - left) * 100}%`;
  return el;
}

function line(cls, axis, at) {
  const f = axis.toFraction(at);
  if (f < 0 || f > 1) return null;
  const el = document.createElement('div');
  el.className = cls;
  el.style.left = `${f * 100}%`;
  return el;
}

// Redraws `lane` for `track` ({ranges, protections}); `marks` holds the
// selection ({from, to}) and the playhead time of this track, if any.
export function drawLane(lane, axis, track, marks, now) {
  const parts = [];
  for (const [start, end] of track.ranges) {
    if (end < axis.from || start > axis.to) continue;
    const el = box('range', axis, start, end);
    el.title = `recorded ${dateTime(start)} – ${dateTime(end)}`;
    parts.push(el);
  }
  for (const p of track.protections) {
    if (p.end_ms < axis.from || p.start_ms > axis.to) continue;
    const el = box('protection', axis, p.start_ms, p.end_ms);
    const label = p.label || `protection ${p.id}`;
    el.title = `${label}: ${dateTime(p.start_ms)} – ${dateTime(p.end_ms)}`;
    const text = document.createElement('span');
    text.textContent = label;
    el.append(text);
    parts.push(el);
  }
  if (marks.selection) parts.push(box('selection', axis, marks.selection.from, marks.selection.to));
  parts.push(line('now', axis, now));
  if (marks.playhead !== undefined) parts.push(line('playhead', axis, marks.playhead));
  lane.replaceChildren(...parts.filter(Boolean));
  const covered = track.ranges.length > 0;
  lane.setAttribute('aria-label', `Track ${track.id}: ${covered ? track.ranges.length +
    ' recorded ranges' : 'nothing recorded'} in view. Enter plays from the middle of the view.`);
}

export function drawAxis(el, axis) {
  // A label starting at the right edge would be cut off.
  const ticks = axis.ticks(el.clientWidth).filter((t) => axis.toFraction(t.at) < 0.96).map((t) => {
    const tick = line('tick', axis, t.at);
    if (tick) tick.textContent = t.text;
    return tick;
  });
  el.replaceChildren(...ticks.filter(Boolean));
}
