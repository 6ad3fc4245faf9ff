// Playback in Chromium on the program bench_linea_tempo started, beside the page's old way of
// playing measured on the same segments in this run (a <video> given one segment file at a time
// by its URL, moving to the next at its end):
// - from a click on the timeline at a random moment to the first frame painted there;
// - the stalls (waiting events) and the time without a moving picture over ten joins at 4x.
//
//   node linea_tempo_pagina.mjs <base URL> <password> <day's first recorded second>
//                                <segments of camera 2> <segment seconds of camera 1>
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { avvia_browser } from '../browser/ambiente.mjs';

const [base, password, inizio_s, n_giunte_s, durata_s] = process.argv.slice(2);
const inizio = Number(inizio_s);
const segmenti_cam2 = Number(n_giunte_s);
const durata = Number(durata_s);
const VOLTE = 10;

// The same columns as bench/tabella.h.
function riga(misura, nvr, base_, unita, obiettivo = '') {
  const cifra = (v) => (Number.isNaN(v) ? '-' : Math.abs(v) >= 100 || Number.isInteger(v) ? v.toFixed(0) : v.toFixed(3));
  const rapporto = Number.isNaN(base_) || base_ === 0 ? '-' : cifra(nvr / base_);
  const c = (s, n, destra) => (destra ? String(s).padStart(n) : String(s).padEnd(n));
  console.log(`${c('linea_tempo', 14)} ${c(misura, 44)} ${c(cifra(nvr), 12, true)} ${c(cifra(base_), 12, true)} ` +
              `${c(rapporto, 9, true)} ${c(unita, 8)} ${obiettivo}`);
}

const mediana = (v) => [...v].sort((a, b) => a - b)[Math.floor((v.length - 1) / 2)];

// Waits in the page for the first frame presented at media time `voluto` (within 2.5 s: the
// key frame before it) and answers performance.now() then.
const ATTENDI_FOTOGRAMMA = `(video, voluto) => new Promise((fatto) => {
  const guarda = (adesso, info) => {
    if (Math.abs(info.mediaTime - voluto) < 2.5) fatto(adesso);
    else video.requestVideoFrameCallback(guarda);
  };
  video.requestVideoFrameCallback(guarda);
})`;

async function pagina_registrazioni(pagina, nome_camera) {
  await pagina.goto('about:blank');
  await pagina.goto(`${base}/#registrazioni`);
  await pagina.locator('#reg-camera').waitFor();
  await pagina.selectOption('#reg-camera', { label: nome_camera });
  await pagina.locator('#linea-tempo .segmento').first().waitFor();
}

// Clicks the timeline at wall time `t`; answers the clicked wall time and when the click happened.
async function clicca(pagina, t) {
  const { x, y } = await pagina.locator('#linea-tempo').evaluate((l, t) => {
    const b = l.getBoundingClientRect();
    const f = (t - Number(l.dataset.da)) / (Number(l.dataset.a) - Number(l.dataset.da));
    return { x: b.left + f * b.width, y: b.top + b.height / 2 };
  }, t);
  const quando = await pagina.evaluate(() => performance.now());
  await pagina.mouse.click(x, y);
  return quando;
}

async function primo_fotogramma(pagina) {
  let seme = 7;
  const caso = () => ((seme = (seme * 1103515245 + 12345) % 2147483648) / 2147483648);
  const momenti = Array.from({ length: VOLTE }, () => inizio + 10 + caso() * (12 * durata - 20));

  await pagina_registrazioni(pagina, 'Cortile');
  const nuovo = [];
  for (const t of momenti) {
    const origine = Number(await pagina.locator('#video').evaluate((v) => v.dataset.origine || 0));
    const attesa = pagina.locator('#video').evaluate(eval(ATTENDI_FOTOGRAMMA), t - origine);
    const cliccato = await clicca(pagina, t);
    nuovo.push((await attesa) - cliccato);
  }

  // The old way: the segment's own file, with the moment as a media fragment.
  const vecchio = [];
  for (const t of momenti) {
    const k = Math.floor((t - inizio) / durata);
    const id = await pagina.evaluate(async ({ t }) => {
      const g = new Date(t * 1000).toISOString().slice(0, 10);
      const r = await (await fetch(`/api/nvr/registrazioni?cam=1&giorno=${g}`)).json();
      return r.registrazioni.find((s) => s.inizio <= t && t < s.fine).id;
    }, { t });
    const ms = await pagina.evaluate(async ({ id, offset, attendi }) => {
      document.body.replaceChildren();
      const v = document.createElement('video');
      v.muted = true;
      document.body.append(v);
      const pronto = eval(attendi)(v, offset);
      const t0 = performance.now();
      v.src = `/api/nvr/video/${id}#t=${offset}`;
      return (await pronto) - t0;
    }, { id, offset: t - (inizio + k * durata), attendi: ATTENDI_FOTOGRAMMA });
    vecchio.push(ms);
  }
  if (process.env.NVR_DETTAGLI) console.error({ nuovo, vecchio });
  riga('primo fotogramma dopo un clic (mediana)', mediana(nuovo), mediana(vecchio), 'ms', '<=500');
  riga('primo fotogramma dopo un clic (massimo)', Math.max(...nuovo), Math.max(...vecchio), 'ms', '<=500');
}

