// Helpers shared by every page: API calls, the recorder's time zone, small DOM builders and the
// confirmation dialog.

// Answer of one API call: ok is true only for a 2xx answer whose status is "success"; messaggio
// is the API's own text on error, shown to the user unchanged.
export async function api(metodo, percorso, corpo) {
  const opzioni = { method: metodo, headers: {}, credentials: 'same-origin' };
  if (corpo !== undefined) {
    opzioni.headers['Content-Type'] = 'application/json';
    opzioni.body = JSON.stringify(corpo);
  }
  let risposta;
  try {
    risposta = await fetch(percorso, opzioni);
  } catch (e) {
    return { ok: false, codice: 0, dati: {}, messaggio: 'Server non raggiungibile' };
  }
  let dati = {};
  try {
    dati = await risposta.json();
  } catch (e) {
    dati = {};
  }
  const ok = risposta.ok && dati.status !== 'error';
  let messaggio = '';
  if (!ok) messaggio = dati.message || `Errore ${risposta.status}`;
  if (risposta.status === 401 && percorso !== '/api/accesso') {
    document.dispatchEvent(new CustomEvent('nvr-accesso-richiesto'));
  }
  return { ok, codice: risposta.status, dati, messaggio };
}

// The recorder's zone, from /api/info; until it is known the browser's own zone is used.
let fuso = undefined;
const formati = new Map();

export function imposta_fuso(nome) {
  fuso = nome || undefined;
  formati.clear();
}

export function fuso_attuale() {
  return fuso || Intl.DateTimeFormat().resolvedOptions().timeZone;
}

function formato(chiave, opzioni) {
  if (!formati.has(chiave)) {
    try {
      formati.set(chiave, new Intl.DateTimeFormat('it-IT', { ...opzioni, timeZone: fuso }));
    } catch (e) {
      // A zone name the browser does not know: fall back to the browser's zone.
      formati.set(chiave, new Intl.DateTimeFormat('it-IT', opzioni));
    }
  }
  return formati.get(chiave);
}

export function ora(ts) {
  if (ts === null || ts === undefined) return '—';
  return formato('ora', { hour: '2-digit', minute: '2-digit', second: '2-digit' }).format(ts * 1000);
}

export function data_ora(ts) {
  if (ts === null || ts === undefined) return '—';
  return formato('data_ora', {
    day: '2-digit', month: '2-digit', year: 'numeric', hour: '2-digit', minute: '2-digit',
  }).format(ts * 1000);
}

// "YYYY-MM-DD" of the day holding ts in the recorder's zone.
export function giorno_di(ts) {
  const parti = {};
  for (const p of formato('giorno', { year: 'numeric', month: '2-digit', day: '2-digit' })
         .formatToParts(ts * 1000)) {
    parti[p.type] = p.value;
  }
  return `${parti.year}-${parti.month}-${parti.day}`;
}

export function giorno_esteso(giorno) {
  const [a, m, g] = giorno.split('-').map(Number);
  // Noon UTC of that date lies on the same calendar day in every zone; the zone does not matter.
  const d = new Date(Date.UTC(a, m - 1, g, 12));
  return new Intl.DateTimeFormat('it-IT', {
    weekday: 'long', day: 'numeric', month: 'long', year: 'numeric', timeZone: 'UTC',
  }).format(d);
}

export function durata(secondi) {
  secondi = Math.max(0, Math.round(secondi));
  const h = Math.floor(secondi / 3600);
  const m = Math.floor((secondi % 3600) / 60);
  const s = secondi % 60;
  if (h > 0) return `${h} h ${String(m).padStart(2, '0')} min`;
  if (m > 0) return `${m} min ${String(s).padStart(2, '0')} s`;
  return `${s} s`;
}

export function numero(x, decimali = 1) {
  return Number(x || 0).toLocaleString('it-IT', {
    minimumFractionDigits: decimali, maximumFractionDigits: decimali,
  });
}

// el('button', {class: 'x', onclick: f}, 'testo', figlio...)
export function el(tag, attributi = {}, ...figli) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attributi)) {
    if (v === undefined || v === null || v === false) continue;
    if (k.startsWith('on') && typeof v === 'function') e.addEventListener(k.slice(2), v);
    else if (k === 'class') e.className = v;
    else if (k === 'dataset') Object.assign(e.dataset, v);
    else if (k in e && typeof v !== 'string') e[k] = v;
    else e.setAttribute(k, v === true ? '' : v);
  }
  for (const f of figli.flat()) {
    if (f === null || f === undefined || f === false) continue;
    e.append(f instanceof Node ? f : document.createTextNode(String(f)));
  }
  return e;
}

// Sets a text only when it changes, so that polling does not disturb selection or screen readers.
export function testo(e, t) {
  t = String(t);
  if (e.textContent !== t) e.textContent = t;
}

// A message area: shows an API answer (error text as given, or a success text).
export function avviso(contenitore, messaggio, tipo = 'errore') {
  contenitore.replaceChildren();
  if (!messaggio) {
    contenitore.hidden = true;
    return;
  }
  contenitore.hidden = false;
  contenitore.className = `avviso ${tipo}`;
  contenitore.setAttribute('role', tipo === 'errore' ? 'alert' : 'status');
  contenitore.textContent = messaggio;
}

// The error of one form field, shown next to it and announced with it.
export function errore_campo(input, messaggio) {
  let nota = input.parentElement.querySelector(':scope > .errore-campo');
  if (!nota) {
    nota = el('span', { class: 'errore-campo', id: `err-${Math.random().toString(36).slice(2)}` });
    input.parentElement.append(nota);
  }
  nota.textContent = messaggio || '';
  nota.hidden = !messaggio;
  if (messaggio) {
    input.setAttribute('aria-invalid', 'true');
    input.setAttribute('aria-describedby', nota.id);
  } else {
    input.removeAttribute('aria-invalid');
    input.removeAttribute('aria-describedby');
  }
  return !messaggio;
}

// Asks for confirmation in a modal dialog; resolves true when the user confirms.
export function conferma(domanda, etichetta_si = 'Elimina') {
  const dialogo = document.getElementById('dialogo-conferma');
  document.getElementById('dialogo-testo').textContent = domanda;
  const si = document.getElementById('dialogo-si');
  si.textContent = etichetta_si;
  return new Promise((fatto) => {
    const chiudi = () => {
      dialogo.removeEventListener('close', chiudi);
      fatto(dialogo.returnValue === 'si');
    };
    dialogo.returnValue = '';
    dialogo.addEventListener('close', chiudi);
    dialogo.showModal();
    document.getElementById('dialogo-no').focus();
  });
}
