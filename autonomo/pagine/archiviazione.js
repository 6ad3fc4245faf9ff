// Archiviazione: where the archive lives (USB drive, network share or local folder), the folder
// browser, and segment length / retention. The API's messages tell the user which button to
// press, so the labels here are exactly the ones they quote.
import { api, avviso, el, errore_campo, numero } from './comune.js';

const USA_UNITA = "Usa questa unita'";
const COLLEGA = 'Collega';
const SCHEDA_USB = 'Chiavetta / disco USB';
const SCHEDA_RETE = 'Cartella di rete';
const SCHEDA_LOCALE = 'Cartella locale';
const RADICI_LOCALI = ['/media', '/mnt', '/srv', '/home'];

let nodi = null;
let storage = null;        // last GET /api/nvr/storage
let destinazione = null;   // the destination the folder browser is choosing a folder for

function campo(etichetta, input, nota) {
  return el('div', { class: 'campo' }, el('label', { for: input.id }, etichetta), input,
            nota ? el('span', { class: 'tenue' }, nota) : null);
}

function costruisci(sezione) {
  nodi = {};
  nodi.attuale = el('div', { class: 'scheda', id: 'archivio-attuale' });
  nodi.esito = el('div', { hidden: true, id: 'esito-archiviazione' });

  // Tabs.
  const schede = [['usb', SCHEDA_USB], ['rete', SCHEDA_RETE], ['locale', SCHEDA_LOCALE]];
  const lista = el('div', { role: 'tablist', class: 'schede', 'aria-label': "Dove tenere l'archivio" });
  nodi.pannelli = {};
  nodi.linguette = {};
  for (const [k, titolo] of schede) {
    const t = el('button', {
      type: 'button', role: 'tab', id: `linguetta-${k}`, 'aria-controls': `pannello-${k}`,
      'aria-selected': 'false', tabindex: '-1',
    }, titolo);
    t.addEventListener('click', () => scegli_scheda(k));
    t.addEventListener('keydown', (ev) => {
      const i = schede.findIndex(([x]) => x === k);
      let j = null;
      if (ev.key === 'ArrowRight') j = (i + 1) % schede.length;
      if (ev.key === 'ArrowLeft') j = (i + schede.length - 1) % schede.length;
      if (j !== null) {
        ev.preventDefault();
        scegli_scheda(schede[j][0]);
        nodi.linguette[schede[j][0]].focus();
      }
    });
    nodi.linguette[k] = t;
    lista.append(t);
    nodi.pannelli[k] = el('div', { role: 'tabpanel', id: `pannello-${k}`, 'aria-labelledby': t.id, hidden: true });
  }

  // USB.
  nodi.unita = el('div', { class: 'elenco-unita' });
  const ricarica = el('button', { type: 'button', class: 'secondario' }, 'Cerca di nuovo');
  ricarica.addEventListener('click', carica);
  nodi.pannelli.usb.append(el('p', { class: 'tenue' }, 'Collega la chiavetta o il disco, poi scegli l\'unità.'),
                           nodi.unita, ricarica);

  // Network share. The password field is never filled from the server: left empty, the
  // recorder keeps the one it has saved for the same server, share and user.
  const f = (id, tipo = 'text', extra = {}) => el('input', { id, type: tipo, autocomplete: 'off', ...extra });
  nodi.rete = {
    proto: el('select', { id: 'rete-proto' }, el('option', { value: 'smb' }, 'SMB (Windows, NAS)'),
              el('option', { value: 'nfs' }, 'NFS')),
    server: f('rete-server', 'text', { placeholder: '192.168.1.10' }),
    share: f('rete-share', 'text', { placeholder: 'video' }),
    utente: f('rete-utente'),
    password: f('rete-password', 'password', { autocomplete: 'new-password' }),
  };
  nodi.nota_password = el('span', { class: 'tenue', id: 'rete-password-nota' });
  const collega = el('button', { type: 'submit' }, COLLEGA);
  const modulo_rete = el('form', { class: 'griglia-campi', id: 'modulo-rete', novalidate: true },
    campo('Protocollo', nodi.rete.proto),
    campo('Server', nodi.rete.server),
    campo('Cartella condivisa', nodi.rete.share),
    campo('Utente', nodi.rete.utente),
    el('div', { class: 'campo' }, el('label', { for: 'rete-password' }, 'Password'), nodi.rete.password,
       nodi.nota_password),
    el('div', { class: 'azioni' }, collega));
  modulo_rete.addEventListener('submit', (ev) => {
    ev.preventDefault();
    monta_rete();
  });
  nodi.pannelli.rete.append(modulo_rete);

  // Local folder.
  nodi.percorso_locale = el('input', { id: 'cartella-locale', type: 'text', placeholder: '/srv/video', autocomplete: 'off' });
  const apri = el('button', { type: 'button', class: 'secondario' }, 'Sfoglia');
  apri.addEventListener('click', () => {
    destinazione = { tipo: 'locale' };
    sfoglia(nodi.percorso_locale.value.trim() || '/srv');
  });
  const usa = el('button', { type: 'button' }, 'Usa questa cartella');
  usa.addEventListener('click', () => {
    const p = nodi.percorso_locale.value.trim();
    if (errore_campo(nodi.percorso_locale, p ? '' : 'Scrivi il percorso della cartella.')) {
      salva_cartella({ tipo: 'locale' }, p);
    }
  });
  const radici = RADICI_LOCALI.map((r) => {
    const b = el('button', { type: 'button', class: 'secondario piccolo' }, r);
    b.addEventListener('click', () => {
      destinazione = { tipo: 'locale' };
      sfoglia(r);
    });
    return b;
  });
  nodi.pannelli.locale.append(
    el('p', { class: 'tenue' }, 'Una cartella su un disco della macchina, sotto /media, /mnt, /srv o /home.'),
    campo('Cartella', nodi.percorso_locale),
    el('div', { class: 'azioni' }, apri, usa),
    el('p', {}, 'Sfoglia da: ', el('span', { class: 'radici' }, radici)));

  // Folder browser, shared by the three tabs.
  nodi.browser = el('div', { class: 'scheda', id: 'sfoglia', hidden: true });

  // Numbers.
  nodi.numeri = {
    segmento_sec: el('input', { id: 'segmento-sec', type: 'number', min: '60', max: '1800', step: '1' }),
    giorni: el('input', { id: 'giorni', type: 'number', min: '1', max: '365', step: '1' }),
    spazio_min_gb: el('input', { id: 'spazio-min', type: 'number', min: '0.5', max: '500', step: '0.1' }),
  };
  nodi.esito_numeri = el('div', { hidden: true });
  const modulo_numeri = el('form', { class: 'scheda griglia-campi', id: 'modulo-numeri', novalidate: true },
    el('h3', {}, 'Segmenti e conservazione'),
    campo('Durata di un segmento (secondi, 60–1800)', nodi.numeri.segmento_sec),
    campo('Giorni da conservare (1–365)', nodi.numeri.giorni),
    campo('Spazio libero da lasciare (GB, 0,5–500)', nodi.numeri.spazio_min_gb),
    nodi.esito_numeri,
    el('div', { class: 'azioni' }, el('button', { type: 'submit' }, 'Salva')));
  modulo_numeri.addEventListener('submit', (ev) => {
    ev.preventDefault();
    salva_numeri();
  });

  sezione.append(nodi.attuale, lista, nodi.pannelli.usb, nodi.pannelli.rete,
                 nodi.pannelli.locale, nodi.esito, nodi.browser, modulo_numeri);
}

