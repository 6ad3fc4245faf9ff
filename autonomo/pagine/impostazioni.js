// Impostazioni: the MQTT link to the home-automation broker (with the entity topics whose states
// drive event recording) and the token that lets a monitoring server read /metrics. Secrets are
// never shown: the server only says whether they are set, and an empty field keeps them.
import { api, avviso, el } from './comune.js';

export const titolo = 'Impostazioni';

let nodi = null;
let timer = null;

// The link's state under the broker's fields, as the server sees it now: refreshed every few
// seconds while the page is open, so that a refused login shows up right after saving.
function mostra_stato(stato) {
  const s = stato || { fase: 'spento', messaggio: '' };
  const tipi = { collegato: 'ok', rifiutato: 'errore', irraggiungibile: 'errore' };
  const testo = s.fase === 'spento' ? 'Collegamento MQTT spento' : s.messaggio;
  if (tipi[s.fase]) {
    avviso(nodi.stato, testo, tipi[s.fase]);
  } else {
    nodi.stato.hidden = false;
    nodi.stato.className = 'tenue';
    nodi.stato.textContent = testo;
  }
}

async function aggiorna_stato() {
  const r = await api('GET', '/api/impostazioni');
  if (r.ok && nodi) mostra_stato(r.dati.mqtt_stato);
}

function campo(etichetta, input, nota) {
  return el('div', { class: 'campo' }, el('label', { for: input.id }, etichetta), input,
            nota ? el('span', { class: 'tenue', id: `${input.id}-nota` }, nota) : null);
}

function riga_stato(entita = '', topic = '') {
  const n = nodi.righe.children.length;
  const e = el('input', { id: `mqtt-entita-${n}`, type: 'text', value: entita, placeholder: 'binary_sensor.porta' });
  const t = el('input', { id: `mqtt-topic-${n}`, type: 'text', value: topic, placeholder: 'casa/porta/stato' });
  const togli = el('button', { type: 'button', class: 'secondario', 'aria-label': `Togli l'entità ${n + 1}` }, 'Togli');
  const riga = el('div', { class: 'riga-entita' }, campo('Entità', e), campo('Topic', t), togli);
  togli.addEventListener('click', () => riga.remove());
  nodi.righe.append(riga);
}

