// The emulator's dashboard: reads the /__emulator/ API of the server that served it, polls one
// change stamp at most once a second and redraws what changed. Every call that changes the
// emulator carries the run's token, which only this page (same origin) could read.
'use strict';

const API = '/__emulator/';
const TOKEN = document.querySelector('meta[name="kovantis-token"]').content;
const POLL_MS = 1000;
const SECTIONS = ['config', 'inapps', 'campaigns', 'smart_triggers', 'inbox', 'geofences', 'geofence_hit', 'images'];

const $ = (id) => document.getElementById(id);

async function getJSON(what) {
  const res = await fetch(API + what, { cache: 'no-store' });
  if (!res.ok) throw new Error(what + ': ' + res.status);
  return res.json();
}

// Changes the emulator; answers the error text the emulator gave, or '' when it accepted.
async function change(method, what, body) {
  const res = await fetch(API + what, {
    method,
    headers: { 'Content-Type': 'application/json', 'X-Kovantis-Token': TOKEN },
    body,
  });
  if (res.ok) return '';
  try {
    return (await res.json()).error || 'refused (' + res.status + ')';
  } catch (e) {
    return 'refused (' + res.status + ')';
  }
}

function time(seconds) {
  if (!seconds) return '';
  const d = new Date(seconds * 1000);
  return d.toLocaleTimeString([], { hour12: false }) + '.' + String(d.getMilliseconds()).padStart(3, '0');
}

function short(text, n) {
  text = String(text ?? '');
  return text.length > n ? text.slice(0, n - 1) + '…' : text;
}

// A table body from rows of cells; a cell is text, or {text, cls} for a styled one.
function fill(table, rows, rowClass) {
  const body = $(table).tBodies[0];
  body.replaceChildren(...rows.map((cells, i) => {
    const tr = document.createElement('tr');
    if (rowClass) tr.className = rowClass(i) || '';
    for (const cell of cells) {
      const td = document.createElement('td');
      if (cell && typeof cell === 'object') {
        td.textContent = cell.text;
        td.className = cell.cls || '';
      } else {
        td.textContent = cell ?? '';
      }
      tr.append(td);
    }
    return tr;
  }));
}

// ------------------------------------------------------------------ panels

let seeds = {};

async function drawDevices() {
  const devices = await getJSON('devices');
  fill('devices', devices.map((d) => [
    d.IDFV, { text: d.device_unique_id, cls: 'code' }, d.unique_id, { text: short(d.push_id, 24), cls: 'code' },
    d.model + ' / ' + d.os_ver, d.app_ver, d.sdk_ver, time(d.last_seen), d.registrations,
  ]));
  const select = $('timeline-device');
  const chosen = select.value;
  const options = [new Option('every device', '')];
  for (const d of devices) options.push(new Option(d.unique_id || d.IDFV, d.unique_id));
  select.replaceChildren(...options);
  select.value = chosen;
}

// Each install's consent as its last call said it, and the installs a wipe ended (the service's
// rule: /__emulator/privacy).
async function drawPrivacy() {
  const installs = await getJSON('privacy');
  fill('privacy', installs.map((d) => [
    { text: d.unique_id, cls: 'code' }, { text: d.device_unique_id, cls: 'code' },
    { text: d.consent, cls: d.consent === 'denied' ? 'bad' : '' },
    d.wiped ? { text: 'wiped (then ' + short(d.followed_by, 24) + ')', cls: 'bad' } : 'kept',
    d.calls, time(d.last_seen),
  ]));
}

// The timeline is paged: a page is asked for with the cursor the previous one answered.
const timeline = { pages: [], cursor: null, names: new Set(), asked: 0 };

function timelineQuery(cursor) {
  const q = new URLSearchParams({ limit: '50' });
  if ($('timeline-device').value) q.set('device', $('timeline-device').value);
  if ($('timeline-name').value) q.set('name', $('timeline-name').value);
  if ($('timeline-search').value) q.set('q', $('timeline-search').value);
  if (cursor) {
    q.set('before_row', cursor.before_row);
    q.set('before_position', cursor.before_position);
  }
  return 'timeline?' + q;
}

