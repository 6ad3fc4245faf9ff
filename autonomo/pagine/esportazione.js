// Export of a span of the day as one MP4 file: start and end as times of day (typed, or marked
// at the playing moment), then the server's SHA-256 of the file, the gaps inside the span and
// the download link.
import { api, avviso, el, numero, ora } from './comune.js';

function secondi_di(testo) {
  const m = /^(\d{1,2}):(\d{2})(?::(\d{2}))?$/.exec(testo || '');
  return m ? Number(m[1]) * 3600 + Number(m[2]) * 60 + Number(m[3] || 0) : null;
}

// Wall time of a time of day ("HH:MM:SS" in the recorder's zone) on the day starting at
// inizio_giorno; corrected twice against the zone so a clock change that day counts.
export function momento_di(testo, inizio_giorno) {
  const voluto = secondi_di(testo);
  if (voluto === null) return null;
  let t = inizio_giorno + voluto;
  for (let i = 0; i < 2; i++) {
    const letto = secondi_di(ora(t));
    if (letto === null) break;
    let d = voluto - letto;
    if (d > 43200) d -= 86400;
    if (d < -43200) d += 86400;
    t += d;
  }
  return t;
}

// momento(): the playing moment; contesto(): {cam, inizio_giorno} of the day shown;
// su_segni(da, a): the span to mark on the timeline (null when unknown).
export function esportazione({ momento, contesto, su_segni }) {
  const campo = (id, etichetta) => {
    const input = el('input', { type: 'time', step: '1', id });
    return { input, blocco: el('div', { class: 'campo' }, el('label', { for: id }, etichetta), input) };
  };
  const da = campo('esporta-da', 'Dalle');
  const a = campo('esporta-a', 'Alle');
  const segna_da = el('button', { type: 'button', class: 'secondario piccolo', id: 'segna-inizio', 'aria-keyshortcuts': 'I',
                                  title: "Il momento del video diventa l'inizio (tasto I)" }, "Segna l'inizio qui");
  const segna_a = el('button', { type: 'button', class: 'secondario piccolo', id: 'segna-fine', 'aria-keyshortcuts': 'O',
                                 title: 'Il momento del video diventa la fine (tasto O)' }, 'Segna la fine qui');
  const prepara = el('button', { type: 'submit', id: 'prepara-esportazione' }, 'Prepara il file');
  const esito = el('div', { hidden: true, id: 'esito-esportazione' });
  const risultato = el('div', { id: 'risultato-esportazione', 'aria-live': 'polite' });
  const modulo = el('form', { class: 'scheda', id: 'esportazione', novalidate: true },
    el('h3', {}, 'Esporta un periodo'),
    el('p', { class: 'tenue' }, 'Un solo file MP4 dal primo all\'ultimo momento scelto; i buchi vengono saltati.'),
    el('div', { class: 'riga-scelte' }, da.blocco, segna_da, a.blocco, segna_a, prepara),
    esito, risultato);

  const intervallo = () => {
    const c = contesto();
    if (!c) return null;
    return { ...c, da: momento_di(da.input.value, c.inizio_giorno), a: momento_di(a.input.value, c.inizio_giorno) };
  };
  const segna = () => {
    const i = intervallo();
    su_segni(i && i.da !== null ? i.da : null, i && i.a !== null ? i.a : null);
    risultato.replaceChildren();
  };
  segna_da.addEventListener('click', () => {
    da.input.value = ora(momento());
    segna();
  });
  segna_a.addEventListener('click', () => {
    a.input.value = ora(momento());
    segna();
  });
  for (const c of [da.input, a.input]) c.addEventListener('change', segna);

  modulo.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    risultato.replaceChildren();
    const i = intervallo();
    if (!i || i.da === null || i.a === null) {
      avviso(esito, "Scrivi l'ora di inizio e quella di fine.");
      return;
    }
    avviso(esito, '');
    const q = `cam=${i.cam}&da=${i.da.toFixed(3)}&a=${i.a.toFixed(3)}`;
    prepara.disabled = true;
    risultato.textContent = 'Calcolo dell\'impronta del file...';
    const r = await api('GET', `/api/esporta/impronta?${q}`);
    prepara.disabled = false;
    risultato.replaceChildren();
    if (!r.ok) {
      avviso(esito, r.messaggio);
      return;
    }
    const d = r.dati;
    const copia = el('button', { type: 'button', class: 'secondario piccolo', id: 'copia-impronta' }, "Copia l'impronta");
    const codice = el('code', { id: 'impronta-sha256', class: 'impronta' }, d.sha256);
    copia.addEventListener('click', async () => {
      try {
        await navigator.clipboard.writeText(d.sha256);
        copia.textContent = 'Copiata';
      } catch (e) {
        getSelection().selectAllChildren(codice);  // no clipboard access: leave it selected
      }
    });
    const buchi = d.buchi || [];
    risultato.replaceChildren(
      el('p', {}, el('a', { class: 'bottone', id: 'scarica-esportazione', href: `/api/esporta?${q}`, download: d.nome },
                     `Scarica ${d.nome} (${numero(d.byte / 1e6)} MB)`)),
      el('p', {}, `Dalle ${ora(d.inizio)} alle ${ora(d.fine)}. `,
         buchi.length ? `Buchi nel periodo (saltati nel file): ${buchi.map(([x, y]) => `${ora(x)}–${ora(y)}`).join(', ')}.`
                      : 'Nessun buco nel periodo.'),
      el('p', { class: 'riga-impronta' }, 'Impronta SHA-256: ', codice, ' ', copia));
  });

  return {
    radice: modulo,
    segna_inizio: () => segna_da.click(),
    segna_fine: () => segna_a.click(),
    // A new day or camera: the fields start from the playing moment.
    riparti() {
      const t = momento();
      da.input.value = ora(t);
      a.input.value = ora(t + 60);
      avviso(esito, '');
      segna();
    },
  };
}
