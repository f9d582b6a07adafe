// kelp-web's page: talks to kelp-web with small JSON POSTs and listens to
// kelpd's pushes as Server-Sent Events. Every text from a feed is inserted
// with textContent, never as markup; only http(s) URLs are ever used.
'use strict';

(function () {
  const $ = (id) => document.getElementById(id);

  const S = {
    session: null,
    events: null,
    domain: 'rss',
    profile: 1,
    feeds: [],               // [{name, feed_id}] in configuration order
    overviews: new Map(),    // feed_id -> {number, number_new, items: [{uid, state, subject}]}
    feed: null,              // the open feed's id
    item: null,              // {feed_id, uid} of the item being read
    view: 'feeds',           // 'feeds', 'items' or 'reader'
    cursor: { feeds: -1, items: -1 },
  };

  const READ = 1, ENCLOSURE = 2, IMAGE = 4;

  function el(tag, cls, text) {
    const e = document.createElement(tag);
    if (cls) e.className = cls;
    if (text !== undefined) e.textContent = text;
    return e;
  }

  // Only http and https URLs are shown; anything else (javascript:, data:,
  // relative paths) is left out.
  function safeUrl(text) {
    if (typeof text !== 'string' || text === '') return null;
    try {
      const u = new URL(text);
      return (u.protocol === 'http:' || u.protocol === 'https:') ? u.href : null;
    } catch (e) {
      return null;
    }
  }

  function notice(text) {
    const n = $('notice');
    n.textContent = text || '';
    n.hidden = !text;
  }

  function setOnline(up) {
    $('offline').hidden = up;
  }

  function post(path, obj) {
    return fetch(path, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(obj),
      cache: 'no-store',
      credentials: 'same-origin',
      keepalive: true, // a logout sent while the page goes away still arrives
    }).then((r) => r.json().catch(() => ({})).then((body) => ({ ok: r.ok, body })));
  }

  function ask(cmd, extra) {
    if (!S.session) return;
    const req = Object.assign({ session: S.session, cmd }, extra || {});
    post('/api/request', req).then((r) => {
      if (!r.ok) notice('Request failed: ' + (r.body.error || 'unknown error'));
    }, () => notice('kelp-web cannot be reached.'));
  }

  // --- session ---------------------------------------------------------------

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
    setOnline(true);
    showView('feeds');
    renderFeeds();
    renderItems();
    renderReaderEmpty();
  }

  function openSession(domain, profile) {
    closeSession();
    resetView();
    S.domain = domain;
    S.profile = profile;
    $('who').textContent = '';
    notice('');
    try { localStorage.setItem('kelp-picker', JSON.stringify({ domain, profile })); } catch (e) { /* private mode */ }
    post('/api/session', { domain, profile }).then((r) => {
      if (!r.ok) {
        notice('Cannot open the profile: ' + (r.body.error || 'unknown error'));
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
      if ($('notice').hidden) notice('The connection to kelp-web was lost. Open the profile again.');
    };
  }

  // --- pushed and answered messages -------------------------------------------

  function handle(msg) {
    if (msg.type === 'overview') return onOverview(msg);
    if (msg.type === 'gone') return notice('kelpd has closed the connection. Open the profile again.');
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

  function errorText(msg) {
    return msg.error ? msg.error.code + ':' + msg.error.name : 'error';
  }

  function onLogin(msg) {
    // A missing profile id still logs in (to profile 0): the list is valid.
    if (!msg.ok && !(msg.error && msg.error.code === 15)) {
      notice('Login refused: ' + errorText(msg));
      return;
    }
    $('who').textContent = 'Profile ' + msg.profile_id + ' \u00b7 ' + msg.domain;
    onFeeds(msg.feeds || []);
  }

  function onFeeds(feeds) {
    S.feeds = feeds;
    const ids = new Set(feeds.map((f) => f.feed_id));
    for (const id of Array.from(S.overviews.keys())) if (!ids.has(id)) S.overviews.delete(id);
    if (S.feed !== null && !ids.has(S.feed)) {
      S.feed = null;
      if (S.view !== 'feeds') showView('feeds');
    }
    renderFeeds();
    renderItems();
  }

  function onOverview(msg) {
    if (msg.domain !== S.domain || msg.profile_id !== S.profile) return;
    S.overviews.set(msg.feed_id, msg);
    renderFeeds();
    if (msg.feed_id === S.feed) renderItems();
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

  // --- rendering ---------------------------------------------------------------

  function showView(view) {
    S.view = view;
    $('panes').dataset.view = view;
  }

  function renderFeeds() {
    const ul = $('feeds');
    ul.textContent = '';
    S.feeds.forEach((f, i) => {
      const li = el('li', 'feed');
      li.dataset.feedId = String(f.feed_id);
      if (f.feed_id === S.feed) li.classList.add('selected');
      if (S.view === 'feeds' && i === S.cursor.feeds) li.classList.add('cursor');
      li.appendChild(el('span', 'name', f.name));
      const ov = S.overviews.get(f.feed_id);
      const n = ov ? ov.number_new : 0;
      const count = el('span', n ? 'count' : 'count zero', String(n));
      count.title = n + ' unread';
      li.appendChild(count);
      li.addEventListener('click', () => { S.cursor.feeds = i; openFeed(f.feed_id); });
      ul.appendChild(li);
    });
    $('feeds-empty').textContent = S.session && S.feeds.length === 0 ? 'This profile has no feeds.' :
      S.session ? '' : 'Choose a domain and a profile, then Open.';
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
      li.addEventListener('click', () => { S.cursor.items = i; openItem(it); });
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

  function openFeed(feedId) {
    if (S.feed !== feedId) S.cursor.items = -1;
    S.feed = feedId;
    showView('items');
    renderFeeds();
    renderItems();
  }

  function openItem(it) {
    S.item = { feed_id: S.feed, uid: it.uid };
    $('item-title').textContent = it.subject || '(no title)';
    $('enclosure').textContent = '';
    $('body').textContent = 'Loading\u2026';
    showView('reader');
    renderItems();
    const where = { feed_id: S.feed, uid: it.uid };
    ask('body', where);
    if (it.state & ENCLOSURE) ask('enclosure', where);
  }

  // --- keyboard ------------------------------------------------------------------

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
    if (S.view === 'reader') openItem(items[S.cursor.items]);
    else renderItems();
    scrollToCursor('items');
  }

  function enter() {
    if (S.view === 'feeds') {
      const f = S.feeds[S.cursor.feeds];
      if (f) openFeed(f.feed_id);
      return;
    }
    const it = currentItems()[S.cursor.items];
    if (it) openItem(it);
  }

  function back() {
    if (S.view === 'reader') showView('items');
    else if (S.view === 'items') showView('feeds');
    renderFeeds();
    renderItems();
  }

  function onKey(e) {
    const t = e.target;
    if (e.ctrlKey || e.metaKey || e.altKey) return;
    if (t && (t.tagName === 'INPUT' || t.tagName === 'SELECT' || t.tagName === 'TEXTAREA')) return;
    if (t && t.tagName === 'BUTTON' && e.key === 'Enter') return;
    if (e.key === 'j') move(1);
    else if (e.key === 'k') move(-1);
    else if (e.key === 'Enter') enter();
    else if (e.key === 'Escape') back();
    else return;
    e.preventDefault();
  }

  // --- start ------------------------------------------------------------------------

  function start() {
    try {
      const saved = JSON.parse(localStorage.getItem('kelp-picker') || 'null');
      if (saved && (saved.domain === 'rss' || saved.domain === 'podcast')) $('domain').value = saved.domain;
      if (saved && Number.isInteger(saved.profile)) $('profile').value = String(saved.profile);
    } catch (e) { /* nothing saved */ }
    $('picker').addEventListener('submit', (e) => {
      e.preventDefault();
      const profile = Number($('profile').value);
      if (!Number.isInteger(profile) || profile < 0 || profile > 4294967295) {
        notice('The profile is a number from 0 to 4294967295.');
        return;
      }
      openSession($('domain').value, profile);
      // The keys are for the lists from now on, not for the form.
      if (document.activeElement) document.activeElement.blur();
    });
    $('back-feeds').addEventListener('click', () => { showView('feeds'); renderFeeds(); });
    $('back-items').addEventListener('click', () => { showView('items'); renderItems(); });
    document.addEventListener('keydown', onKey);
    window.addEventListener('pagehide', closeSession);
    renderFeeds();
  }

  start();
}());
