// Stato: the problems first, the recording switch, the system problem, one card per camera (with
// how old its last segment is), free space and the ffmpeg installation. Polled every few seconds; every refresh changes the existing nodes in
// place so that nothing flickers and focus stays where it was.
import { api, avviso, data_ora, el, numero, ora, testo } from './comune.js';

const PERIODO_MS = 3000;
const FOTO_MS = 10000;  // a camera card's picture is renewed this often
const MOTIVI = { continua: 'registrazione continua', orario: 'fascia oraria', evento: 'evento' };
// Why an enabled camera without errors is not recording, by mode.
const ATTESE = { sempre: 'in avvio', orari: 'fuori dalle fasce orarie', eventi: 'nessun evento attivo' };
const IN_CORSO = 'Installazione in corso...';

let nodi = null;
let timer = null;
let salute_camere = new Map();  // camera id -> its entry in /api/salute/dettagli
const schede = new Map();  // camera id -> { radice, parti }

function costruisci(sezione) {
  const interruttore = el('input', { type: 'checkbox', role: 'switch', id: 'stato-attivo' });
  interruttore.addEventListener('change', cambia_attivo);
  nodi = {
    problemi: el('ul', { class: 'lista-problemi', id: 'problemi', role: 'alert', hidden: true }),
    problema: el('div', { class: 'banner-problema', role: 'alert', id: 'stato-problema', hidden: true }),
    interruttore,
    etichetta_attivo: el('span', { id: 'stato-attivo-testo' }),
    errore: el('div', { hidden: true }),
    ffmpeg: el('div', { class: 'scheda', id: 'stato-ffmpeg', hidden: true }),
    spazio_testo: el('p', { id: 'stato-spazio-testo' }),
    spazio_barra: el('div', { class: 'barra-riempimento' }),
    cartella: el('p', { class: 'tenue' }),
    camere: el('div', { class: 'griglia-camere', id: 'stato-camere' }),
    nessuna: el('p', { class: 'tenue', hidden: true }, 'Nessuna telecamera: aggiungile dalla pagina ',
                el('a', { href: '#telecamere' }, 'Telecamere'), '.'),
  };
  nodi.barra = el('div', {
    class: 'barra', role: 'progressbar', 'aria-label': 'Spazio usato', 'aria-valuemin': '0',
    'aria-valuemax': '100',
  }, nodi.spazio_barra);
  const bottone = el('button', { type: 'button', id: 'installa-ffmpeg' }, 'Installa ffmpeg');
  bottone.addEventListener('click', installa);
  nodi.ffmpeg_bottone = bottone;
  nodi.ffmpeg_progresso = el('progress', { hidden: true, 'aria-label': 'Installazione in corso' });
  nodi.ffmpeg_testo = el('p', { role: 'status' });
  nodi.ffmpeg.append(
    el('h3', {}, 'ffmpeg non è installato'),
    el('p', {}, 'Senza ffmpeg non si registra nulla.'),
    bottone, nodi.ffmpeg_progresso, nodi.ffmpeg_testo);

  sezione.append(
    nodi.problemi,
    nodi.problema,
    el('div', { class: 'scheda riga-interruttore' },
       el('label', { for: 'stato-attivo', class: 'interruttore' }, nodi.interruttore,
          el('span', { class: 'cursore', 'aria-hidden': 'true' }), 'Registrazione'),
       nodi.etichetta_attivo),
    nodi.errore,
    nodi.ffmpeg,
    el('div', { class: 'scheda' }, el('h3', {}, 'Archivio'), nodi.cartella, nodi.barra,
       nodi.spazio_testo),
    el('h3', {}, 'Telecamere'),
    nodi.nessuna,
    nodi.camere);
}

async function cambia_attivo() {
  const acceso = nodi.interruttore.checked;
  nodi.interruttore.disabled = true;
  const r = await api('POST', '/api/nvr/config', { attivo: acceso ? 1 : 0 });
  nodi.interruttore.disabled = false;
  avviso(nodi.errore, r.ok ? '' : r.messaggio);
  delete nodi.errore.dataset.origine;
  if (!r.ok) nodi.interruttore.checked = !acceso;
  await aggiorna();
}

