// The emulator's dashboard in a real browser: after the sample app's scripted session, the
// timeline lists its events newest first with the right counts; a fault added from the page makes
// the next report fail; a seed with an error shows the emulator's error at its field; a campaign
// preview renders; a page of another origin can neither reset the emulator nor read it; and the
// page logs no error. A screenshot is kept as the run's artefact.
import { spawn } from 'node:child_process';
import { mkdtempSync, mkdirSync, rmSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

const [demoBinary, emulatorBinary, artefacts] = process.argv.slice(2);
const children = [];
const work = mkdtempSync(join(tmpdir(), 'kovantis-dashboard-'));
let failures = 0;
const began = Date.now();

function check(ok, what) {
  console.log((ok ? 'ok    ' : 'FAIL  ') + what);
  if (!ok) failures++;
}

// Starts a program and waits (bounded) for a line of its output matching `pattern`.
function start(command, args, pattern, seconds) {
  return new Promise((resolve, reject) => {
    const child = spawn(command, args, { stdio: ['ignore', 'pipe', 'pipe'] });
    children.push(child);
    let seen = '';
    const timer = setTimeout(() => reject(new Error(command + ' printed no ' + pattern + ' in ' + seconds + ' s:\n' + seen)), seconds * 1000);
    const read = (chunk) => {
      seen += chunk;
      const match = seen.match(pattern);
      if (match) {
        clearTimeout(timer);
        resolve(match[1]);
      }
    };
    child.stdout.on('data', read);
    child.stderr.on('data', read);
    child.on('exit', (code) => reject(new Error(command + ' exited with ' + code + ':\n' + seen)));
  });
}

// Polls `condition` in the page until it holds, at most `seconds`.
// (Not waitForFunction: its polling evaluates text, which the page's policy rightly forbids.)
async function until(page, condition, arg, seconds = 30) {
  const deadline = Date.now() + seconds * 1000;
  while (!(await page.evaluate(condition, arg))) {
    if (Date.now() > deadline) throw new Error('timed out waiting for ' + condition.toString().slice(0, 120));
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

async function main() {
  const dashboard = await start(demoBinary, ['--keep', '--device', join(work, 'phone')], /dashboard at (http:\/\/\S+\/)/, 240);
  const browser = await chromium.launch({ executablePath: process.env.CHROMIUM, headless: true, args: ['--no-sandbox'] });
  try {
    const page = await browser.newPage({ viewport: { width: 1400, height: 1000 } });
    const problems = [];
    let refusalsExpected = false;  // the browser logs each answer of 400 to a call meant to be refused
    page.on('console', (m) => {
      if (m.type() !== 'error') return;
      if (refusalsExpected && /status of 400/.test(m.text())) return;
      problems.push(m.text());
    });
    page.on('pageerror', (e) => problems.push(e.message));

    await page.goto(dashboard);
    await until(page, () => document.body.dataset.stamp !== undefined);
    await until(page, () => document.querySelectorAll('#timeline tbody tr').length > 0);

    // The timeline: the stored events, newest first, 50 to a page; the counts agree.
    const events = await (await fetch(dashboard + '__emulator/events')).json();
    const batches = await (await fetch(dashboard + '__emulator/batches')).json();
    const rows = await page.$$eval('#timeline tbody tr', (rows) => rows.map((r) => [r.cells[4].textContent, r.cells[5].textContent]));
    const newest = events.slice().reverse().slice(0, 50);
    check(events.length > 0 && JSON.stringify(rows.map((r) => r[0])) === JSON.stringify(newest.map((e) => e.name)),
      'the timeline lists the ' + Math.min(50, events.length) + ' newest of ' + events.length + ' events in order');
    // Each event's attributes beside it: the first key of what it sent, nothing where it sent none.
    const attributed = newest.filter((e) => e.event.EVENT_ATTRS && Object.keys(e.event.EVENT_ATTRS).length);
    check(attributed.length > 0 && newest.every((e, i) => {
      const keys = Object.keys(e.event.EVENT_ATTRS ?? e.event.EVENT_ATTRS_CUST ?? {});
      return keys.length ? rows[i][1].includes(JSON.stringify(keys[0])) : rows[i][1] === '' || rows[i][1] === '{}';
    }), 'each event shows its attributes (' + attributed.length + ' with some)');
    const summary = await page.textContent('#batch-summary');
    check(summary.startsWith(batches.length + ' batches, ' + events.length + ' events'), 'batch counts: ' + summary);
    await page.click('#timeline-older');
    await until(page, (n) => document.querySelectorAll('#timeline tbody tr').length > n, Math.min(50, events.length));
    const paged = await page.$$eval('#timeline tbody tr', (rows) => rows.length);
    check(paged === Math.min(100, events.length), 'the next page follows: ' + paged + ' rows');
    await page.fill('#timeline-name', events[0].name);
    await page.press('#timeline-name', 'Enter');
    await page.dispatchEvent('#timeline-name', 'change');
    const named = events.filter((e) => e.name === events[0].name).length;
    await until(page, (n) => document.querySelectorAll('#timeline tbody tr').length === n, Math.min(50, named));
    const names = await page.$$eval('#timeline tbody tr', (rows) => rows.map((r) => r.cells[4].textContent));
    check(names.every((n) => n === events[0].name), 'filtered by "' + events[0].name + '": ' + names.length + ' rows, none other');

    // What the device sent and what was seeded for it, each in its panel.
    const categories = await (await fetch(dashboard + '__emulator/categories')).json();
    const sentCategories = categories.length ? categories.at(-1).data.map((c) => c.name) : [];
    const shownCategories = await page.textContent('#categories tbody');
    check(sentCategories.length > 0 && sentCategories.every((n) => shownCategories.includes(n)),
      'the categories the device sent: ' + sentCategories.join(', '));
    const seeded = await (await fetch(dashboard + '__emulator/seed')).json();
    const messages = await page.$$eval('#inbox tbody tr', (rows) => rows.map((r) => r.cells[1].textContent));
    check(messages.length === seeded.inbox.messagesInfo.length && messages.every((t) => t.length > 0),
      'the inbox messages with their text: ' + messages.length);
    const cids = new Set([...(seeded.inapps.campaign_info || []), ...Object.values(seeded.campaigns || {}),
      ...Object.values(seeded.smart_triggers || {})].map((c) => c.cid));
    const cards = await page.$$eval('#campaigns .card', (cards) => cards.length);
    check(cids.size > 0 && cards === cids.size, 'a card for each seeded campaign: ' + cards);
    // The sample app hands the dashboard what its phone drew for the campaigns it showed.
    await until(page, () => [...document.querySelectorAll('#campaigns img.preview')].some((i) => i.complete && i.naturalWidth > 0));
    check(true, 'the campaigns the phone showed have their picture');

    // A fault added from the page: the next report fails with it.
    await page.fill('#fault-path', '/v2/report/add');
    await page.fill('#fault-status', '503');
    await page.fill('#fault-count', '1');
    await page.click('#fault-form button[type=submit]');
    await until(page, () => document.querySelectorAll('#faults tbody tr').length === 1);
    const sent = (await (await fetch(dashboard + '__emulator/requests?path=/v2/report/add')).json()).at(-1);
    const replay = await fetch(dashboard.replace(/\/$/, '') + sent.target, { method: 'POST', body: sent.body, headers: { 'Content-Type': 'application/json' } });
    check(replay.status === 503, 'the next report after the page added a fault failed: ' + replay.status);
    await until(page, () => [...document.querySelectorAll('#requests tbody tr')].some((r) => r.cells[3].textContent === '503' && r.cells[6].textContent.includes('status 503')));
    check(true, 'the request log shows the failed report with its fault');

    // A seed with an error: the emulator's message at the field, nothing changed.
    refusalsExpected = true;
    await page.selectOption('#seed-section', 'config');
    await page.fill('#seed-text', '[1, 2]');
    await page.click('#seed-form button[type=submit]');
    await until(page, () => document.querySelector('#seed-error').textContent.length > 0);
    const seedError = await page.textContent('#seed-error');
    check(await page.$eval('#seed-text', (t) => t.classList.contains('invalid')), 'a refused seed: "' + seedError + '" at its field');
    await page.fill('#seed-text', '{"fencesInfo": [');
    await page.click('#seed-form button[type=submit]');
    await until(page, (before) => document.querySelector('#seed-error').textContent !== before, seedError);
    check(true, 'text that is not JSON: "' + (await page.textContent('#seed-error')) + '"');
    refusalsExpected = false;

    // Another origin: a page on another local port tries to reset the emulator and read it.
    const before = (await (await fetch(dashboard + '__emulator/batches')).json()).length;
    const evil = createServer((req, res) => {
      res.setHeader('Content-Type', 'text/html');
      res.end(`<script>
        const target = ${JSON.stringify(dashboard)};
        (async () => {
          const out = [];
          for (const [what, init] of [['__emulator/reset', { method: 'POST', body: '{}', headers: { 'X-Kovantis-Token': 'guess' } }],
                                      ['__emulator/reset', { method: 'POST', body: '{}', mode: 'no-cors' }],
                                      ['__emulator/events', {}], ['', {}]]) {
            try { const r = await fetch(target + what, init); out.push(what + ':' + r.status + ':' + (await r.text()).length); }
            catch (e) { out.push(what + ':blocked'); }
          }
          document.title = out.join(' ');
        })();
      </script>`);
    });
    await new Promise((resolve) => evil.listen(0, '127.0.0.1', resolve));
    const other = await browser.newPage();
    await other.goto('http://127.0.0.1:' + evil.address().port + '/');
    await until(other, () => document.title.length > 0);
    const attempts = await other.title();
    const after = (await (await fetch(dashboard + '__emulator/batches')).json()).length;
    check(after === before && before > 0, 'a page of another origin did not reset the emulator (' + after + ' batches)');
    check(!/events:200:[1-9]/.test(attempts) && !/ :200:[1-9]/.test(' ' + attempts.split(' ').slice(-1)),
      'nor read its data or its page: ' + attempts);
    await other.close();
    evil.close();

    // A campaign preview, drawn by the emulator program with the simulated phone's renderer.
    const seed = join(work, 'seed.json');
    writeFileSync(seed, JSON.stringify({ inapps: { campaign_info: [{
      cid: 'welcome', type: 'general', status: 'active', widgets: [{ id: 1, type: 'text', content: 'Welcome back' }],
    }] } }));
    const program = await start(emulatorBinary, ['--port', '0', '--data', join(work, 'program'), '--seed', seed, '--quiet'],
      /dashboard\s+(http:\/\/\S+\/)/, 30);
    const previewPage = await browser.newPage();
    previewPage.on('console', (m) => { if (m.type() === 'error') problems.push(m.text()); });
    await previewPage.goto(program);
    await until(previewPage, () => { const i = document.querySelector('#campaigns img.preview'); return i && i.complete && i.naturalWidth > 0; });
    check(true, 'the campaign preview renders');
    await previewPage.close();

    // The artefact: the page as it opens after the session, from its top.
    mkdirSync(artefacts, { recursive: true });
    await page.fill('#timeline-name', '');
    await page.dispatchEvent('#timeline-name', 'change');
    await until(page, (n) => document.querySelectorAll('#timeline tbody tr').length === n, Math.min(50, events.length));
    await page.selectOption('#seed-section', 'config');
    // From the top of the page down to the campaigns' pictures.
    const bottom = await page.evaluate(() => {
      document.activeElement.blur();
      window.scrollTo(0, 0);
      return Math.ceil(document.querySelector('#campaigns-panel').getBoundingClientRect().bottom) + 14;
    });
    await page.screenshot({ path: join(artefacts, 'dashboard.png'), fullPage: true, clip: { x: 0, y: 0, width: 1400, height: bottom } });
    check(true, 'screenshot: ' + join(artefacts, 'dashboard.png'));
    check(problems.length === 0, 'no console errors' + (problems.length ? ': ' + problems.join(' | ') : ''));
  } finally {
    await browser.close();
  }
}

main().catch((e) => {
  console.log('FAIL  ' + e.message);
  failures++;
}).finally(async () => {
  // The programs stop on SIGTERM; their files go only once they have (10 s at most).
  await Promise.all(children.map((child) => new Promise((resolve) => {
    if (child.exitCode !== null || child.signalCode !== null) return resolve();
    const timer = setTimeout(() => { child.kill('SIGKILL'); resolve(); }, 10000);
    child.on('exit', () => { clearTimeout(timer); resolve(); });
    child.kill('SIGTERM');
  })));
  rmSync(work, { recursive: true, force: true });
  console.log((failures ? 'FAILED' : 'PASSED') + ' (' + ((Date.now() - began) / 1000).toFixed(1) + ' s)');
  process.exit(failures ? 1 : 0);
});
