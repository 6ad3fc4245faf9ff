// The camera whose day is shown, and the cameras shown beside it at the same moment.
import { api, el } from './comune.js';

const AFFIANCATE_MAX = 4;

// su_camera(): another camera was chosen; su_affiancate(): the cameras beside it changed.
// cam is 0 while no camera is configured.
export function scelta_camere({ su_camera, su_affiancate }) {
  let cam = 0;
  let camere = [];                // [{id, nome}] from /api/nvr/riassunto
  const affiancate = new Set();   // other cameras shown beside the chosen one
  const scelta = el('select', { id: 'reg-camera' });
  const affianca = el('fieldset', { class: 'gruppo affianca', id: 'reg-affianca' });

  function disegna() {
    const altre = camere.filter((c) => c.id !== cam);
    affianca.hidden = altre.length === 0;
    const pieno = affiancate.size >= AFFIANCATE_MAX - 1;
    affianca.replaceChildren(
      el('legend', {}, 'Affianca allo stesso momento'),
      ...altre.map((c) => {
        const id = `affianca-${c.id}`;
        const casella = el('input', { type: 'checkbox', id, checked: affiancate.has(c.id),
                                      disabled: pieno && !affiancate.has(c.id) });
        casella.addEventListener('change', async () => {
          if (casella.checked) affiancate.add(c.id);
          else affiancate.delete(c.id);
          disegna();
          await su_affiancate();
        });
        return el('label', { class: 'spunta', for: id }, casella, c.nome);
      }),
      el('span', { class: 'tenue' }, ` (fino a ${AFFIANCATE_MAX} telecamere insieme)`));
  }

  scelta.addEventListener('change', async () => {
    cam = Number(scelta.value);
    affiancate.delete(cam);
    disegna();
    await su_camera();
  });

  return {
    campo: el('div', { class: 'campo' }, el('label', { for: 'reg-camera' }, 'Telecamera'), scelta),
    affianca,
    get cam() { return cam; },
    // Chooses camera id (from a link); it stays only if it is among the cameras loaded next.
    scegli(id) { cam = id; },
    // The chosen camera first, then the ones beside it.
    ids() { return [cam, ...affiancate]; },
    nome(id) { return camere.find((c) => c.id === id)?.nome || `Telecamera ${id}`; },
    // Reads the cameras again: '' when done, else the API's message (the choices stay as they were).
    async carica() {
      const r = await api('GET', '/api/nvr/riassunto');
      if (!r.ok) return r.messaggio;
      camere = (r.dati.telecamere || []).map((c) => ({ id: c.id, nome: c.nome }));
      const valori = camere.map((c) => String(c.id)).join(',');
      if (scelta.dataset.valori !== valori) {
        scelta.replaceChildren(...camere.map((c) => el('option', { value: String(c.id) }, c.nome)));
        scelta.dataset.valori = valori;
      }
      if (!camere.some((c) => c.id === cam)) cam = camere.length ? camere[0].id : 0;
      for (const id of [...affiancate]) if (id === cam || !camere.some((c) => c.id === id)) affiancate.delete(id);
      scelta.value = String(cam);
      disegna();
      return '';
    },
  };
}
