'use strict';
// The device's update page. It talks to the updater program only:
//   POST            the package, as a form whose one part is the file
//   ?request=1      the update log (HTML fragment, each entry ends in <br>)
//   ?status=1       the lock state, "STATUS_FREE" or "STATUS_BUSY"
//   ?reboot=1       reboot the device
// and reads the copies of the last update's log and trace under last/.
(() => {
    const CGI = '/cgi-bin/updater';
    const SAVED_LOG = 'last/updater-cgi.log';
    const SAVED_TRACE = 'last/updater-cgi.debug';
    // An error ending deletes the log 1.5 s after its entry: poll well inside that.
    const OWN_POLL_MS = 400;
    const WATCH_POLL_MS = 1000;
    const IDLE_POLL_MS = 5000;
    const STALE_AFTER_MS = 60000;
    const REBOOT_POLL_MS = 2000;
    const REBOOT_GIVE_UP_MS = 180000;
    const RECEIVING = 'receiving package file ...';
    // The answer to a POST while another update runs on the device.
    const BUSY = 503;

    // lighttpd lets only requests with this header reach the program: another
    // site's page cannot send it, so it cannot update or reboot the device.
    const PAGE_HEADER = ['X-Updater-Page', '1'];

    const $ = (id) => document.getElementById(id);
    const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

    // Text and Last-Modified of a GET, or null when the device does not answer
    // (or refuses).
    async function get(url) {
        try {
            const response = await fetch(url, {cache: 'no-store', headers: [PAGE_HEADER]});
            if (!response.ok) return null;
            return {text: await response.text(), modified: response.headers.get('Last-Modified')};
        } catch (e) {
            return null;
        }
    }

    // A probe that gets no answer within 5 s counts as "down": a connection
    // opened while the device reboots can be held until it is back.
    async function alive() {
        try {
            const response = await fetch('index.html', {method: 'HEAD', cache: 'no-store',
                                                        signal: AbortSignal.timeout(5000)});
            return response.ok;
        } catch (e) {
            return false;
        }
    }

    // "[sss.mmm:pct] text<br>" entries; the percentage is absent in some.
    const ENTRY = /^\[(\d+\.\d+)(?::(-?\d+))?\] ([\s\S]*)$/;

    function parseLog(text) {
        return text.split('<br>').filter((raw) => raw.length > 0).map((raw) => {
            const m = ENTRY.exec(raw);
            const plain = (m ? m[3] : raw).replace(/<[^>]*>/g, '');
            return {
                raw,
                percent: m && m[2] !== undefined ? Number(m[2]) : null,
                plain,
                error: plain.startsWith('ERROR: '),
                success: plain.includes('firmware successfully loaded'),
            };
        });
    }

    function renderLog(element, entries) {
        const rows = entries.map((entry) => {
            const row = document.createElement('div');
            row.className = 'entry' + (entry.error ? ' error' : '') + (entry.success ? ' success' : '');
            // The program's own HTML fragment, one entry per row.
            row.innerHTML = entry.raw;
            return row;
        });
        element.replaceChildren(...rows);
        element.hidden = rows.length === 0;
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

    function setState(text, kind) {
        const state = $('state');
        state.textContent = text;
        state.className = 'state' + (kind ? ' ' + kind : '');
    }

    function setOutcome(text, kind) {
        const outcome = $('outcome');
        outcome.hidden = !text;
        outcome.textContent = text || '';
        outcome.className = 'outcome' + (kind ? ' ' + kind : '');
    }

    function setControls(enabled) {
        $('package').disabled = !enabled;
        $('update').disabled = !enabled || $('package').files.length === 0;
        $('reboot').disabled = !enabled;
    }

    function mebibytes(bytes) {
        return (bytes / 1048576).toFixed(1) + ' MiB';
    }

    // Shows the saved copy of the last update's log with its outcome; these
    // copies survive the reboot, so they are what the user can trust. A
    // power cut while the device saves it can leave it empty or short: its
    // outcome is then unknown. Both copies are asked for first, so that the
    // verdict and the trace link appear together.
    async function refreshLast() {
        const [saved, trace] = await Promise.all([get(SAVED_LOG), get(SAVED_TRACE)]);
        const verdict = $('last-verdict');
        if (saved === null) {
            verdict.textContent = 'No update has been recorded on this device yet.';
            verdict.className = 'verdict';
            $('last-log-box').hidden = true;
            $('trace-link').hidden = true;
            return null;
        }
        const entries = parseLog(saved.text);
        const newest = entries[entries.length - 1];
        if (!newest) {
            verdict.textContent = 'The outcome of the last update is unknown: its saved log is empty.';
            verdict.className = 'verdict bad';
        } else if (newest.success) {
            verdict.textContent = 'The last update succeeded: firmware successfully loaded.';
            verdict.className = 'verdict ok';
        } else if (newest.error) {
            verdict.textContent = 'The last update failed: ' + newest.plain.slice(7);
            verdict.className = 'verdict bad';
        } else {
            verdict.textContent = 'The outcome of the last update is unknown: its saved log ends with "' +
                newest.plain + '", before its result.';
            verdict.className = 'verdict bad';
        }
        if (saved.modified) {
            const when = new Date(saved.modified);
            if (!isNaN(when)) verdict.textContent += ' (saved ' + when.toLocaleString() + ')';
        }
        renderLog($('last-log'), entries);
        $('last-log').hidden = false;
        $('last-log-box').hidden = false;
        $('trace-link').hidden = trace === null;
        $('trace-link').href = SAVED_TRACE + '?t=' + Date.now();
        return saved.modified;
    }

    // Each mode runs one loop; entering another mode ends the previous loop.
    let generation = 0;
    const enter = () => ++generation;

    async function idle() {
        const g = enter();
        window.onbeforeunload = null;
        $('upload-meter').hidden = true;
        while (g === generation) {
            const answer = await get(CGI + '?status=1');
            if (g !== generation) return;
            if (answer === null) {
                setControls(false);
                setState('The device does not answer; trying again.', 'warn');
            } else if (answer.text === 'STATUS_BUSY') {
                return watch();
            } else {
                setControls(true);
                setState($('package').files.length ? 'Ready: press Update to install ' +
                    $('package').files[0].name + '.' : 'Ready: choose a package file.');
            }
            await sleep(IDLE_POLL_MS);
        }
    }

    // Another client's update: follow its log with progress requests, which
    // never clear a lock. A lock-state request is sent only when the log has
    // not moved for a minute (an abandoned upload leaves a stale lock that
    // only a lock-state request clears).
    async function watch(note = '') {
        const g = enter();
        setControls(false);
        setOutcome(note, 'error');
        const savedBefore = await get(SAVED_LOG);
        setState('Another update is running on the device; you can update when it has ended.', 'warn');
        $('upload-meter').hidden = true;
        let last = null;
        let since = Date.now();
        while (g === generation) {
            const answer = await get(CGI + '?request=1');
            if (g !== generation) return;
            if (answer !== null) {
                const entries = parseLog(answer.text);
                renderLog($('log'), entries);
                const percent = latestPercent(entries);
                if (percent !== null) setMeter('update-meter', percent);
                const newest = entries[entries.length - 1];
                if (newest && newest.success) return awaitReboot(savedBefore);
                if (newest && newest.error) {
                    await refreshLast();
                    return idle();
                }
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
                    if (lock !== null && lock.text === 'STATUS_FREE') return idle();
                }
            }
            await sleep(WATCH_POLL_MS);
        }
    }

    function sendPackage(file, onProgress) {
        return new Promise((resolve) => {
            const xhr = new XMLHttpRequest();
            xhr.open('POST', CGI);
            xhr.setRequestHeader(...PAGE_HEADER);
            xhr.upload.addEventListener('progress', (e) => {
                onProgress(e.loaded, e.lengthComputable ? e.total : file.size);
            });
            xhr.addEventListener('loadend', () => resolve(xhr.status));
            // The program takes the package from the last part of the form.
            const form = new FormData();
            form.append('package', file, file.name);
            xhr.send(form);
        });
    }

    async function update(file) {
        const g = enter();
        setControls(false);
        setOutcome('');
        window.onbeforeunload = (e) => {
            e.preventDefault();
            e.returnValue = 'An update is running.';
            return e.returnValue;
        };
        $('upload-meter').hidden = false;
        setMeter('upload-meter', 0);
        setMeter('update-meter', 0);
        setState('Starting the update. Keep this page open until it has ended.');
        const savedBefore = await get(SAVED_LOG);

        // An earlier update's entries, up to its final one, are not this
        // update's; the device reboots after a success, but may not have.
        const before = await get(CGI + '?request=1');
        let baseText = before ? before.text : '';
        const earlier = parseLog(baseText);
        let baseCount = 0;
        earlier.forEach((entry, i) => {
            if (entry.success || entry.error) baseCount = i + 1;
        });

        let sentAll = false;
        let posted = false;
        const post = sendPackage(file, (loaded, total) => {
            const percent = total > 0 ? (100 * loaded) / total : 0;
            setMeter('upload-meter', percent);
            sentAll = loaded >= total;
            if (!sentAll) {
                setState('Sending ' + file.name + ': ' + mebibytes(loaded) + ' of ' +
                    mebibytes(total) + '. Keep this page open.');
            }
        }).then((status) => {
            posted = true;
            return status;
        });

        // Only progress requests until the POST has answered: the moment the
        // body is complete, lighttpd starts the update, and until it has
        // taken over the lock a lock-state request would clear it as stale.
        let outcome = null;
        while (!posted && outcome === null) {
            const answer = await get(CGI + '?request=1');
            if (answer !== null) {
                if (!answer.text.startsWith(baseText)) {
                    baseText = '';
                    baseCount = 0;
                }
                const mine = parseLog(answer.text).slice(baseCount);
                renderLog($('log'), mine);
                const percent = latestPercent(mine);
                if (percent !== null) setMeter('update-meter', percent);
                const newest = mine[mine.length - 1];
                // An ending before the whole package has left is another
                // client's update's: this one's POST gets the busy answer.
                if (newest && sentAll && (newest.success || newest.error)) outcome = newest;
                if (newest && sentAll && !outcome) {
                    setState('Updating: ' + newest.plain + ' Keep this page open.');
                }
            }
            if (!posted && outcome === null) await Promise.race([sleep(OWN_POLL_MS), post]);
        }
        if (g !== generation) return;
        // The device's busy answer: another client's update holds it.
        const busy = () => {
            window.onbeforeunload = null;
            return watch('Another update was already running on the device: your package was ' +
                'not installed.');
        };
        if (posted && (await post) === BUSY) return busy();

        if (outcome && outcome.success) {
            setMeter('upload-meter', 100);
            setOutcome('Update completed, firmware successfully loaded. The device restarts in ' +
                'a few seconds; do not switch it off.', 'success');
            setState('Waiting for the device to restart.');
            if ((await post) === BUSY) return busy();
            return awaitReboot(savedBefore);
        }
        if (outcome && outcome.error) {
            setOutcome('The update failed: ' + outcome.plain.slice(7), 'error');
            setState('The update has ended with an error.', 'bad');
            if ((await post) === BUSY) return busy();
            window.onbeforeunload = null;
            await refreshLast();
            return idle();
        }
        // The POST answered without a final entry in the polls: the saved
        // copy tells, if it was written by this update.
        window.onbeforeunload = null;
        const savedAfter = await refreshLast();
        const fresh = savedAfter !== null &&
            (savedBefore === null || savedBefore.modified !== savedAfter);
        if (fresh) {
            const verdict = $('last-verdict');
            setOutcome(verdict.textContent, verdict.classList.contains('ok') ? 'success' : 'error');
        } else {
            setOutcome('The outcome of this update is unknown: it ended without a result, and the ' +
                'device saved no log of it (it may have lost power or the connection).', 'error');
        }
        return idle();
    }

    // After a success entry. The device saves the update's log just before it
    // restarts: a copy no newer than the one before the update means that it
    // restarted (lost power) before, and the outcome is unknown.
    async function awaitReboot(savedBefore) {
        const g = enter();
        setControls(false);
        window.onbeforeunload = null;
        setState('The device is restarting; this page reconnects when it answers again.');
        const start = Date.now();
        let down = false;
        while (g === generation) {
            await sleep(REBOOT_POLL_MS);
            if (g !== generation) return;
            if (!(await alive())) {
                down = true;
                setState('The device is restarting; waiting for it to answer again.');
                continue;
            }
            if (down) {
                const savedAfter = await refreshLast();
                const ok = $('last-verdict').classList.contains('ok');
                if (savedBefore !== undefined && savedAfter === (savedBefore ? savedBefore.modified : null)) {
                    setOutcome('The device is back, but it saved no log of this update: its outcome ' +
                        'is unknown. Its log had said success before the restart.', 'error');
                } else {
                    setOutcome('The device is back. The result of the last update is shown above.',
                        ok ? 'success' : 'error');
                }
                return idle();
            }
            if (Date.now() - start > REBOOT_GIVE_UP_MS) {
                setOutcome('The device has not restarted; it answers as before.', 'error');
                await refreshLast();
                return idle();
            }
        }
    }

    $('package').addEventListener('change', () => {
        const file = $('package').files[0];
        $('update').disabled = $('package').disabled || !file;
        if (file) setState('Ready: press Update to install ' + file.name + ' (' + mebibytes(file.size) + ').');
    });

    $('form').addEventListener('submit', async (e) => {
        e.preventDefault();
        const file = $('package').files[0];
        if (!file) return;
        setControls(false);
        // Our own upload has not begun: asking for the lock state is safe here.
        const answer = await get(CGI + '?status=1');
        if (answer === null || answer.text !== 'STATUS_FREE') return answer ? watch() : idle();
        update(file);
    });

    $('reboot').addEventListener('click', async () => {
        if (!window.confirm('Reboot the device now? It will not answer for a while.')) return;
        setControls(false);
        enter();
        await get(CGI + '?reboot=1');
        awaitReboot();
    });

    refreshLast();
    idle();
})();
