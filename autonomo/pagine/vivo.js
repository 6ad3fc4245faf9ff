// Dal vivo: every camera live in one grid. The server multiplexes the cameras over one
// connection (a browser opens only a handful per server), so the page splits the frames and
// feeds each camera's fragmented MP4 to its own MediaSource. A camera whose codec the browser
// cannot play falls back to a picture refreshed every few seconds.
import { api, avviso, el, testo } from './comune.js';

const RIPROVA_MS = 5000;    // a camera that ended tries again after this
const FOTO_MS = 2000;       // picture refresh when the video cannot be played
const TIENI_S = 10;         // buffered video kept behind the playing point
const RITARDO_MAX_S = 3;    // further behind the live edge than this: jump forward
const CODA_MAX = 200;       // pieces waiting for a busy SourceBuffer; past this the oldest go
const INIT_MAX = 4 << 20;  // an init segment is a few hundred bytes; this much means garbage
const INTESTAZIONE = 9;     // camera id (4), kind (1), length (4)

let nodi = null;
let attiva = false;
const riquadri = new Map();    // camera id -> riquadro (see nuovo_riquadro)
const collegamenti = new Set();  // open grid fetches: { controllo, cams }
let in_attesa = new Set();     // cameras that ended and wait for RIPROVA_MS
let timer_riprova = null;

// --- Reading the init segment ------------------------------------------------------------------

function tipo_box(b, i) {
  return String.fromCharCode(b[i], b[i + 1], b[i + 2], b[i + 3]);
}

// Length of the leading ftyp+moov when both are complete in `b`, else 0.
export function fine_init(b) {
  let i = 0;
  while (i + 8 <= b.length) {
    const dim = ((b[i] << 24) >>> 0) + (b[i + 1] << 16) + (b[i + 2] << 8) + b[i + 3];
    if (dim < 8) return 0;
    if (i + dim > b.length) return 0;
    i += dim;
    if (tipo_box(b, i - dim + 4) === 'moov') return i;
  }
  return 0;
}

function cerca(b, tipo, da = 0) {
  for (let i = da; i + 4 <= b.length; i++) if (tipo_box(b, i) === tipo) return i;
  return -1;
}

const esa = (n) => n.toString(16).toUpperCase();
const esa2 = (n) => n.toString(16).padStart(2, '0').toUpperCase();

// The RFC 6381 codec string of the video in an init segment ("avc1.64001F", "hvc1.1.6.L93.B0"),
// or '' when no known sample description is there.
export function codec_di(b) {
  for (const voce of ['avc1', 'avc3']) {
    const i = cerca(b, voce);
    const c = i < 0 ? -1 : cerca(b, 'avcC', i);
    if (c >= 0 && c + 8 <= b.length) return `${voce}.${esa2(b[c + 5])}${esa2(b[c + 6])}${esa2(b[c + 7])}`;
  }
  for (const voce of ['hvc1', 'hev1']) {
    const i = cerca(b, voce);
    const c = i < 0 ? -1 : cerca(b, 'hvcC', i);
    if (c < 0 || c + 17 > b.length) continue;
    const p = c + 4;  // configuration record
    const spazio = ['', 'A', 'B', 'C'][b[p + 1] >> 6];
    const livello = (b[p + 1] & 0x20) ? 'H' : 'L';
    let compat = 0;
    for (let k = 0; k < 4; k++) compat = compat * 256 + b[p + 2 + k];
    let rovescio = 0;  // the compatibility flags are written with their bits reversed
    for (let k = 0; k < 32; k++) rovescio = rovescio * 2 + Math.floor(compat / 2 ** k) % 2;
    const vincoli = [...b.slice(p + 6, p + 12)];
    while (vincoli.length && vincoli.at(-1) === 0) vincoli.pop();
    return [`${voce}.${spazio}${b[p + 1] & 0x1f}`, esa(rovescio), `${livello}${b[p + 12]}`,
      ...vincoli.map(esa)].join('.');
  }
  return '';
}