function scegli_scheda(k) {
  for (const [x, t] of Object.entries(nodi.linguette)) {
    const si = x === k;
    t.setAttribute('aria-selected', si ? 'true' : 'false');
    t.tabIndex = si ? 0 : -1;
    nodi.pannelli[x].hidden = !si;
  }
}

function mostra_attuale() {
  const st = storage;
  const d = st.destinazione || {};
  const dove = d.tipo === 'usb' ? `unità USB ${d.etichetta || d.dev || ''}`.trim()
    : d.tipo === 'rete' ? `cartella di rete ${d.server || ''}/${d.share || ''}` : 'cartella locale';
  const righe = [el('h3', {}, 'Archivio attuale')];
  if (!st.cartella) {
    righe.push(el('p', {}, 'Nessuna cartella scelta: scegline una qui sotto.'));
  } else {
    righe.push(el('p', {}, el('strong', {}, st.cartella), ` (${dove}) — `,
      st.montata ? 'collegata' : 'non collegata'));
    if (st.spazio) {
      righe.push(el('p', {}, `${numero(st.spazio.libero_gb)} GB liberi su ${numero(st.spazio.totale_gb)} GB`));
    }
    if ((d.tipo === 'usb' || d.tipo === 'rete') && d.mountpoint && st.montata) {
      const scollega = el('button', { type: 'button', class: 'secondario' }, 'Scollega');
      scollega.addEventListener('click', async () => {
        const r = await api('POST', '/api/nvr/storage/smonta', { mountpoint: d.mountpoint });
        avviso(nodi.esito, r.ok ? r.dati.message : r.messaggio, r.ok ? 'ok' : 'errore');
        await carica();
      });
      righe.push(scollega);
    }
  }
  if (!st.root_ok) {
    righe.push(el('p', { class: 'testo-errore' }, st.root_msg));
  }
  const mancano = [];
  if (!st.smb) mancano.push('SMB (pacchetto cifs-utils)');
  if (!st.nfs) mancano.push('NFS (pacchetto nfs-common)');
  if (mancano.length) righe.push(el('p', { class: 'tenue' }, `Non disponibili su questo sistema: ${mancano.join(', ')}.`));
  nodi.attuale.replaceChildren(...righe);
}

