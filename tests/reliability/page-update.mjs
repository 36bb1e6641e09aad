// The update page in chromium for the device campaign (device.sh), one line
// each on standard output: with PACKAGE, an update through the page,
// "sending", "upload complete" once the body has gone, "outcome CLASS TEXT" once the page
// has its outcome and is idle again (the device may lose power meanwhile);
// then, and alone without PACKAGE, "verdict TEXT": the last update's verdict
// on a fresh load of the page once the device answers. Environment: BASE,
// AUTH ("user:password"), PACKAGE, RATE (upload bytes/s).
import {chromium} from '../e2e/browser/node_modules/playwright-core/index.mjs';

const {BASE, AUTH, PACKAGE, RATE} = process.env;
const [username, password] = AUTH.split(':');
const browser = await chromium.launch({executablePath: '/usr/bin/chromium', args: ['--no-sandbox',
    '--disable-gpu', '--disable-background-networking', '--disable-component-update', '--disable-sync']});
// The device's certificate is its own: the browser is told to take it.
const context = await browser.newContext({httpCredentials: {username, password, origin: BASE}, ignoreHTTPSErrors: true});
context.setDefaultTimeout(600000);
const page = await context.newPage();
const ready = () => page.waitForFunction(() => document.getElementById('state').textContent.startsWith('Ready'),
    null, {polling: 500});
const open = async () => {
    for (;;) {
        if (await page.goto(BASE + '/update/', {timeout: 10000}).then((r) => r && r.ok(), () => false)) {
            return ready();
        }
        await page.waitForTimeout(2000);
    }
};
try {
    await open();
    if (PACKAGE) {
        const cdp = await context.newCDPSession(page);
        await cdp.send('Network.emulateNetworkConditions',
            {offline: false, latency: 0, downloadThroughput: -1, uploadThroughput: Number(RATE)});
        await page.setInputFiles('#package', PACKAGE);
        await page.click('#update');
        console.log('sending');
        page.waitForFunction(() => document.querySelector('#upload-meter .bar').getAttribute('aria-valuenow') ===
            '100', null, {polling: 100}).then(() => console.log('upload complete'), () => {});
        await page.waitForFunction(() => !document.getElementById('outcome').hidden &&
            /^(Ready|The device does not answer)/.test(document.getElementById('state').textContent),
        null, {polling: 500});
        const outcome = page.locator('#outcome');
        console.log('outcome', await outcome.getAttribute('class'), await outcome.textContent());
        await ready();
        await open();
    }
    await page.waitForFunction(() => !document.getElementById('last-verdict').textContent.startsWith('Looking'));
    console.log('verdict', await page.locator('#last-verdict').textContent());
} finally {
    await browser.close();
}
