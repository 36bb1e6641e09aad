// The update page in the system's chromium, against the device that
// "e2e.sh browser" serves: another site's page tries to reboot and update the
// device, then the real page, signed in, takes a package through to the reboot,
// then a failing one. Environment: BASE, AUTH ("user:password"), ROOT (device
// root on the host), PACKAGE (file to upload), ARTIFACTS (screenshots).
import {test} from 'node:test';
import assert from 'node:assert/strict';
import {createServer} from 'node:http';
import {existsSync, mkdtempSync, readdirSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import {chromium} from 'playwright-core';

const {BASE, AUTH, ROOT, PACKAGE, ARTIFACTS} = process.env;
const [username, password] = AUTH.split(':');
const signedIn = {httpCredentials: {username, password, origin: BASE}};

// A fresh profile each time, and the flags that keep chromium off the network.
async function withPage(options, body) {
    const profile = mkdtempSync(join(tmpdir(), 'updater-chromium-'));
    const context = await chromium.launchPersistentContext(profile, {
        executablePath: '/usr/bin/chromium', headless: true, viewport: {width: 900, height: 1000},
        args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
            '--disable-background-networking', '--disable-component-update', '--disable-sync'],
        ...options,
    });
    try {
        await body(context.pages()[0] ?? (await context.newPage()), context);
    } finally {
        await context.close();
        rmSync(profile, {recursive: true, force: true});
    }
}

// What another site serves to a user of the device: an image, a form posted
// on loading and fetches, all aimed at the program.
const hostile = `<!doctype html><img src="${BASE}/cgi-bin/updater?reboot=1">
<iframe name="sink"></iframe>
<form method="post" enctype="multipart/form-data" action="${BASE}/cgi-bin/updater" target="sink">
<input type="hidden" name="package" value="firmware"></form>
<script>document.forms[0].submit();
fetch('${BASE}/cgi-bin/updater?reboot=1', {mode: 'no-cors', credentials: 'include', headers: {'X-Updater-Page': '1'}});
const form = new FormData(); form.append('package', new Blob(['firmware']), 'fw.pkg');
fetch('${BASE}/cgi-bin/updater', {method: 'POST', mode: 'no-cors', credentials: 'include', body: form});
fetch('${BASE}/cgi-bin/updater?reboot=1', {credentials: 'include', headers: {'X-Updater-Page': '1'}}).catch(() => {});
</script>`;

test('another site cannot reach the program', {timeout: 60000}, async () => {
    const site = createServer((request, response) => response.end(hostile));
    await new Promise((resolve) => site.listen(0, '127.0.0.1', resolve));
    const attacker = `http://127.0.0.1:${site.address().port}/`;
    try {
        for (const options of [{}, signedIn]) {
            await withPage(options, async (page, context) => {
                if (options.httpCredentials) {  // the user is signed in to the device
                    await page.goto(BASE + '/update/');
                    await page.getByText('Ready: choose a package file.').waitFor();
                    await page.close();
                    page = await context.newPage();
                    await page.waitForTimeout(500);  // its last poll
                }
                // Every start of the program leaves its trace file here.
                for (const name of readdirSync(join(ROOT, 'var-log'))) rmSync(join(ROOT, 'var-log', name));
                await page.goto(attacker);
                await page.waitForTimeout(2000);
                assert.deepEqual(readdirSync(join(ROOT, 'var-log')), [], 'the program never ran');
                assert.equal(existsSync(join(ROOT, 'fake', 'record')), false, 'no device command');
            });
        }
    } finally {
        site.close();
    }
});

