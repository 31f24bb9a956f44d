#!/usr/bin/env python3
"""Turns the output of the benchmark programs into one Markdown table.

    table.py --groups results/bench_x.json [bench_x.list]   what to pair
    table.py [--load-start L] [--load-end L] results/bench_*.json

bench/run first runs every benchmark once (the plain JSON: names, labels,
bytes, counters); `--groups` then lists, one line per operation, the
operation and its baselines, tab-separated: the "memcpy/<frame>" row of the
same program (the memory limit) and every peer its label names (OpenCV, FFTW
or our own earlier code). The program runs each such group in alternating
slices (rows without a pairing alone) and writes them to bench_x.paired.jsonl
beside the JSON.

Every row of the table is one benchmark: operation, frame, median
milliseconds per frame over its slices, GB/s of the frame's bytes, the ratio
to memcpy and the ratio to the peer. A ratio is the median over the rounds of
the operation's time over its baseline's time in the same round, with the
lowest and highest round in brackets; without paired slices it falls back to
the ratio of the two single runs. A label holds one pairing
"peer=NAME;target=..." or several joined by '|'; each further pairing gets a
row of its own. A target states the speed the operation must reach, and rows
that miss it (judged on the medians) are marked MISSES. Rows that are
baselines (by name, or unlabelled rows a label names as its peer) get no
ratios. Benchmarks of a live chain (those with a "viewer_core_pct" counter)
get a table of their own counters after the main one; their targets name
counters.
"""
import json
import os
import re
import statistics
import sys


# Numbers Google Benchmark writes for every run; anything else is a counter.
RUN_FIELDS = {"family_index", "per_family_instance_index", "repetitions", "repetition_index", "threads",
              "iterations", "real_time", "cpu_time", "bytes_per_second", "items_per_second"}
LIVE_COUNTERS = ["source_fps", "output_fps", "dropped", "shown_fps", "viewer_ms_per_shown", "copy_ms_per_shown",
                 "viewer_core_pct", "viewed_vs_unviewed"]
# Run options Google Benchmark appends to a name; they are not part of what
# is measured.
RUN_OPTIONS = r"/(real_time|manual_time|process_time|min_time:[^/]*|min_warmup_time:[^/]*|repeats:\d+|iterations:\d+)"


def parse_label(label):
    """The pairings of a label: "peer=A;target=..|peer=B;target=..", in order."""
    pairings = []
    for part in (label or "").split("|"):
        fields = {}
        for item in part.split(";"):
            if "=" in item:
                k, v = item.split("=", 1)
                fields[k.strip()] = v.strip()
        if fields:
            pairings.append(fields)
    return pairings


def load(path):
    try:
        with open(path) as f:
            text = f.read()
        # A filter that matches nothing in a program leaves its file empty.
        data = json.loads(text) if text.strip() else {}
    except (OSError, ValueError):
        # A program that crashed leaves no JSON, or half of it.
        return [("(program)", {"error": "no results; see its log"})]
    order, errors, median, first = [], {}, {}, {}
    for b in data.get("benchmarks", []):
        name = re.sub(RUN_OPTIONS, "", b.get("run_name") or b["name"])
        if name not in order:
            order.append(name)
        if b.get("error_occurred"):
            errors[name] = b.get("error_message", "error")
        elif b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                median[name] = b
        else:
            first.setdefault(name, b)
    rows = []
    for name in order:
        b = median.get(name) or first.get(name)
        if name in errors or b is None:
            rows.append((name, {"error": errors.get(name, "no result")}))
            continue
        scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b.get("time_unit", "ns")]
        counters = {k: v for k, v in b.items() if isinstance(v, (int, float)) and k not in RUN_FIELDS}
        # Rates count wall-clock time only when the benchmark measures it.
        wall = re.search(r"/(real_time|manual_time)(/|$)", b["name"]) is not None
        rate_ms = (b["real_time"] if wall else b["cpu_time"]) * scale
        frame_bytes = b["bytes_per_second"] * rate_ms / 1e3 if b.get("bytes_per_second") else None
        rows.append((name, {"ms": b["real_time"] * scale, "bytes": frame_bytes,
                            "pairings": parse_label(b.get("label", "")), "counters": counters}))
    return rows


