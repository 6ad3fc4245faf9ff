// Registrazioni: pick a camera and a day, see the day's segments, gaps and events on a timeline,
// play from any moment (the <video> seeks inside a segment with range requests and moves on to
// the next segment by itself), download and delete.
import { api, avviso, conferma, durata, el, giorno_di, giorno_esteso, numero, ora } from './comune.js';
import { calendario } from './calendario.js';

const MOTIVI = { continua: 'continua', orario: 'orario', evento: 'evento' };
// Visible window of the timeline, in seconds, with its tick spacing.
const ZOOM = [
  { sec: 86400, passo: 3 * 3600, nome: '24 ore' },
  { sec: 6 * 3600, passo: 3600, nome: '6 ore' },
  { sec: 3600, passo: 600, nome: '1 ora' },
  { sec: 600, passo: 60, nome: '10 minuti' },
  { sec: 60, passo: 10, nome: '1 minuto' },
];
const BUCO_MIN_SEC = 2;  // segments are cut on key frames: smaller gaps are not real holes

let nodi = null;
let cam = 0;
let giorno = '';
let dati = null;           // last GET /api/nvr/registrazioni
let finestra = { da: 0, a: 0 };
let cursore = 0;           // epoch seconds: where Enter / the play button starts
let in_riproduzione = -1;  // index in dati.registrazioni of the segment in the video element

