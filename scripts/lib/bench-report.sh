#!/usr/bin/env bash
# Turns the results of scripts/bench into its table of ratios (standard output,
# Markdown) and the throughput plot.
# Usage: scripts/lib/bench-report.sh RESULTS PNG
#   RESULTS: lines "name key=value ..." (see bench/updater_bench.cpp)
set -euo pipefail
results=$1
png=$2

awk '
function get(name, key) {
    if (!((name, key) in value)) return "";
    return value[name, key];
}
function mib(kib) { return kib == "" ? "-" : sprintf("%.2f MiB", kib / 1024); }
function fmt(format, x) { return x == "" ? "-" : sprintf(format, x); }
function verdict(ok) { return ok ? "yes" : "**no**"; }
# Keys of the array, in ascending numeric order, into out[1..n]; returns n.
function sorted_keys(array, out,    k, n, i, j, t) {
    n = 0;
    for (k in array) out[++n] = k + 0;
    for (i = 2; i <= n; i++)
        for (j = i; j > 1 && out[j - 1] > out[j]; j--) { t = out[j]; out[j] = out[j - 1]; out[j - 1] = t }
    return n;
}
function row(what, program, reference, ratio, goal, met) {
    printf "| %s | %s | %s | %s | %s | %s |\n", what, program, reference, ratio, goal, met;
}
{
    for (i = 2; i <= NF; i++) {
        split($i, kv, "=");
        value[$1, kv[1]] = kv[2];
    }
    seen[$1] = 1;
    if ($1 ~ /^copy\//) { split($1, p, "/"); sizes[p[2] + 0] = 1 }
    if ($1 ~ /^post\//) { split($1, p, "/"); post_sizes[p[2] + 0] = 1 }
}
END {
    print "| figure | updater | reference | ratio | goal | met |";
    print "|---|---|---|---|---|---|";

    c = "copy/256"; s = "copy_sync/256";
    r = get(c, "ratio");
    row("reassembly of a 256 MiB body, throughput, sync() left out",
        fmt("%.0f MB/s", get(c, "program_MBps")), fmt("cat %.0f MB/s", get(c, "cat_MBps")),
        fmt("%.2f", r), ">= 0.9", verdict(r >= 0.9));
    row("the same, CPU time (cat / updater)", "", "", fmt("%.2f", get(c, "cpu_ratio")), "", "");
    r = get(s, "ratio");
    row("reassembly of a 256 MiB body with its two sync() calls",
        fmt("%.0f MB/s", get(s, "program_MBps")), fmt("cat + sync %.0f MB/s", get(s, "cat_MBps")),
        fmt("%.2f", r), ">= 0.9", verdict(r >= 0.9));

    floor = get("requests", "noop_maxrss_kib");
    for (variant = 0; variant < 2; variant++) {
        name = variant ? "post_static" : "post";
        label = variant ? "static" : "dynamic";
        list = ""; low = ""; high = 0;
        n = sorted_keys(post_sizes, order);
        for (i = 1; i <= n; i++) {
            k = get(name "/" order[i], "peak_rss_kib");
            if (k == "") continue;
            list = list (list == "" ? "" : " / ") sprintf("%.2f", k / 1024);
            if (low == "" || k < low) low = k;
            if (k > high) high = k;
        }
        if (list == "") continue;
        sizes_text = "";
        for (i = 1; i <= n; i++) sizes_text = sizes_text (i > 1 ? "/" : "") order[i];
        row("POST process peak RSS, " label ", " sizes_text " MiB packages",
            list " MiB", "do-nothing C++ " mib(floor),
            fmt("%.2f", high / low) " (max/min)", "constant, < 3 MiB",
            verdict(high / low < 1.1 && high < 3072));
    }

    for (variant = 0; variant < 2; variant++) {
        suffix = variant ? "_static" : "";
        for (q = 0; q < 2; q++) {
            request = q ? "lock_state" : "progress";
            r = get("requests", request suffix "_ratio");
            if (r == "") continue;
            row((q ? "lock-state" : "progress") " request, whole process" (variant ? ", static" : ""),
                fmt("%.0f us", get("requests", request suffix "_us")) ", " mib(get("requests", request suffix "_maxrss_kib")),
                fmt("do-nothing C++ %.0f us", get("requests", "noop_us")),
                fmt("%.2f", r), "<= 1.2", verdict(r <= 1.2));
        }
    }

    for (q = 0; q < 2; q++) {
        request = q ? "lock_state" : "progress";
        u = get("lighttpd/" request, "updater_rps"); m = get("lighttpd/" request, "minimal_rps");
        if (u == "") continue;
        row((q ? "lock-state" : "progress") " requests/s through lighttpd (wrk)",
            fmt("%.0f /s", u), fmt("minimal C CGI %.0f /s", m), fmt("%.2f", u / m),
            ">= 0.8", verdict(u / m >= 0.8));
        us = get("lighttpd/" request, "updater_static_rps");
        if (us != "")
            row("the same, static program", fmt("%.0f /s", us), "", fmt("%.2f", us / m),
                ">= 0.8", verdict(us / m >= 0.8));
    }

    # What a request costs the server: lighttpd and the CGI processes it ran.
    for (q = 0; q < 2; q++) {
        request = q ? "lock_state" : "progress";
        u = get("lighttpd/" request, "updater_cpu_us"); m = get("lighttpd/" request, "minimal_cpu_us");
        if (u == "") continue;
        row("CPU per " (q ? "lock-state" : "progress") " request through lighttpd (lighttpd and the CGI), minimal / updater",
            fmt("%.0f us", u), fmt("minimal C CGI %.0f us", m), fmt("%.2f", m / u), ">= 1.0", verdict(m / u >= 1.0));
        us = get("lighttpd/" request, "updater_static_cpu_us");
        if (us != "")
            row("the same, static program", fmt("%.0f us", us), "", fmt("%.2f", m / us), ">= 1.0", verdict(m / us >= 1.0));
    }

    s = "lighttpd/lock_state_signed"; u = get(s, "updater_rps"); m = get(s, "minimal_rps"); us = get(s, "updater_static_rps");
    if (u != "") {
        row("lock-state requests/s through lighttpd, signed in (digest), page-header rules",
            fmt("%.0f /s", u), fmt("minimal C CGI %.0f /s", m), fmt("%.2f", u / m), ">= 0.8", verdict(u / m >= 0.8));
        row("the same, static program", fmt("%.0f /s", us), "", fmt("%.2f", us / m), ">= 0.8", verdict(us / m >= 0.8));
    }

    if (get("syscalls", "progress") != "") {
        row("system calls per request (strace -c): progress / lock-state",
            get("syscalls", "progress") " / " get("syscalls", "lock_state"),
            "do-nothing C++ " get("syscalls", "noop") ", minimal C CGI " get("syscalls", "minimal_progress") " / " get("syscalls", "minimal_lock_state"),
            "", "", "");
    }

    r = get("client_upload", "ratio");
    if (r != "")
        row("upload of a 128 MiB package through lighttpd, both capped at 64 MiB/s, update-device (host client); pairs from " \
                fmt("%.3f", get("client_upload", "low")) " to " fmt("%.3f", get("client_upload", "high")),
            fmt("%.0f MB/s", get("client_upload", "client_MBps")),
            fmt("curl -F %.0f MB/s", get("client_upload", "curl_MBps")), fmt("%.3f", r),
            ">= 0.95", verdict(r >= 0.95));
    r = get("client_upload", "tls_ratio");
    if (r != "")
        row("upload of a 192 MiB package over HTTPS against plain HTTP, update-device, same lighttpd",
            fmt("%.0f MB/s", get("client_upload", "tls_MBps")),
            fmt("plain HTTP %.0f MB/s", get("client_upload", "plain_MBps")), fmt("%.2f", r),
            ">= 0.8", verdict(r >= 0.8));
    n = get("client_fleet", "devices");
    if (n != "") {
        r = get("client_fleet", "ratio");
        row("update-device, " n " devices at once (--parallel " n ") against one alone: whole run, to the success entry",
            fmt("%.2f s", get("client_fleet", "all_s")), fmt("one device %.2f s", get("client_fleet", "one_s")),
            fmt("%.2f", r), "<= 1.5", verdict(r <= 1.5));
        k = get("client_fleet", "per_device_kib");
        row("update-device peak memory, " n " devices / one, and its growth per device",
            mib(get("client_fleet", "all_kib")) " / " mib(get("client_fleet", "one_kib")), "",
            fmt("%d KiB", k), "< 1024 KiB", verdict(k < 1024));
    }

    nd = get("sizes", "native_dynamic"); ns = get("sizes", "native_static");
    ad = get("sizes", "arm_dynamic"); as = get("sizes", "arm_static");
    row("stripped size, native (dynamic / static)", nd " / " ns " bytes", "", "", "", "");
    row("stripped size, ARM (dynamic / static)", ad " / " as " bytes", "", "", "<= 65536 (dynamic)",
        ad == "" ? "" : verdict(ad <= 65536));

    # Throughput against size, for the plot.
    n = sorted_keys(sizes, order);
    for (i = 1; i <= n; i++) {
        c = "copy/" order[i];
        printf "%s %s %s\n", order[i], get(c, "program_MBps"), get(c, "cat_MBps") > "/dev/stderr";
    }
}' "$results" 2>"$results.plot"

command -v gnuplot >/dev/null || { echo "(gnuplot missing: no plot)"; exit 0; }
mkdir -p "$(dirname "$png")"
gnuplot <<PLOT
set terminal pngcairo size 640,400 font "sans,10"
set output "$png"
set title "Upload reassembly against cat (same body, same file system, sync left out)"
set xlabel "package size (MiB)"
set ylabel "throughput (MB/s)"
set logscale x 2
set xrange [3:320]
set xtics (4, 16, 64, 128, 256)
set yrange [0:*]
set key bottom right
set grid
plot "$results.plot" using 1:2 with linespoints lw 2 pt 7 title "updater (uploader::run)", \
     "$results.plot" using 1:3 with linespoints lw 2 pt 5 title "cat"
PLOT
echo "plot: $png"