async function installa() {
  nodi.ffmpeg_bottone.disabled = true;
  const r = await api('POST', '/api/nvr/installa_ffmpeg');
  testo(nodi.ffmpeg_testo, r.ok ? r.dati.message : r.messaggio);
  nodi.ffmpeg_testo.className = r.ok ? '' : 'testo-errore';
  nodi.ffmpeg_bottone.disabled = false;
  await aggiorna();
}

function scheda_camera(c) {
  const parti = {
    nome: el('h4'),
    stato: el('span', { class: 'pastiglia' }),
    perche: el('dd'), da: el('dd'), file: el('dd'), gb: el('dd'), ultimo: el('dd'),
    errore: el('p', { class: 'testo-errore', hidden: true }),
    foto: el('img', { class: 'foto-camera', loading: 'lazy', alt: '', width: '320', height: '180' }),
  };
  // A camera without a picture shows its dark frame rather than a broken image.
  parti.foto.addEventListener('error', () => { parti.foto.style.visibility = 'hidden'; });
  parti.foto.addEventListener('load', () => { parti.foto.style.visibility = ''; });
  const radice = el('article', { class: 'scheda camera', dataset: { id: String(c.id) } },
    el('a', { href: '#vivo', title: 'Vedi dal vivo' }, parti.foto),
    el('div', { class: 'intestazione-camera' }, parti.nome, parti.stato),
    el('dl', { class: 'dati' },
       el('dt', {}, 'Perché'), parti.perche,
       el('dt', {}, 'Da'), parti.da,
       el('dt', {}, 'File'), parti.file,
       el('dt', {}, 'Spazio'), parti.gb,
       el('dt', {}, 'Ultimo segmento'), parti.ultimo),
    parti.errore);
  return { radice, parti };
}

function aggiorna_camera(s, c) {
  const p = s.parti;
  testo(p.nome, c.nome);
  p.foto.alt = `Ultima immagine di ${c.nome}`;
  // Refresh polling runs only while the page is shown and visible, so the picture follows it.
  if (!(Date.now() - (s.foto_ms || 0) < FOTO_MS)) {
    s.foto_ms = Date.now();
    p.foto.src = `/api/vivo/${c.id}/istantanea?t=${s.foto_ms}`;
  }
  let stato_testo, classe;
  if (!c.attiva) {
    stato_testo = 'disattivata'; classe = 'pastiglia spenta';
  } else if (c.registrando) {
    stato_testo = 'in registrazione'; classe = 'pastiglia registra';
  } else if (c.errore) {
    stato_testo = 'errore'; classe = 'pastiglia guasta';
  } else {
    stato_testo = 'ferma'; classe = 'pastiglia ferma';
  }
  testo(p.stato, stato_testo);
  if (p.stato.className !== classe) p.stato.className = classe;
  s.radice.dataset.registrando = c.registrando ? '1' : '0';
  let perche;
  if (c.registrando) perche = MOTIVI[c.motivo] || c.motivo || '—';
  else if (!c.attiva) perche = 'telecamera non attiva';
  else if (c.errore) perche = 'non riesce a registrare';
  else perche = ATTESE[c.modo] || `in attesa (modo ${c.modo})`;
  testo(p.perche, perche);
  testo(p.da, c.registrando && c.da ? data_ora(c.da) : '—');
  testo(p.file, c.file);
  testo(p.gb, `${numero(c.gb, 2)} GB`);
  const sc = salute_camere.get(c.id);
  const eta = sc ? sc.eta_ultimo_segmento : (c.ultimo ? Date.now() / 1000 - c.ultimo : null);
  testo(p.ultimo, eta == null ? 'nessun segmento' : `${da_quanto(eta)} fa`);
  p.ultimo.title = c.ultimo ? data_ora(c.ultimo) : '';
  testo(p.errore, c.errore || '');
  p.errore.hidden = !c.errore;
}

// "40 s", "3 min", "2 ore", "5 giorni": whole units, as a glance needs.
function da_quanto(secondi) {
  const s = Math.max(0, Math.floor(secondi));
  if (s < 60) return `${s} s`;
  if (s < 3600) return `${Math.floor(s / 60)} min`;
  if (s < 2 * 86400) return `${Math.floor(s / 3600)} ${Math.floor(s / 3600) === 1 ? 'ora' : 'ore'}`;
  return `${Math.floor(s / 86400)} giorni`;
}

