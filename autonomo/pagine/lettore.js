// The recordings of one camera over one day as a single timeline, through Media Source
// Extensions. Every stream of the day is placed so that media time t is wall-clock time
// origine + t (origine = start of the day): a stream's first frame goes at X-Nvr-Inizio - origine,
// so a gap between two runs is a hole in the buffered data and the joins inside a run are
// seamless (the server keeps decode times continuous there).
import { el } from './comune.js';

const AVANTI_MAX_S = 60;  // stop reading while this much is buffered ahead of the playing point
const DIETRO_S = 30;      // buffered data further behind than this is dropped
const ATTESA_MS = 250;    // back-pressure and "more recordings yet?" polling step
export const GIUNTO_S = 1.0;  // a segment starting this soon after the previous one's end continues its run

// Runs of a day's listing (sorted by inizio): [{da, a, primo, ultimo}] with da/a wall seconds and
// primo/ultimo indexes into the listing.
export function tratti_elenco(segmenti) {
  const tratti = [];
  segmenti.forEach((s, i) => {
    const t = tratti.at(-1);
    if (t && s.inizio - t.a <= GIUNTO_S) {
      t.a = Math.max(t.a, s.fine);
      t.ultimo = i;
    } else {
      tratti.push({ da: s.inizio, a: s.fine, primo: i, ultimo: i });
    }
  });
  return tratti;
}

// Where to ask the next stream from once a stream ended at wall time `fine`: the first listed
// run starting after it, or the rest of the run holding it when the stream stopped short (a
// changed sample description ends a stream inside a run). Null when nothing is left.
export function prossimo_da(tratti, fine) {
  for (const t of tratti) {
    if (t.a <= fine + 0.5) continue;
    return Math.max(t.da, fine + 0.05);
  }
  return null;
}

function fine_aggiornamento(sb) {
  return new Promise((fatto) => {
    const via = () => {
      sb.removeEventListener('updateend', via);
      sb.removeEventListener('error', via);
      fatto();
    };
    sb.addEventListener('updateend', via);
    sb.addEventListener('error', via);
  });
}

const pausa = (ms) => new Promise((r) => setTimeout(r, ms));

export class Lettore {
  // video: the <video> to play in; cam: camera id; origine: wall time of media time 0;
  // segmenti: the day's listing; su_nota(testo): a message for the viewer ('' clears it).
  constructor(video, { cam, origine, segmenti, su_nota }) {
    this.video = video;
    this.cam = cam;
    this.origine = origine;
    this.su_nota = su_nota || (() => {});
    this.gen = 0;              // bumped at every restart; stale loops see it and stop
    this.controllo = null;     // AbortController of the stream being read
    this.fila = Promise.resolve();  // SourceBuffer operations, one at a time
    this.dati = [];            // streams of the current chain: {da, a, finito} wall seconds
    this.attivo = false;       // a chain is reading or waiting for more recordings
    this.codec = '';
    this.sb = null;
    this.aggiorna_elenco(segmenti || []);
    video.dataset.origine = String(origine);
    this.ms = new MediaSource();
    this.url = URL.createObjectURL(this.ms);
    this.aperto = new Promise((fatto) => this.ms.addEventListener('sourceopen', fatto, { once: true }));
    video.src = this.url;
  }

  aggiorna_elenco(segmenti) {
    this.segmenti = segmenti;
    this.tratti = tratti_elenco(segmenti);
  }

  // Wall time of the playing point.
  ora() {
    return this.origine + this.video.currentTime;
  }

  // Whether the camera has video at wall time t: inside a listed run, and not past the real end
  // of a stream that finished earlier than the listing says.
  copre(t) {
    const r = this.tratti.find((x) => x.da - 0.3 <= t && t < x.a);
    if (!r) return false;
    for (const d of this.dati) if (d.finito && d.a <= t && d.a > r.da && t < r.a && r.a - d.a < 2) return false;
    return true;
  }

  // Wall time where the next recording after t starts (the stream's real start when known).
  prossimo_inizio(t) {
    const r = this.tratti.find((x) => x.da > t + 0.3);
    if (!r) return null;
    const d = this.dati.find((x) => x.da >= r.da - 0.3 && x.da <= r.da + 1.5);
    return d ? d.da : r.da;
  }

  // Whether wall time t is buffered with some margin after it.
  in_memoria(t) {
    const b = this.video.buffered;
    const x = t - this.origine;
    for (let i = 0; i < b.length; i++) if (b.start(i) - 0.05 <= x && x < b.end(i) - 0.1) return true;
    return false;
  }

