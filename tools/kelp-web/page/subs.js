// kelp-web's page: the profile picker and the subscriptions dialog. What
// configd holds comes through kelp-web (/api/config/...); every change is
// one of configctl's own read-modify-writes there, and says what the page
// showed (was_*), so that a change someone else made meanwhile is refused
// with words instead of being overwritten.
'use strict';

import { $, el, post, reason } from './util.js';

const MAX_OPML = 1 << 20;

let app = null;      // {current(): {domain, profile}, open(domain, profile)}
let config = null;   // the last list: {domain, profiles: [n], feeds: [{id, name, url, poll, profiles}]}
let editing = null;  // the id of the feed whose form is open
let removing = null; // the id of the feed whose removal awaits its confirmation

const DOMAIN_NAMES = { rss: 'News', podcast: 'Podcasts' };

function say(text, bad) {
  const s = $('subs-status');
  s.textContent = text;
  s.className = bad ? 'status bad' : 'status';
}

// A text of kelp-web as a sentence: capital first (unless it goes after a
// colon), a full stop last (unless it ends in a line of its own).
function sentence(text, first) {
  const t = String(text).replace(/\n+$/, '');
  const s = first ? t.charAt(0).toUpperCase() + t.slice(1) : t;
  return s + (/[.\n]/.test(s.slice(-1)) || s.includes('\n') ? '' : '.');
}

// --- the profile picker ----------------------------------------------------------

function fillPicker(domain, profiles, current) {
  const sel = $('profile');
  sel.textContent = '';
  const all = profiles.slice();
  if (current !== undefined && current !== null && !all.includes(current)) all.push(current);
  for (const p of all) {
    const o = el('option', '', 'Profile ' + p + (profiles.includes(p) ? '' : ' (not configured)'));
    o.value = String(p);
    sel.appendChild(o);
  }
  if (current !== undefined && current !== null) sel.value = String(current);
}

// The domain's list from configd; null (and the picker with the current
// profile alone) when configd cannot be asked.
export function loadConfig(domain, current) {
  return post('/api/config/list', { domain }).then((r) => {
    if (!r.ok) {
      fillPicker(domain, [], current);
      if ($('subs').open) say('Cannot read the subscriptions: ' + reason(r), true);
      return null;
    }
    if (domain !== app.current().domain && current !== undefined) return null;
    config = r.body;
    fillPicker(domain, config.profiles, current);
    if ($('subs').open) renderSubs();
    return config;
  }, () => null);
}

function onDomain() {
  const domain = $('domain').value;
  loadConfig(domain).then((c) => {
    const cur = app.current().profile;
    const profile = !c || c.profiles.length === 0 || c.profiles.includes(cur) ? cur : c.profiles[0];
    app.open(domain, profile);
  });
}

// --- changes ----------------------------------------------------------------------

// One change through configd; the list is read again afterwards.
function change(what, obj, failed) {
  const { domain } = app.current();
  say('Saving\u2026');
  return post('/api/config/' + what, Object.assign({ domain }, obj)).then((r) => {
    if (!r.ok) {
      say(failed + ': ' + sentence(reason(r)), true);
      return false;
    }
    say(sentence(r.body.text || 'done', true));
    editing = null;
    removing = null;
    loadConfig(domain, app.current().profile);
    return true;
  }, () => { say('kelp-web cannot be reached.', true); return false; });
}

function addFeed(e) {
  e.preventDefault();
  const f = e.target.elements;
  const obj = { url: f.url.value.trim() };
  if (f.name.value.trim()) obj.name = f.name.value.trim();
  if (f.poll.value.trim()) obj.poll = f.poll.value.trim();
  if (f.subscribe.checked) obj.profile = app.current().profile;
  change('feed-add', obj, 'Cannot add the feed').then((ok) => { if (ok) e.target.reset(); });
}

function saveFeed(feed, form) {
  const obj = { id: feed.id };
  for (const key of ['name', 'url', 'poll']) {
    const v = form.elements[key].value.trim();
    if (v === feed[key]) continue;
    obj[key] = v;
    obj['was_' + key] = feed[key];
  }
  if (Object.keys(obj).length === 1) {
    editing = null;
    renderSubs();
    return;
  }
  change('feed-set', obj, 'Cannot change the feed');
}

function addProfile(e) {
  e.preventDefault();
  const v = e.target.elements.profile.value.trim();
  change('profile-add', { profile: v }, 'Cannot add the profile').then((ok) => {
    if (ok && /^[0-9]+$/.test(v)) app.open(app.current().domain, Number(v));
  });
}

function importOpml() {
  const input = $('opml-file');
  const file = input.files[0];
  input.value = '';
  if (!file) return;
  if (file.size > MAX_OPML) {
    say('Cannot import ' + file.name + ': the file is larger than 1 MiB. Nothing was imported.', true);
    return;
  }
  file.text().then((text) => change('opml-import', { profile: app.current().profile, opml: text },
    'Cannot import ' + file.name + ' (nothing was imported)'));
}

