// Registrazioni: pick a camera and a day, see the day's segments, gaps and events on a timeline
// and play the day as one continuous video (lettore.js), alone or side by side with up to three
// other cameras at the same moment (sincronia.js); export a span (esportazione.js), download and
// delete segments (elenco_segmenti.js).
import { api, avviso, durata, el, giorno_di, giorno_esteso, numero, ora } from './comune.js';
import { calendario } from './calendario.js';
import { Lettore, riquadro } from './lettore.js';
import { Sincronia } from './sincronia.js';
import { esportazione } from './esportazione.js';
import { bolla_linea } from './anteprime.js';
import { elenco_segmenti } from './elenco_segmenti.js';
import { scelta_camere } from './scelta_camere.js';
import { buchi_elenco, comandi_video } from './comandi_video.js';

// Visible window of the timeline, in seconds, with its tick spacing.
const ZOOM = [
  { sec: 86400, passo: 3 * 3600, nome: '24 ore' },
  { sec: 6 * 3600, passo: 3600, nome: '6 ore' },
  { sec: 3600, passo: 600, nome: '1 ora' },
  { sec: 600, passo: 60, nome: '10 minuti' },
  { sec: 60, passo: 10, nome: '1 minuto' },
];
const AGGIORNA_MS = 10000;    // listing refresh while today's recordings grow

let nodi = null;
let scelta = null;         // the camera shown and the ones beside it
let giorno = '';
let dati = null;           // last GET /api/nvr/registrazioni of the chosen camera
let finestra = { da: 0, a: 0 };
let cursore = 0;           // the clock: wall time of the playing moment
let trascina = null;       // pointer id while the timeline is dragged
let segni = { da: null, a: null };  // export span marked on the timeline
let sinc = null;
let riquadri = [];         // tiles of the players, the chosen camera first
let chiave_lettori = '';   // day + cameras the players were made for
let timer_elenco = null;

