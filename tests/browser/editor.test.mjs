// The material editor in a real browser: Debian's chromium, headless, driven by
// playwright-core against `kelvo preview serve`. Run by ctest (KELVO_TOOL names the tool,
// KELVO_SCREENSHOTS the folder for the pictures README shows); exits 77 (skipped) when
// chromium or the driver is not installed.
import { spawn } from 'node:child_process';
import { existsSync, mkdirSync, mkdtempSync, rmSync, copyFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';

const here = dirname(fileURLToPath(import.meta.url));
const chromiumPath = process.env.KELVO_CHROMIUM || '/usr/bin/chromium';
const tool = process.env.KELVO_TOOL || join(here, '../../build/bin/kelvo');
const shots = process.env.KELVO_SCREENSHOTS || join(here, '../../build/screenshots');

if (!existsSync(chromiumPath) || !existsSync(join(here, 'node_modules/playwright-core'))) {
  console.log(`skipped: needs ${chromiumPath} and tests/browser/node_modules ` +
              '(scripts/setup.sh installs both)');
  process.exit(77);
}
if (!existsSync(tool)) {
  console.log(`skipped: no tool at ${tool}`);
  process.exit(77);
}
const { chromium } = await import('playwright-core');

// This machine's network is closed: nothing that phones home.
const chromiumFlags = [
  '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
];

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

async function until(what, check, timeoutMs = 30000) {
  const end = Date.now() + timeoutMs;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await sleep(50);
  }
}

