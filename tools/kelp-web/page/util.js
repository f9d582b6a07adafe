// kelp-web's page: the small helpers every part uses. Every text from a
// feed, kelpd or configd goes into the page with textContent, never as
// markup; only http and https URLs are ever used.
'use strict';

export const $ = (id) => document.getElementById(id);

export function el(tag, cls, text) {
  const e = document.createElement(tag);
  if (cls) e.className = cls;
  if (text !== undefined) e.textContent = text;
  return e;
}

// Only http and https URLs are used; anything else (javascript:, data:,
// relative paths) is left out.
export function safeUrl(text) {
  if (typeof text !== 'string' || text === '') return null;
  try {
    const u = new URL(text);
    return (u.protocol === 'http:' || u.protocol === 'https:') ? u.href : null;
  } catch (e) {
    return null;
  }
}

export function notice(text) {
  const n = $('notice');
  n.textContent = text || '';
  n.hidden = !text;
}

// A JSON POST to kelp-web: {ok, status, body} with body the parsed JSON,
// or for a download {ok, blob}. Fails only when kelp-web cannot be reached.
export function post(path, obj, download) {
  return fetch(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(obj),
    cache: 'no-store',
    credentials: 'same-origin',
    keepalive: !download && path === '/api/logout', // sent while the page goes away
  }).then((r) => {
    if (download && r.ok) return r.blob().then((blob) => ({ ok: true, status: r.status, blob }));
    return r.json().catch(() => ({})).then((body) => ({ ok: r.ok, status: r.status, body }));
  });
}

// The sentence of a refused request.
export function reason(r) {
  return (r.body && r.body.error) || ('error ' + r.status);
}
