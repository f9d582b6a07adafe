// kelp-web's page: the three panes of the reader. Talks to kelp-web with
// small JSON POSTs and listens to kelpd's pushes as Server-Sent Events; the
// address (?domain=D&profile=P&feed=F&item=U) follows what is open, so a
// link, a reload and back/forward open the same. While kelpd is away (kelp-
// web starts it again) the panes are greyed out and take no clicks.
'use strict';

import { $, el, notice, post, reason, safeUrl } from './util.js';
import { initSubs, loadConfig } from './subs.js';

const S = {
  session: null,
  events: null,
  domain: 'rss',
  profile: 1,
  feeds: [],               // [{name, feed_id}] in configuration order
  overviews: new Map(),    // feed_id -> {number, number_new, items: [{uid, state, subject}]}
  feed: null,              // the open feed's id
  item: null,              // {feed_id, uid, loading} of the item being read
  want: null,              // {feed, item} from the address, opened once they arrive
  view: 'feeds',           // 'feeds', 'items' or 'reader'
  cursor: { feeds: -1, items: -1 },
};

const READ = 1, ENCLOSURE = 2, IMAGE = 4;
const MAX_ID = 4294967295;

// --- the address -------------------------------------------------------------

function number(text) {
  if (text === null || !/^[0-9]{1,10}$/.test(text)) return null;
  const n = Number(text);
  return n <= MAX_ID ? n : null;
}

function fromAddress() {
  const q = new URLSearchParams(location.search);
  const domain = q.get('domain');
  return {
    domain: domain === 'rss' || domain === 'podcast' ? domain : null,
    profile: number(q.get('profile')),
    feed: number(q.get('feed')),
    item: number(q.get('item')),
  };
}

function remember(push) {
  const q = new URLSearchParams({ domain: S.domain, profile: String(S.profile) });
  if (S.feed !== null) q.set('feed', String(S.feed));
  if (S.item) q.set('item', String(S.item.uid));
  const url = '?' + q.toString();
  if (url === location.search) return;
  if (push) history.pushState(null, '', url);
  else history.replaceState(null, '', url);
}

// --- session -----------------------------------------------------------------

function ask(cmd, extra) {
  if (!S.session) return;
  const req = Object.assign({ session: S.session, cmd }, extra || {});
  post('/api/request', req).then((r) => {
    if (!r.ok) notice('Request failed: ' + reason(r));
  }, () => notice('kelp-web cannot be reached.'));
}

function closeSession() {
  if (S.events) S.events.close();
  if (S.session) post('/api/logout', { session: S.session }).catch(() => {});
  S.events = null;
  S.session = null;
}

function resetView() {
  S.feeds = [];
  S.overviews.clear();
  S.feed = null;
  S.item = null;
  S.cursor = { feeds: -1, items: -1 };
  $('offline').hidden = true;
  showView('feeds');
  renderAll();
}

function openSession(domain, profile, want, push) {
  closeSession();
  S.domain = domain;
  S.profile = profile;
  S.want = want || null;
  resetView();
  remember(push);
  notice('');
  setKelpd('Connecting\u2026');
  $('domain').value = domain;
  loadConfig(domain, profile);
  try { localStorage.setItem('kelp-picker', JSON.stringify({ domain, profile })); } catch (e) { /* private mode */ }
  post('/api/session', { domain, profile }).then((r) => {
    if (!r.ok) {
      setKelpd(null);
      notice('Cannot open the profile: ' + reason(r));
      return;
    }
    S.session = r.body.session;
    listen(S.session);
  }, () => notice('kelp-web cannot be reached.'));
}

function listen(token) {
  const es = new EventSource('/api/events?session=' + encodeURIComponent(token));
  S.events = es;
  es.onmessage = (e) => {
    let msg;
    try { msg = JSON.parse(e.data); } catch (err) { return; }
    if (S.events === es) handle(msg);
  };
  // The server keeps no session once its stream has ended: never reconnect.
  es.onerror = () => {
    if (S.events !== es) return;
    es.close();
    S.events = null;
    S.session = null;
    setKelpd('The connection to kelp-web was lost. Reload the page to go on.');
  };
}