async function drawTimeline(older) {
  const asked = ++timeline.asked;
  const page = await getJSON(timelineQuery(older ? timeline.cursor : null));
  // Answers can come back out of order (a filter typed while a redraw is out): the last asked wins.
  if (asked !== timeline.asked) return;
  timeline.pages = older ? timeline.pages.concat(page.events) : page.events;
  timeline.cursor = page.next;
  for (const e of page.events) if (e.name) timeline.names.add(e.name);
  fill('timeline', timeline.pages.map((e) => {
    // The SDK sends an event's attributes in EVENT_ATTRS and its date attributes in EVENT_ATTRS_CUST.
    const attributes = [e.event.EVENT_ATTRS, e.event.EVENT_ATTRS_CUST].filter((a) => a !== undefined)
      .map((a) => JSON.stringify(a)).join(' ');
    return [time(e.received), short(e.unique_id, 18), { text: e.batch_id, cls: 'code' }, e.position, e.name,
      { text: short(attributes, 160), cls: 'code' }];
  }));
  $('timeline-older').disabled = !timeline.cursor;
  $('event-names').replaceChildren(...[...timeline.names].sort().map((n) => new Option(n)));
  $('timeline-summary').textContent = timeline.pages.length + ' shown' + (timeline.cursor ? ', more below' : '');
}

async function drawBatches() {
  const [batches, duplicates] = await Promise.all([getJSON('batches'), getJSON('duplicates')]);
  const events = batches.reduce((n, b) => n + (b.events ?? b.views_count ?? 0), 0);
  $('batch-summary').textContent = batches.length + ' batches, ' + events + ' events, ' + duplicates.length + ' duplicates refused';
  fill('duplicates', duplicates.map((d) => [{ text: d.batch_id, cls: 'code' }, short(d.unique_id, 18), d.views_count,
    d.identical ? 'yes' : 'no']));
}

async function drawRequests() {
  const log = await getJSON('request_log?limit=200');
  fill('requests', log.requests.map((r) => [time(r.time), r.method, { text: short(r.target, 90), cls: 'code' },
    r.status || 'dropped', r.duration_ms.toFixed(1), r.body_bytes, r.fault || r.error]),
  (i) => (log.requests[i].status !== 200 && log.requests[i].status !== 204 ? 'failed' : ''));
}

async function drawFaults() {
  const faults = await getJSON('fault');
  fill('faults', faults.map((f) => [f.path, f.status, f.delay_ms, f.drop ? 'yes' : '', f.count < 0 ? 'until cleared' : f.count]));
}

function seededCampaigns() {
  const list = [];
  const seen = new Set();
  const add = (c) => {
    if (c && typeof c === 'object' && typeof c.cid === 'string' && !seen.has(c.cid)) {
      seen.add(c.cid);
      list.push(c);
    }
  };
  for (const c of (seeds.inapps && seeds.inapps.campaign_info) || []) add(c);
  for (const c of Object.values(seeds.campaigns || {})) add(c);
  for (const c of Object.values(seeds.smart_triggers || {})) add(c);
  return list;
}

const previews = new Map();  // campaign id and seed text -> picture (a data: URL) or null

async function preview(campaign) {
  const key = campaign.cid + JSON.stringify(campaign);
  if (!previews.has(key)) {
    const res = await fetch(API + 'campaign_preview?id=' + encodeURIComponent(campaign.cid), { cache: 'no-store' });
    previews.set(key, res.status === 200 ? 'data:image/svg+xml;charset=utf-8,' + encodeURIComponent(await res.text()) : null);
  }
  return previews.get(key);
}

async function drawCampaigns() {
  const counts = new Map((await getJSON('campaign_events')).map((c) => [c.cid, c]));
  const cards = [];
  for (const campaign of seededCampaigns()) {
    const card = document.createElement('div');
    card.className = 'card';
    const title = document.createElement('div');
    title.textContent = campaign.cid + (campaign.name ? ' — ' + campaign.name : '');
    const picture = await preview(campaign);
    let view;
    if (picture) {
      view = document.createElement('img');
      view.src = picture;
      view.alt = 'preview of ' + campaign.cid;
      view.className = 'preview';
    } else {
      view = document.createElement('div');
      view.className = 'none';
      view.textContent = 'no preview';
    }
    const c = counts.get(campaign.cid) || {};
    const line = document.createElement('div');
    line.className = 'counts';
    line.textContent = 'shown ' + (c.inapp_shown || 0) + ' · clicked ' + (c.inapp_clicked || 0) +
      ' · auto-dismissed ' + (c.inapp_auto_dismissed || 0);
    card.append(title, view, line);
    cards.push(card);
  }
  $('campaigns').replaceChildren(...cards);
  fill('push', [...counts.values()].filter((c) => c.push_received || c.push_clicked || c.push_dismissed)
    .map((c) => [c.cid, c.push_received, c.push_clicked, c.push_dismissed]));
}