def load_slices(path):
    """Slices of the paired run: {op: {baseline or op: {round: ms}}}."""
    slices = {}
    if not os.path.exists(path):
        return slices
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line:
                continue
            s = json.loads(line)
            if "ms" in s:
                slices.setdefault(s["op"], {}).setdefault(s["name"], {})[s["round"]] = s["ms"]
    return slices


def split(name):
    op, _, frame = name.partition("/")
    if op.startswith("BM_"):
        op = op[3:]
    return op, frame


def named_baseline(op):
    low = op.lower()
    return low == "memcpy" or low.endswith("_memcpy") or low.startswith(("opencv_", "fftw_")) \
        or re.search(r"_(cv|opencv)[A-Z_]", op) is not None


def is_live(r):
    return "viewer_core_pct" in r.get("counters", {})


def memcpy_of(name, known):
    """memcpy/<frame> for "<op>/<frame>"; <op>_memcpy for a plain name."""
    op, _, frame = name.partition("/")
    m = f"memcpy/{frame}" if frame else f"{op}_memcpy"
    return m if m in known else None


def pairings_of(name, r, known):
    """[(peer or None, target)], one per pairing; a row always has one."""
    out = [(p.get("peer"), p.get("target", "")) for p in r["pairings"]] or [(None, "")]
    if out[0][0] is None and "/" not in name:
        # A plain name pairs with its single "<op>_cv..." row.
        peers = [n for n in known if n.startswith(name + "_cv")]
        if len(peers) == 1:
            out[0] = (peers[0], out[0][1])
    return out


def baselines_of(rows):
    """Names that are baselines: by name, or unlabelled and named as a peer."""
    named = {p.get("peer") for _, r in rows if "pairings" in r for p in r["pairings"]}
    return {n for n, r in rows
            if named_baseline(split(n)[0]) or ("error" not in r and not r["pairings"] and n in named)}


def groups(rows, registered):
    """Each operation with the baselines the program has, in order (the
    baselines need not be among the rows a filter let through); then every
    row left over, alone."""
    by_name = dict(rows)
    base = baselines_of(rows)
    known = set(by_name) | set(registered)
    out = []
    for name, r in rows:
        if name in base or "error" in r or is_live(r):
            continue
        members = [name]
        for b in [memcpy_of(name, known)] + [p for p, _ in pairings_of(name, r, known)]:
            if b and b in known and "error" not in by_name.get(b, {}) and b not in members:
                members.append(b)
        if len(members) > 1:
            out.append(members)
    # Every other row runs on its own for as many rounds, so that its time is
    # taken the same way; the live chains measure themselves.
    paired = {n for g in out for n in g}
    out += [[n] for n, r in rows if n not in paired and "error" not in r and not is_live(r)]
    return out


def paired_ratio(op, base, rows_by_name, slices):
    """(median, lowest, highest) of op/base over the rounds of op's group."""
    g = slices.get(op, {})
    a, b = g.get(op, {}), g.get(base, {})
    ratios = sorted(a[k] / b[k] for k in a if k in b and b[k] > 0)
    if ratios:
        return statistics.median(ratios), ratios[0], ratios[-1]
    ra, rb = rows_by_name.get(op, {}), rows_by_name.get(base, {})
    if "ms" in ra and "ms" in rb and rb["ms"] > 0:
        return ra["ms"] / rb["ms"], None, None
    return None


def median_ms(name, r, slices):
    """Median over every slice of `name` in the program; else its single run."""
    times = [ms for g in slices.values() for ms in g.get(name, {}).values()]
    return statistics.median(times) if times else r["ms"]


def check(target, ms, x_mem, x_peer, counters=None):
    misses = []
    for t in target.split(","):
        m = re.fullmatch(r"\s*([a-z_]+)\s*(<=|>=)\s*([0-9.]+)\s*", t)
        if not m:
            continue
        what, cmp_, lim = m.group(1), m.group(2), float(m.group(3))
        val = {"memcpy": x_mem, "peer": x_peer, "ms": ms}.get(what, (counters or {}).get(what))
        if val is None:
            continue
        # Judge the figure the table prints: a ratio shown as 1.00 against
        # "<=1" is a tie, not a miss.
        if what in ("memcpy", "peer"):
            val = round(val, 2)
        ok = val <= lim if cmp_ == "<=" else val >= lim
        if not ok:
            misses.append(t.strip())
    return misses


