// The day's segments as a table (play, download or delete one) and the deletions of a whole day,
// a whole camera or the whole archive, each after a confirmation that says what goes.
import { api, avviso, conferma, durata, el, giorno_esteso, numero, ora } from './comune.js';

const MOTIVI = { continua: 'continua', orario: 'orario', evento: 'evento' };

// contesto(): {cam, nome, giorno, segmenti} of the day shown (segmenti [] when none);
// riproduci(s): plays from segment s; dopo(): reloads the page's listing after a deletion.
// radici: the message area, the table's place and the deletion buttons, in page order.
export function elenco_segmenti({ contesto, riproduci, dopo }) {
  const esito = el('div', { hidden: true, id: 'esito-registrazioni' });
  const elenco = el('div', { id: 'elenco-segmenti' });
  const bottone = (id, testo, fn) => {
    const b = el('button', { type: 'button', class: 'pericolo', id }, testo);
    b.addEventListener('click', fn);
    return b;
  };

  async function dopo_eliminazione(r) {
    if (!r.ok) {
      avviso(esito, r.messaggio);
      return;
    }
    const d = r.dati;
    avviso(esito, d.voci !== undefined ? `Eliminate ${d.voci} registrazioni (${d.file} file).` : 'Eliminata.', 'ok');
    await dopo();
  }

  async function elimina_segmento(s) {
    const { nome, giorno } = contesto();
    const si = await conferma(`Eliminare il segmento di ${nome} delle ${ora(s.inizio)} del ${giorno_esteso(giorno)} ` +
                              `(${durata(s.durata)}, ${numero(s.mb)} MB)? Il file verrà cancellato.`);
    if (!si) return;
    await dopo_eliminazione(await api('DELETE', `/api/nvr/registrazione/${s.id}`));
  }

  async function elimina_giorno() {
    const { cam, nome, giorno, segmenti } = contesto();
    const mb = segmenti.reduce((a, s) => a + s.mb, 0);
    const si = await conferma(`Eliminare tutte le registrazioni di ${nome} del ${giorno_esteso(giorno)}? ` +
      `Verranno cancellati ${segmenti.length} segmenti (${numero(mb)} MB) e gli eventi di quel giorno.`);
    if (!si) return;
    await dopo_eliminazione(await api('DELETE', '/api/nvr/registrazioni', { cam, giorno }));
  }

  async function riepilogo_archivio() {
    const r = await api('GET', '/api/nvr/archivio');
    return r.ok ? r.dati : null;
  }

  async function elimina_camera() {
    const { cam, nome } = contesto();
    const a = await riepilogo_archivio();
    const c = a ? a.telecamere.find((t) => t.id === cam) : null;
    const quanto = c ? `${c.n} segmenti (${numero(c.gb, 2)} GB) in ${c.giorni.length} giorni` : 'tutte le registrazioni';
    const si = await conferma(`Eliminare tutte le registrazioni di ${nome}? Verranno cancellati ${quanto} ` +
                              'e tutti i suoi eventi.');
    if (!si) return;
    await dopo_eliminazione(await api('DELETE', '/api/nvr/registrazioni', { cam }));
  }

  async function elimina_tutto() {
    const a = await riepilogo_archivio();
    const quanto = a ? `${a.totale.n} segmenti (${numero(a.totale.gb, 2)} GB) di ${a.telecamere.length} telecamere` : 'ogni registrazione';
    const si = await conferma(`Svuotare tutto l'archivio? Verranno cancellati ${quanto} e tutti gli eventi; ` +
                              'le registrazioni in corso ripartono da capo.', 'Svuota tutto');
    if (!si) return;
    await dopo_eliminazione(await api('DELETE', '/api/nvr/registrazioni', { tutto: true }));
  }

  // Draws the table of the day shown.
  function elenca() {
    const { giorno, segmenti } = contesto();
    if (!segmenti.length) {
      elenco.replaceChildren();
      return;
    }
    const righe = segmenti.map((s) => {
      const gioca = el('button', { type: 'button', class: 'secondario piccolo' }, 'Riproduci');
      gioca.addEventListener('click', () => riproduci(s));
      const nome = `${giorno}_${ora(s.inizio).replace(/:/g, '-')}.mp4`;
      const scarica = el('a', { class: 'bottone secondario piccolo', href: `${s.url}?scarica=1`, download: nome }, 'Scarica');
      const togli = el('button', { type: 'button', class: 'pericolo piccolo' }, 'Elimina');
      togli.addEventListener('click', () => elimina_segmento(s));
      return el('tr', { dataset: { id: String(s.id) } },
        el('td', {}, ora(s.inizio)), el('td', {}, durata(s.durata)), el('td', {}, `${numero(s.mb)} MB`),
        el('td', {}, MOTIVI[s.motivo] || s.motivo || ''),
        el('td', { class: 'azioni-riga' }, gioca, scarica, togli));
    });
    elenco.replaceChildren(el('div', { class: 'scorri' }, el('table', { class: 'tabella' },
      el('caption', {}, 'Segmenti del giorno'),
      el('thead', {}, el('tr', {}, ['Inizio', 'Durata', 'Dimensione', 'Motivo', ''].map((t) => el('th', { scope: 'col' }, t)))),
      el('tbody', {}, righe))));
  }

  const pericolo = el('div', { class: 'azioni zona-pericolo' },
    bottone('elimina-giorno', 'Elimina il giorno', elimina_giorno),
    bottone('elimina-camera', 'Elimina tutta la telecamera', elimina_camera),
    bottone('elimina-tutto', 'Elimina tutto l\'archivio', elimina_tutto));
  return { radici: [esito, elenco, pericolo], elenca };
}