  // Moves to wall time t: inside the buffered data only the playing point moves, elsewhere the
  // stream being read is dropped and a new one starts at t.
  vai(t) {
    if (this.attivo && this.in_memoria(t)) {
      this.video.currentTime = t - this.origine;
      return;
    }
    this.ricomincia(t);
  }

  ricomincia(t) {
    this.gen += 1;
    const gen = this.gen;
    this.controllo?.abort();
    this.dati = [];
    this.attivo = true;
    this.opera(async () => {
      await this.aperto;
      if (!this.sb || this.ms.readyState !== 'open') return;
      this.sb.abort();  // a stream cut in the middle of a box leaves the parser half-way
      if (this.sb.buffered.length) {
        this.sb.remove(0, Infinity);
        await fine_aggiornamento(this.sb);
      }
    });
    this.catena(gen, t);
  }

  chiudi() {
    this.gen += 1;
    this.attivo = false;
    this.controllo?.abort();
    this.video.pause();
    this.video.removeAttribute('src');
    this.video.load();
    URL.revokeObjectURL(this.url);
  }

  // Runs `fn` after every SourceBuffer operation queued before it.
  opera(fn) {
    const p = this.fila.then(fn);
    this.fila = p.catch(() => {});
    return p;
  }

  // Reads stream after stream from t on, as long as the restart that began it is the latest.
  async catena(gen, t) {
    let da = t;
    let prima = true;
    let ultima_fine = -Infinity;
    while (gen === this.gen) {
      if (this.prossimo_inizio(da - 0.6) === null && !this.copre(da)) {
        // Nothing recorded from here on (yet): wait for the listing to grow.
        if (prima) this.su_nota('Nessuna registrazione dopo questo momento.');
        await pausa(ATTESA_MS * 4);
        continue;
      }
      const esito = await this.leggi(gen, da, prima ? t : null);
      if (gen !== this.gen) return;
      if (esito.errore) {
        this.su_nota(esito.errore);
        if (esito.codice !== 404) return;  // a 404 is a run gone from the index meanwhile
      }
      prima = false;
      let fine = esito.fine ?? da;
      // A stream that ends where the previous one did (an unreadable file) skips that segment.
      if (fine <= ultima_fine + 0.1) {
        const s = this.segmenti.find((x) => x.inizio > fine + 0.5);
        fine = s ? s.inizio - 0.6 : fine + 60;
      }
      ultima_fine = fine;
      let prossimo = prossimo_da(this.tratti, fine);
      while (prossimo === null && gen === this.gen) {
        await pausa(ATTESA_MS * 4);
        prossimo = prossimo_da(this.tratti, fine);
      }
      da = prossimo;
    }
  }

  // One stream from wall time da; `posa` is where to put the playing point once data is there.
  // Answers {fine} (wall end of the appended data) or {errore, codice}.
  async leggi(gen, da, posa) {
    const controllo = new AbortController();
    this.controllo = controllo;
    let risposta;
    try {
      risposta = await fetch(`/api/flusso?cam=${this.cam}&da=${da.toFixed(3)}`,
                             { credentials: 'same-origin', signal: controllo.signal });
    } catch (e) {
      return { errore: e.name === 'AbortError' ? '' : 'Server non raggiungibile', codice: 0 };
    }
    if (risposta.status === 401) document.dispatchEvent(new CustomEvent('nvr-accesso-richiesto'));
    if (!risposta.ok) {
      const j = await risposta.json().catch(() => ({}));
      return { errore: j.message || `Errore ${risposta.status}`, codice: risposta.status };
    }
    const inizio = Number(risposta.headers.get('X-Nvr-Inizio'));
    const codec = risposta.headers.get('X-Nvr-Codec') || '';
    const tipo = `video/mp4; codecs="${codec}"`;
    if (!window.MediaSource || !MediaSource.isTypeSupported(tipo)) {
      controllo.abort();
      return { errore: `Questo browser non sa riprodurre il video di questa telecamera (${codec || 'formato sconosciuto'}).`, codice: 0 };
    }
    const tratto = { da: inizio, a: inizio, finito: false };
    const pronto = await this.opera(async () => {
      await this.aperto;
      if (gen !== this.gen || this.ms.readyState !== 'open') return false;
      // A stream that ended inside a box would leave the parser waiting for the rest of it.
      if (this.sb) this.sb.abort();
      if (!this.sb) {
        this.sb = this.ms.addSourceBuffer(tipo);
        // Room for the whole day (and a clock change) so the playing point can go anywhere.
        this.ms.duration = 90000;
      } else if (codec !== this.codec) {
        this.sb.changeType(tipo);
      }
      this.codec = codec;
      this.sb.timestampOffset = inizio - this.origine;
      return true;
    });
    if (!pronto) return {};
    this.dati.push(tratto);
    this.su_nota('');
    const lettore = risposta.body.getReader();
    try {
      for (;;) {
        await this.spazio(gen, tratto, posa);
        if (gen !== this.gen) return {};
        const { value, done } = await lettore.read();
        if (done) break;
        await this.aggiungi(gen, value, tratto);
        if (posa !== null && this.video.buffered.length) {
          this.video.currentTime = Math.max(posa, inizio) - this.origine;
          posa = null;
        }
      }
    } catch (e) {
      if (e.name === 'AbortError' || gen !== this.gen) return {};
      tratto.finito = true;
      return { fine: tratto.a };
    }
    tratto.finito = true;
    return { fine: tratto.a };
  }