// kelpd is away (text) or back (null): nothing stale may be clicked.
function setKelpd(text) {
  const b = $('kelpd');
  b.textContent = text || '';
  b.hidden = !text;
  $('panes').inert = !!text;
  $('panes').classList.toggle('stale', !!text);
}

// --- pushed and answered messages ----------------------------------------------

function handle(msg) {
  if (msg.type === 'overview') return onOverview(msg);
  if (msg.type === 'kelpd') return onKelpd(msg);
  if (msg.type === 'error') return notice(msg.text);
  if (msg.type !== 'answer') return;
  switch (msg.cmd) {
  case 'login': return onLogin(msg);
  case 'accounts': if (msg.ok) onFeeds(msg.feeds); return;
  case 'status': return setOnline(msg.ok || !msg.error || msg.error.code !== 20);
  case 'body': return onBody(msg);
  case 'enclosure': return onEnclosure(msg);
  default: return;
  }
}

function onKelpd(msg) {
  if (msg.state === 'starting') return setKelpd('Starting kelpd\u2026');
  const again = msg.retry > 0 ? ' Trying again in ' + msg.retry + ' s\u2026' : ' Trying again\u2026';
  setKelpd((msg.text || 'kelpd is not running') + '.' + again);
}

function setOnline(up) {
  $('offline').hidden = up;
}

function errorText(msg) {
  return msg.error ? msg.error.code + ':' + msg.error.name : 'error';
}

function onLogin(msg) {
  setKelpd(null);
  // A missing profile id still logs in (to profile 0): the list is valid.
  if (!msg.ok && !(msg.error && msg.error.code === 15)) {
    notice('Login refused: ' + errorText(msg));
    return;
  }
  S.overviews.clear();
  onFeeds(msg.feeds || []);
  // A read that kelpd did not answer before it went is asked again.
  if (S.item && S.item.loading) askItem(S.item, S.item.state);
}

function onFeeds(feeds) {
  S.feeds = feeds;
  const ids = new Set(feeds.map((f) => f.feed_id));
  for (const id of Array.from(S.overviews.keys())) if (!ids.has(id)) S.overviews.delete(id);
  if (S.feed !== null && !ids.has(S.feed)) {
    S.feed = null;
    S.item = null;
    renderReaderEmpty();
    if (S.view !== 'feeds') showView('feeds');
    remember(false);
  }
  if (S.want && S.want.feed !== null && ids.has(S.want.feed)) openFeed(S.want.feed, false);
  renderFeeds();
  renderItems();
}

function onOverview(msg) {
  if (msg.domain !== S.domain || msg.profile_id !== S.profile) return;
  S.overviews.set(msg.feed_id, msg);
  renderFeeds();
  if (msg.feed_id !== S.feed) return;
  renderItems();
  const w = S.want;
  if (w && w.feed === S.feed && w.item !== null) {
    const it = msg.items.find((i) => i.uid === w.item);
    if (it) openItem(it, false);
    S.want = null;
  }
}

function isCurrent(msg) {
  return S.item && msg.feed_id === S.item.feed_id && msg.uid === S.item.uid;
}

// The asking connection gets no overview for its own read: mark it here.
function markRead(feedId, uid) {
  const ov = S.overviews.get(feedId);
  if (!ov) return;
  const it = ov.items.find((i) => i.uid === uid);
  if (!it || (it.state & READ)) return;
  it.state |= READ;
  if (ov.number_new > 0) ov.number_new -= 1;
  renderFeeds();
  if (feedId === S.feed) renderItems();
}

function onBody(msg) {
  if (!isCurrent(msg)) return;
  S.item.loading = false;
  const body = $('body');
  body.textContent = '';
  if (!msg.ok) {
    body.textContent = 'The item cannot be read: ' + errorText(msg);
    return;
  }
  fillBody(body, typeof msg.body === 'string' ? msg.body : '', msg.images || []);
  markRead(msg.feed_id, msg.uid);
}

// The text with each image inserted at its offset (a character position).
function fillBody(body, text, images) {
  const list = images
    .map((im) => ({ url: safeUrl(im.url), offset: im.offset }))
    .filter((im) => im.url !== null)
    .sort((a, b) => a.offset - b.offset);
  let pos = 0;
  for (const im of list) {
    const at = Math.min(Math.max(im.offset, pos), text.length);
    body.appendChild(document.createTextNode(text.slice(pos, at)));
    const img = el('img');
    img.alt = '';
    img.loading = 'lazy';
    img.referrerPolicy = 'no-referrer';
    img.src = im.url;
    body.appendChild(img);
    pos = at;
  }
  body.appendChild(document.createTextNode(text.slice(pos)));
}