async function drawCategories() {
  const categories = await getJSON('categories');
  const latest = new Map();
  for (const c of categories) latest.set(c.device_unique_id || c.unique_id, c);
  fill('categories', [...latest.entries()].map(([device, c]) => {
    let names = c.data;
    // Each category as the SDK sends it: its name and its actions' titles.
    const label = (x) => (x && typeof x === 'object'
      ? (x.name ?? x.identifier ?? x.id ?? '?') + (Array.isArray(x.actions) ? ' (' + x.actions.join(', ') + ')' : '')
      : String(x));
    if (Array.isArray(names)) {
      names = names.map(label).join(', ');
    } else {
      try {
        names = JSON.parse(names).map(label).join(', ');
      } catch (e) { /* shown as sent */ }
    }
    return [short(device, 18), { text: short(names, 120), cls: 'code' }];
  }));
}

// A message's text: its alert as a push carries it (a string, or a title and a body).
function messageText(m) {
  const alert = m.data?.aps?.alert ?? m.aps?.alert;
  if (typeof alert === 'string') return alert;
  return ((m.title ?? alert?.title ?? '') + ' ' + (m.body ?? alert?.body ?? m.message ?? '')).trim();
}

function drawInbox() {
  const messages = (seeds.inbox && seeds.inbox.messagesInfo) || [];
  fill('inbox', messages.filter((m) => m && typeof m === 'object').map((m) => [
    m.push_id ? short(m.push_id, 16) : 'every device',
    short(messageText(m), 80),
    typeof m.c_cr_t === 'number' ? new Date(m.c_cr_t * 1000).toLocaleString() : String(m.c_cr_t ?? ''),
  ]));
}

async function drawGeofences() {
  const fences = ((seeds.geofences && seeds.geofences.fencesInfo) || [])
    .filter((f) => f && typeof f.lat === 'number' && typeof f.lng === 'number');
  const hits = await getJSON('geofence_hits');
  fill('geofence-hits', hits.map((h) => [h.geoId, h.transitionType, h.lat.toFixed(5) + ', ' + h.lng.toFixed(5), short(h.unique_id, 18)]));
  const map = $('geofence-map');
  const points = fences.map((f) => [f.lat, f.lng]).concat(hits.map((h) => [h.lat, h.lng]));
  if (!points.length) {
    map.replaceChildren();
    return;
  }
  // An equirectangular view around the fences, metres to pixels at the middle latitude.
  const lat0 = points.reduce((s, p) => s + p[0], 0) / points.length;
  const lng0 = points.reduce((s, p) => s + p[1], 0) / points.length;
  const mx = 111320 * Math.cos(lat0 * Math.PI / 180), my = 110540;
  let extent = 1;
  for (const f of fences) {
    extent = Math.max(extent, Math.abs(f.lat - lat0) * my + (f.distance || 0), Math.abs(f.lng - lng0) * mx + (f.distance || 0));
  }
  for (const h of hits) extent = Math.max(extent, Math.abs(h.lat - lat0) * my, Math.abs(h.lng - lng0) * mx);
  const scale = 120 / extent;
  const at = (lat, lng) => [200 + (lng - lng0) * mx * scale, 130 - (lat - lat0) * my * scale];
  const ns = 'http://www.w3.org/2000/svg';
  const shapes = [];
  for (const f of fences) {
    const [x, y] = at(f.lat, f.lng);
    const circle = document.createElementNS(ns, 'circle');
    circle.setAttribute('cx', x);
    circle.setAttribute('cy', y);
    circle.setAttribute('r', Math.max(2, (f.distance || 0) * scale));
    circle.setAttribute('class', 'fence');
    const label = document.createElementNS(ns, 'text');
    label.setAttribute('x', x + 4);
    label.setAttribute('y', y - 4);
    label.textContent = f.geoId ?? '';
    shapes.push(circle, label);
  }
  for (const h of hits) {
    const [x, y] = at(h.lat, h.lng);
    const dot = document.createElementNS(ns, 'circle');
    dot.setAttribute('cx', x);
    dot.setAttribute('cy', y);
    dot.setAttribute('r', 3);
    dot.setAttribute('class', h.transitionType === 'exit' ? 'hit-exit' : 'hit-enter');
    shapes.push(dot);
  }
  map.replaceChildren(...shapes);
}

