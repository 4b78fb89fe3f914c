// The time axis of the page (web/timeline.js), under node's test runner.
import assert from 'node:assert/strict';
import test from 'node:test';

import { TimeAxis } from '../../../web/timeline.js';

const HOUR = 3600_000;
const T0 = Date.UTC(2026, 10, 22, 12, 0, 0);

// Zooming with the wheel keeps the time under the cursor under the cursor
// and stops at the shortest view instead of collapsing; a drag moves the
// time with the pointer.
test('zoom keeps the pivot, stops at its limit, pan follows the pointer', () => {
  const axis = new TimeAxis(T0, T0 + HOUR);
  const pivot = axis.atFraction(0.25);
  axis.zoom(0.25, 0.5);
  assert.equal(axis.atFraction(0.25), pivot);
  assert.equal(axis.span(), HOUR / 2);
  for (let i = 0; i < 50; ++i) axis.zoom(0.25, 0.5);
  assert.equal(axis.span(), 10_000);
  assert.ok(Math.abs(axis.atFraction(0.25) - pivot) < 1);
  axis.pan(0.5);
  assert.ok(Math.abs(axis.atFraction(0.75) - pivot) < 1);
});

// Ticks fall on round local times, far enough apart to be read, across the
// whole view; the merged gap grows with the time a pixel covers.
test('ticks are round and readable, gaps follow the zoom', () => {
  for (const span of [20_000, 5 * 60_000, HOUR, 24 * HOUR, 30 * 24 * HOUR]) {
    const axis = new TimeAxis(T0 + 1234, T0 + 1234 + span);
    const ticks = axis.ticks(1000);
    assert.ok(ticks.length >= 2, `span ${span}`);
    const step = ticks[1].at - ticks[0].at;
    assert.ok(step * 1000 / span >= 90, `span ${span}: ${step} ms is too dense`);
    const offset = new Date(ticks[0].at).getTimezoneOffset() * 60_000;
    for (const t of ticks) {
      assert.equal((t.at - offset) % Math.min(step, 24 * HOUR), 0, `span ${span}`);
      assert.ok(t.at >= axis.from && t.at <= axis.to);
    }
  }
  assert.equal(new TimeAxis(T0, T0 + 60_000).gapFor(1000), 1000);
  assert.equal(new TimeAxis(T0, T0 + 24 * HOUR).gapFor(1000), 2 * 24 * HOUR / 1000);
});