function onEnclosure(msg) {
  if (!isCurrent(msg) || !msg.ok) return;
  const box = $('enclosure');
  box.textContent = '';
  const url = safeUrl(msg.url);
  if (!url) {
    if (msg.url) box.appendChild(el('p', 'unsafe', 'This item has an enclosure whose address is not http(s); it is not shown.'));
    return;
  }
  const audio = el('audio');
  audio.controls = true;
  audio.preload = 'none';
  audio.src = url;
  box.appendChild(audio);
  markRead(msg.feed_id, msg.uid);
}

// --- rendering -------------------------------------------------------------------

function showView(view) {
  S.view = view;
  $('panes').dataset.view = view;
}

function renderAll() {
  renderFeeds();
  renderItems();
  if (!S.item) renderReaderEmpty();
}

function renderFeeds() {
  const ul = $('feeds');
  ul.textContent = '';
  S.feeds.forEach((f, i) => {
    const li = el('li', 'feed');
    li.dataset.feedId = String(f.feed_id);
    li.tabIndex = -1;
    if (f.feed_id === S.feed) li.classList.add('selected');
    if (S.view === 'feeds' && i === S.cursor.feeds) li.classList.add('cursor');
    li.appendChild(el('span', 'name', f.name));
    const ov = S.overviews.get(f.feed_id);
    const n = ov ? ov.number_new : 0;
    const count = el('span', n ? 'count' : 'count zero', String(n));
    count.title = n + ' unread';
    li.appendChild(count);
    li.addEventListener('click', () => { S.cursor.feeds = i; openFeed(f.feed_id, true); });
    ul.appendChild(li);
  });
  $('feeds-empty').textContent = S.session && S.feeds.length === 0 ? 'This profile subscribes no feed yet: add one under Subscriptions.' : '';
}

function currentItems() {
  const ov = S.feed === null ? null : S.overviews.get(S.feed);
  return ov ? ov.items : [];
}

function renderItems() {
  const ul = $('items');
  ul.textContent = '';
  const feed = S.feeds.find((f) => f.feed_id === S.feed);
  $('feed-title').textContent = feed ? feed.name : 'Items';
  const items = currentItems();
  items.forEach((it, i) => {
    const li = el('li', 'item ' + ((it.state & READ) ? 'read' : 'unread'));
    li.dataset.uid = String(it.uid);
    if (S.item && S.item.feed_id === S.feed && S.item.uid === it.uid) li.classList.add('selected');
    if (S.view !== 'feeds' && i === S.cursor.items) li.classList.add('cursor');
    li.appendChild(el('span', 'dot'));
    li.appendChild(el('span', 'subject', it.subject || '(no title)'));
    if (it.state & ENCLOSURE) li.appendChild(markEl('enclosure', 'audio', 'Has an audio enclosure'));
    if (it.state & IMAGE) li.appendChild(markEl('image', 'img', 'Has images'));
    li.addEventListener('click', () => { S.cursor.items = i; openItem(it, true); });
    ul.appendChild(li);
  });
  $('items-empty').textContent = feed && items.length === 0 ? 'No items yet.' : '';
}

function markEl(kind, text, title) {
  const m = el('span', 'mark ' + kind, text);
  m.title = title;
  return m;
}

function renderReaderEmpty() {
  $('item-title').textContent = '';
  $('enclosure').textContent = '';
  $('body').textContent = '';
}

// Another feed: its list, and an empty reader.
function openFeed(feedId, push) {
  if (S.feed !== feedId) {
    S.cursor.items = -1;
    S.item = null;
    renderReaderEmpty();
  }
  S.feed = feedId;
  showView('items');
  renderFeeds();
  renderItems();
  remember(push);
}

function askItem(item, state) {
  const where = { feed_id: item.feed_id, uid: item.uid };
  ask('body', where);
  if (state & ENCLOSURE) ask('enclosure', where);
}

