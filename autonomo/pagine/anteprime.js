// Pictures of the timeline under the pointer: at most one request every ANTEPRIMA_MS while the
// pointer moves (the last position wins), and every picture kept in the page once fetched.
const ANTEPRIMA_MS = 200;
const ANTEPRIME_MAX = 300;

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