  // Back-pressure: waits while the data read so far is far enough ahead of the playing point
  // (or of where it is about to be put).
  async spazio(gen, tratto, posa) {
    const qui = () => (posa !== null ? Math.max(posa, tratto.da) : this.ora());
    while (gen === this.gen && tratto.a - qui() > AVANTI_MAX_S) await pausa(ATTESA_MS);
  }

  async aggiungi(gen, pezzo, tratto) {
    await this.opera(async () => {
      if (gen !== this.gen || this.ms.readyState !== 'open') return;
      const sb = this.sb;
      const taglio = this.video.currentTime - DIETRO_S;
      if (sb.buffered.length && sb.buffered.start(0) < taglio - 1) {
        sb.remove(0, taglio);
        await fine_aggiornamento(sb);
      }
      try {
        sb.appendBuffer(pezzo);
      } catch (e) {
        if (e.name !== 'QuotaExceededError') throw e;
        // Full: keep only a few seconds behind and try once more.
        sb.remove(0, Math.max(0.1, this.video.currentTime - 5));
        await fine_aggiornamento(sb);
        sb.appendBuffer(pezzo);
      }
      await fine_aggiornamento(sb);
      const b = sb.buffered;
      // The range that holds (or touches) what this stream appended so far; the part behind the
      // playing point may have been trimmed away meanwhile.
      const x = tratto.da - this.origine;
      const finora = tratto.a - this.origine;
      for (let i = 0; i < b.length; i++) {
        if (b.end(i) > x + 0.01 && b.start(i) <= Math.max(x, finora) + 0.5) {
          tratto.a = Math.max(tratto.a, this.origine + b.end(i));
        }
      }
    });
  }
}

// Four corners in the text's colour (no font is sure to have a glyph for it).
function icona_schermo_intero() {
  const ns = 'http://www.w3.org/2000/svg';
  const svg = document.createElementNS(ns, 'svg');
  svg.setAttribute('viewBox', '0 0 16 16');
  svg.setAttribute('aria-hidden', 'true');
  const tratto = document.createElementNS(ns, 'path');
  tratto.setAttribute('d', 'M1 6V1h5M10 1h5v5M15 10v5h-5M6 15H1v-5');
  svg.append(tratto);
  return svg;
}

// A tile holding one camera's video, its name, the note shown when it has nothing to play and a
// button (or a double click on the video) that puts the tile on the whole screen; Escape leaves.
export function riquadro(nome, id) {
  const video = el('video', { playsInline: true, muted: true, 'aria-label': `Registrazione di ${nome}` });
  video.muted = true;
  const nota = el('p', { class: 'nota-vivo', role: 'status', hidden: true });
  const intero = el('button', { type: 'button', class: 'schermo-intero', 'aria-label': 'Schermo intero',
                                title: 'Schermo intero', 'aria-pressed': 'false' }, icona_schermo_intero());
  const radice = el('figure', { class: 'riquadro-lettore', dataset: { cam: String(id) } },
    video, el('figcaption', { class: 'nome-vivo' }, nome), nota, intero);
  const alterna = () => {
    if (document.fullscreenElement === radice) document.exitFullscreen().catch(() => {});
    else radice.requestFullscreen?.().catch(() => {});
  };
  intero.addEventListener('click', alterna);
  video.addEventListener('dblclick', alterna);
  radice.addEventListener('fullscreenchange', () => {
    intero.setAttribute('aria-pressed', String(document.fullscreenElement === radice));
  });
  return {
    radice, video, nota,
    scrivi(testo) {
      if (nota.textContent !== testo) nota.textContent = testo;
      nota.hidden = !testo;
    },
  };
}