async function drawLogs() {
  const logs = await getJSON('logs');
  fill('logs', logs.slice(-200).reverse().map((l) => [l.lvl, { text: short(l.msg, 200), cls: 'code' }, l.sdk_ver]));
}

function drawSeedEditor() {
  const select = $('seed-section');
  if (!select.options.length) select.replaceChildren(...SECTIONS.map((s) => new Option(s)));
  const text = $('seed-text');
  if (document.activeElement !== text && !text.dataset.edited) {
    text.value = JSON.stringify(seeds[select.value] ?? {}, null, 2);
  }
}

async function drawSeeds() {
  seeds = await getJSON('seed');
  drawInbox();
  drawSeedEditor();
}

// ------------------------------------------------------------------ live updates

let stamp = null;
let busy = false;

async function refresh(all) {
  await drawSeeds();
  await Promise.all([drawDevices(), drawPrivacy(), drawBatches(), drawRequests(), drawFaults(), drawCampaigns(), drawCategories(),
    drawGeofences(), drawLogs(), all || timeline.pages.length <= 50 ? drawTimeline(false) : null]);
}

async function poll() {
  if (busy) return;
  busy = true;
  try {
    const now = (await getJSON('changes')).stamp;
    $('live').textContent = 'live';
    $('live').className = 'badge live';
    if (now !== stamp) {
      stamp = now;
      await refresh(false);
      document.body.dataset.stamp = String(now);  // for whoever waits for a redraw
    }
  } catch (e) {
    $('live').textContent = 'emulator unreachable';
    $('live').className = 'badge down';
  } finally {
    busy = false;
  }
}

// ------------------------------------------------------------------ controls

function wire() {
  $('reset').addEventListener('click', async () => {
    const error = await change('POST', 'reset', JSON.stringify({ seeds: $('reset-seeds').checked }));
    if (error) alert(error);
    timeline.names.clear();
    await poll();
  });
  $('fault-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const fault = {
      path: $('fault-path').value,
      status: Number($('fault-status').value),
      count: Number($('fault-count').value),
      delay_ms: Number($('fault-delay').value),
      drop: $('fault-drop').checked,
    };
    const error = await change('POST', 'fault', JSON.stringify(fault));
    $('fault-error').textContent = error;
    $('fault-path').classList.toggle('invalid', !!error);
    await drawFaults();
  });
  $('faults-clear').addEventListener('click', async () => {
    await change('DELETE', 'fault');
    await drawFaults();
  });
  $('seed-section').addEventListener('change', () => {
    delete $('seed-text').dataset.edited;
    $('seed-error').textContent = '';
    $('seed-text').classList.remove('invalid');
    drawSeedEditor();
  });
  $('seed-text').addEventListener('input', () => { $('seed-text').dataset.edited = '1'; });
  $('seed-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    // The text goes to the emulator as typed: its own validation says what is wrong.
    const body = '{' + JSON.stringify($('seed-section').value) + ':' + $('seed-text').value + '}';
    const error = await change('POST', 'seed', body);
    $('seed-error').textContent = error;
    $('seed-text').classList.toggle('invalid', !!error);
    if (!error) {
      delete $('seed-text').dataset.edited;
      await drawSeeds();
    }
  });
  for (const id of ['timeline-device', 'timeline-name', 'timeline-search']) {
    $(id).addEventListener('change', () => drawTimeline(false));
  }
  $('timeline-newest').addEventListener('click', () => drawTimeline(false));
  $('timeline-older').addEventListener('click', () => drawTimeline(true));
}

wire();
poll();
setInterval(poll, POLL_MS);
