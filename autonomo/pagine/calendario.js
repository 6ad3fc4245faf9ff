// A month calendar whose days with recordings are marked. Days are "YYYY-MM-DD" texts; the
// calendar does pure date arithmetic on them (UTC), so no time zone can shift a day.
import { el } from './comune.js';

const MESI = ['gennaio', 'febbraio', 'marzo', 'aprile', 'maggio', 'giugno', 'luglio', 'agosto',
              'settembre', 'ottobre', 'novembre', 'dicembre'];
const INTESTAZIONE = ['L', 'M', 'M', 'G', 'V', 'S', 'D'];

function testo_giorno(d) {
  return d.toISOString().slice(0, 10);
}

function data(giorno) {
  const [a, m, g] = giorno.split('-').map(Number);
  return new Date(Date.UTC(a, m - 1, g));
}

export function calendario(su_scelta) {
  let scelto = '';
  let mese = null;  // Date of the first of the month shown
  let con = new Set();
  const titolo = el('h3', { class: 'titolo-mese', 'aria-live': 'polite' });
  const prima = el('button', { type: 'button', class: 'secondario piccolo', 'aria-label': 'Mese precedente' }, '‹');
  const dopo = el('button', { type: 'button', class: 'secondario piccolo', 'aria-label': 'Mese successivo' }, '›');
  const griglia = el('div', { class: 'griglia-mese', role: 'group', 'aria-labelledby': 'titolo-calendario' });
  titolo.id = 'titolo-calendario';
  const radice = el('div', { class: 'calendario', id: 'calendario' },
    el('div', { class: 'testa-calendario' }, prima, titolo, dopo), griglia,
    el('p', { class: 'tenue legenda' }, el('span', { class: 'campione con-registrazioni' }), 'giorni con registrazioni'));

  prima.addEventListener('click', () => {
    mese = new Date(Date.UTC(mese.getUTCFullYear(), mese.getUTCMonth() - 1, 1));
    disegna();
  });
  dopo.addEventListener('click', () => {
    mese = new Date(Date.UTC(mese.getUTCFullYear(), mese.getUTCMonth() + 1, 1));
    disegna();
  });
  griglia.addEventListener('keydown', (ev) => {
    const b = ev.target.closest('button[data-giorno]');
    if (!b) return;
    const salto = { ArrowLeft: -1, ArrowRight: 1, ArrowUp: -7, ArrowDown: 7 }[ev.key];
    if (!salto) return;
    ev.preventDefault();
    const d = data(b.dataset.giorno);
    d.setUTCDate(d.getUTCDate() + salto);
    const g = testo_giorno(d);
    if (d.getUTCMonth() !== mese.getUTCMonth()) {
      mese = new Date(Date.UTC(d.getUTCFullYear(), d.getUTCMonth(), 1));
      disegna(g);
    }
    griglia.querySelector(`button[data-giorno="${g}"]`)?.focus();
  });

  function disegna(fuoco) {
    titolo.textContent = `${MESI[mese.getUTCMonth()]} ${mese.getUTCFullYear()}`;
    const celle = INTESTAZIONE.map((t) => el('span', { class: 'intestazione', 'aria-hidden': 'true' }, t));
    const vuote = (mese.getUTCDay() + 6) % 7;  // Monday first
    for (let i = 0; i < vuote; i++) celle.push(el('span'));
    const d = new Date(mese);
    const attivo = fuoco || (scelto.startsWith(testo_giorno(mese).slice(0, 7)) ? scelto : testo_giorno(mese));
    while (d.getUTCMonth() === mese.getUTCMonth()) {
      const g = testo_giorno(d);
      const registrato = con.has(g);
      const b = el('button', {
        type: 'button', class: `giorno-mese${registrato ? ' con-registrazioni' : ''}`,
        dataset: { giorno: g }, tabindex: g === attivo ? '0' : '-1',
        'aria-pressed': g === scelto ? 'true' : 'false',
        'aria-label': `${d.getUTCDate()} ${MESI[d.getUTCMonth()]}${registrato ? ', con registrazioni' : ''}`,
      }, String(d.getUTCDate()));
      b.addEventListener('click', () => {
        scelto = g;
        disegna();
        su_scelta(g);
      });
      celle.push(b);
      d.setUTCDate(d.getUTCDate() + 1);
    }
    griglia.replaceChildren(...celle);
  }

  return {
    radice,
    imposta(giorno, giorni) {
      scelto = giorno;
      con = new Set(giorni);
      const d = data(giorno);
      mese = new Date(Date.UTC(d.getUTCFullYear(), d.getUTCMonth(), 1));
      disegna();
    },
  };
}