function costruisci(sezione) {
  nodi = {};
  const i = (id, tipo = 'text', altro = {}) => el('input', { id, type: tipo, ...altro });
  nodi.attivo = i('mqtt-attivo', 'checkbox');
  nodi.host = i('mqtt-host', 'text', { placeholder: 'broker.casa', autocomplete: 'off' });
  nodi.porta = i('mqtt-porta', 'number', { min: '1', max: '65535' });
  nodi.utente = i('mqtt-utente', 'text', { autocomplete: 'off' });
  nodi.password = i('mqtt-password', 'password', { autocomplete: 'new-password' });
  nodi.tls = i('mqtt-tls', 'checkbox');
  nodi.prefisso = i('mqtt-prefisso');
  nodi.token = i('metriche-token', 'password', { autocomplete: 'new-password' });
  nodi.togli_token = i('metriche-togli', 'checkbox');
  nodi.nota_password = el('span', { class: 'tenue' });
  nodi.nota_token = el('span', { class: 'tenue' });
  nodi.righe = el('div', { id: 'mqtt-stati' });
  nodi.esito = el('div', { hidden: true, id: 'esito-impostazioni' });
  nodi.stato = el('div', { id: 'mqtt-stato', 'aria-live': 'polite' });
  const aggiungi = el('button', { type: 'button', class: 'secondario' }, 'Aggiungi entità');
  aggiungi.addEventListener('click', () => riga_stato());
  const salva = el('button', { type: 'submit' }, 'Salva');
  const modulo = el('form', { class: 'scheda', id: 'modulo-impostazioni' },
    el('h3', {}, 'MQTT (Home Assistant)'),
    nodi.stato,
    el('div', { class: 'campo' }, el('label', {}, nodi.attivo, ' Collegamento attivo')),
    campo('Broker (nome o indirizzo)', nodi.host),
    campo('Porta', nodi.porta),
    campo('Utente', nodi.utente),
    el('div', { class: 'campo' }, el('label', { for: 'mqtt-password' }, 'Password'), nodi.password, nodi.nota_password),
    el('div', { class: 'campo' }, el('label', {}, nodi.tls, ' Connessione cifrata (TLS)')),
    campo('Prefisso dei topic', nodi.prefisso, 'Stati pubblicati sotto <prefisso>/..., disponibilità su <prefisso>/stato'),
    el('h4', {}, 'Entità ricevute'),
    el('p', { class: 'tenue' }, 'Lo stato pubblicato su ogni topic diventa lo stato dell\'entità, come con /api/stati.'),
    nodi.righe, aggiungi,
    el('h3', {}, 'Metriche'),
    el('div', { class: 'campo' }, el('label', { for: 'metriche-token' }, 'Token per /metrics'), nodi.token, nodi.nota_token),
    el('div', { class: 'campo' }, el('label', {}, nodi.togli_token, ' Togli il token (servirà l\'accesso)')),
    nodi.esito, salva);
  modulo.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    salva.disabled = true;
    const r = await api('POST', '/api/impostazioni', raccogli());
    salva.disabled = false;
    if (!r.ok) {
      avviso(nodi.esito, r.messaggio);
      return;
    }
    riempi(r.dati);
    avviso(nodi.esito, 'Impostazioni salvate', 'ok');
  });
  sezione.append(modulo);
}

function raccogli() {
  const stati = [];
  for (const riga of nodi.righe.children) {
    const [e, t] = riga.querySelectorAll('input');
    if (e.value.trim() || t.value.trim()) stati.push({ entita: e.value, topic: t.value });
  }
  const mqtt = {
    attivo: nodi.attivo.checked, host: nodi.host.value, porta: Number(nodi.porta.value),
    utente: nodi.utente.value, tls: nodi.tls.checked, prefisso: nodi.prefisso.value, stati,
  };
  if (nodi.password.value) mqtt.password = nodi.password.value;
  const metriche = {};
  if (nodi.togli_token.checked) metriche.token = null;
  else if (nodi.token.value) metriche.token = nodi.token.value;
  return { mqtt, metriche };
}

function riempi(dati) {
  const m = dati.mqtt || {};
  nodi.attivo.checked = !!m.attivo;
  nodi.host.value = m.host || '';
  nodi.porta.value = m.porta || 1883;
  nodi.utente.value = m.utente || '';
  nodi.password.value = '';
  nodi.nota_password.textContent = m.password_impostata ? 'Impostata: lascia vuoto per tenerla' : 'Non impostata';
  nodi.tls.checked = !!m.tls;
  nodi.prefisso.value = m.prefisso || 'nvr';
  nodi.righe.replaceChildren();
  for (const s of m.stati || []) riga_stato(s.entita, s.topic);
  const t = (dati.metriche || {}).token_impostato;
  nodi.token.value = '';
  nodi.togli_token.checked = false;
  nodi.nota_token.textContent = t ? 'Impostato: lascia vuoto per tenerlo' : 'Non impostato: /metrics chiede l\'accesso';
}

export async function mostra(sezione) {
  if (!nodi) costruisci(sezione);
  const r = await api('GET', '/api/impostazioni');
  if (!r.ok) {
    avviso(nodi.esito, r.messaggio);
    return;
  }
  avviso(nodi.esito, '');
  riempi(r.dati);
  mostra_stato(r.dati.mqtt_stato);
  clearInterval(timer);
  timer = setInterval(aggiorna_stato, 3000);
}

export function nascondi() {
  clearInterval(timer);
  timer = null;
}
