// The page's pure decisions about playback, without a browser: the runs of a day's listing,
// where the next stream is asked from, and the wall time of a time of day typed for an export.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { imposta_fuso } from '../autonomo/pagine/comune.js';
import { momento_di } from '../autonomo/pagine/esportazione.js';
import { prossimo_da, tratti_elenco } from '../autonomo/pagine/lettore.js';

// Rows as the listing gives them: inizio truncated to the second, fine the file's mtime.
const elenco = [
  { inizio: 100, fine: 102.3 }, { inizio: 102, fine: 104.3 }, { inizio: 105, fine: 107.2 },  // one run
  { inizio: 110, fine: 112.3 },                                                               // after a gap
];

test('tratti: segmenti uniti fino a un secondo di distanza, buco oltre', () => {
  assert.deepEqual(tratti_elenco([]), []);
  assert.deepEqual(tratti_elenco(elenco), [
    { da: 100, a: 107.2, primo: 0, ultimo: 2 },
    { da: 110, a: 112.3, primo: 3, ultimo: 3 },
  ]);
});

test('prossimo flusso: il resto del tratto, il tratto dopo il buco, poi niente', () => {
  const tratti = tratti_elenco(elenco);
  for (const [fine, atteso] of [
    [102.3, 102.35],  // a stream that stopped inside its run goes on from its last frame
    [107.2, 110],     // the end of a run: the next run
    [107.0, 110],     // a little before the listed end counts as the end
    [50, 100],        // before everything: the first run
    [112.3, null],    // nothing after the last run
  ]) {
    const p = prossimo_da(tratti, fine);
    if (atteso === null) assert.equal(p, null, `dopo ${fine}`);
    else assert.ok(Math.abs(p - atteso) < 1e-9, `dopo ${fine}: ${p} invece di ${atteso}`);
  }
});

test("ora del giorno dell'esportazione, anche nei giorni del cambio d'ora", () => {
  imposta_fuso('Europe/Rome');
  for (const [giorno, testo, atteso] of [
    [1774738800, '12:00:00', 1774778400],  // 29 March 2026: 23 hours, the afternoon is one hour earlier
    [1774738800, '01:30:00', 1774744200],  // before the change
    [1792879200, '23:59:59', 1792969199],  // 25 October 2026: 25 hours
    [1792879200, '10:00', 1792879200 + 11 * 3600],
    [1792879200, 'dieci', null],
  ]) {
    assert.equal(momento_di(testo, giorno), atteso, `${testo} del giorno che inizia a ${giorno}`);
  }
});