function exportOpml() {
  const { domain, profile } = app.current();
  post('/api/config/opml-export', { domain, profile }, true).then((r) => {
    if (!r.ok) {
      say('Cannot download the OPML: ' + sentence(reason(r)), true);
      return;
    }
    const a = el('a');
    a.href = URL.createObjectURL(r.blob);
    a.download = 'kelp-' + domain + '-profile-' + profile + '.opml';
    document.body.appendChild(a);
    a.click();
    a.remove();
    setTimeout(() => URL.revokeObjectURL(a.href), 60000);
  }, () => say('kelp-web cannot be reached.', true));
}

// --- the dialog -------------------------------------------------------------------

function button(text, cls, onClick) {
  const b = el('button', cls, text);
  b.type = 'button';
  b.addEventListener('click', onClick);
  return b;
}

function feedForm(feed) {
  const form = el('form', 'edit');
  for (const [key, label] of [['name', 'Name'], ['url', 'URL'], ['poll', 'Poll every (s)']]) {
    const l = el('label', '', label + ' ');
    const input = el('input');
    input.name = key;
    input.value = feed[key];
    if (key === 'poll') input.inputMode = 'numeric';
    l.appendChild(input);
    form.appendChild(l);
  }
  const save = el('button', 'primary', 'Save');
  form.appendChild(save);
  form.appendChild(button('Cancel', '', () => { editing = null; renderSubs(); }));
  form.addEventListener('submit', (e) => { e.preventDefault(); saveFeed(feed, form); });
  return form;
}

function feedRow(feed, profile, known) {
  const li = el('li', 'sub');
  li.dataset.feedId = feed.id;
  if (editing === feed.id) {
    li.appendChild(feedForm(feed));
    return li;
  }
  const box = el('input');
  box.type = 'checkbox';
  box.checked = feed.profiles.includes(profile);
  box.disabled = !known;
  box.setAttribute('aria-label', 'Profile ' + profile + ' subscribes ' + (feed.name || feed.url));
  box.addEventListener('change', () => change(box.checked ? 'subscribe' : 'unsubscribe', { profile, id: feed.id },
    box.checked ? 'Cannot subscribe' : 'Cannot unsubscribe'));
  li.appendChild(box);
  const text = el('div', 'what');
  text.appendChild(el('span', 'name', feed.name || feed.url));
  text.appendChild(el('span', 'url', feed.url + ' \u00b7 ' + (feed.poll ? 'every ' + feed.poll + ' s' : 'default poll')));
  const actions = el('div', 'actions');
  actions.appendChild(button('Edit', 'edit-feed', () => { editing = feed.id; removing = null; renderSubs(); }));
  actions.appendChild(removing === feed.id
    ? button('Really remove', 'danger', () => change('feed-rm', { id: feed.id, was_url: feed.url }, 'Cannot remove the feed'))
    : button('Remove', 'rm-feed', () => { removing = feed.id; renderSubs(); }));
  text.appendChild(actions);
  li.appendChild(text);
  return li;
}

function renderSubs() {
  const { domain, profile } = app.current();
  const known = !!config && config.profiles.includes(profile);
  $('subs-title').textContent = 'Subscriptions: ' + (DOMAIN_NAMES[domain] || domain) + ', profile ' + profile;
  $('subs-missing').hidden = !config || known;
  $('subs-missing-text').textContent = 'Profile ' + profile + ' is not in the configuration yet.';
  $('add-subscribe').checked = known;
  $('add-subscribe').disabled = !known;
  const ul = $('subs-feeds');
  ul.textContent = '';
  for (const f of config ? config.feeds : []) ul.appendChild(feedRow(f, profile, known));
  $('subs-empty').textContent = config && config.feeds.length === 0 ? 'No feeds yet.' : '';
}

function openSubs() {
  editing = null;
  removing = null;
  say('');
  const { domain, profile } = app.current();
  renderSubs();
  $('subs').showModal();
  loadConfig(domain, profile);
}

export function initSubs(hooks) {
  app = hooks;
  $('domain').addEventListener('change', onDomain);
  $('profile').addEventListener('change', () => app.open(app.current().domain, Number($('profile').value)));
  $('picker').addEventListener('submit', (e) => e.preventDefault());
  $('manage').addEventListener('click', openSubs);
  $('subs-close').addEventListener('click', () => $('subs').close());
  $('add-feed').addEventListener('submit', addFeed);
  $('add-profile').addEventListener('submit', addProfile);
  $('add-missing').addEventListener('click', () => change('profile-add', { profile: app.current().profile },
    'Cannot add the profile'));
  $('opml-file').addEventListener('change', importOpml);
  $('opml-export').addEventListener('click', exportOpml);
}