test('a whole update, signed in', {timeout: 150000}, () => withPage(signedIn, async (page, context) => {
    const requests = [];
    let postStart = null;
    let postEnd = null;
    page.on('request', (r) => {
        requests.push({at: Date.now(), url: r.url()});
        if (r.method() === 'POST') postStart = Date.now();
    });
    page.on('requestfinished', (r) => { if (r.method() === 'POST') postEnd = Date.now(); });
    const errors = [];
    page.on('pageerror', (e) => errors.push(String(e)));

    await page.goto(BASE + '/update/');
    await page.getByText('No update has been recorded on this device yet.').waitFor();
    await page.getByText('Ready: choose a package file.').waitFor();
    // Rebooting needs a confirmation; declining sends nothing.
    page.once('dialog', (d) => d.dismiss());
    await page.click('#reboot');
    await page.waitForTimeout(300);
    assert.ok(!requests.some((r) => r.url.includes('reboot')), 'a declined reboot sends no request');

    // A loopback upload is over before any poll; 4 MiB/s makes it last.
    const cdp = await context.newCDPSession(page);
    await cdp.send('Network.enable');
    await cdp.send('Network.emulateNetworkConditions',
        {offline: false, latency: 0, downloadThroughput: -1, uploadThroughput: 4 * 1048576});
    await page.setInputFiles('#package', PACKAGE);
    writeFileSync(join(ROOT, 'own-update'), '');  // e2e.sh samples the lock from here on
    await page.click('#update');
    await page.locator('#log .entry', {hasText: 'installing package file ...'}).waitFor();
    await page.screenshot({path: join(ARTIFACTS, 'page-mid-update.png'), fullPage: true});
    assert.equal(await page.getAttribute('#upload-meter .bar', 'aria-valuenow'), '100');
    assert.equal(await page.getAttribute('#update-meter .bar', 'aria-valuenow'), '80');
    assert.ok(await page.isDisabled('#update'), 'the form is disabled during the update');

    await page.locator('#log .entry.success').waitFor({timeout: 30000});
    assert.match(await page.textContent('#outcome'), /firmware successfully loaded/);
    const log = await page.$$eval('#log .entry', (rows) => rows.map((r) => r.textContent));
    assert.deepEqual(log.map((e) => e.replace(/^\[[0-9.]+(:\d+)?\] /, '')), [
        'waiting for file ...', 'receiving package file ...', 'reassembling data ...',
        'package file received', 'stopping the application ...', 'installing package file ...',
        'update completed', 'update completed, firmware successfully loaded']);
    // e2e.sh takes the server down when the device is told to reboot.
    await page.getByText('The device is back.', {exact: false}).waitFor({timeout: 60000});
    await page.getByText('The last update succeeded: firmware successfully loaded.').waitFor();
    assert.ok(await page.isVisible('#trace-link'), 'the saved trace is offered');

    // The page's own update never asks for the lock state: a request between
    // the end of the upload and the update's state 2 would clear the lock.
    assert.ok(postStart !== null && postEnd !== null, 'the POST was seen');
    const during = requests.filter((r) => r.at >= postStart && r.at <= postEnd);
    assert.ok(during.some((r) => r.url.endsWith('?request=1')), 'progress polled');
    assert.deepEqual(during.filter((r) => r.url.includes('status')), []);
    assert.deepEqual(errors, []);

    // A phone: nothing sticks out of its card or the screen.
    for (const width of [320, 390]) {
        await page.setViewportSize({width, height: 900});
        assert.deepEqual(await page.$$eval('.card *', (all) => all.filter((e) => {
            const box = e.getBoundingClientRect();
            return box.width > 0 && box.right > e.closest('.card').getBoundingClientRect().right;
        }).map((e) => e.id || e.className || e.tagName)), [], `overflow at ${width} px`);
        assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
    }
    await page.screenshot({path: join(ARTIFACTS, 'page-390px.png'), fullPage: true});
}));

test('a failing update shows its error', {timeout: 60000}, () => withPage(signedIn, async (page) => {
    writeFileSync(join(ROOT, 'fake', 'installer-status'), '1');
    writeFileSync(join(ROOT, 'fake', 'installer-delay'), '0');
    await page.goto(BASE + '/update/');
    await page.getByText('Ready: choose a package file.').waitFor();
    await page.setInputFiles('#package',
        {name: 'broken.pkg', mimeType: 'application/octet-stream', buffer: Buffer.alloc(200 * 1024, 7)});
    await page.click('#update');
    // The error entry lives 1.5 s in the log; the page has to catch it.
    await page.locator('#log .entry.error', {hasText: 'ERROR: installation failed'}).waitFor();
    await page.getByText('The update failed: installation failed').waitFor();
    await page.getByText('The last update failed: installation failed').waitFor();
    await page.waitForFunction(() => !document.querySelector('#package').disabled);
}));