describe('kelvo preview serve in chromium', () => {
  let server, base, context, page;
  const scratch = mkdtempSync(join(tmpdir(), 'kelvo-browser-'));
  const stats = async () => (await fetch(base + '/api/stats')).json();

  before(async () => {
    // A served folder with the sample IES profile, so the page offers one.
    const root = join(scratch, 'root');
    mkdirSync(root);
    copyFileSync(join(here, '../../resources/ies/kelvo_sample_spot.ies'), join(root, 'spot.ies'));
    server = spawn(tool, ['preview', 'serve', '--listen', '127.0.0.1:0', '--root', root],
                   { stdio: ['ignore', 'pipe', 'inherit'] });
    base = await new Promise((resolve, reject) => {
      let text = '';
      server.stdout.on('data', (d) => {
        text += d;
        const m = text.match(/http:\/\/127\.0\.0\.1:(\d+)\//);
        if (m) resolve(`http://127.0.0.1:${m[1]}`);
      });
      server.on('exit', (code) => reject(new Error(`the server ended with ${code}`)));
    });
    mkdirSync(shots, { recursive: true });
    context = await chromium.launchPersistentContext(join(scratch, 'profile'), {
      executablePath: chromiumPath, headless: true, args: chromiumFlags,
      viewport: { width: 1100, height: 760 },
    });
    page = context.pages()[0] || await context.newPage();
    await page.goto(base + '/');
    await until('the stream', async () => (await page.textContent('#connection')) === 'live');
  });

  after(async () => {
    await context?.close();
    if (server && server.exitCode === null) {
      const ended = new Promise((r) => server.on('exit', r));
      server.kill('SIGINT');
      assert.equal(await ended, 0, 'the server stops cleanly on Ctrl-C');
    }
    rmSync(scratch, { recursive: true, force: true });
  });

  const frames = () => page.evaluate(() => window.kelvo.frames);
  const swatch = () => page.evaluate(() => {
    const c = document.getElementById('swatch');
    return Array.from(c.getContext('2d').getImageData(0, 0, c.width, c.height).data);
  });
  // Waits for the editor's newest request of `count` iterations to deliver its last one.
  const finished = (count) => until('the last iteration', async () => {
    const f = await frames();
    const last = f[f.length - 1];
    return last && last.iteration === last.count && (!count || last.count === count) && last;
  });

  it('builds the controls from the server\'s description of ggxbrdf', async () => {
    await page.selectOption('#model', 'ggxbrdf');
    assert.equal(await page.locator('#keys .key').count(), 1);
    assert.equal(await page.getAttribute('#key-roughness', 'max'), '1');
    await page.selectOption('#model', 'anisotropicbtdf');
    const keys = await page.$$eval('#keys .key', (k) => k.map((e) => e.dataset.key));
    assert.deepEqual(keys, ['roughness', 'anisotropy', 'rotation', 'iorout', 'iorin']);
    await page.selectOption('#model', 'ggxbrdf');
    assert.deepEqual(await page.$$eval('#ies option', (o) => o.map((e) => e.value)), ['', 'spot.ies']);
  });

  it('changes the swatch when roughness moves, refines it, and reports the edit\'s latency',
     async () => {
    await page.fill('#iterations', '48');
    await page.dispatchEvent('#iterations', 'change');
    const before = await finished(48);
    const smooth = await swatch();

    await page.fill('#key-roughness', '0.85');
    const after = await until('the new request', async () => {
      const f = await frames();
      const last = f[f.length - 1];
      return last && last.request > before.request && last.iteration === last.count && last;
    });
    const rough = await swatch();
    let change = 0;
    for (let i = 0; i < rough.length; i += 4) change += Math.abs(rough[i] - smooth[i]);
    change /= rough.length / 4;
    assert.ok(change > 1.0, `the swatch changed (mean red difference ${change.toFixed(2)})`);

    // Successive frames differ less and less: compare the first and last quarters.
    const diffs = (await frames())
        .filter((f) => f.request === after.request && f.diff !== null).map((f) => f.diff);
    assert.ok(diffs.length >= 8, `enough frames arrived (${diffs.length})`);
    const mean = (a) => a.reduce((s, v) => s + v, 0) / a.length;
    const q = Math.floor(diffs.length / 4);
    const early = mean(diffs.slice(0, q)), late = mean(diffs.slice(-q));
    assert.ok(late < early * 0.6, `refines: early ${early.toFixed(2)}, late ${late.toFixed(2)}`);

    const latency = await page.textContent('#latency');
    assert.match(latency, /first frame after an edit: \d+ ms/);
    const measured = await page.evaluate(() => window.kelvo.latencies);
    console.log(`edit to first frame in the browser: ${measured.map((v) => v.toFixed(1)).join(', ')} ms;` +
                ` server, submit to first frame written: ${(await stats()).lastFirstFrameMs} ms`);
    assert.match(await page.textContent('#progress'), /iteration 48 \/ 48 · [\d.]+ [kM]?\s?samples\/s/);
    await page.screenshot({ path: join(shots, 'serve-editor.png') });
  });

  it('writes the material as JSON and sets the controls from pasted JSON', async () => {
    const shown = JSON.parse(await page.inputValue('#material-json'));
    assert.equal(shown.model, 'ggxbrdf');
    assert.equal(shown.data.roughness, 0.85);
    await page.fill('#material-json', JSON.stringify({
      model: 'anisotropicbrdf', data: { roughness: 0.6, anisotropy: 0.7 }, colour: [0.2, 0.5, 0.8],
      ies: 'spot.ies',
    }));
    await page.click('#apply-json');
    assert.equal(await page.inputValue('#model'), 'anisotropicbrdf');
    assert.equal(await page.inputValue('#key-roughness'), '0.6');
    assert.equal(await page.inputValue('#key-anisotropy'), '0.7');
    assert.equal(await page.inputValue('#ies'), 'spot.ies');
    const back = JSON.parse(await page.inputValue('#material-json'));
    assert.deepEqual(back.colour.map((v) => Math.round(v * 100) / 100), [0.2, 0.5, 0.8]);
    await page.fill('#material-json', '{"model": "ggxbrdf", "shine": 2}');
    await page.click('#apply-json');
    await until('the server\'s error', async () =>
      (await page.textContent('#error')) === 'Illegal argument: Unknown material member \'shine\'.');
    await page.fill('#material-json', '{"model": "ggxbrdf", "data": {"roughness": 0.35}}');
    await page.click('#apply-json');
    await until('the error to clear', async () => await page.isHidden('#error'));
  });

  it('shows all fifteen models in the sheet view and opens one in the editor', async () => {
    await page.click('#tab-sheet');
    await until('fifteen finished cells', async () => {
      const states = await page.$$eval('.cell .state', (s) => s.map((e) => e.textContent));
      return states.length === 15 && states.every((s) => s === '32 / 32');
    }, 120000);
    await page.screenshot({ path: join(shots, 'serve-sheet.png') });
    await page.click('.cell[data-model="wardbtdf"]');
    assert.equal(await page.inputValue('#model'), 'wardbtdf');
    assert.ok(await page.isVisible('#swatch'));
    await finished();
  });

  it('releases the requests of a closed tab', async () => {
    await until('an idle server', async () => (await stats()).active === 0);
    const released = (await stats()).released;
    const tab = await context.newPage();
    await tab.goto(base + '/');
    await until('the second tab', async () => (await tab.textContent('#connection')) === 'live');
    await tab.fill('#iterations', '4096');
    await tab.dispatchEvent('#iterations', 'change');
    await tab.click('#tab-sheet');
    await until('the tab\'s requests', async () => {
      const s = await stats();
      return s.clients === 2 && s.active >= 16 && s;
    });
    await tab.close();
    const s = await until('the release', async () => {
      const s = await stats();
      return s.clients === 1 && s.active === 0 && s;
    }, 10000);
    assert.ok(s.released - released >= 16, `released ${s.released - released}`);
    assert.equal(s.pendingFrames, 0);
  });
});