// The health's problems, in the order the server gives them, rewritten only when they change.
function aggiorna_problemi(salute) {
  const testi = (salute.problemi || []).map((p) => p.testo);
  const attuali = [...nodi.problemi.children].map((li) => li.textContent);
  if (testi.join('\n') !== attuali.join('\n')) {
    nodi.problemi.replaceChildren(...testi.map((t) => el('li', {}, t)));
  }
  nodi.problemi.hidden = testi.length === 0;
}

function aggiorna_spazio(st) {
  testo(nodi.cartella, st.cartella ? `Cartella: ${st.cartella}${st.montata ? '' : ' (non collegata)'}`
                                   : 'Nessuna cartella di archivio scelta.');
  const sp = st.spazio;
  nodi.barra.hidden = !sp;
  if (!sp) {
    testo(nodi.spazio_testo, st.cartella ? 'Spazio libero non misurabile.' : '');
    return;
  }
  const pct = Math.max(0, Math.min(100, sp.usato_pct || 0));
  const larghezza = `${pct}%`;
  if (nodi.spazio_barra.style.width !== larghezza) nodi.spazio_barra.style.width = larghezza;
  nodi.spazio_barra.classList.toggle('quasi-piena', sp.libero_gb < (st.spazio_min_gb || 0) * 2);
  nodi.barra.setAttribute('aria-valuenow', String(pct));
  testo(nodi.spazio_testo,
        `${numero(sp.libero_gb)} GB liberi su ${numero(sp.totale_gb)} GB (${pct}% usato)`);
}

function aggiorna_ffmpeg(st) {
  const inst = st.installazione || '';
  nodi.ffmpeg.hidden = !!st.ffmpeg && !inst;
  if (st.ffmpeg) {
    if (inst) testo(nodi.ffmpeg_testo, inst);
    return;
  }
  const in_corso = inst === IN_CORSO;
  nodi.ffmpeg_progresso.hidden = !in_corso;
  nodi.ffmpeg_bottone.disabled = in_corso;
  if (inst) {
    testo(nodi.ffmpeg_testo, inst);
    nodi.ffmpeg_testo.className = in_corso ? '' : 'testo-errore';
  }
}

export async function aggiorna() {
  const [r, salute] = await Promise.all([api('GET', '/api/nvr/stato'),
                                         api('GET', '/api/salute/dettagli')]);
  if (!nodi) return;
  if (salute.ok) {
    aggiorna_problemi(salute.dati);
    salute_camere = new Map((salute.dati.telecamere || []).map((c) => [c.id, c]));
  }
  if (!r.ok) {
    avviso(nodi.errore, r.messaggio);
    nodi.errore.dataset.origine = 'aggiorna';
    return;
  }
  if (nodi.errore.dataset.origine === 'aggiorna') {
    avviso(nodi.errore, '');
    delete nodi.errore.dataset.origine;
  }
  const st = r.dati;
  testo(nodi.problema, st.problema || '');
  nodi.problema.hidden = !st.problema;
  if (document.activeElement !== nodi.interruttore && !nodi.interruttore.disabled) {
    nodi.interruttore.checked = !!st.attivo;
  }
  testo(nodi.etichetta_attivo, st.attivo ? 'accesa' : 'spenta');
  aggiorna_ffmpeg(st);
  aggiorna_spazio(st);

  const visti = new Set();
  let precedente = null;
  for (const c of st.telecamere || []) {
    visti.add(c.id);
    let s = schede.get(c.id);
    if (!s) {
      s = scheda_camera(c);
      schede.set(c.id, s);
    }
    aggiorna_camera(s, c);
    // Keep the API's order without moving nodes that are already in place.
    const atteso = precedente ? precedente.nextSibling : nodi.camere.firstChild;
    if (atteso !== s.radice) nodi.camere.insertBefore(s.radice, atteso);
    precedente = s.radice;
  }
  for (const [id, s] of schede) {
    if (!visti.has(id)) {
      s.radice.remove();
      schede.delete(id);
    }
  }
  nodi.nessuna.hidden = visti.size > 0;
  nodi.camere.dataset.aggiornato = ora(Date.now() / 1000);
}

export async function mostra(sezione) {
  if (!nodi) costruisci(sezione);
  await aggiorna();
  clearInterval(timer);
  timer = setInterval(() => {
    if (!document.hidden) aggiorna();
  }, PERIODO_MS);
}

export function nascondi() {
  clearInterval(timer);
  timer = null;
}
