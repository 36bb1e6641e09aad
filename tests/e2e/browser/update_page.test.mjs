// The update page in the system's chromium, against the device served by
// browser.sh: another client's update, a whole update from choosing the file
// to the device being back, and a failing one. The tests run in this order.
// Environment: BASE (server URL), ROOT (device root on the host), PACKAGE
// (file to upload), ARTIFACTS (folder for screenshots).
import {test} from 'node:test';
import assert from 'node:assert/strict';
import {appendFileSync, mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import {chromium} from 'playwright-core';

const {BASE, ROOT, PACKAGE, ARTIFACTS} = process.env;
const varLog = (name) => join(ROOT, 'var-log', name);

// A fresh profile each time, and the flags that keep chromium off the network.
async function withPage(body) {
    const profile = mkdtempSync(join(tmpdir(), 'updater-chromium-'));
    const context = await chromium.launchPersistentContext(profile, {
        executablePath: '/usr/bin/chromium',
        headless: true,
        viewport: {width: 900, height: 1000},
        args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
            '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    });
    try {
        const page = context.pages()[0] ?? (await context.newPage());
        await body(page, context);
    } finally {
        await context.close();
        rmSync(profile, {recursive: true, force: true});
    }
}

test('another update in progress disables the form', {timeout: 60000}, () => withPage(async (page) => {
    // The device as another client's update leaves it while it installs.
    writeFileSync(varLog('updater-cgi.lock'), '1');
    writeFileSync(varLog('updater-cgi.status'), '2');
    writeFileSync(varLog('updater-cgi.log'), '[000.000:10] receiving package file ...<br>' +
        '[000.000:40] reassembling data ...<br>[000.100:50] package file received<br>' +
        '[000.100:60] stopping the application ...<br>');
    await page.goto(BASE + '/update/');
    await page.getByText('Another update is running on the device').waitFor();
    assert.ok(await page.isDisabled('#package'));
    assert.ok(await page.isDisabled('#reboot'));
    await page.locator('#log .entry', {hasText: 'stopping the application ...'}).waitFor();
    assert.equal(await page.getAttribute('#update-meter .bar', 'aria-valuenow'), '60');

    // It fails, as an error ending leaves things; the form comes back.
    appendFileSync(varLog('updater-cgi.log'), '[002.000:60] ERROR: installation failed<br>');
    rmSync(varLog('updater-cgi.lock'));
    rmSync(varLog('updater-cgi.status'));
    await page.locator('#log .entry.error').waitFor();
    await page.getByText('Ready: choose a package file.').waitFor();
    assert.ok(await page.isEnabled('#package'));
    rmSync(varLog('updater-cgi.log'));
}));

test('a whole update in the browser', {timeout: 150000}, () => withPage(async (page, context) => {
    const requests = [];
    let postStart = null;
    let postEnd = null;
    page.on('request', (r) => {
        requests.push({at: Date.now(), url: r.url(), method: r.method()});
        if (r.method() === 'POST') postStart = Date.now();
    });
    const ended = (r) => {
        if (r.method() === 'POST') postEnd = Date.now();
    };
    page.on('requestfinished', ended);
    page.on('requestfailed', ended);
    const errors = [];
    page.on('pageerror', (e) => errors.push(String(e)));

    await page.goto(BASE + '/update/');
    await page.getByText('No update has been recorded on this device yet.').waitFor();
    await page.getByText('Ready: choose a package file.').waitFor();

    // Rebooting needs a confirmation; declining sends nothing.
    page.once('dialog', (d) => d.dismiss());
    const before = requests.length;
    await page.click('#reboot');
    await page.waitForTimeout(300);
    assert.ok(!requests.slice(before).some((r) => r.url.includes('reboot')),
        'a declined reboot sends no request');

    // A loopback upload is over before any poll; 4 MiB/s makes it last.
    const cdp = await context.newCDPSession(page);
    await cdp.send('Network.enable');
    await cdp.send('Network.emulateNetworkConditions', {
        offline: false, latency: 0, downloadThroughput: -1, uploadThroughput: 4 * 1048576,
    });

    await page.setInputFiles('#package', PACKAGE);
    writeFileSync(join(ROOT, 'own-update'), ''); // browser.sh samples the lock from here on
    await page.click('#update');
    await page.waitForFunction(() => {
        const v = Number(document.querySelector('#upload-meter .bar').getAttribute('aria-valuenow'));
        return v > 10 && v < 90;
    });
    await page.screenshot({path: join(ARTIFACTS, 'page-uploading.png'), fullPage: true});

    await page.locator('#log .entry', {hasText: 'installing package file ...'}).waitFor();
    await page.screenshot({path: join(ARTIFACTS, 'page-mid-update.png'), fullPage: true});
    assert.equal(await page.getAttribute('#upload-meter .bar', 'aria-valuenow'), '100');
    assert.equal(await page.getAttribute('#update-meter .bar', 'aria-valuenow'), '80');
    assert.ok(await page.isDisabled('#update'), 'the form is disabled during the update');

    await page.locator('#log .entry.success').waitFor({timeout: 30000});
    await page.waitForFunction(() =>
        document.querySelector('#update-meter .meter-value').textContent === '100 %');
    const outcome = await page.textContent('#outcome');
    assert.match(outcome, /firmware successfully loaded/);
    const log = await page.$$eval('#log .entry', (rows) => rows.map((r) => r.textContent));
    assert.deepEqual(log.map((e) => e.replace(/^\[[0-9.]+(:\d+)?\] /, '')), [
        'waiting for file ...',
        'receiving package file ...',
        'reassembling data ...',
        'package file received',
        'stopping the application ...',
        'installing package file ...',
        'update completed',
        'update completed, firmware successfully loaded',
    ]);
    await page.screenshot({path: join(ARTIFACTS, 'page-success.png'), fullPage: true});

    // browser.sh takes the server down when the device is told to reboot.
    await page.getByText('The device is back.', {exact: false}).waitFor({timeout: 60000});
    await page.getByText('The last update succeeded: firmware successfully loaded.').waitFor();
    assert.ok(await page.isVisible('#trace-link'), 'the saved trace is offered');
    await page.screenshot({path: join(ARTIFACTS, 'page-after-reboot.png'), fullPage: true});

    // The page's own update never sends a lock-state request: one that
    // arrived between the end of the upload and the update's state 2
    // would clear the lock as stale.
    assert.ok(postStart !== null && postEnd !== null, 'the POST was seen');
    const during = requests.filter((r) => r.at >= postStart && r.at <= postEnd);
    assert.ok(during.some((r) => r.url.endsWith('?request=1')), 'progress polled');
    assert.deepEqual(during.filter((r) => r.url.includes('status')), []);
    assert.deepEqual(errors, []);
}));

test('a failing update shows its error', {timeout: 60000}, () => withPage(async (page) => {
    writeFileSync(join(ROOT, 'fake', 'installer-status'), '1');
    writeFileSync(join(ROOT, 'fake', 'installer-delay'), '0');
    await page.goto(BASE + '/update/');
    await page.getByText('Ready: choose a package file.').waitFor();
    await page.setInputFiles('#package', {name: 'broken.pkg', mimeType: 'application/octet-stream',
        buffer: Buffer.alloc(200 * 1024, 7)});
    await page.click('#update');
    // The error entry lives 1.5 s in the log; the page has to catch it.
    await page.locator('#log .entry.error', {hasText: 'ERROR: installation failed'}).waitFor();
    await page.getByText('The update failed: installation failed').waitFor();
    await page.getByText('The last update failed: installation failed').waitFor();
    await page.waitForFunction(() => !document.querySelector('#package').disabled);
    await page.screenshot({path: join(ARTIFACTS, 'page-error.png'), fullPage: true});
}));