// --- One tile ----------------------------------------------------------------------------------

function nuovo_riquadro(c) {
  const video = el('video', { muted: true, autoplay: true, playsInline: true,
                              'aria-label': `Video dal vivo di ${c.nome}` });
  video.muted = true;
  const r = {
    id: c.id,
    video,
    foto: el('img', { alt: `Immagine di ${c.nome}`, hidden: true }),
    nota: el('p', { class: 'nota-vivo', role: 'status', hidden: true }),
    nome: el('span', { class: 'nome-vivo' }, c.nome),
    ms: null, sb: null, url: '', coda: [], testa: null, modo: 'attesa', timer_foto: null,
  };
  r.radice = el('article', {
    class: 'riquadro-vivo', tabindex: '0', role: 'button', 'aria-pressed': 'false',
    'aria-label': `${c.nome}: ingrandisci`, dataset: { id: String(c.id) },
  }, r.video, r.foto, r.nome, r.nota);
  const ingrandisci = () => {
    const si = !r.radice.classList.contains('ingrandito');
    for (const altro of riquadri.values()) {
      altro.radice.classList.remove('ingrandito');
      altro.radice.setAttribute('aria-pressed', 'false');
    }
    r.radice.classList.toggle('ingrandito', si);
    r.radice.setAttribute('aria-pressed', String(si));
    if (si) r.radice.scrollIntoView({ block: 'nearest' });
  };
  r.radice.addEventListener('click', ingrandisci);
  r.radice.addEventListener('keydown', (ev) => {
    if (ev.key === 'Enter' || ev.key === ' ') {
      ev.preventDefault();
      ingrandisci();
    }
  });
  return r;
}

function mostra_nota(r, messaggio) {
  testo(r.nota, messaggio || '');
  r.nota.hidden = !messaggio;
}

// Releases the tile's MediaSource and picture timer; the tile itself stays.
function chiudi_riquadro(r) {
  clearTimeout(r.timer_foto);
  r.timer_foto = null;
  if (r.ms && r.ms.readyState === 'open') {
    try {
      r.ms.endOfStream();
    } catch (e) { /* already ending */ }
  }
  if (r.url) URL.revokeObjectURL(r.url);
  if (r.ms) {
    r.video.removeAttribute('src');
    r.video.load();
  }
  Object.assign(r, { ms: null, sb: null, url: '', coda: [], testa: null, modo: 'attesa' });
}

function aggiorna_foto(r) {
  if (r.modo !== 'foto') return;
  r.foto.src = `/api/vivo/${r.id}/istantanea?t=${Date.now()}`;
}

function passa_a_foto(r, messaggio) {
  chiudi_riquadro(r);
  r.modo = 'foto';
  r.video.hidden = true;
  r.foto.hidden = false;
  mostra_nota(r, messaggio);
  // The next picture is asked for only once the last one arrived, so a slow camera never piles up.
  r.foto.onload = r.foto.onerror = () => {
    clearTimeout(r.timer_foto);
    if (r.modo === 'foto') r.timer_foto = setTimeout(() => aggiorna_foto(r), FOTO_MS);
  };
  aggiorna_foto(r);
}

// Keeps the buffer short and the picture near the live edge, then appends the next piece.
function svuota_coda(r) {
  const { sb, video } = r;
  if (!sb || sb.updating || r.ms.readyState !== 'open') return;
  const b = sb.buffered;
  if (b.length) {
    const fine = b.end(b.length - 1);
    if (fine - video.currentTime > RITARDO_MAX_S) video.currentTime = Math.max(b.start(b.length - 1), fine - 0.5);
    const taglio = video.currentTime - TIENI_S;
    if (b.start(0) < taglio) {
      sb.remove(0, taglio);
      return;  // updateend comes back here
    }
  }
  const pezzo = r.coda.shift();
  if (!pezzo) return;
  try {
    sb.appendBuffer(pezzo);
  } catch (e) {
    // QuotaExceeded while removal lags: try again from the next key frame onwards.
    r.coda = [];
  }
  if (video.paused) video.play().catch(() => {});
}