function costruisci(sezione) {
  nodi = {};
  nodi.errore = el('div', { hidden: true });
  scelta = scelta_camere({
    su_camera: async () => {
      giorno = '';
      await carica_giorni();
    },
    su_affiancate: carica_giorno,
  });
  nodi.calendario = calendario(async (g) => {
    giorno = g;
    await carica_giorno();
  });
  nodi.zoom = el('select', { id: 'reg-zoom' }, ZOOM.map((z, i) => el('option', { value: String(i) }, z.nome)));
  nodi.zoom.addEventListener('change', () => {
    centra(cursore);
    disegna();
  });
  const indietro = el('button', { type: 'button', class: 'secondario piccolo', 'aria-label': 'Sposta indietro' }, '◀');
  const avanti = el('button', { type: 'button', class: 'secondario piccolo', 'aria-label': 'Sposta avanti' }, '▶');
  indietro.addEventListener('click', () => sposta(-1));
  avanti.addEventListener('click', () => sposta(1));
  nodi.linea = el('div', {
    class: 'linea-tempo', id: 'linea-tempo', role: 'slider', tabindex: '0',
    'aria-label': 'Momento da riprodurre', 'aria-valuemin': '0', 'aria-valuemax': '1440',
  });
  nodi.linea.addEventListener('pointerdown', premi_linea);
  nodi.linea.addEventListener('pointermove', muovi_linea);
  nodi.linea.addEventListener('pointerup', lascia_linea);
  nodi.linea.addEventListener('pointercancel', () => {
    trascina = null;
    nascondi_bolla();
  });
  nodi.linea.addEventListener('pointerleave', () => {
    if (trascina === null) nascondi_bolla();
  });
  nodi.linea.addEventListener('keydown', tasto_linea);
  nodi.bolla = bolla_linea();
  nodi.scala = el('div', { class: 'scala', 'aria-hidden': 'true' });
  nodi.riassunto = el('p', { class: 'tenue', id: 'reg-riassunto', 'aria-live': 'polite' });
  nodi.lettori = el('div', { class: 'griglia-lettori', id: 'reg-lettori' });
  nodi.in_video = el('p', { class: 'tenue', id: 'reg-in-video', 'aria-live': 'polite' });

  sinc = new Sincronia({ su_ora: segui_orologio, su_fine: () => testo_stato('Fine delle registrazioni di questo giorno.') });
  nodi.comandi = comandi_video({
    sinc,
    giorno: () => dati,
    momento: () => cursore,
    vai,
    nota: testo_stato,
    segna: (quale) => (quale === 'inizio' ? nodi.esporta.segna_inizio() : nodi.esporta.segna_fine()),
  });
  nodi.esporta = esportazione({
    momento: () => cursore,
    contesto: () => (dati ? { cam: scelta.cam, inizio_giorno: dati.inizio_giorno } : null),
    su_segni: (da, a) => {
      segni = { da, a };
      disegna();
    },
  });
  nodi.elenco = elenco_segmenti({
    contesto: () => ({ cam: scelta.cam, nome: scelta.nome(scelta.cam), giorno, segmenti: dati ? dati.registrazioni : [] }),
    riproduci: (s) => {
      vai(s.inizio);
      centra(cursore);
      disegna();
      if (!sinc.suona) nodi.comandi.alterna();
    },
    dopo: async () => {
      ferma_lettori();
      dati = null;
      await carica_giorni();
    },
  });
  nodi.titolo_giorno = el('h3', { id: 'reg-giorno' });
  const aggiorna = el('button', { type: 'button', class: 'secondario piccolo' }, 'Aggiorna');
  aggiorna.addEventListener('click', async () => {
    await carica_giorni();
  });

  sezione.append(
    nodi.errore,
    el('div', { class: 'riga-scelte' }, scelta.campo, aggiorna, scelta.affianca),
    el('div', { class: 'disposizione-registrazioni' },
       el('div', { class: 'scheda' }, nodi.calendario.radice),
       el('div', { class: 'scheda colonna-video' },
          nodi.titolo_giorno, nodi.riassunto,
          el('div', { class: 'comandi-linea' },
             el('label', { for: 'reg-zoom' }, 'Mostra '), nodi.zoom, indietro, avanti),
          el('div', { class: 'contenitore-linea' }, nodi.linea, nodi.bolla.radice),
          nodi.scala,
          el('div', { class: 'legenda tenue', 'aria-hidden': 'true' },
             el('span', { class: 'campione segmento' }), 'registrato ',
             el('span', { class: 'campione buco' }), 'buco ',
             el('span', { class: 'campione evento' }), 'evento ',
             el('span', { class: 'campione segno' }), 'da esportare'),
          nodi.lettori, nodi.comandi.radice, nodi.comandi.legenda, nodi.in_video)),
    nodi.esporta.radice,
    ...nodi.elenco.radici);
}

function plurale(n, uno, tanti) {
  return `${n} ${n === 1 ? uno : tanti}`;
}

function testo_stato(t) {
  if (nodi.in_video.textContent !== t) nodi.in_video.textContent = t;
}

// --- Loading ---------------------------------------------------------------------------------

async function carica_camere() {
  const errore = await scelta.carica();
  avviso(nodi.errore, errore);
  return !errore && scelta.cam !== 0;
}

async function carica_giorni() {
  const r = await api('GET', `/api/nvr/giorni?cam=${scelta.cam}`);
  const giorni = r.ok ? r.dati.giorni || [] : [];
  if (!r.ok) avviso(nodi.errore, r.messaggio);
  if (!giorno) giorno = giorni.length ? giorni[giorni.length - 1] : giorno_di(Date.now() / 1000);
  nodi.calendario.imposta(giorno, giorni);
  await carica_giorno();
}

async function elenco_di(id) {
  return api('GET', `/api/nvr/registrazioni?cam=${id}&giorno=${encodeURIComponent(giorno)}`);
}