// Plays camera 2 from its first segment at 4x until ten joins are behind; counts the waiting
// events and the time spent waiting.
async function giunte(pagina) {
  const fine = inizio + 10 * 10 + 3;
  await pagina_registrazioni(pagina, 'Ingresso');
  await pagina.selectOption('#reg-zoom', { label: '10 minuti' });
  await clicca(pagina, inizio + 2);
  // The joins are measured, not the start: play once a few seconds are buffered after the click.
  await pagina.locator('#video').evaluate((v) => new Promise((ok) => {
    const guarda = () => {
      const b = v.buffered;
      if (!v.seeking && b.length && b.end(b.length - 1) - v.currentTime > 3) ok();
      else setTimeout(guarda, 20);
    };
    guarda();
  }));
  await pagina.selectOption('#reg-velocita', '4');
  const nuovo = await pagina.locator('#video').evaluate((v, fine) => new Promise((ok) => {
    // Counted once the picture moves: the joins are what is measured, not the start.
    let attese = 0, fermo = 0, da = 0, partito = false;
    const diario = [];
    for (const e of ['waiting', 'seeking', 'seeked', 'stalled']) {
      v.addEventListener(e, () => diario.push([e, Number(v.dataset.origine) + v.currentTime, v.buffered.length]));
    }
    v.addEventListener('waiting', () => { if (partito) { attese += 1; da = performance.now(); } });
    v.addEventListener('playing', () => { partito = true; if (da) fermo += performance.now() - da; da = 0; });
    const guarda = () => {
      if (Number(v.dataset.origine) + v.currentTime >= fine) ok({ attese, fermo, diario });
      else setTimeout(guarda, 50);
    };
    guarda();
    document.getElementById('reg-riproduci').click();
  }), fine);

  const vecchio = await pagina.evaluate(async ({ inizio, n }) => {
    const g = new Date(inizio * 1000).toISOString().slice(0, 10);
    const r = await (await fetch(`/api/nvr/registrazioni?cam=2&giorno=${g}`)).json();
    const urls = r.registrazioni.slice(0, n).map((s) => s.url);
    document.body.replaceChildren();
    const v = document.createElement('video');
    v.muted = true;
    document.body.append(v);
    let attese = 0, fermo = 0, da = 0, i = 0, partito = false;
    v.addEventListener('waiting', () => { if (partito) attese += 1; });
    v.addEventListener('ended', () => {
      da = performance.now();
      if (++i < urls.length) {
        v.src = urls[i];
        v.playbackRate = 4;
        v.play();
      }
    });
    v.addEventListener('playing', () => { partito = true; if (da) fermo += performance.now() - da; da = 0; });
    v.src = urls[0];
    v.playbackRate = 4;
    await v.play();
    await new Promise((ok) => {
      const guarda = () => (i >= urls.length - 1 && v.currentTime > 0.5 ? ok() : setTimeout(guarda, 50));
      guarda();
    });
    return { attese, fermo };
  }, { inizio, n: 11 });
  if (process.env.NVR_DETTAGLI) console.error(JSON.stringify(nuovo.diario));
  riga('attese (waiting) su 10 giunte a 4x', nuovo.attese, vecchio.attese, 'eventi', '0');
  riga('tempo fermo su 10 giunte a 4x', nuovo.fermo, vecchio.fermo, 'ms');
}

const profilo = fs.mkdtempSync(path.join(os.tmpdir(), 'nvr-bench-profilo-'));
const contesto = await avvia_browser(profilo);
try {
  const pagina = contesto.pages()[0] || await contesto.newPage();
  const r = await pagina.request.post(`${base}/api/accesso`, { data: { password } });
  if (r.status() !== 200) throw new Error(`accesso: ${r.status()}`);
  if (segmenti_cam2 < 11) throw new Error(`servono 11 segmenti della seconda telecamera, ce ne sono ${segmenti_cam2}`);
  await primo_fotogramma(pagina);
  await giunte(pagina);
} finally {
  await contesto.close();
  fs.rmSync(profilo, { recursive: true, force: true });
}