function apri_video(r, init) {
  const codec = codec_di(init);
  const tipo = `video/mp4; codecs="${codec}"`;
  if (!codec || !window.MediaSource || !MediaSource.isTypeSupported(tipo)) {
    passa_a_foto(r, `Questo browser non sa riprodurre il video della telecamera (${codec || 'formato sconosciuto'}): ` +
                    `si vede un'immagine aggiornata ogni ${FOTO_MS / 1000} secondi.`);
    return;
  }
  r.modo = 'video';
  r.video.hidden = false;
  r.foto.hidden = true;
  r.radice.dataset.codec = codec;
  r.ms = new MediaSource();
  r.url = URL.createObjectURL(r.ms);
  const ms = r.ms;
  ms.addEventListener('sourceopen', () => {
    if (r.ms !== ms) return;
    try {
      r.sb = ms.addSourceBuffer(tipo);
    } catch (e) {
      passa_a_foto(r, `Il browser rifiuta il video della telecamera (${codec}): si vede un'immagine.`);
      return;
    }
    r.sb.addEventListener('updateend', () => svuota_coda(r));
    r.sb.addEventListener('error', () => mostra_nota(r, 'Errore nella riproduzione del video.'));
    svuota_coda(r);
  }, { once: true });
  r.video.src = r.url;
}

function ricevi_dati(r, dati) {
  if (r.modo === 'foto') return;
  if (r.modo === 'attesa') {
    // Gather the bytes until the init segment is whole, to read the codec from it.
    const tutto = r.testa ? new Uint8Array(r.testa.length + dati.length) : dati;
    if (r.testa) {
      tutto.set(r.testa);
      tutto.set(dati, r.testa.length);
    }
    if (!fine_init(tutto)) {
      r.testa = tutto;
      if (tutto.length > INIT_MAX) passa_a_foto(r, 'Il video della telecamera non è leggibile: si vede un\'immagine.');
      return;
    }
    r.testa = null;
    mostra_nota(r, '');
    apri_video(r, tutto);
    if (r.modo !== 'video') return;
    dati = tutto;
  }
  r.coda.push(dati);
  if (r.coda.length > CODA_MAX) r.coda.splice(0, r.coda.length - CODA_MAX);
  svuota_coda(r);
}

function camera_finita(r, motivo) {
  chiudi_riquadro(r);
  const perche = (motivo || 'Collegamento interrotto').trim().replace(/\.+$/, '');
  mostra_nota(r, `${perche}. Nuovo tentativo fra ${RIPROVA_MS / 1000} secondi...`);
  r.radice.dataset.finita = '1';
  in_attesa.add(r.id);
  if (!timer_riprova) timer_riprova = setTimeout(riprova, RIPROVA_MS);
}

// --- The grid connection -----------------------------------------------------------------------