function openItem(it, push) {
  S.item = { feed_id: S.feed, uid: it.uid, state: it.state, loading: true };
  $('item-title').textContent = it.subject || '(no title)';
  $('enclosure').textContent = '';
  $('body').textContent = 'Loading\u2026';
  showView('reader');
  renderItems();
  remember(push);
  askItem(S.item, it.state);
}

// --- keyboard and history ------------------------------------------------------------

function scrollToCursor(listId) {
  const li = $(listId).querySelector('.cursor');
  if (li) li.scrollIntoView({ block: 'nearest' });
}

function move(step) {
  if (S.view === 'feeds') {
    if (S.feeds.length === 0) return;
    S.cursor.feeds = Math.min(Math.max(S.cursor.feeds + step, 0), S.feeds.length - 1);
    renderFeeds();
    scrollToCursor('feeds');
    return;
  }
  const items = currentItems();
  if (items.length === 0) return;
  S.cursor.items = Math.min(Math.max(S.cursor.items + step, 0), items.length - 1);
  if (S.view === 'reader') openItem(items[S.cursor.items], true);
  else renderItems();
  scrollToCursor('items');
}

function enter() {
  if (S.view === 'feeds') {
    const f = S.feeds[S.cursor.feeds];
    if (f) openFeed(f.feed_id, true);
    return;
  }
  const it = currentItems()[S.cursor.items];
  if (it) openItem(it, true);
}

function back() {
  if (S.view === 'reader') {
    S.item = null;
    renderReaderEmpty();
    showView('items');
  } else if (S.view === 'items') {
    S.feed = null;
    showView('feeds');
  }
  renderFeeds();
  renderItems();
  remember(true);
}

function onKey(e) {
  const t = e.target;
  if (e.ctrlKey || e.metaKey || e.altKey || $('subs').open || $('panes').inert) return;
  if (t && (t.tagName === 'INPUT' || t.tagName === 'SELECT' || t.tagName === 'TEXTAREA')) return;
  if (t && t.tagName === 'BUTTON' && e.key === 'Enter') return;
  if (e.key === 'j') move(1);
  else if (e.key === 'k') move(-1);
  else if (e.key === 'Enter') enter();
  else if (e.key === 'Escape') back();
  else return;
  e.preventDefault();
}

// Back and forward: the address says what is open.
function onPopState() {
  const a = fromAddress();
  if (a.domain === null || a.profile === null) return;
  if (a.domain !== S.domain || a.profile !== S.profile) {
    openSession(a.domain, a.profile, { feed: a.feed, item: a.item }, false);
    return;
  }
  S.want = { feed: a.feed, item: a.item };
  if (a.feed === null) {
    S.feed = null;
    S.item = null;
    renderReaderEmpty();
    showView('feeds');
    renderAll();
    return;
  }
  const it = a.item === null ? null : (S.overviews.get(a.feed) || { items: [] }).items.find((i) => i.uid === a.item);
  if (S.feed !== a.feed || !it) openFeed(a.feed, false);
  if (it && !(S.item && S.item.uid === it.uid && S.item.feed_id === a.feed)) openItem(it, false);
  if (!it && S.item) {
    S.item = null;
    renderReaderEmpty();
    renderItems();
  }
}

// --- start -------------------------------------------------------------------------------

function saved() {
  try {
    const s = JSON.parse(localStorage.getItem('kelp-picker') || 'null');
    if (s && (s.domain === 'rss' || s.domain === 'podcast') && Number.isInteger(s.profile)) return s;
  } catch (e) { /* nothing saved */ }
  return null;
}

function start() {
  initSubs({
    current: () => ({ domain: S.domain, profile: S.profile }),
    open: (domain, profile) => openSession(domain, profile, null, true),
  });
  $('back-feeds').addEventListener('click', () => { S.view = 'items'; back(); });
  $('back-items').addEventListener('click', () => { S.view = 'reader'; back(); });
  document.addEventListener('keydown', onKey);
  window.addEventListener('popstate', onPopState);
  window.addEventListener('pagehide', closeSession);
  const a = fromAddress();
  const last = saved();
  if (a.domain !== null && a.profile !== null) openSession(a.domain, a.profile, { feed: a.feed, item: a.item }, false);
  else if (last) openSession(last.domain, last.profile, null, false);
  else openSession('rss', 1, null, false);
}

start();
