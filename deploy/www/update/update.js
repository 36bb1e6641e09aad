'use strict';
// The device's update page. It talks to the updater program only:
//   POST            the package, as a form whose one part is the file
//   ?request=1      the update log (HTML fragment, each entry ends in <br>)
//   ?status=1       the lock state, "STATUS_FREE" or "STATUS_BUSY"
//   ?reboot=1       reboot the device
// and reads the copies of the last update's log and trace under last/, and
// device.json, the status document the device writes at every boot (running
// version, slot, fallback, last installation); without it, an older device,
// the page goes without the Firmware card.
(() => {
    const CGI = '/cgi-bin/updater';
    const SAVED_LOG = 'last/updater-cgi.log';
    const SAVED_TRACE = 'last/updater-cgi.debug';
    const DEVICE = 'device.json';
    // An error ending deletes the log 1.5 s after its entry: poll well inside that.
    const OWN_POLL_MS = 400;
    const WATCH_POLL_MS = 1000;
    const IDLE_POLL_MS = 5000;
    const STALE_AFTER_MS = 60000;
    const REBOOT_POLL_MS = 2000;
    const REBOOT_GIVE_UP_MS = 180000;
    // A request unanswered this long counts as "the device does not answer".
    const ANSWER_MS = 15000;
    const STALL_MS = 5000;
    // The answer to a POST while another update runs on the device.
    const BUSY = 503;

    // lighttpd lets only requests with this header reach the program: another
    // site's page cannot send it, so it cannot update or reboot the device.
    const PAGE_HEADER = ['X-Updater-Page', '1'];

    const $ = (id) => document.getElementById(id);
    const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
    const cap = (text) => text.charAt(0).toUpperCase() + text.slice(1);
    const clock = (date) => new Date(date).toLocaleTimeString();
    const mebibytes = (bytes) => (bytes / 1048576).toFixed(1) + ' MiB';
    const size = (bytes) => (bytes < 1048576 ? bytes + ' bytes' : mebibytes(bytes));

    // Every answer, or its absence, passes here: when the device answers
    // again after a gap, what the page shows of it is read again.
    let reachable = true;
    function heard(answer) {
        if (answer === null && reachable) {
            reachable = false;
            showSilence();
        } else if (answer !== null && !reachable) {
            reachable = true;
            refreshLast();
            refreshDevice();
        }
        return answer;
    }

    // {ok, status, text, modified}, or null when the device does not answer.
    async function get(url, options = {}) {
        try {
            const response = await fetch(url, {cache: 'no-store', headers: [PAGE_HEADER],
                                               signal: AbortSignal.timeout(ANSWER_MS), ...options});
            const text = response.ok ? await response.text() : '';
            return heard({ok: response.ok, status: response.status, text,
                          modified: response.headers.get('Last-Modified')});
        } catch (e) {
            return heard(null);
        }
    }
    // A copy the device has (ok), has not (404), or an answer that says nothing.
    const told = (answer) => answer !== null && (answer.ok || answer.status === 404);

    // A probe that gets no answer within 5 s counts as "down": a connection
    // opened while the device reboots can be held until it is back.
    const alive = async () => {
        const answer = await get('index.html', {method: 'HEAD', signal: AbortSignal.timeout(5000)});
        return answer !== null && answer.ok;
    };

    // "[sss.mmm:pct] text<br>" entries; the percentage is absent in some.
    const ENTRY = /^(\[(\d+\.\d+)(?::(-?\d+))?\]) ([\s\S]*)$/;

    function parseLog(text) {
        return text.split('<br>').filter((raw) => raw.length > 0).map((raw) => {
            const m = ENTRY.exec(raw);
            const plain = (m ? m[4] : raw).replace(/<[^>]*>/g, '');
            return {
                raw,
                stamp: m ? m[1] : '',
                percent: m && m[3] !== undefined ? Number(m[3]) : null,
                plain,
                error: plain.startsWith('ERROR: '),
                success: plain.includes('firmware successfully loaded'),
            };
        });
    }
    const ending = (entries) => entries.find((entry) => entry.success || entry.error);

    // Adds only the entries not shown yet (a screen reader reads each once);
    // a log that no longer begins with the shown ones starts over.
    function showLog(element, entries) {
        const shown = element.entries || [];
        if (shown.some((raw, i) => !entries[i] || entries[i].raw !== raw)) {
            element.replaceChildren();
            element.entries = [];
        }
        const rows = entries.slice(element.children.length).map((entry) => {
            const row = document.createElement('div');
            row.className = 'entry' + (entry.error ? ' error' : '') + (entry.success ? ' success' : '');
            const stamp = document.createElement('span');
            stamp.className = 'stamp';
            stamp.setAttribute('aria-hidden', 'true');
            stamp.textContent = entry.stamp;
            row.append(stamp, ' ' + entry.plain);
            return row;
        });
        if (rows.length) element.append(...rows);
        element.entries = entries.map((entry) => entry.raw);
        element.hidden = entries.length === 0;
        element.scrollTop = element.scrollHeight;
    }

    function latestPercent(entries) {
        for (let i = entries.length - 1; i >= 0; i--) {
            if (entries[i].percent !== null) return entries[i].percent;
        }
        return null;
    }

    function setMeter(id, percent) {
        const meter = $(id);
        const value = Math.max(0, Math.min(100, Math.floor(percent)));
        meter.querySelector('.fill').style.width = value + '%';
        meter.querySelector('.bar').setAttribute('aria-valuenow', String(value));
        meter.querySelector('.meter-value').textContent = value + ' %';
    }

    // The status line is a live region: it changes only when its meaning does.
    function setState(text, kind) {
        const state = $('state');
        if (state.textContent !== text) state.textContent = text;
        state.className = 'state' + (kind ? ' ' + kind : '');
    }

    // The ending of an update, and where the focus goes when the user asked.
    function setOutcome(text, kind, focus) {
        const outcome = $('outcome');
        outcome.hidden = !text;
        outcome.textContent = text || '';
        outcome.className = 'outcome' + (kind ? ' ' + kind : '');
        if (text && focus) outcome.focus();
    }

    function setControls(enabled) {
        $('package').disabled = !enabled;
        $('update').disabled = !enabled || refusal() !== null;
        $('reboot').disabled = !enabled;
    }

    // During the installation, the pause after it and the reboot.
    const keepOn = (shown) => { $('keep-on').hidden = !shown; };

    // The document the device wrote at its boot: undefined until read, null
    // for a device without one.
    let device;
    async function refreshDevice() {
        const answer = await get(DEVICE);
        if (!told(answer)) return device;
        try {
            device = answer.ok ? JSON.parse(answer.text) : null;
        } catch (e) {
            device = null;
        }
        renderDevice();
        return device;
    }

    // The sentence for the last installation, as the device judged it at boot.
    function installVerdict(doc) {
        const last = doc.last_install;
        const bundle = last.version || 'the package';
        if (last.result !== 'installed') {
            return 'the package was refused' + (last.reason ? ': ' + last.reason : '') + '; ' + doc.version + ' still runs';
        }
        if (doc.fallback || doc.version !== last.version) {
            return bundle + ' was installed but did not start; the device went back to ' + doc.version;
        }
        return bundle + ' installed and running';
    }

    function renderDevice() {
        $('firmware').hidden = !device;
        if (!device) return;
        $('running').textContent = 'Running: firmware ' + device.version + ' (slot ' + device.slot + ')' +
            (device.replaced ? ', which replaced ' + device.replaced : '') + '.';
        const last = device.last_install;
        $('installation').textContent = last ? 'Last installation, ' + new Date(last.time).toLocaleString() +
            ': ' + installVerdict(device) + '.' : 'Nothing has been installed on this device yet.';
    }
    const running = () => (device ? 'Firmware ' + device.version : 'The firmware that was running');

    // The refusal of the chosen file, before anything is sent; null: none.
    function refusal() {
        const file = $('package').files[0];
        const most = device && device.max_package_bytes;
        if (!file) return 'Choose a package file.';
        if (file.size === 0) return file.name + ' is empty: it cannot be a firmware package. Choose another file.';
        if (most && file.size > most) {
            return file.name + ' is ' + size(file.size) + '; this device takes packages of at most ' +
                size(most) + '. Choose another file.';
        }
        return null;
    }
    function ready() {
        const refused = refusal();
        const file = $('package').files[0];
        setState(refused ? 'Ready: ' + refused.charAt(0).toLowerCase() + refused.slice(1) :
            'Ready: press Update to install ' + file.name + ' (' + size(file.size) + ').',
        file && refused ? 'warn' : '');
    }

    // This tab's update, or another client's ({other: true}), which the
    // verdicts name; the copies of the device's records from before it.
    let current = null;
    const whose = (update) => (update.other ? "another client's update" :
        'your update with ' + update.file.name + ' (sent at ' + clock(update.at) + ')');

    // The saved copy of the last update's log: these copies survive the
    // reboot, so they are what the user can trust. undefined: not read yet.
    let saved, readAt;
    function logVerdict(entries, who) {
        const newest = entries[entries.length - 1];
        if (!newest) return ['The outcome of ' + who + ' is unknown: its saved log is empty.', 'bad'];
        if (newest.success) return [cap(who) + ' succeeded: firmware successfully loaded.', 'ok'];
        if (newest.error) return [cap(who) + ' failed: ' + newest.plain.slice(7) + '.', 'bad'];
        return ['The outcome of ' + who + ' is unknown: its saved log ends with "' + newest.plain +
            '", before its result.', 'bad'];
    }

    // Both copies are asked for first, so that the verdict and the trace link
    // appear together. Only an answer from the device changes the card.
    async function refreshLast() {
        const [log, trace] = await Promise.all([get(SAVED_LOG), get(SAVED_TRACE)]);
        if (!told(log)) return saved;
        saved = log.ok ? {entries: parseLog(log.text), modified: log.modified} : null;
        readAt = new Date();
        $('last-note').hidden = true;
        $('last-log-box').hidden = !saved;
        $('trace-link').hidden = !saved || !trace || !trace.ok;
        $('trace-link').href = SAVED_TRACE + '?t=' + Date.now();
        renderLast();
        return saved;
    }
    // A copy newer than the one before this tab's update is that update's.
    const fresh = (update) => !!saved && ('savedAfter' in update ? saved.modified === update.savedAfter :
        saved.modified !== update.savedBefore);

    function renderLast() {
        const verdict = $('last-verdict');
        if (!saved) {
            verdict.textContent = 'No update has been recorded on this device yet.';
            verdict.className = 'verdict';
            return;
        }
        const mine = current && !current.other && fresh(current);
        const [text, kind] = logVerdict(saved.entries, mine ? whose(current) : 'the last update');
        const when = new Date(saved.modified);
        verdict.textContent = text + (isNaN(when) ? '' : ' (saved ' + when.toLocaleString() + ')');
        verdict.className = 'verdict ' + kind;
        showLog($('last-log'), saved.entries);
    }

    function showSilence() {
        const note = $('last-note');
        if (saved === undefined) {
            $('last-verdict').textContent = 'The device does not answer: the result of the last update is not known.';
            return;
        }
        note.textContent = 'The device does not answer: this is what it said at ' + clock(readAt) + '.';
        note.hidden = false;
    }

    // Each mode runs one loop; entering another mode ends the previous loop.
    let generation = 0;
    const enter = () => ++generation;

    async function idle() {
        const g = enter();
        window.onbeforeunload = null;
        keepOn(false);
        $('upload-meter').hidden = true;
        while (g === generation) {
            const answer = await get(CGI + '?status=1');
            if (g !== generation) return;
            if (answer === null || !answer.ok) {
                setControls(false);
                setState('The device does not answer; trying again.', 'warn');
            } else if (answer.text === 'STATUS_BUSY') {
                return watch({other: true, file: $('package').files[0]});  // the chosen file waits
            } else {
                setControls(true);
                ready();
            }
            await sleep(IDLE_POLL_MS);
        }
    }

    // Another client's update: follow its log with progress requests, which
    // never clear a lock. A lock-state request is sent only when the log has
    // not moved for a minute (an abandoned upload leaves a stale lock that
    // only a lock-state request clears).
    async function watch(update, note = '') {
        const g = enter();
        setControls(false);
        if (note) setOutcome(note, 'error', true);
        await records(update);
        $('update-meter').hidden = false;
        setState('Another update is running on the device; you can update when it has ended.', 'warn');
        $('upload-meter').hidden = true;
        let last = null;
        let since = Date.now();
        while (g === generation) {
            const answer = await get(CGI + '?request=1');
            if (g !== generation) return;
            if (answer !== null && answer.ok) {
                const entries = parseLog(answer.text);
                showLog($('log'), entries);
                const percent = latestPercent(entries);
                if (percent !== null) setMeter('update-meter', percent);
                keepOn(percent !== null && percent >= 60);
                const end = ending(entries);
                if (end && end.success) return awaitReboot(update);
                if (end) return failed(update, end, entries);
                if (answer.text !== last) {
                    last = answer.text;
                    since = Date.now();
                }
                // The idle log's one entry: no update under way (or an error
                // ending has just cleared the log); a log still for a minute:
                // an abandoned upload, whose stale lock only this clears.
                const waiting = entries.length === 1 && entries[0].percent === 1;
                if (waiting || Date.now() - since > STALE_AFTER_MS) {
                    since = Date.now();
                    const lock = await get(CGI + '?status=1');
                    if (g !== generation) return;
                    if (lock !== null && lock.text === 'STATUS_FREE') return finish(update);
                }
            }
            await sleep(WATCH_POLL_MS);
        }
    }

    // What the device said before an update, to tell its records after it.
    async function records(update) {
        const [log, doc] = await Promise.all([refreshLast(), refreshDevice()]);
        if ('savedBefore' in update) return;  // this tab's own, from before its POST
        update.savedBefore = log && log.modified;
        update.installBefore = JSON.stringify(doc && doc.last_install);
        update.versionBefore = doc && doc.version;
    }

    // Upload speed and time left, and a warning when it has stalled.
    function uploadWatch(file, onStall) {
        const samples = [{at: Date.now(), loaded: 0}];
        const tick = () => {
            const now = Date.now();
            const newest = samples[samples.length - 1];
            while (samples.length > 2 && now - samples[1].at > 5000) samples.shift();
            const rate = (newest.loaded - samples[0].loaded) / Math.max(1, (newest.at - samples[0].at) / 1000);
            const stalled = now - newest.at > STALL_MS;
            onStall(stalled);
            $('upload-detail').textContent = mebibytes(newest.loaded) + ' of ' + mebibytes(file.size) + ', ' +
                (stalled ? 'no progress for ' + Math.round((now - newest.at) / 1000) + ' s' : mebibytes(rate) +
                '/s' + (rate > 0 ? ', ' + Math.ceil((file.size - newest.loaded) / rate) + ' s left' : ''));
        };
        const timer = setInterval(tick, 1000);
        return {
            progress(loaded) {
                if (loaded > samples[samples.length - 1].loaded) samples.push({at: Date.now(), loaded});
            },
            stop() {
                clearInterval(timer);
                $('upload-detail').textContent = '';
            },
        };
    }

    function sendPackage(file, onProgress) {
        return new Promise((resolve) => {
            const xhr = new XMLHttpRequest();
            xhr.open('POST', CGI);
            xhr.setRequestHeader(...PAGE_HEADER);
            xhr.upload.addEventListener('progress', (e) => {
                onProgress(e.loaded, e.lengthComputable ? e.total : file.size);
            });
            // status 0: the connection was lost.
            xhr.addEventListener('loadend', () => resolve(heard(xhr.status ? xhr.status : null)));
            // The program takes the package from the last part of the form.
            const form = new FormData();
            form.append('package', file, file.name);
            xhr.send(form);
        });
    }

    async function update(file) {
        const g = enter();
        const mine = {file, at: new Date()};
        setControls(false);
        setOutcome('');
        window.onbeforeunload = (e) => {
            e.preventDefault();
            e.returnValue = 'An update is running.';
            return e.returnValue;
        };
        $('upload-meter').hidden = $('update-meter').hidden = false;
        setMeter('upload-meter', 0);
        setMeter('update-meter', 0);
        showLog($('log'), []);
        const sending = 'Sending ' + file.name + ' to the device. Keep this page open.';
        setState(sending);
        $('state').focus();
        await records(mine);
        current = mine;

        // An earlier update's entries, up to its final one, are not this
        // update's; the device reboots after a success, but may not have.
        const before = await get(CGI + '?request=1');
        let baseText = before && before.ok ? before.text : '';
        const earlier = parseLog(baseText);
        let baseCount = 0;
        earlier.forEach((entry, i) => {
            if (entry.success || entry.error) baseCount = i + 1;
        });

        let sentAll = false;
        let posted = false;
        let percentSent = 0;
        const meter = uploadWatch(file, (stalled) => sentAll || setState(stalled ? 'The upload has made ' +
            'no progress for a few seconds: the connection may have stalled. This page keeps trying.' : sending,
        stalled ? 'warn' : ''));
        const post = sendPackage(file, (loaded, total) => {
            percentSent = total > 0 ? (100 * loaded) / total : 0;
            setMeter('upload-meter', percentSent);
            meter.progress(loaded);
            if (loaded < total || sentAll) return;
            sentAll = true;
            meter.stop();
            keepOn(true);
            setState('Installing ' + file.name + '. Do not switch the device off.');
        }).then((status) => {
            posted = true;
            return status;
        });

        // Only progress requests until the POST has answered: the moment the
        // body is complete, lighttpd starts the update, and until it has
        // taken over the lock a lock-state request would clear it as stale.
        let outcome = null;
        let entries = [];
        while (!posted && outcome === null) {
            const answer = await get(CGI + '?request=1');
            if (answer !== null && answer.ok) {
                if (!answer.text.startsWith(baseText)) {
                    baseText = '';
                    baseCount = 0;
                }
                entries = parseLog(answer.text).slice(baseCount);
                showLog($('log'), entries);
                const percent = latestPercent(entries);
                if (percent !== null) setMeter('update-meter', percent);
                // An ending before the whole package has left is another
                // client's update's: this one's POST gets the busy answer.
                if (sentAll) outcome = ending(entries) || null;
            }
            if (!posted && outcome === null) await Promise.race([sleep(OWN_POLL_MS), post]);
        }
        meter.stop();
        if (g !== generation) return;
        // The device's busy answer: another client's update holds it.
        const busy = () => {
            window.onbeforeunload = null;
            mine.savedAfter = null;  // no saved log is this one's
            return watch({...mine, other: true}, 'Another update was already running on the device: your ' +
                'package ' + file.name + ' was not installed.');
        };
        if (posted && (await post) === BUSY) return busy();

        if (outcome && outcome.success) {
            setMeter('upload-meter', 100);
            setState('The update has succeeded; the device restarts in a few seconds. Do not switch it off.');
            if ((await post) === BUSY) return busy();
            return awaitReboot(mine);
        }
        if (outcome) {
            if ((await post) === BUSY) return busy();
            return failed(mine, outcome, entries);
        }
        if ((await post) === null) return sentAll ? follow(mine) : lost(mine, percentSent);
        // The POST answered without a final entry in the polls: the saved
        // copy tells, if it was written by this update.
        return finish(mine);
    }

    // Ends a mode with its result: the outcome takes the focus when the
    // user had asked for the update.
    function end(update, text, kind) {
        window.onbeforeunload = null;
        keepOn(false);
        // The saved copy under Last update is this update's log now, and
        // stays the only one named after it.
        update.savedAfter = fresh(update) ? saved.modified : null;
        if (update.savedAfter !== null) $('log').hidden = $('update-meter').hidden = true;
        if (text) setOutcome(text, kind, !!(update.file || update.asked));
        if (kind === 'success') $('package').value = '';
        return idle();
    }

    function lost(update, percent) {
        return end(update, 'The connection to the device was lost while sending ' + update.file.name +
            ' (at ' + Math.floor(percent) + ' %): nothing was installed; ' + running().toLowerCase() +
            ' still runs. Check the connection, then press Update to send it again.', 'error');
    }

    // An error entry in the log: no reboot follows.
    async function failed(update, entry, entries) {
        await refreshLast();
        const stopped = entries.some((e) => e.plain.startsWith('stopping the application'));
        return end(update, cap(whose(update)) + ' failed: ' + entry.plain.slice(7) + '. ' + running() +
            ' still runs. ' + (stopped ? 'The application was stopped: reboot the device to start it again, ' +
            'then try a package made for this device.' : 'Nothing was changed: check the package and try again.') +
            unsent(update.other && update.file), 'error');
    }

    // The connection was lost after the whole package had left: the device
    // may still be updating. Followed with progress requests only, which
    // never clear its lock.
    async function follow(update) {
        const g = enter();
        keepOn(true);
        setOutcome('The connection to the device was lost after ' + update.file.name + ' was sent: the ' +
            'device may still be updating. Do not switch it off; this page follows it when it answers again.',
        'warn', true);
        setState('Waiting for the device to answer again.', 'warn');
        const start = Date.now();
        while (g === generation && Date.now() - start < REBOOT_GIVE_UP_MS) {
            await sleep(REBOOT_POLL_MS);
            const answer = await get(CGI + '?request=1');
            if (g !== generation) return;
            if (answer === null || !answer.ok) continue;
            const entries = parseLog(answer.text);
            const last = ending(entries);
            if (last && last.success) return awaitReboot(update);
            if (last) return failed(update, last, entries);
            // The log of a device with no update under way: it has ended (and
            // the device rebooted or the update failed): its records tell.
            if (entries.length <= 1) return finish(update);
            showLog($('log'), entries);
            setState('The device answers again; the update goes on. Do not switch the device off.');
        }
        if (g === generation) finish(update);
    }

    // After a success entry, or the Reboot button (no update). The device
    // saves the update's log just before it restarts.
    async function awaitReboot(update) {
        const g = enter();
        setControls(false);
        window.onbeforeunload = null;
        keepOn(true);
        setState('The device is restarting. Do not switch it off; this page reconnects when it answers again.');
        const start = Date.now();
        let down = false;
        while (g === generation) {
            await sleep(REBOOT_POLL_MS);
            if (g !== generation) return;
            if (!(await alive())) {
                down = true;
                continue;
            }
            if (down && update) return finish(update);
            if (down) {
                await Promise.all([refreshLast(), refreshDevice()]);
                return end({asked: true}, 'The device is back: it restarted as asked. ' + running() + ' runs.', 'done');
            }
            if (Date.now() - start > REBOOT_GIVE_UP_MS) {
                return end({asked: !update}, 'The device has not restarted; it answers as before. Press Reboot to try again.', 'error');
            }
        }
    }

    // The verdict on an update whose end the page did not see itself: the
    // device's status document if it recorded a new installation, else the
    // saved log if it is this update's.
    async function finish(update) {
        const [, doc] = await Promise.all([refreshLast(), refreshDevice()]);
        const last = doc && doc.last_install;
        let ours = update, text = '', kind = 'done';
        if (last && JSON.stringify(last) !== update.installBefore) {
            const sum = update.other ? null : await digest(update.file);
            if (sum !== null && sum !== last.sha256) ours = {other: true};
            const good = last.result === 'installed' && !doc.fallback && doc.version === last.version;
            text = cap(whose(ours)) + ', installed at ' + clock(last.time) + ': ' + installVerdict(doc) +
                (good ? '; it replaced ' + (doc.replaced || update.versionBefore) + '.' : '. Try the package again, ' +
                'or one made for this device; the trace under Last update tells more.');
            kind = good ? 'success' : 'error';
        } else if (fresh(update)) {
            const [said, verdict] = logVerdict(saved.entries, whose(update));
            text = said + (verdict === 'ok' ? '' : ' ' + running() + ' still runs.');
            kind = verdict === 'ok' ? 'success' : 'error';
        } else if (!update.other) {
            return end(update, 'The device answers, but it has no record of ' + whose(update) + ': its outcome ' +
                'is unknown. Compare the running firmware with the package, or send it again.', 'error');
        }
        return end(update, (text + unsent(ours.other && update.file)).trim(), ours.other ? 'done' : kind);
    }
    const unsent = (file) => (file ? ' Your package ' + file.name + ' was not installed.' : '');

    async function digest(file) {
        try {
            const hash = await crypto.subtle.digest('SHA-256', await file.arrayBuffer());
            return Array.from(new Uint8Array(hash), (b) => b.toString(16).padStart(2, '0')).join('');
        } catch (e) {
            return null;  // no digest over plain HTTP: a new installation is taken for this update's
        }
    }

    $('package').addEventListener('change', () => {
        setOutcome('');
        setControls(!$('package').disabled);
        ready();
    });

    $('form').addEventListener('submit', async (e) => {
        e.preventDefault();
        const file = $('package').files[0];
        if (refusal() !== null) return ready();
        setControls(false);
        // Our own upload has not begun: asking for the lock state is safe here.
        const answer = await get(CGI + '?status=1');
        if (answer === null || !answer.ok) return idle();
        if (answer.text !== 'STATUS_FREE') return watch({other: true, file}, 'Another update is running on ' +
            'the device: your package ' + file.name + ' was not sent.');
        update(file);
    });

    $('reboot').addEventListener('click', async () => {
        if (!window.confirm('Reboot the device now? It will not answer for a while.')) return;
        setControls(false);
        enter();
        setOutcome('');
        await get(CGI + '?reboot=1');
        awaitReboot(null);
    });

    refreshLast();
    refreshDevice();
    idle();
})();