async function carica_giorno() {
  const ids = scelta.ids();
  const risposte = await Promise.all(ids.map(elenco_di));
  const r = risposte[0];
  nodi.titolo_giorno.textContent = giorno_esteso(giorno);
  if (!r.ok) {
    avviso(nodi.errore, r.messaggio);
    dati = null;
    prepara_lettori([], []);
    disegna();
    nodi.elenco.elenca();
    return;
  }
  avviso(nodi.errore, '');
  dati = r.dati;
  dati.cam = scelta.cam;
  const elenchi = risposte.map((x) => (x.ok ? x.dati.registrazioni : []));
  const stesso_giorno = chiave_lettori.startsWith(`${giorno}|${scelta.cam},`) || chiave_lettori === `${giorno}|${scelta.cam}`;
  const suonava = sinc.suona;
  if (prepara_lettori(ids, elenchi)) {
    const segs = dati.registrazioni;
    testo_stato('');
    if (stesso_giorno) {
      // Only the cameras beside it changed: same moment, same state.
      sinc.vai(cursore);
      if (suonava) nodi.comandi.alterna();
    } else {
      cursore = segs.length ? Math.max(segs[0].inizio, dati.inizio_giorno) : dati.inizio_giorno;
      nodi.zoom.value = '0';
      if (segs.length) sinc.vai(cursore);
      nodi.esporta.riparti();
    }
  }
  centra(cursore);
  disegna();
  nodi.elenco.elenca();
  programma_aggiornamento();
}

// Makes the players for the day and cameras shown, or hands the fresh listings to the players
// already there. True when they are new.
function prepara_lettori(ids, elenchi) {
  const chiave = dati ? `${giorno}|${ids.join(',')}` : '';
  if (chiave && chiave === chiave_lettori) {
    sinc.lettori.forEach((p, i) => p.aggiorna_elenco(elenchi[i]));
    return false;
  }
  sinc.svuota();
  nodi.comandi.aggiorna();
  chiave_lettori = chiave;
  riquadri = [];
  const lettori = [];
  ids.forEach((id, i) => {
    const q = riquadro(scelta.nome(id), id);
    if (i === 0) q.video.id = 'video';
    riquadri.push(q);
    lettori.push(new Lettore(q.video, { cam: id, origine: dati.inizio_giorno, segmenti: elenchi[i], su_nota: q.scrivi }));
  });
  nodi.lettori.className = `griglia-lettori quanti-${ids.length}`;
  nodi.lettori.replaceChildren(...riquadri.map((q) => q.radice));
  sinc.imposta(lettori, riquadri);
  sinc.imposta_velocita(nodi.comandi.velocita());
  return true;
}

// Today's recordings grow while they are watched: the listings are read again now and then.
function programma_aggiornamento() {
  clearTimeout(timer_elenco);
  timer_elenco = null;
  if (!dati || Date.now() / 1000 > dati.fine_giorno || nodi.linea.closest('[hidden]')) return;
  timer_elenco = setTimeout(async () => {
    timer_elenco = null;
    if (!dati || nodi.linea.closest('[hidden]')) return;
    const prima = dati.registrazioni.length;
    const ids = sinc.lettori.map((p) => p.cam);
    const risposte = await Promise.all(ids.map(elenco_di));
    if (risposte[0].ok && risposte[0].dati.giorno === dati.giorno && ids[0] === scelta.cam) {
      dati = { ...risposte[0].dati, cam: scelta.cam };
      risposte.forEach((x, i) => { if (x.ok) sinc.lettori[i]?.aggiorna_elenco(x.dati.registrazioni); });
      disegna();
      if (dati.registrazioni.length !== prima) nodi.elenco.elenca();
    }
    programma_aggiornamento();
  }, AGGIORNA_MS);
}

// --- Playback controls -----------------------------------------------------------------------

function vai(t, perche) {
  if (!dati) return;
  testo_stato(perche || '');
  sinc.vai(Math.max(dati.inizio_giorno, Math.min(t, dati.fine_giorno - 0.5)));
}

// The window follows the moment whenever it moves (playing, or a jump while paused), so a window
// scrolled by hand while paused stays where it was put.
function segui_orologio(t) {
  const mosso = t !== cursore;
  cursore = t;
  nodi.comandi.aggiorna();
  if (!dati) return;
  nodi.comandi.orologio(t);
  const lungo = finestra.a - finestra.da;
  if (mosso && trascina === null && (t < finestra.da || t > finestra.a - lungo * 0.02)) {
    centra(t);
    disegna();
  } else {
    aggiorna_cursore();
  }
}

// --- Timeline --------------------------------------------------------------------------------

