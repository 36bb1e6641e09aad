// The update page in the system's chromium, against the device that
// "e2e.sh browser" serves over HTTPS: another site's page tries to reach the
// program, a page of the same site to frame the update page; then the real
// page, signed in, takes a package through to the reboot; then a table of
// the page's other states, some through a relay that cuts or silences the
// connection; every state passes axe-core's WCAG 2.1 AA rules. Environment:
// BASE, AUTH ("user:password"), ROOT (device root on the host), PACKAGE (file
// to upload), ARTIFACTS (screenshots). Without ROOT the device is the
// emulated one (tests/device): its files are out of reach, so the tests that
// need them are skipped, and everything takes longer.
import {test} from 'node:test';
import assert from 'node:assert/strict';
import {createServer} from 'node:http';
import {createServer as createTlsServer} from 'node:https';
import {createServer as createRelay, connect} from 'node:net';
import {readFileSync, readdirSync, rmSync, truncateSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {chromium} from 'playwright-core';

const {BASE, AUTH, ROOT, PACKAGE, ARTIFACTS} = process.env;
// The device's certificate is its own: the browser is told to take it.
const [username, password] = AUTH.split(':');
const signedInAt = (origin) => ({httpCredentials: {username, password, origin}, ignoreHTTPSErrors: true});
const files = (dir) => readdirSync(join(ROOT, dir));
// Waits end at their event; their bounds only have to hold on a loaded machine.
const device = !ROOT, slow = device ? 8 : 2;
const fake = (settings) => Object.entries(settings).forEach(([name, value]) => writeFileSync(join(ROOT, 'fake', name), `${value}`));
const sees = async (page, ...texts) => { for (const text of texts) await (`${text}`.startsWith('#') ?
    page.locator(text).waitFor({state: 'attached'}) : page.getByText(text).first().waitFor()); };
const choose = (page, name, bytes) => page.setInputFiles('#package', {name, mimeType: 'application/octet-stream', buffer: Buffer.alloc(bytes, 7)});
const send = (page, name, bytes) => choose(page, name, bytes).then(() => page.click('#update'));
const throttle = async (page, context, uploadThroughput) => (await context.newCDPSession(page)).send('Network.emulateNetworkConditions',
    {offline: false, latency: 0, downloadThroughput: -1, uploadThroughput});
const axe = readFileSync(new URL('node_modules/axe-core/axe.min.js', import.meta.url), 'utf8');
const accessible = async (page, state) => assert.deepEqual(await page.evaluate(`${axe}; axe.run({runOnly: ['wcag2a', 'wcag2aa',
    'wcag21a', 'wcag21aa']}).then((r) => r.violations.map((v) => v.id + ' ' + v.nodes.map((n) => n.target).join()))`), [], state);
// Between the browser and the device: "cut" drops the connections and takes
// no new ones, "silence" holds their bytes, "pass" forwards again.
async function relay() {
    const open = new Set(), {hostname, port} = new URL(BASE), state = {mode: 'pass'};
    const server = createRelay((client) => {
        if (state.mode === 'cut') return client.destroy();
        const pair = [client, connect(port, hostname)];
        open.add(pair);
        for (const [from, to] of [pair, [...pair].reverse()]) from.on('data', (bytes) => to.write(bytes))
            .on('error', () => {}).on('close', () => to.destroy() && open.delete(pair));
        if (state.mode === 'silence') pair.forEach((socket) => socket.pause());
    });
    await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
    return Object.assign(state, {url: `https://127.0.0.1:${server.address().port}`, close: () => server.close(),
        set: (mode) => { state.mode = mode; for (const socket of [...open].flat()) socket[{cut: 'destroy', silence: 'pause', pass: 'resume'}[mode]](); }});
}

// A fresh browser each time, with the flags that keep chromium off the network.
async function withPage(options, body) {
    const browser = await chromium.launch({executablePath: '/usr/bin/chromium', args: ['--no-sandbox',
        '--disable-gpu', '--disable-background-networking', '--disable-component-update', '--disable-sync']});
    const context = await browser.newContext({viewport: {width: 900, height: 1000}, ignoreHTTPSErrors: true, ...options});
    context.setDefaultTimeout(30000 * slow);
    await body(await context.newPage(), context).finally(() => browser.close());
}

// Another site's page, open in a browser signed in to the device or not: an
// image, a form posted as it loads and fetches, all aimed at the program.
const program = BASE + '/cgi-bin/updater';
// The page visited and left after its last poll; then the traces go, which
// every start of the program leaves in /var/log.
const visited = async (page) => { await page.goto(BASE + '/update/'); await sees(page, 'Ready: choose a package file.');
    await page.goto('about:blank'); await page.waitForTimeout(500); };
const clearTraces = () => files('var-log').forEach((name) => rmSync(join(ROOT, 'var-log', name)));
const hostile = `<img src="${program}?reboot=1"><iframe name="sink"></iframe>
<form method="post" enctype="multipart/form-data" action="${program}" target="sink">
<input type="hidden" name="package" value="firmware"></form>
<script>document.forms[0].submit(); const form = new FormData(); form.append('package', new Blob(['x']), 'fw.pkg');
const page = {credentials: 'include', headers: {'X-Updater-Page': '1'}};
fetch('${program}?reboot=1', {mode: 'no-cors', ...page});
fetch('${program}', {method: 'POST', mode: 'no-cors', body: form, ...page});
fetch('${program}?reboot=1', page).catch(() => {});</script>`;
test('another site cannot reach the program', {timeout: 60000, skip: device}, async () => {
    const site = createServer((request, response) => response.end(hostile));
    await new Promise((resolve) => site.listen(0, '127.0.0.1', resolve));
    for (const options of [{}, signedInAt(BASE)]) {
        await withPage(options, async (page) => {
            if (options.httpCredentials) await visited(page);
            clearTraces();
            await page.goto(`http://127.0.0.1:${site.address().port}/`);
            await page.waitForTimeout(2000);
            assert.deepEqual([files('var-log'), files('fake').filter((f) => f.startsWith('record'))], [[], []],
                'the program never ran');
        });
    }
    site.close();
});

// A page of the same site (another port of the device's address) frames the
// update page, to lay a decoy over its Reboot button, and the program.
const framing = `<iframe src="${BASE}/update/"></iframe><iframe src="${program}?reboot=1"></iframe>`;
test('a page of the same site cannot frame the page or reach the program', {timeout: 60000, skip: device}, async () => {
    const tls = (name) => readFileSync(join(ROOT, 'server', 'https', name));
    const site = createTlsServer({key: tls('key.pem'), cert: tls('cert.pem')}, (request, response) => response.end(framing));
    await new Promise((resolve) => site.listen(0, '127.0.0.1', resolve));
    await withPage(signedInAt(BASE), async (page) => {
        await visited(page);
        clearTraces();
        await page.goto(`https://127.0.0.1:${site.address().port}/`);
        await page.waitForTimeout(2000);
        const shown = await Promise.all(page.frames().map((f) => f.evaluate(() => document.body.innerText).catch(() => '')));
        assert.deepEqual(shown.filter((text) => text.includes('Update')), [], 'no frame shows the update page');
        assert.deepEqual(files('var-log'), [], 'the program never ran');
    });
    site.close();
});

test('a whole update, signed in', {timeout: 150000 * slow}, () => withPage(signedInAt(BASE), async (page, context) => {
    const requests = [], post = {};
    page.on('request', (r) => requests.push({at: Date.now(), url: r.url()}) && r.method() === 'POST' && (post.start = Date.now()));
    // On a real device the reboot may cut the POST's answer short.
    for (const end of ['requestfinished', 'requestfailed']) page.on(end, (r) => r.method() === 'POST' && (post.end = Date.now()));
    await page.goto(BASE + '/update/');
    await sees(page, 'No update has been recorded on this device yet.', 'Ready: choose a package file.',
        ...device ? [] : ['Running: firmware 1.0 (slot A).', 'Nothing has been installed on this device yet.']);
    await accessible(page, 'the first visit');
    page.once('dialog', (d) => d.dismiss()); await page.click('#reboot'); await page.waitForTimeout(300);
    assert.ok(!requests.some((r) => r.url.includes('reboot')), 'a declined reboot sends no request');

    // A loopback upload is over before any poll; 4 MiB/s makes it last.
    await throttle(page, context, 4 << 20);
    await page.setInputFiles('#package', PACKAGE);
    // The live regions: every change to the status line and the log.
    await page.evaluate(() => { window.changes = 0; const count = new MutationObserver((r) => (window.changes += r.length));
        for (const id of ['state', 'log']) count.observe(document.getElementById(id), {childList: true, subtree: true, characterData: true}); });
    await page.click('#update'); await sees(page, 'to the device. Keep this page open.', ' s left');
    assert.equal(await page.evaluate(() => document.activeElement.id), 'state', 'the focus on the status');
    await accessible(page, 'the upload');
    await page.locator('#log .entry', {hasText: 'installing package file ...'}).waitFor();
    assert.deepEqual(await page.$$eval('.bar', (bars) => bars.map((b) => b.getAttribute('aria-valuenow'))), ['100', '80']);
    await sees(page, 'Do not switch the device off');
    await page.locator('#log .entry.success').waitFor({timeout: 30000 * slow});
    assert.equal(await page.locator('#log .entry').count(), 8, 'every entry of the log');
    await accessible(page, 'the installation');
    // e2e.sh takes the server down when the device is told to reboot.
    await page.locator('#outcome').getByText('your update with', {exact: false}).waitFor({timeout: 60000 * slow});
    await sees(page, 'succeeded: firmware successfully loaded.', 'Ready: choose a package file.',
        ...device ? [] : ['installed and running; it replaced 1.0.', 'Running: firmware 2.0 (slot B), which replaced 1.0.']);
    assert.deepEqual(await page.evaluate(() => [document.activeElement.id, window.changes <= 8 + 5]), ['outcome', true],
        'the focus on the result; the live regions changed at most once an entry and once a phase (sending, ' +
        'installing, succeeded, restarting, ready)');
    assert.ok(await page.isVisible('#trace-link') && !(await page.isVisible('#keep-on')), 'the saved trace is offered');
    await accessible(page, 'the result');
    await page.screenshot({path: join(ARTIFACTS, 'update-page.png'), fullPage: true});
    // The page's own update never asks for the lock state: a request between
    // the end of the upload and the update's state 2 would clear the lock,
    // which must stay held from the upload to the success entry.
    const during = requests.filter((r) => r.at >= post.start && r.at <= post.end);
    assert.deepEqual([during.some((r) => r.url.endsWith('?request=1')), during.filter((r) => r.url.includes('status'))], [true, []]);

    for (const width of [320, 390]) {  // a phone: nothing sticks out of its card
        await page.setViewportSize({width, height: 900});
        assert.deepEqual(await page.$$eval('.card *', (all) => all.filter((e) =>
            e.getBoundingClientRect().right > e.closest('.card').getBoundingClientRect().right).map((e) => e.id)), []);
    }
    await page.screenshot({path: join(ARTIFACTS, 'page-390px.png'), fullPage: true});
}));

// The page's other states, after the whole update (2.0 runs), in order: each
// row acts on the page and waits for what the user sees (on the page it
// returns, else the same). First the status documents from a route (the last row drops it).
const when = '\\(sent at [^)]*\\)';
const serve = (doc) => async (page) => { await page.unroute('**/device.json'); doc !== undefined && await page.route('**/device.json',
    (route) => route.fulfill(doc ? {json: {slot: 'A', fallback: false, replaced: null, max_package_bytes: 1 << 27, ...doc, last_install:
    {time: '2026-11-25T10:46:22Z', sha256: '0', reason: '', ...doc.last_install}}} : {status: 404})); await page.reload(); };
const states = [
    ['an older device: no document', serve(null), 'Ready: choose a package file.', '#firmware[hidden]'],
    ['fell back', serve({version: '1.0', fallback: true, last_install: {result: 'installed', version: '2.0'}}),
        '2.0 was installed but did not start; the device went back to 1.0.'],
    ['refused, a package too large', async (page) => { await serve({version: '1.0', max_package_bytes: 1000, last_install: {result: 'refused',
        version: '', reason: 'its signature is not trusted'}})(page); await choose(page, 'big.pkg', 1001); },
    'the package was refused: its signature is not trusted; 1.0 still runs.',
    'Ready: big.pkg is 1001 bytes; this device takes packages of at most 1000 bytes. Choose another file.'],
    ["the device's own document", serve(), 'Running: firmware 2.0 (slot B), which replaced 1.0.'],
    ['an empty file', (page) => choose(page, 'empty.pkg', 0),
        'Ready: empty.pkg is empty: it cannot be a firmware package. Choose another file.'],
    ["another tab's update", async (page, context) => {
        const other = await context.newPage(), installing = page.locator('#log .entry', {hasText: 'installing package file'});
        fake({'installer-delay': 3}); await other.goto(page.url()); await choose(other, 'b.pkg', 1000);
        await send(page, 'a.pkg', 1 << 20);
        await installing.waitFor(); await other.evaluate(() => document.getElementById('form').requestSubmit()); // its Update
        return other;
    }, 'Another update is running on the device: your package b.pkg was not sent.',
    /^Another client's update, installed at .*: 3\.0 installed and running; it replaced 2\.0\. Your package b\.pkg was not installed\.$/],
    ['told free while another update runs: the busy answer', async (page) => {
        await sees(page, 'Ready: choose a package file.'); // this tab too has seen the update above end
        const preupdates = () => readFileSync(join(ROOT, 'fake', 'record'), 'utf8').split('preupdate.sh').length, before = preupdates();
        fake({'preupdate-delay': 2, 'installer-status': 1, 'installer-delay': 0});
        let told = false; page.on('response', (r) => r.status() === 503 && (told = true)); // then the device's own answers
        await page.route('**/updater?status=1', (route) => (told ? route.continue() : route.fulfill({body: 'STATUS_FREE'}))); page.evaluate(() => {
            const form = new FormData(); form.append('package', new Blob(['other']), 'other.pkg');
            fetch('/cgi-bin/updater', {method: 'POST', body: form, headers: {'X-Updater-Page': '1'}}); });
        while (preupdates() === before) await page.waitForTimeout(50);
        await send(page, 'mine.pkg', 1000); await sees(page, 'your package mine.pkg was not installed.');
        await page.unroute('**/updater?status=1'); fake({'preupdate-delay': 0});
    }, "Another client's update failed: installation failed. Firmware 3.0 still runs.", 'Your package mine.pkg was not installed.'],
    ['a failed install', (page) => send(page, 'broken.pkg', 200000),
        RegExp(`^Your update with broken\\.pkg ${when} failed: installation failed\\. Firmware 3\\.0 still runs\\. The application ` +
        'was stopped: reboot the device to start it again'), RegExp(`^Your update with broken\\.pkg ${when} failed: installation failed\\. \\(saved`)],
    ['a plain reboot after it', (page) => { page.once('dialog', (d) => d.accept()); return page.click('#reboot'); },
        'The device is back: it restarted as asked. Firmware 3.0 runs.', 'the package was refused: its signature is not trusted; 3.0 still runs.'],
    ['a slow upload', async (page, context, relay) => {
        // 64 s at 1 MiB/s, cut long before its end; a file, not bytes through the driver.
        const slow = join(ARTIFACTS, 'slow.pkg'); writeFileSync(slow, ''); truncateSync(slow, 64 << 20);
        fake({'installer-status': 0}); await throttle(page, context, 1 << 20);
        await page.setInputFiles('#package', slow); await page.click('#update');
    }, ' s left'],
    ['then silenced', (page, context, relay) => relay.set('silence'), 'The upload has made no progress for a few seconds', 'no progress for'],
    ['then cut', (page, context, relay) => relay.set('cut'), /^The device does not answer: this is what it said at/,
        /^The connection to the device was lost while sending slow\.pkg \(at \d+ %\): nothing was installed; firmware 3\.0 still runs\./],
    ['then back', (page, context, relay) => relay.set('pass'), 'Ready: press Update to install slow.pkg', '#last-note[hidden]'],
    ['a connection cut after the upload', async (page, context, relay) => {
        fake({'installer-delay': 4}); await send(page, 'cut.pkg', 1 << 20);
        await page.locator('#log .entry', {hasText: 'installing package file'}).waitFor(); relay.set('cut');
        await sees(page, 'The connection to the device was lost after cut.pkg was sent: the device may still be updating.',
            'Do not switch the device off');
        relay.set('pass');
    }, RegExp(`^Your update with cut\\.pkg ${when}, installed at .*: 4\\.0 installed and running; it replaced 3\\.0\\.$`)],
];
test("the page's other states", {timeout: 400000, skip: device}, async (t) => {
    const through = await relay();
    await withPage(signedInAt(through.url), async (first, context) => {
        await first.goto(through.url + '/update/');
        for (const [name, act, ...texts] of states) await t.test(name, async () => {
            let page = first;
            try {
                page = (await act(first, context, through)) || first;
                await sees(page, ...texts);
            } catch (e) { assert.fail(`${e.message}\nshown: ${await page.innerText('main')}`); }
            await accessible(page, name);
        });
    }).finally(through.close);
});