def fmt(v, digits=2):
    return "" if v is None else f"{v:.{digits}f}"


def fmt_ratio(r):
    if r is None:
        return ""
    if r[1] is None:
        return fmt(r[0])
    return f"{fmt(r[0])} ({fmt(r[1])}–{fmt(r[2])})"


def main(paths, load_start=None, load_end=None):
    rounds = 0
    for path in paths:
        for g in load_slices(os.path.splitext(path)[0] + ".paired.jsonl").values():
            for times in g.values():
                rounds = max(rounds, len(times))
    if load_start or load_end:
        print(f"Load average (1, 5, 15 min) at start: {load_start or '?'}; at end: {load_end or '?'}; "
              f"{os.cpu_count()} cores.")
    if rounds:
        print(f"Ratios: the operation and its baselines interleaved, median over up to {rounds} rounds "
              "(lowest–highest round in brackets).")
    if load_start or load_end or rounds:
        print()
    print("| program | operation | frame | ms/frame | GB/s | × memcpy | × peer | peer | target |")
    print("|---|---|---|---:|---:|---:|---:|---|---|")
    missed = 0
    live = []
    for path in paths:
        prog = os.path.splitext(os.path.basename(path))[0]
        rows = load(path)
        slices = load_slices(os.path.splitext(path)[0] + ".paired.jsonl")
        by_name = dict(rows)
        base = baselines_of(rows)
        known = set(by_name) | {n for g in slices.values() for n in g}
        for name, r in rows:
            op, frame = split(name)
            if is_live(r):
                live.append((prog, op, frame, r))
                continue
            if "error" in r:
                print(f"| {prog} | {op} | {frame} | – | | | | | {r['error']} |")
                continue
            ms = median_ms(name, r, slices)
            gbs = r["bytes"] / (ms / 1e3) / 1e9 if r.get("bytes") and ms > 0 else None
            pairings = [(None, "")] if name in base else pairings_of(name, r, known)
            mem = None
            if name not in base:
                m = memcpy_of(name, known)
                mem = paired_ratio(name, m, by_name, slices) if m else None
            for i, (peer_name, target) in enumerate(pairings):
                peer = paired_ratio(name, peer_name, by_name, slices) \
                    if peer_name and name not in base and peer_name in known else None
                verdict = ""
                if target:
                    misses = check(target, ms, mem and mem[0], peer and peer[0])
                    verdict = f"{target}: " + ("**MISSES**" if misses else "ok")
                    missed += bool(misses)
                if i == 0:
                    print(f"| {prog} | {op} | {frame} | {fmt(ms)} | {fmt(gbs)} | {fmt_ratio(mem)} | "
                          f"{fmt_ratio(peer)} | {peer_name or ''} | {verdict} |")
                else:
                    print(f"| {prog} | {op} | {frame} | | | | {fmt_ratio(peer)} | {peer_name or ''} | {verdict} |")
    if live:
        print()
        print("| program | chain | camera fps | " + " | ".join(LIVE_COUNTERS) + " | target |")
        print("|---|---|---|" + "---:|" * len(LIVE_COUNTERS) + "---|")
        for prog, op, frame, r in live:
            c = r["counters"]
            target = next((p["target"] for p in r["pairings"] if "target" in p), "")
            verdict = ""
            if target:
                misses = check(target, None, None, None, c)
                verdict = f"{target}: " + ("**MISSES**" if misses else "ok")
                missed += bool(misses)
            cells = " | ".join(fmt(c.get(k), 1) for k in LIVE_COUNTERS)
            print(f"| {prog} | {op} | {'full' if frame == '0' else frame} | {cells} | {verdict} |")
    print()
    print(f"Targets missed: {missed}")


if __name__ == "__main__":
    args = sys.argv[1:]
    if args[:1] == ["--groups"]:
        # The program's --benchmark_list_tests output, when given, names the
        # baselines a filter left out of the JSON.
        registered = []
        if len(args) > 2:
            with open(args[2]) as f:
                registered = [re.sub(RUN_OPTIONS, "", line.strip()) for line in f if line.strip()]
        for g in groups(load(args[1]), registered):
            print("\t".join(g))
        sys.exit(0)
    opts = {}
    while args[:1] and args[0] in ("--load-start", "--load-end"):
        opts[args[0][2:].replace("-", "_")] = args[1]
        args = args[2:]
    main(args, **opts)