function centra(t) {
  if (!dati) return;
  const z = ZOOM[Number(nodi.zoom.value)];
  const lungo = Math.min(z.sec, dati.fine_giorno - dati.inizio_giorno);
  let da = t - lungo / 2;
  da = Math.max(dati.inizio_giorno, Math.min(da, dati.fine_giorno - lungo));
  finestra = { da, a: da + lungo };
  nodi.linea.dataset.da = String(finestra.da);
  nodi.linea.dataset.a = String(finestra.a);
}

function sposta(verso) {
  if (!dati) return;
  const lungo = finestra.a - finestra.da;
  centra((finestra.da + finestra.a) / 2 + verso * lungo * 0.75);
  disegna();
}

function x(t) {
  return ((t - finestra.da) / (finestra.a - finestra.da)) * 100;
}

function blocco(classe, da, a, titolo) {
  const s = Math.max(da, finestra.da);
  const f = Math.min(a, finestra.a);
  if (f <= s) return null;
  return el('div', { class: classe, title: titolo, style: `left:${x(s)}%;width:${Math.max(x(f) - x(s), 0.15)}%` });
}

function disegna() {
  const figli = [];
  const scala = [];
  if (dati) {
    const segs = dati.registrazioni;
    segs.forEach((s, i) => {
      const b = blocco('segmento', s.inizio, s.fine, `${ora(s.inizio)} – ${ora(s.fine)}`);
      if (b) {
        b.dataset.indice = String(i);
        figli.push(b);
      }
    });
    const buchi = buchi_elenco(segs);
    for (const g of buchi) {
      const b = blocco('buco', g.da, g.a, `Nessuna registrazione dalle ${ora(g.da)} alle ${ora(g.a)}`);
      if (b) figli.push(b);
    }
    if (dati.in_corso && dati.in_corso.da) {
      const ora_adesso = Math.min(Date.now() / 1000, dati.fine_giorno);
      const c = blocco('in-corso', Math.max(dati.in_corso.da, segs.length ? segs[segs.length - 1].fine : 0), ora_adesso,
                       'Registrazione in corso, non ancora in archivio');
      if (c) figli.push(c);
    }
    if (segni.da !== null && segni.a !== null && segni.a > segni.da) {
      const s = blocco('segno', segni.da, segni.a, `Da esportare: dalle ${ora(segni.da)} alle ${ora(segni.a)}`);
      if (s) figli.push(s);
    }
    for (const e of dati.eventi) {
      if (e.ts < finestra.da || e.ts > finestra.a) continue;
      figli.push(el('div', {
        class: `evento ${e.stato === 'on' ? 'acceso' : 'spento'}`, style: `left:${x(e.ts)}%`,
        title: `${ora(e.ts)} ${e.entita}: ${e.stato}`,
      }));
    }
    const passo = ZOOM[Number(nodi.zoom.value)].passo;
    const primo = dati.inizio_giorno + Math.ceil((finestra.da - dati.inizio_giorno) / passo) * passo;
    for (let t = primo; t <= finestra.a + 0.001; t += passo) {
      const etichetta = passo >= 60 ? ora(t).slice(0, 5) : ora(t);
      scala.push(el('span', { style: `left:${x(t)}%` }, t >= dati.fine_giorno ? '24:00' : etichetta));
    }
    const mb = segs.reduce((a, s) => a + s.mb, 0);
    const sec = segs.reduce((a, s) => a + s.durata, 0);
    nodi.riassunto.textContent = segs.length
      ? `${segs.length} segmenti, ${durata(sec)} registrati, ${numero(mb)} MB, ${plurale(buchi.length, 'buco', 'buchi')}, ${plurale(dati.eventi.length, 'evento', 'eventi')}` +
        (dati.archivio_ok ? '' : ' — archivio non collegato: i file potrebbero mancare')
      : 'Nessuna registrazione in questo giorno.';
  } else {
    nodi.comandi.orologio(null);
  }
  figli.push(el('div', { class: 'cursore', id: 'cursore-linea', style: `left:${x(cursore)}%`, hidden: !dati }));
  figli.push(el('div', { class: 'cursore ombra', id: 'ombra-linea', hidden: true }));
  nodi.linea.replaceChildren(...figli);
  nodi.scala.replaceChildren(...scala);
  aggiorna_cursore();
}

