// Hash navigation between the pages and the login gate in front of them.
import { api, avviso, imposta_fuso } from './comune.js';
import * as stato from './stato.js';
import * as vivo from './vivo.js';
import * as telecamere from './telecamere.js';
import * as archiviazione from './archiviazione.js';
import * as registrazioni from './registrazioni.js';
import * as archivio from './archivio.js';
import * as impostazioni from './impostazioni.js';

const pagine = { stato, vivo, telecamere, archiviazione, registrazioni, archivio, impostazioni };
let loggato = false;
let attuale = null;

function nome_pagina() {
  const h = location.hash.replace(/^#/, '').split('?')[0];
  return h in pagine ? h : 'stato';
}

function mostra_sezione(id) {
  for (const s of document.querySelectorAll('main > section.pagina')) s.hidden = s.id !== id;
  for (const a of document.querySelectorAll('#menu a')) {
    if (a.getAttribute('href') === `#${id}`) a.setAttribute('aria-current', 'page');
    else a.removeAttribute('aria-current');
  }
}

async function naviga() {
  if (!loggato) {
    if (attuale) pagine[attuale].nascondi();
    attuale = null;
    document.getElementById('menu').hidden = true;
    mostra_sezione('accesso');
    document.getElementById('password-accesso').focus();
    return;
  }
  document.getElementById('menu').hidden = false;
  const nome = nome_pagina();
  if (attuale && attuale !== nome) pagine[attuale].nascondi();
  const cambiata = attuale !== nome;
  attuale = nome;
  mostra_sezione(nome);
  const titolo = pagine[nome].titolo || `${nome[0].toUpperCase()}${nome.slice(1)}`;
  document.title = `${titolo} — Videoregistratore`;
  await pagine[nome].mostra(document.getElementById(nome));
  if (cambiata) document.querySelector(`#${nome} h2`)?.focus?.();
}

async function dopo_accesso() {
  loggato = true;
  const info = await api('GET', '/api/info');
  if (info.ok) imposta_fuso(info.dati.fuso);
  await naviga();
}

async function avvio() {
  for (const h of document.querySelectorAll('main h2')) h.tabIndex = -1;
  const modulo = document.getElementById('modulo-accesso');
  const errore = document.getElementById('errore-accesso');
  modulo.addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const bottone = modulo.querySelector('button');
    bottone.disabled = true;
    avviso(errore, '');
    const campo = document.getElementById('password-accesso');
    const r = await api('POST', '/api/accesso', { password: campo.value });
    bottone.disabled = false;
    if (!r.ok) {
      avviso(errore, r.messaggio);
      campo.select();
      return;
    }
    campo.value = '';
    await dopo_accesso();
  });
  document.getElementById('esci').addEventListener('click', async () => {
    await api('POST', '/api/uscita');
    loggato = false;
    await naviga();
  });
  // Any page that meets an expired session falls back to the login form.
  document.addEventListener('nvr-accesso-richiesto', () => {
    if (!loggato) return;
    loggato = false;
    naviga();
  });
  window.addEventListener('hashchange', naviga);

  const s = await api('GET', '/api/sessione');
  if (s.ok && s.dati.loggato) await dopo_accesso();
  else await naviga();
}

avvio();