function mostra_unita() {
  const unita = (storage.usb || []).filter((u) => !u.sistema);
  if (!unita.length) {
    nodi.unita.replaceChildren(el('p', { class: 'tenue' }, 'Nessuna chiavetta o disco USB trovato.'));
    return;
  }
  nodi.unita.replaceChildren(...unita.map((u) => {
    const usa = el('button', { type: 'button' }, USA_UNITA);
    usa.addEventListener('click', () => monta_usb(u, usa));
    const libero = u.spazio ? `${numero(u.spazio.libero_gb)} GB liberi` : (u.montata ? '' : 'non montata');
    return el('div', { class: 'unita scheda' },
      el('h4', {}, u.nome || u.dev),
      el('p', {}, [`${numero(u.dimensione_gb)} GB`, u.etichetta ? `etichetta ${u.etichetta}` : 'senza etichetta',
                   u.fs, libero, u.modello].filter(Boolean).join(' · ')),
      usa);
  }));
}

function riempi_rete() {
  const d = storage.destinazione || {};
  nodi.rete.password.value = '';
  if (d.tipo === 'rete') {
    nodi.rete.proto.value = d.proto === 'nfs' ? 'nfs' : 'smb';
    nodi.rete.server.value = d.server || '';
    nodi.rete.share.value = d.share || '';
    nodi.rete.utente.value = d.utente || '';
    nodi.nota_password.textContent = 'Lascia vuoto per usare la password già salvata.';
  } else {
    nodi.nota_password.textContent = '';
  }
}