function costruisci(sezione) {
  nodi = {};
  nodi.errore = el('div', { hidden: true });
  nodi.esito = el('div', { hidden: true, id: 'esito-registrazioni' });
  nodi.camera = el('select', { id: 'reg-camera' });
  nodi.camera.addEventListener('change', async () => {
    cam = Number(nodi.camera.value);
    giorno = '';
    await carica_giorni();
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
  nodi.linea.addEventListener('click', (ev) => {
    const r = nodi.linea.getBoundingClientRect();
    const t = finestra.da + ((ev.clientX - r.left) / r.width) * (finestra.a - finestra.da);
    riproduci_da(t);
  });
  nodi.linea.addEventListener('keydown', tasto_linea);
  nodi.scala = el('div', { class: 'scala', 'aria-hidden': 'true' });
  nodi.riassunto = el('p', { class: 'tenue', id: 'reg-riassunto', 'aria-live': 'polite' });
  nodi.video = el('video', { id: 'video', controls: true, playsinline: true, preload: 'metadata' });
  nodi.video.addEventListener('timeupdate', segui_video);
  nodi.video.addEventListener('ended', prossimo);
  nodi.video.addEventListener('error', () => {
    if (in_riproduzione >= 0) avviso(nodi.esito, 'Questo segmento non si riesce a riprodurre.');
  });
  nodi.in_video = el('p', { class: 'tenue', id: 'reg-in-video', 'aria-live': 'polite' });
  nodi.elenco = el('div', { id: 'elenco-segmenti' });
  const el_giorno = el('button', { type: 'button', class: 'pericolo', id: 'elimina-giorno' }, 'Elimina il giorno');
  el_giorno.addEventListener('click', elimina_giorno);
  const el_camera = el('button', { type: 'button', class: 'pericolo', id: 'elimina-camera' }, 'Elimina tutta la telecamera');
  el_camera.addEventListener('click', elimina_camera);
  const el_tutto = el('button', { type: 'button', class: 'pericolo', id: 'elimina-tutto' }, 'Elimina tutto l\'archivio');
  el_tutto.addEventListener('click', elimina_tutto);
  nodi.titolo_giorno = el('h3', { id: 'reg-giorno' });
  const aggiorna = el('button', { type: 'button', class: 'secondario piccolo' }, 'Aggiorna');
  aggiorna.addEventListener('click', async () => {
    await carica_giorni();
  });

  sezione.append(
    nodi.errore,
    el('div', { class: 'riga-scelte' },
       el('div', { class: 'campo' }, el('label', { for: 'reg-camera' }, 'Telecamera'), nodi.camera),
       aggiorna),
    el('div', { class: 'disposizione-registrazioni' },
       el('div', { class: 'scheda' }, nodi.calendario.radice),
       el('div', { class: 'scheda colonna-video' },
          nodi.titolo_giorno, nodi.riassunto,
          el('div', { class: 'comandi-linea' },
             el('label', { for: 'reg-zoom' }, 'Mostra '), nodi.zoom, indietro, avanti),
          nodi.linea, nodi.scala,
          el('div', { class: 'legenda tenue', 'aria-hidden': 'true' },
             el('span', { class: 'campione segmento' }), 'registrato ',
             el('span', { class: 'campione buco' }), 'buco ',
             el('span', { class: 'campione evento' }), 'evento'),
          nodi.video, nodi.in_video)),
    nodi.esito,
    nodi.elenco,
    el('div', { class: 'azioni zona-pericolo' }, el_giorno, el_camera, el_tutto));
}

// --- Loading ---------------------------------------------------------------------------------

async function carica_camere() {
  const r = await api('GET', '/api/nvr/riassunto');
  if (!r.ok) {
    avviso(nodi.errore, r.messaggio);
    return false;
  }
  avviso(nodi.errore, '');
  const cams = r.dati.telecamere || [];
  const valori = cams.map((c) => String(c.id)).join(',');
  if (nodi.camera.dataset.valori !== valori) {
    nodi.camera.replaceChildren(...cams.map((c) => el('option', { value: String(c.id) }, c.nome)));
    nodi.camera.dataset.valori = valori;
  }
  if (!cams.some((c) => c.id === cam)) cam = cams.length ? cams[0].id : 0;
  nodi.camera.value = String(cam);
  return cams.length > 0;
}

async function carica_giorni() {
  const r = await api('GET', `/api/nvr/giorni?cam=${cam}`);
  const giorni = r.ok ? r.dati.giorni || [] : [];
  if (!r.ok) avviso(nodi.errore, r.messaggio);
  if (!giorno) giorno = giorni.length ? giorni[giorni.length - 1] : giorno_di(Date.now() / 1000);
  nodi.calendario.imposta(giorno, giorni);
  await carica_giorno();
}

async function carica_giorno() {
  const r = await api('GET', `/api/nvr/registrazioni?cam=${cam}&giorno=${encodeURIComponent(giorno)}`);
  nodi.titolo_giorno.textContent = giorno_esteso(giorno);
  if (!r.ok) {
    avviso(nodi.errore, r.messaggio);
    dati = null;
    disegna();
    return;
  }
  avviso(nodi.errore, '');
  const prima = dati;
  dati = r.dati;
  const segs = dati.registrazioni;
  const stesso = prima && prima.giorno === dati.giorno && prima.cam === cam;
  dati.cam = cam;
  if (!stesso) {
    ferma_video();
    cursore = segs.length ? Math.max(segs[0].inizio, dati.inizio_giorno) : dati.inizio_giorno;
    nodi.zoom.value = '0';
  }
  centra(cursore);
  disegna();
  elenca();
}

// --- Timeline --------------------------------------------------------------------------------

function centra(t) {
  if (!dati) return;
  const z = ZOOM[Number(nodi.zoom.value)];
  const lungo = Math.min(z.sec, dati.fine_giorno - dati.inizio_giorno);
  let da = t - lungo / 2;
  da = Math.max(dati.inizio_giorno, Math.min(da, dati.fine_giorno - lungo));
  finestra = { da, a: da + lungo };
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
    let buchi = 0;
    segs.forEach((s, i) => {
      const b = blocco('segmento', s.inizio, s.fine, `${ora(s.inizio)} – ${ora(s.fine)}`);
      if (b) {
        b.dataset.indice = String(i);
        figli.push(b);
      }
      const succ = segs[i + 1];
      if (succ && succ.inizio - s.fine > BUCO_MIN_SEC) {
        buchi += 1;
        const g = blocco('buco', s.fine, succ.inizio, `Nessuna registrazione dalle ${ora(s.fine)} alle ${ora(succ.inizio)}`);
        if (g) figli.push(g);
      }
    });
    if (dati.in_corso && dati.in_corso.da) {
      const ora_adesso = Math.min(Date.now() / 1000, dati.fine_giorno);
      const c = blocco('in-corso', Math.max(dati.in_corso.da, segs.length ? segs[segs.length - 1].fine : 0), ora_adesso,
                       'Registrazione in corso, non ancora in archivio');
      if (c) figli.push(c);
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
      ? `${segs.length} segmenti, ${durata(sec)} registrati, ${numero(mb)} MB, ${buchi} buchi, ${dati.eventi.length} eventi` +
        (dati.archivio_ok ? '' : ' — archivio non collegato: i file potrebbero mancare')
      : 'Nessuna registrazione in questo giorno.';
  }
  figli.push(el('div', { class: 'cursore', id: 'cursore-linea', style: `left:${x(cursore)}%`, hidden: !dati }));
  nodi.linea.replaceChildren(...figli);
  nodi.scala.replaceChildren(...scala);
  aggiorna_cursore();
}

function aggiorna_cursore() {
  const c = nodi.linea.querySelector('.cursore');
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
    riproduci_da(cursore);
    return;
  } else {
    return;
  }
  ev.preventDefault();
  cursore = Math.max(dati.inizio_giorno, Math.min(t, dati.fine_giorno - 1));
  if (cursore < finestra.da || cursore > finestra.a) {
    centra(cursore);
    disegna();
  } else {
    aggiorna_cursore();
  }
}

// --- Playback --------------------------------------------------------------------------------

// Plays from moment t: inside a segment from that point, in a gap from the next segment.
function riproduci_da(t) {
  if (!dati) return;
  const segs = dati.registrazioni;
  let i = segs.findIndex((s) => t >= s.inizio && t < s.fine);
  let offset = 0;
  if (i >= 0) offset = t - segs[i].inizio;
  else i = segs.findIndex((s) => s.inizio > t);
  cursore = i >= 0 ? segs[i].inizio + offset : t;
  aggiorna_cursore();
  if (i < 0) {
    nodi.in_video.textContent = `Nessuna registrazione dopo le ${ora(t)}.`;
    return;
  }
  carica_segmento(i, offset);
}

function carica_segmento(i, offset) {
  const s = dati.registrazioni[i];
  const v = nodi.video;
  in_riproduzione = i;
  avviso(nodi.esito, '');
  nodi.in_video.textContent = `Segmento delle ${ora(s.inizio)} (${durata(s.durata)})`;
  for (const b of nodi.linea.querySelectorAll('.segmento.attivo')) b.classList.remove('attivo');
  nodi.linea.querySelector(`.segmento[data-indice="${i}"]`)?.classList.add('attivo');
  const avvia = () => {
    if (offset > 0) v.currentTime = Math.min(offset, Math.max(0, (v.duration || offset) - 0.1));
    v.play().catch(() => {});  // autoplay refused: the controls are there
  };
  if (v.dataset.url === s.url && v.readyState >= 1) {
    avvia();
    return;
  }
  v.dataset.url = s.url;
  v.src = s.url;
  v.addEventListener('loadedmetadata', avvia, { once: true });
  v.load();
}

function prossimo() {
  if (!dati || in_riproduzione < 0) return;
  const i = in_riproduzione + 1;
  if (i < dati.registrazioni.length) carica_segmento(i, 0);
  else nodi.in_video.textContent = 'Fine delle registrazioni di questo giorno.';
}

function segui_video() {
  if (!dati || in_riproduzione < 0) return;
  const s = dati.registrazioni[in_riproduzione];
  if (!s) return;
  cursore = s.inizio + nodi.video.currentTime;
  if (!nodi.video.paused && (cursore < finestra.da || cursore > finestra.a)) {
    centra(cursore);
    disegna();
  } else {
    aggiorna_cursore();
  }
}

function ferma_video() {
  in_riproduzione = -1;
  const v = nodi.video;
  v.pause();
  v.removeAttribute('src');
  delete v.dataset.url;
  v.load();
  nodi.in_video.textContent = '';
}

// --- Segment list and deletion ---------------------------------------------------------------

function elenca() {
  const segs = dati ? dati.registrazioni : [];
  if (!segs.length) {
    nodi.elenco.replaceChildren();
    return;
  }
  const righe = segs.map((s, i) => {
    const gioca = el('button', { type: 'button', class: 'secondario piccolo' }, 'Riproduci');
    gioca.addEventListener('click', () => {
      cursore = s.inizio;
      centra(cursore);
      disegna();
      carica_segmento(i, 0);
      nodi.video.focus();
    });
    const nome = `${giorno}_${ora(s.inizio).replace(/:/g, '-')}.mp4`;
    const scarica = el('a', { class: 'bottone secondario piccolo', href: `${s.url}?scarica=1`, download: nome }, 'Scarica');
    const togli = el('button', { type: 'button', class: 'pericolo piccolo' }, 'Elimina');
    togli.addEventListener('click', () => elimina_segmento(s));
    return el('tr', { dataset: { id: String(s.id) } },
      el('td', {}, ora(s.inizio)), el('td', {}, durata(s.durata)), el('td', {}, `${numero(s.mb)} MB`),
      el('td', {}, MOTIVI[s.motivo] || s.motivo || ''),
      el('td', { class: 'azioni-riga' }, gioca, scarica, togli));
  });
  nodi.elenco.replaceChildren(el('div', { class: 'scorri' }, el('table', { class: 'tabella' },
    el('caption', {}, 'Segmenti del giorno'),
    el('thead', {}, el('tr', {}, ['Inizio', 'Durata', 'Dimensione', 'Motivo', ''].map((t) => el('th', { scope: 'col' }, t)))),
    el('tbody', {}, righe))));
}

function nome_camera() {
  return nodi.camera.selectedOptions[0]?.textContent || `Telecamera ${cam}`;
}

async function dopo_eliminazione(r) {
  if (!r.ok) {
    avviso(nodi.esito, r.messaggio);
    return;
  }
  const d = r.dati;
  avviso(nodi.esito, d.voci !== undefined ? `Eliminate ${d.voci} registrazioni (${d.file} file).` : 'Eliminata.', 'ok');
  ferma_video();
  dati = null;
  await carica_giorni();
}

async function elimina_segmento(s) {
  const si = await conferma(`Eliminare il segmento di ${nome_camera()} delle ${ora(s.inizio)} del ${giorno_esteso(giorno)} ` +
                            `(${durata(s.durata)}, ${numero(s.mb)} MB)? Il file verrà cancellato.`);
  if (!si) return;
  const r = await api('DELETE', `/api/nvr/registrazione/${s.id}`);
  await dopo_eliminazione(r);
}

async function elimina_giorno() {
  const segs = dati ? dati.registrazioni : [];
  const mb = segs.reduce((a, s) => a + s.mb, 0);
  const si = await conferma(`Eliminare tutte le registrazioni di ${nome_camera()} del ${giorno_esteso(giorno)}? ` +
    `Verranno cancellati ${segs.length} segmenti (${numero(mb)} MB) e gli eventi di quel giorno.`);
  if (!si) return;
  const r = await api('DELETE', '/api/nvr/registrazioni', { cam, giorno });
  await dopo_eliminazione(r);
}

async function riepilogo_archivio() {
  const r = await api('GET', '/api/nvr/archivio');
  return r.ok ? r.dati : null;
}

async function elimina_camera() {
  const a = await riepilogo_archivio();
  const c = a ? a.telecamere.find((t) => t.id === cam) : null;
  const quanto = c ? `${c.n} segmenti (${numero(c.gb, 2)} GB) in ${c.giorni.length} giorni` : 'tutte le registrazioni';
  const si = await conferma(`Eliminare tutte le registrazioni di ${nome_camera()}? Verranno cancellati ${quanto} ` +
                            'e tutti i suoi eventi.');
  if (!si) return;
  const r = await api('DELETE', '/api/nvr/registrazioni', { cam });
  await dopo_eliminazione(r);
}

async function elimina_tutto() {
  const a = await riepilogo_archivio();
  const quanto = a ? `${a.totale.n} segmenti (${numero(a.totale.gb, 2)} GB) di ${a.telecamere.length} telecamere` : 'ogni registrazione';
  const si = await conferma(`Svuotare tutto l'archivio? Verranno cancellati ${quanto} e tutti gli eventi; ` +
                            'le registrazioni in corso ripartono da capo.', 'Svuota tutto');
  if (!si) return;
  const r = await api('DELETE', '/api/nvr/registrazioni', { tutto: true });
  await dopo_eliminazione(r);
}

export async function mostra(sezione) {
  if (!nodi) costruisci(sezione);
  // #registrazioni?cam=1&giorno=2026-01-31 opens that camera and day (links of the Archivio page).
  const q = new URLSearchParams(location.hash.split('?')[1] || '');
  if (q.get('cam')) cam = Number(q.get('cam'));
  if (/^\d{4}-\d{2}-\d{2}$/.test(q.get('giorno') || '')) giorno = q.get('giorno');
  if (await carica_camere()) await carica_giorni();
  else {
    nodi.riassunto.textContent = 'Nessuna telecamera configurata.';
    nodi.calendario.imposta(giorno_di(Date.now() / 1000), []);
  }
}

export function nascondi() {
  if (nodi) nodi.video.pause();
}
