// The update page in the system's chromium, against the device that
// "e2e.sh browser" serves over HTTPS: another site's page tries to reach the
// program, a page of the same site to frame the update page; then the real
// page, signed in, takes a package through to the reboot, then posts while
// another client's update runs, then a failing one. Environment: BASE, AUTH
// ("user:password"), ROOT (device root on the host), PACKAGE (file to
// upload), ARTIFACTS (screenshots). Without ROOT the device is the emulated
// one (tests/device): its files are out of reach, so the first two tests are
// skipped, and everything takes longer.
import {test} from 'node:test';
import assert from 'node:assert/strict';
import {createServer} from 'node:http';
import {createServer as createTlsServer} from 'node:https';
import {readFileSync, readdirSync, rmSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {chromium} from 'playwright-core';

const {BASE, AUTH, ROOT, PACKAGE, ARTIFACTS} = process.env;
// The device's certificate is its own: the browser is told to take it.
const [username, password] = AUTH.split(':');
const signedIn = {httpCredentials: {username, password, origin: BASE}, ignoreHTTPSErrors: true};
const files = (dir) => readdirSync(join(ROOT, dir));
const device = !ROOT, slow = device ? 8 : 1;

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
    for (const options of [{}, signedIn]) {
        await withPage(options, async (page) => {
            if (options.httpCredentials) {
                await page.goto(BASE + '/update/');
                await page.getByText('Ready: choose a package file.').waitFor();
                await page.goto('about:blank');
                await page.waitForTimeout(500);  // the page's last poll
            }
            // Every start of the program leaves its trace file in /var/log.
            for (const name of files('var-log')) rmSync(join(ROOT, 'var-log', name));
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
    await withPage(signedIn, async (page) => {
        await page.goto(BASE + '/update/');
        await page.getByText('Ready: choose a package file.').waitFor();
        await page.goto('about:blank');
        await page.waitForTimeout(500);
        for (const name of files('var-log')) rmSync(join(ROOT, 'var-log', name));
        await page.goto(`https://127.0.0.1:${site.address().port}/`);
        await page.waitForTimeout(2000);
        const shown = await Promise.all(page.frames().map((f) => f.evaluate(() => document.body.innerText).catch(() => '')));
        assert.deepEqual(shown.filter((text) => text.includes('Update')), [], 'no frame shows the update page');
        assert.deepEqual(files('var-log'), [], 'the program never ran');
    });
    site.close();
});

test('a whole update, signed in', {timeout: 150000 * slow}, () => withPage(signedIn, async (page, context) => {
    const requests = [], post = {};
    page.on('request', (r) => requests.push({at: Date.now(), url: r.url()}) && r.method() === 'POST' && (post.start = Date.now()));
    // On a real device the reboot may cut the POST's answer short.
    for (const end of ['requestfinished', 'requestfailed']) page.on(end, (r) => r.method() === 'POST' && (post.end = Date.now()));
    await page.goto(BASE + '/update/');
    await page.getByText('No update has been recorded on this device yet.').waitFor();
    await page.getByText('Ready: choose a package file.').waitFor();
    page.once('dialog', (d) => d.dismiss());
    await page.click('#reboot');
    await page.waitForTimeout(300);
    assert.ok(!requests.some((r) => r.url.includes('reboot')), 'a declined reboot sends no request');

    // A loopback upload is over before any poll; 4 MiB/s makes it last.
    const cdp = await context.newCDPSession(page);
    await cdp.send('Network.emulateNetworkConditions',
        {offline: false, latency: 0, downloadThroughput: -1, uploadThroughput: 4 * 1048576});
    await page.setInputFiles('#package', PACKAGE);
    await page.click('#update');
    await page.locator('#log .entry', {hasText: 'installing package file ...'}).waitFor();
    assert.deepEqual(await page.$$eval('.bar', (bars) => bars.map((b) => b.getAttribute('aria-valuenow'))), ['100', '80']);
    await page.locator('#log .entry.success').waitFor({timeout: 30000 * slow});
    assert.equal(await page.locator('#log .entry').count(), 8, 'every entry of the log');
    // e2e.sh takes the server down when the device is told to reboot.
    await page.getByText('The device is back.', {exact: false}).waitFor({timeout: 60000 * slow});
    await page.getByText('The last update succeeded: firmware successfully loaded.').waitFor();
    assert.ok(await page.isVisible('#trace-link'), 'the saved trace is offered');
    // The page's own update never asks for the lock state: a request between
    // the end of the upload and the update's state 2 would clear the lock,
    // which must stay held from the upload to the success entry.
    const during = requests.filter((r) => r.at >= post.start && r.at <= post.end);
    assert.ok(during.some((r) => r.url.endsWith('?request=1')), 'progress polled');
    assert.deepEqual(during.filter((r) => r.url.includes('status')), []);

    for (const width of [320, 390]) {  // a phone: nothing sticks out of its card
        await page.setViewportSize({width, height: 900});
        assert.deepEqual(await page.$$eval('.card *', (all) => all.filter((e) =>
            e.getBoundingClientRect().right > e.closest('.card').getBoundingClientRect().right).map((e) => e.id)), []);
    }
    await page.screenshot({path: join(ARTIFACTS, 'page-390px.png'), fullPage: true});
}));

test('a failing update shows its error', {timeout: 60000 * slow}, () => withPage(signedIn, async (page) => {
    if (!device) { // the device's own installer refuses these bytes
        writeFileSync(join(ROOT, 'fake', 'installer-status'), '1');
        writeFileSync(join(ROOT, 'fake', 'installer-delay'), '0');
    }
    await page.goto(BASE + '/update/');
    if (!device) { // told the device is free while another client's update holds it: the busy answer
        const preupdates = () => readFileSync(join(ROOT, 'fake', 'record'), 'utf8').split('preupdate.sh').length;
        const before = preupdates();
        writeFileSync(join(ROOT, 'fake', 'preupdate-delay'), '2');
        await page.route('**/updater?status=1', (route) => route.fulfill({body: 'STATUS_FREE'}));
        page.evaluate(() => { const form = new FormData(); form.append('package', new Blob(['other']), 'other.pkg');
            fetch('/cgi-bin/updater', {method: 'POST', body: form, headers: {'X-Updater-Page': '1'}}); });
        while (preupdates() === before) await page.waitForTimeout(50);
        await page.setInputFiles('#package', {name: 'mine.pkg', mimeType: 'text/plain', buffer: Buffer.alloc(1000, 1)});
        await page.click('#update');
        await page.getByText('your package was not installed', {exact: false}).waitFor();
        await page.unroute('**/updater?status=1');
        await page.getByText('Ready: press Update to install mine.pkg').waitFor(); // followed to its end
        writeFileSync(join(ROOT, 'fake', 'preupdate-delay'), '0');
    }
    await page.setInputFiles('#package', {name: 'broken.pkg', mimeType: 'text/plain', buffer: Buffer.alloc(200000, 7)});
    await page.click('#update');
    // The error entry lives 1.5 s in the log; the page has to catch it.
    await page.getByText('The update failed: installation failed').waitFor();
    await page.getByText('The last update failed: installation failed').waitFor();
}));