async function monta_usb(u, bottone) {
  bottone.disabled = true;
  avviso(nodi.esito, 'Monto l\'unità...', 'ok');
  const r = await api('POST', '/api/nvr/storage/monta', { tipo: 'usb', dev: u.dev, uuid: u.uuid, etichetta: u.etichetta });
  bottone.disabled = false;
  if (!r.ok) {
    avviso(nodi.esito, r.messaggio);
    return;
  }
  avviso(nodi.esito, `${r.dati.message}: scegli o crea la cartella dell'archivio.`, 'ok');
  const un = r.dati.unita || u;
  destinazione = { tipo: 'usb', dev: un.dev, uuid: un.uuid || '', etichetta: un.etichetta || '', mountpoint: r.dati.mountpoint };
  await sfoglia(r.dati.mountpoint);
}

async function monta_rete() {
  const v = Object.fromEntries(Object.entries(nodi.rete).map(([k, i]) => [k, i.value.trim()]));
  v.password = nodi.rete.password.value;  // spaces may belong to a password
  let ok = errore_campo(nodi.rete.server, v.server ? '' : 'Scrivi il nome o l\'indirizzo del server.');
  ok = errore_campo(nodi.rete.share, v.share ? '' : 'Scrivi il nome della cartella condivisa.') && ok;
  if (!ok) return;
  avviso(nodi.esito, 'Collegamento in corso...', 'ok');
  const corpo = { tipo: 'rete', ...v };
  if (!corpo.password) delete corpo.password;
  const r = await api('POST', '/api/nvr/storage/monta', corpo);
  if (!r.ok) {
    avviso(nodi.esito, r.messaggio);
    return;
  }
  avviso(nodi.esito, `${r.dati.message}: scegli o crea la cartella dell'archivio.`, 'ok');
  destinazione = { tipo: 'rete', proto: v.proto, server: v.server, share: v.share, utente: v.utente,
                   mountpoint: r.dati.mountpoint };
  // Sent only when typed now; an empty one keeps the saved password on the server.
  if (v.password) destinazione.password = v.password;
  await sfoglia(r.dati.mountpoint);
}

async function sfoglia(base) {
  const r = await api('GET', `/api/nvr/cartelle?base=${encodeURIComponent(base)}`);
  const b = nodi.browser;
  b.hidden = false;
  if (!r.ok) {
    b.replaceChildren(el('h3', {}, 'Scegli la cartella'), el('p', {}, base),
                      el('div', { class: 'avviso errore', role: 'alert' }, r.messaggio));
    return;
  }
  const d = r.dati;
  const fermo = destinazione && destinazione.mountpoint ? destinazione.mountpoint : '';
  const su = d.base.replace(/\/+$/, '').replace(/\/[^/]*$/, '') || '/';
  const puo_salire = d.base !== '/' && (!fermo || d.base.replace(/\/+$/, '') !== fermo.replace(/\/+$/, ''));
  const voci = d.cartelle.map((c) => {
    const entra = el('button', { type: 'button', class: 'cartella' }, `📁 ${c.nome}`);
    entra.addEventListener('click', () => sfoglia(c.percorso));
    return el('li', {}, entra);
  });
  const nome = el('input', { id: 'nuova-cartella', type: 'text', autocomplete: 'off' });
  const esito = el('div', { hidden: true });
  const crea = el('form', { class: 'riga-crea', novalidate: true },
    el('label', { for: 'nuova-cartella' }, 'Nuova cartella qui'), nome,
    el('button', { type: 'submit', class: 'secondario' }, 'Crea'));
  crea.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    if (!errore_campo(nome, nome.value.trim() ? '' : 'Scrivi il nome della cartella.')) return;
    const c = await api('POST', '/api/nvr/cartelle', { base: d.base, nome: nome.value.trim() });
    if (!c.ok) {
      avviso(esito, c.messaggio);
      return;
    }
    await sfoglia(c.dati.percorso);
    avviso(nodi.browser.querySelector('.esito-sfoglia'), `${c.dati.message}: ${c.dati.percorso}`, 'ok');
  });
  const usa = el('button', { type: 'button' }, 'Usa questa cartella');
  usa.addEventListener('click', () => salva_cartella(destinazione || { tipo: 'locale' }, d.base));
  const sali = el('button', { type: 'button', class: 'secondario' }, 'Cartella superiore');
  sali.disabled = !puo_salire;
  sali.addEventListener('click', () => sfoglia(su));
  b.replaceChildren(
    el('h3', {}, 'Scegli la cartella'),
    el('p', {}, el('strong', { id: 'cartella-aperta' }, d.base),
       d.spazio ? ` — ${numero(d.spazio.libero_gb)} GB liberi` : ''),
    el('div', { class: 'esito-sfoglia', hidden: true }),
    el('div', { class: 'azioni' }, sali, usa),
    voci.length ? el('ul', { class: 'elenco-cartelle' }, voci) : el('p', { class: 'tenue' }, 'Nessuna sottocartella.'),
    crea, esito);
}