async function apri_collegamento(ids) {
  const col = { controllo: new AbortController(), cams: new Set(ids) };
  collegamenti.add(col);
  for (const id of ids) {
    const r = riquadri.get(id);
    chiudi_riquadro(r);
    r.video.hidden = false;
    r.foto.hidden = true;
    delete r.radice.dataset.finita;
    mostra_nota(r, 'Collegamento...');
  }
  let motivo = 'Collegamento interrotto';
  try {
    const risposta = await fetch(`/api/vivo/griglia?cam=${ids.join(',')}`,
                                 { credentials: 'same-origin', signal: col.controllo.signal });
    if (risposta.status === 401) document.dispatchEvent(new CustomEvent('nvr-accesso-richiesto'));
    if (!risposta.ok) {
      const j = await risposta.json().catch(() => ({}));
      throw new Error(j.message || `Errore ${risposta.status}`);
    }
    const lettore = risposta.body.getReader();
    let resto = new Uint8Array(0);
    for (;;) {
      const { value, done } = await lettore.read();
      if (done) break;
      let b = value;
      if (resto.length) {
        b = new Uint8Array(resto.length + value.length);
        b.set(resto);
        b.set(value, resto.length);
      }
      let i = 0;
      const vista = new DataView(b.buffer, b.byteOffset, b.byteLength);
      while (i + INTESTAZIONE <= b.length) {
        const lunghezza = vista.getUint32(i + 5);
        if (i + INTESTAZIONE + lunghezza > b.length) break;
        const id = vista.getUint32(i);
        const dati = b.slice(i + INTESTAZIONE, i + INTESTAZIONE + lunghezza);
        const fine = b[i + 4] === 1;
        i += INTESTAZIONE + lunghezza;
        const r = riquadri.get(id);
        if (!r || !col.cams.has(id)) continue;
        if (!fine) {
          ricevi_dati(r, dati);
          continue;
        }
        col.cams.delete(id);
        camera_finita(r, new TextDecoder().decode(dati));
        if (!col.cams.size) col.controllo.abort();
      }
      resto = b.slice(i);
    }
  } catch (e) {
    if (e.name === 'AbortError') return;
    motivo = e.message && e.name !== 'TypeError' ? e.message : 'Server non raggiungibile';
  } finally {
    collegamenti.delete(col);
  }
  if (!attiva || col.controllo.signal.aborted) return;
  for (const id of col.cams) camera_finita(riquadri.get(id), motivo);
}

function riprova() {
  timer_riprova = null;
  if (!attiva || !in_attesa.size) return;
  let ids = [...in_attesa];
  in_attesa = new Set();
  // Too many retries each on their own connection would eat the browser's few: start over as one.
  if (collegamenti.size >= 3) {
    ferma();
    attiva = true;
    ids = [...riquadri.keys()];
  }
  apri_collegamento(ids);
}

function avvia() {
  if (attiva || document.hidden) return;
  attiva = true;
  if (riquadri.size) apri_collegamento([...riquadri.keys()]);
}

function ferma() {
  attiva = false;
  clearTimeout(timer_riprova);
  timer_riprova = null;
  in_attesa = new Set();
  for (const col of collegamenti) col.controllo.abort();
  collegamenti.clear();
  for (const r of riquadri.values()) chiudi_riquadro(r);
}

// --- The page ----------------------------------------------------------------------------------

function costruisci(sezione) {
  nodi = {
    errore: el('div', { hidden: true }),
    griglia: el('div', { class: 'griglia-vivo', id: 'griglia-vivo' }),
    nessuna: el('p', { class: 'tenue', hidden: true }, 'Nessuna telecamera: aggiungile dalla pagina ',
                el('a', { href: '#telecamere' }, 'Telecamere'), '.'),
  };
  sezione.append(
    el('p', { class: 'tenue' }, "Clicca un'immagine per ingrandirla, di nuovo per tornare alla griglia."),
    nodi.errore, nodi.nessuna, nodi.griglia);
  document.addEventListener('visibilitychange', () => {
    if (!nodi.griglia.isConnected || nodi.griglia.closest('[hidden]')) return;
    if (document.hidden) ferma();
    else avvia();
  });
  window.addEventListener('pagehide', ferma);
}

export const titolo = 'Dal vivo';

export async function mostra(sezione) {
  if (!nodi) costruisci(sezione);
  ferma();
  const r = await api('GET', '/api/telecamere');
  avviso(nodi.errore, r.ok ? '' : r.messaggio);
  if (!r.ok || sezione.hidden) return;  // left again while the list was on its way
  const cams = r.dati.telecamere || [];
  for (const r of riquadri.values()) r.radice.remove();
  riquadri.clear();
  for (const c of cams) riquadri.set(c.id, nuovo_riquadro(c));
  nodi.griglia.replaceChildren(...[...riquadri.values()].map((q) => q.radice));
  nodi.nessuna.hidden = cams.length > 0;
  avvia();
}

export function nascondi() {
  ferma();
}
