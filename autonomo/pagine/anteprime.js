// Pictures of the timeline under the pointer, in a bubble with the time: at most one request
// every ANTEPRIMA_MS while the pointer moves (the last position wins), and every picture kept in
// the page once fetched.
import { el, ora } from './comune.js';

const ANTEPRIMA_MS = 200;
const ANTEPRIME_MAX = 300;
const VICINO_S = 60;  // the server finds a picture only this close to a recording

const cache = new Map();  // `${cam}:${t}` -> Promise of an object URL, or null when there is none
let ultima = 0;           // Date.now() of the last request
let attesa = null;        // timer of the request that waits for its turn
let turno = 0;            // bumped by every call: an answer for an older one is dropped

function prendi(cam, t) {
  const chiave = `${cam}:${t}`;
  if (!cache.has(chiave)) {
    if (cache.size >= ANTEPRIME_MAX) {
      const [vecchia, p] = cache.entries().next().value;
      cache.delete(vecchia);
      p.then((u) => u && URL.revokeObjectURL(u));
    }
    cache.set(chiave, fetch(`/api/anteprima?cam=${cam}&t=${t}`, { credentials: 'same-origin' })
      .then((r) => (r.ok ? r.blob() : null))
      .then((b) => (b ? URL.createObjectURL(b) : null))
      .catch(() => null));
  }
  return cache.get(chiave);
}

// Calls mostra(url or null) with camera cam's picture near wall time t, t rounded to `passo`
// seconds, unless another call comes before the answer.
export function anteprima(cam, t, passo, mostra) {
  clearTimeout(attesa);
  const mio = ++turno;
  const resta = ultima + ANTEPRIMA_MS - Date.now();
  if (resta > 0) {
    attesa = setTimeout(() => anteprima(cam, t, passo, mostra), resta);
    return;
  }
  ultima = Date.now();
  prendi(cam, Math.round(t / passo) * passo).then((u) => {
    if (mio === turno) mostra(u);
  });
}

// The pointer left: nothing waiting is shown any more.
export function lascia_anteprima() {
  clearTimeout(attesa);
  attesa = null;
  turno += 1;
}

// The bubble over the timeline (put it in the timeline's positioned container).
export function bolla_linea() {
  const img = el('img', { alt: '', hidden: true, width: '160' });
  const testo = el('span', {});
  const radice = el('div', { class: 'bolla-linea', id: 'bolla-linea', hidden: true, 'aria-hidden': 'true' }, img, testo);
  return {
    radice,
    // Shows wall time t at `percento` of the timeline's width and camera cam's picture near t
    // (t rounded to `passo` s) when t is close to one of `segmenti` ({inizio, fine}).
    mostra(t, percento, cam, segmenti, passo) {
      radice.hidden = false;
      radice.style.left = `${Math.max(6, Math.min(94, percento))}%`;
      testo.textContent = ora(t);
      if (!segmenti.some((s) => s.inizio - VICINO_S <= t && t <= s.fine + VICINO_S)) {
        lascia_anteprima();
        img.hidden = true;
        return;
      }
      anteprima(cam, t, passo, (u) => {
        if (radice.hidden) return;
        img.hidden = !u;
        if (u && img.src !== u) img.src = u;
      });
    },
    nascondi() {
      radice.hidden = true;
      lascia_anteprima();
    },
  };
}