async function salva_cartella(dest, cartella) {
  const r = await api('POST', '/api/nvr/config', { destinazione: dest, cartella });
  avviso(nodi.esito, r.ok ? `Archivio impostato su ${cartella}.` : r.messaggio, r.ok ? 'ok' : 'errore');
  nodi.esito.scrollIntoView({ block: 'nearest' });
  if (r.ok) {
    nodi.browser.hidden = true;
    if (dest.tipo === 'locale') nodi.percorso_locale.value = cartella;
    await carica();
  }
}

async function salva_numeri() {
  const n = nodi.numeri;
  const intero = (i, min, max) => /^\d+$/.test(i.value.trim()) && +i.value >= min && +i.value <= max;
  let ok = errore_campo(n.segmento_sec, intero(n.segmento_sec, 60, 1800) ? '' : 'Un numero intero fra 60 e 1800.');
  ok = errore_campo(n.giorni, intero(n.giorni, 1, 365) ? '' : 'Un numero intero fra 1 e 365.') && ok;
  const gb = Number(n.spazio_min_gb.value.replace(',', '.'));
  const gb_ok = n.spazio_min_gb.value.trim() !== '' && gb >= 0.5 && gb <= 500;
  ok = errore_campo(n.spazio_min_gb, gb_ok ? '' : 'Un numero fra 0,5 e 500.') && ok;
  if (!ok) return;
  const r = await api('POST', '/api/nvr/config', {
    segmento_sec: Number(n.segmento_sec.value), giorni: Number(n.giorni.value), spazio_min_gb: gb,
  });
  avviso(nodi.esito_numeri, r.ok ? 'Salvato.' : r.messaggio, r.ok ? 'ok' : 'errore');
}

async function carica() {
  const [r, c] = await Promise.all([api('GET', '/api/nvr/storage'), api('GET', '/api/nvr/config')]);
  if (!r.ok) {
    avviso(nodi.esito, r.messaggio);
    return;
  }
  storage = r.dati;
  mostra_attuale();
  mostra_unita();
  riempi_rete();
  if (c.ok) {
    const cfg = c.dati.config || {};
    nodi.numeri.segmento_sec.value = cfg.segmento_sec;
    nodi.numeri.giorni.value = cfg.giorni;
    nodi.numeri.spazio_min_gb.value = cfg.spazio_min_gb;
    if ((cfg.destinazione || {}).tipo !== 'usb' && (cfg.destinazione || {}).tipo !== 'rete' && cfg.cartella) {
      if (!nodi.percorso_locale.value) nodi.percorso_locale.value = cfg.cartella;
    }
  }
}

export async function mostra(sezione) {
  if (!nodi) {
    costruisci(sezione);
    await carica();
    // A tab the user picked while the settings were loading wins over the default.
    if (Object.values(nodi.linguette).some((x) => x.getAttribute('aria-selected') === 'true')) return;
    const t = (storage && storage.destinazione || {}).tipo;
    scegli_scheda(t === 'rete' ? 'rete' : t === 'usb' || !storage ? 'usb' : storage.cartella ? 'locale' : 'usb');
    return;
  }
  await carica();
}

export function nascondi() {}
