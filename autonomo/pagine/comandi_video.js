// The commands under the players: play or pause, speed, jumps to the previous or next event or
// gap, the clock; and the same commands from the keyboard, listed under them.
import { el, ora } from './comune.js';
import { tratti_elenco } from './lettore.js';

const VELOCITA = [1, 2, 4, 8];
const PRIMA_DEL_BUCO_S = 3;   // "next gap" shows the last seconds before the hole

// The gaps between the runs of a day's listing: [{da, a}] in wall seconds.
export function buchi_elenco(segmenti) {
  const tratti = tratti_elenco(segmenti);
  return tratti.slice(1).map((r, i) => ({ da: tratti[i].a, a: r.da }));
}

// sinc: the players' clock (sincronia.js); giorno(): the listing shown ({registrazioni, eventi})
// or null; momento(): the playing moment; vai(t, perche): moves the players to t and says why;
// nota(testo): a message under the players; segna('inizio' | 'fine'): marks the export's span.
export function comandi_video({ sinc, giorno, momento, vai, nota, segna }) {
  const suona = el('button', { type: 'button', id: 'reg-riproduci', 'aria-keyshortcuts': 'Space' }, 'Riproduci');
  const velocita = el('select', { id: 'reg-velocita' },
                      VELOCITA.map((v) => el('option', { value: String(v) }, `${v}×`)));
  const orologio = el('output', { id: 'reg-ora', class: 'orologio', 'aria-label': 'Ora del video' }, '—');

  function aggiorna() {
    const testo = sinc.suona ? 'Pausa' : 'Riproduci';
    if (suona.textContent !== testo) suona.textContent = testo;
    suona.setAttribute('aria-pressed', String(sinc.suona));
  }

  function alterna() {
    if (!giorno() || !sinc.lettori.length) return;
    if (sinc.suona) sinc.pausa();
    else sinc.riproduci();
    aggiorna();
  }

  function vai_evento(verso) {
    const dati = giorno();
    if (!dati) return;
    const cursore = momento();
    const tempi = dati.eventi.map((e) => e.ts).sort((x, y) => x - y);
    const t = verso > 0 ? tempi.find((x) => x > cursore + 0.5) : tempi.reverse().find((x) => x < cursore - 1.5);
    if (t === undefined) {
      nota(verso > 0 ? 'Nessun evento dopo questo momento.' : 'Nessun evento prima di questo momento.');
      return;
    }
    const e = dati.eventi.find((x) => x.ts === t);
    vai(t, `Evento delle ${ora(t)}: ${e.entita} ${e.stato}`);
  }

  function vai_buco(verso) {
    const dati = giorno();
    if (!dati) return;
    const cursore = momento();
    const buchi = buchi_elenco(dati.registrazioni);
    const b = verso > 0 ? buchi.find((x) => x.da - PRIMA_DEL_BUCO_S > cursore + 0.5)
                        : buchi.reverse().find((x) => x.da - PRIMA_DEL_BUCO_S < cursore - 1.5);
    if (!b) {
      nota(verso > 0 ? 'Nessun buco dopo questo momento.' : 'Nessun buco prima di questo momento.');
      return;
    }
    vai(b.da - PRIMA_DEL_BUCO_S, `Buco dalle ${ora(b.da)} alle ${ora(b.a)}`);
  }

  const salto = (testo, etichetta, tasto, fn) => {
    const b = el('button', { type: 'button', class: 'secondario piccolo', 'aria-label': etichetta,
                             title: `${etichetta} (tasto ${tasto})`, 'aria-keyshortcuts': tasto }, testo);
    b.addEventListener('click', fn);
    return b;
  };
  const radice = el('div', { class: 'controlli-lettore', role: 'group', 'aria-label': 'Comandi del video' },
    suona,
    el('label', { for: 'reg-velocita' }, 'Velocità'), velocita,
    salto('⇤ Evento', 'Evento precedente', 'Shift+E', () => vai_evento(-1)),
    salto('Evento ⇥', 'Evento successivo', 'E', () => vai_evento(1)),
    salto('⇤ Buco', 'Buco precedente', 'Shift+B', () => vai_buco(-1)),
    salto('Buco ⇥', 'Buco successivo', 'B', () => vai_buco(1)),
    orologio);
  suona.addEventListener('click', alterna);
  velocita.addEventListener('change', () => sinc.imposta_velocita(Number(velocita.value)));

  // Keys anywhere on the page while it is shown, but in fields and buttons, and a key already
  // taken by the element it was typed in (space on the timeline).
  document.addEventListener('keydown', (ev) => {
    if (!giorno() || radice.closest('[hidden]') || ev.ctrlKey || ev.metaKey || ev.altKey) return;
    if (ev.defaultPrevented || ev.target.closest('input, select, textarea, button, a, dialog')) return;
    const k = ev.key.toLowerCase();
    if (k === ' ') alterna();
    else if (k === 'e') vai_evento(ev.shiftKey ? -1 : 1);
    else if (k === 'b') vai_buco(ev.shiftKey ? -1 : 1);
    else if (k === 'i') segna('inizio');
    else if (k === 'o') segna('fine');
    else return;
    ev.preventDefault();
  });

  return {
    radice,
    legenda: el('p', { class: 'tenue legenda' }, 'Tasti: spazio riproduce o ferma; E e Maiusc+E evento successivo o ' +
                'precedente; B e Maiusc+B buco successivo o precedente; I e O segnano inizio e fine da esportare.'),
    aggiorna,  // the play button follows the clock's state
    alterna,
    velocita: () => Number(velocita.value),
    orologio(t) {  // null: no day shown
      const testo = t === null ? '—' : ora(t);
      if (orologio.textContent !== testo) orologio.textContent = testo;
    },
  };
}
