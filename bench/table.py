#!/usr/bin/env python3
"""Turns the JSON output of the benchmark programs into one Markdown table.

Every row is one benchmark: operation, frame, median milliseconds per frame,
GB/s of the frame's bytes, the ratio to "memcpy/<frame>" of the same program
(the memory limit) and the ratio to the peer the row's label names (OpenCV or
FFTW, measured in the same run). A label "target=..." states the speed the
operation must reach; rows that miss it are marked MISSES. Benchmarks of a
live chain (those with a "viewer_core_pct" counter) get a table of their
own counters after the main one; their targets name counters.

    table.py results/*.json
"""
import json
import os
import re
import sys


# Numbers Google Benchmark writes for every run; anything else is a counter.
RUN_FIELDS = {"family_index", "per_family_instance_index", "repetitions", "repetition_index", "threads",
              "iterations", "real_time", "cpu_time", "bytes_per_second", "items_per_second"}
LIVE_COUNTERS = ["source_fps", "output_fps", "dropped", "shown_fps", "viewer_ms_per_shown", "copy_ms_per_shown",
                 "viewer_core_pct", "viewed_vs_unviewed"]


def parse_label(label):
    out = {}
    for part in (label or "").split(";"):
        if "=" in part:
            k, v = part.split("=", 1)
            out[k.strip()] = v.strip()
    return out


def load(path):
    with open(path) as f:
        data = json.load(f)
    order, errors, median, first = [], {}, {}, {}
    for b in data.get("benchmarks", []):
        # Google Benchmark appends run options to the name; they are not part
        # of what is measured.
        name = re.sub(r"/(real_time|manual_time|min_time:[^/]*|repeats:\d+|iterations:\d+)",
                      "", b.get("run_name") or b["name"])
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
        rows.append((name, {"ms": b["real_time"] * scale, "bps": b.get("bytes_per_second"),
                            "label": parse_label(b.get("label", "")), "counters": counters}))
    return rows


def split(name):
    op, _, frame = name.partition("/")
    if op.startswith("BM_"):
        op = op[3:]
    return op, frame


def is_baseline(op):
    low = op.lower()
    return low == "memcpy" or low.endswith("_memcpy") or low.startswith(("opencv_", "fftw_")) \
        or re.search(r"_(cv|opencv)[A-Z_]", op) is not None


def memcpy_row(name, by_name):
    """memcpy/<frame> for "<op>/<frame>"; <op>_memcpy for a plain name."""
    op, frame = name.partition("/")[0], name.partition("/")[2]
    if frame:
        return by_name.get(f"memcpy/{frame}")
    return by_name.get(f"{op}_memcpy")


def peer_row(name, label, by_name):
    """The peer the label names; for a plain name the single <op>_cv... row."""
    if label.get("peer"):
        return label["peer"], by_name.get(label["peer"])
    if "/" not in name:
        peers = [n for n in by_name if n.startswith(name + "_cv")]
        if len(peers) == 1:
            return peers[0], by_name[peers[0]]
    return None, None


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
        ok = val <= lim if cmp_ == "<=" else val >= lim
        if not ok:
            misses.append(t.strip())
    return misses


def fmt(v, digits=2):
    return "" if v is None else f"{v:.{digits}f}"


def main(paths):
    print("| program | operation | frame | ms/frame | GB/s | × memcpy | × peer | peer | target |")
    print("|---|---|---|---:|---:|---:|---:|---|---|")
    missed = 0
    live = []
    for path in paths:
        prog = os.path.splitext(os.path.basename(path))[0]
        rows = load(path)
        by_name = dict(rows)
        for name, r in rows:
            op, frame = split(name)
            if "viewer_core_pct" in r.get("counters", {}):
                live.append((prog, op, frame, r))
                continue
            if "error" in r:
                print(f"| {prog} | {op} | {frame} | – | | | | | {r['error']} |")
                continue
            ms = r["ms"]
            gbs = r["bps"] / 1e9 if r.get("bps") else None
            mem = peer = None
            peer_name = None
            if not is_baseline(op):
                m = memcpy_row(name, by_name)
                if m and "ms" in m:
                    mem = ms / m["ms"]
                peer_name, p = peer_row(name, r["label"], by_name)
                if p and "ms" in p:
                    peer = ms / p["ms"]
            target = r["label"].get("target", "")
            verdict = ""
            if target:
                misses = check(target, ms, mem, peer)
                verdict = f"{target}: " + ("**MISSES**" if misses else "ok")
                missed += bool(misses)
            print(f"| {prog} | {op} | {frame} | {fmt(ms)} | {fmt(gbs)} | {fmt(mem)} | {fmt(peer)} | "
                  f"{peer_name or ''} | {verdict} |")
    if live:
        print()
        print("| program | chain | camera fps | " + " | ".join(LIVE_COUNTERS) + " | target |")
        print("|---|---|---|" + "---:|" * len(LIVE_COUNTERS) + "---|")
        for prog, op, frame, r in live:
            c = r["counters"]
            target = r["label"].get("target", "")
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
    main(sys.argv[1:])
