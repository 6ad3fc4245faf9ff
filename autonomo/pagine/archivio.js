// Archivio: what the archive holds per camera and per day, the totals, and the index rows whose
// files are gone.
import { api, avviso, durata, el, giorno_esteso, numero } from './comune.js';

let nodi = null;

function costruisci(sezione) {
  nodi = {
    errore: el('div', { hidden: true }),
    riepilogo: el('div', { class: 'scheda', id: 'archivio-totale' }),
    esito: el('div', { hidden: true, id: 'esito-archivio' }),
    camere: el('div', { id: 'archivio-camere' }),
  };
  sezione.append(nodi.errore, nodi.riepilogo, nodi.esito, nodi.camere);
}


async function togli_senza_file(bottone) {
  bottone.disabled = true;
  const r = await api('DELETE', '/api/nvr/registrazioni', { senza_file: true });
  bottone.disabled = false;
  const n = r.ok ? r.dati.voci : 0;
  avviso(nodi.esito, r.ok ? (n === 1 ? 'Tolta 1 voce senza file.' : `Tolte ${n} voci senza file.`) : r.messaggio,
         r.ok ? 'ok' : 'errore');
  await carica();
}

function tabella_camera(c) {
  const righe = c.giorni.map((g) => el('tr', {},
    el('th', { scope: 'row' }, el('a', { href: `#registrazioni?cam=${c.id}&giorno=${g.giorno}` }, giorno_esteso(g.giorno))),
    el('td', {}, String(g.n)), el('td', {}, durata(g.sec)), el('td', {}, `${numero(g.mb, 0)} MB`)));
  return el('article', { class: 'scheda', dataset: { id: String(c.id) } },
    el('h3', {}, c.nome, c.presente ? '' : ' (non più configurata)'),
    el('p', {}, `${c.n} segmenti · ${durata(c.sec)} · ${numero(c.gb, 2)} GB · cartella ${c.cartella}`),
    righe.length
      ? el('div', { class: 'scorri' }, el('table', { class: 'tabella' },
          el('thead', {}, el('tr', {}, ['Giorno', 'Segmenti', 'Durata', 'Dimensione'].map((t) => el('th', { scope: 'col' }, t)))),
          el('tbody', {}, righe)))
      : el('p', { class: 'tenue' }, 'Nessuna registrazione.'));
}

async function carica() {
  const r = await api('GET', '/api/nvr/archivio');
  if (!r.ok) {
    avviso(nodi.errore, r.messaggio);
    return;
  }
  avviso(nodi.errore, '');
  const a = r.dati;
  const sec = a.telecamere.reduce((x, c) => x + c.sec, 0);
  const parti = [
    el('h3', {}, 'Totale'),
    el('p', { id: 'archivio-totali' }, `${a.totale.n} segmenti · ${durata(sec)} · ${numero(a.totale.gb, 2)} GB`),
    el('p', {}, a.cartella ? `Cartella: ${a.cartella}${a.archivio_ok ? '' : ' (non collegata)'}` : 'Nessuna cartella di archivio scelta.'),
    el('p', {}, `Si conservano ${a.giorni_conservazione} giorni.`),
  ];
  if (a.spazio) parti.push(el('p', {}, `${numero(a.spazio.libero_gb)} GB liberi su ${numero(a.spazio.totale_gb)} GB`));
  if (a.senza_file > 0) {
    const b = el('button', { type: 'button', id: 'togli-senza-file' }, 'Togli le voci senza file');
    b.addEventListener('click', () => togli_senza_file(b));
    parti.push(el('p', { class: 'testo-errore' }, a.senza_file === 1 ? "1 voce dell'indice non ha più il file."
      : `${a.senza_file} voci dell'indice non hanno più il file.`), b);
  }
  nodi.riepilogo.replaceChildren(...parti);
  nodi.camere.replaceChildren(...a.telecamere.map(tabella_camera));
}

export async function mostra(sezione) {
  if (!nodi) costruisci(sezione);
  await carica();
}

export function nascondi() {}