function aggiorna_cursore() {
  const c = nodi.linea.querySelector('#cursore-linea');
  if (!c || !dati) return;
  if (cursore < finestra.da || cursore > finestra.a) {
    c.hidden = true;
  } else {
    c.hidden = false;
    c.style.left = `${x(cursore)}%`;
  }
  nodi.linea.setAttribute('aria-valuenow', String(Math.round((cursore - dati.inizio_giorno) / 60)));
  nodi.linea.setAttribute('aria-valuetext', ora(cursore));
}

function tempo_di(ev) {
  const r = nodi.linea.getBoundingClientRect();
  const f = Math.max(0, Math.min(1, (ev.clientX - r.left) / r.width));
  return finestra.da + f * (finestra.a - finestra.da);
}

function premi_linea(ev) {
  if (!dati || ev.button !== 0) return;
  trascina = ev.pointerId;
  nodi.linea.setPointerCapture(ev.pointerId);
  mostra_bolla(tempo_di(ev));
}

function muovi_linea(ev) {
  if (!dati) return;
  mostra_bolla(tempo_di(ev));
}

function lascia_linea(ev) {
  if (trascina !== ev.pointerId) return;
  trascina = null;
  nodi.linea.releasePointerCapture(ev.pointerId);
  nascondi_bolla();
  vai(tempo_di(ev));
}

// The time and the picture under the pointer (and, while dragging, where the release will go),
// the picture on a grid a little finer than a pixel of the timeline.
function mostra_bolla(t) {
  const p = x(t);
  nodi.bolla.mostra(t, p, scelta.cam, dati ? dati.registrazioni : [],
                    Math.max(1, Math.round((finestra.a - finestra.da) / 400)));
  const ombra = nodi.linea.querySelector('#ombra-linea');
  if (ombra) {
    ombra.hidden = trascina === null;
    ombra.style.left = `${p}%`;
  }
}

function nascondi_bolla() {
  nodi.bolla.nascondi();
  const ombra = nodi.linea.querySelector('#ombra-linea');
  if (ombra) ombra.hidden = true;
}

function tasto_linea(ev) {
  if (!dati) return;
  const passo = ZOOM[Number(nodi.zoom.value)].passo / (ev.shiftKey ? 1 : 6);
  let t = null;
  if (ev.key === 'ArrowRight' || ev.key === 'ArrowUp') t = cursore + passo;
  else if (ev.key === 'ArrowLeft' || ev.key === 'ArrowDown') t = cursore - passo;
  else if (ev.key === 'Home') t = dati.inizio_giorno;
  else if (ev.key === 'End') t = dati.fine_giorno - 1;
  else if (ev.key === 'Enter' || ev.key === ' ') {
    ev.preventDefault();
    nodi.comandi.alterna();
    return;
  } else {
    return;
  }
  ev.preventDefault();
  vai(t);
  if (cursore < finestra.da || cursore > finestra.a) {
    centra(cursore);
    disegna();
  } else {
    aggiorna_cursore();
  }
}

function ferma_lettori() {
  prepara_lettori([], []);
  chiave_lettori = '';
  testo_stato('');
}

export async function mostra(sezione) {
  if (!nodi) costruisci(sezione);
  // #registrazioni?cam=1&giorno=2026-01-31 opens that camera and day (links of the Archivio page).
  const q = new URLSearchParams(location.hash.split('?')[1] || '');
  if (q.get('cam')) scelta.scegli(Number(q.get('cam')));
  if (/^\d{4}-\d{2}-\d{2}$/.test(q.get('giorno') || '')) giorno = q.get('giorno');
  if (await carica_camere()) await carica_giorni();
  else {
    nodi.riassunto.textContent = 'Nessuna telecamera configurata.';
    nodi.calendario.imposta(giorno_di(Date.now() / 1000), []);
  }
}

export function nascondi() {
  if (!nodi) return;
  clearTimeout(timer_elenco);
  timer_elenco = null;
  sinc.pausa();
  nodi.comandi.aggiorna();
}
