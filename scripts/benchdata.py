#!/usr/bin/env python3
"""Writes the benchmark inputs into a folder, deterministically (a fixed seed).

Files: netlist_lf.cir and netlist_crlf.cir (64 MiB each: element lines, about 10% "*" comment lines,
10% "+" continuation lines, some ";" comments and blank lines), netlist_utf16.cir (the CR LF netlist's
first 32 MiB as UTF-16 LE with a byte-order mark, 64 MiB), library.lib (a 50 MiB model library whose
last definition is the one read), single.lib (that definition alone) and library.loc (the definition's
start, end and first line number in library.lib), results_100k.msw and results_10k.msw (results
files of 100,000 and 10,000 runs), netlist_pattern.cir (the LF netlist's lines with their kinds in one
fixed order that repeats, 64 MiB).
"""
import os
import random
import sys

MIB = 1024 * 1024


def netlist_lines(rng):
    nodes = ["n%d" % i for i in range(200)] + ["0", "vdd", "vss", "out", "in"]
    values = ["1k", "4.7k", "10u", "2.2n", "100", "1e-9", "0.5", "12MEG", "33p"]
    while True:
        r = rng.random()
        a, b, c, d = rng.choice(nodes), rng.choice(nodes), rng.choice(nodes), rng.choice(nodes)
        if r < 0.10:
            yield "* comment about stage %d: bias %s and load %s" % (rng.randrange(1000), rng.choice(values),
                                                                    rng.choice(values))
        elif r < 0.20:
            yield "+ W=%du L=%.2fu AD=%dp PD=%du" % (rng.randrange(1, 50), rng.random(), rng.randrange(99),
                                                   rng.randrange(99))
        elif r < 0.23:
            yield ""
        elif r < 0.30:
            yield "R%d %s %s %s ; trimmed by hand" % (rng.randrange(100000), a, b, rng.choice(values))
        elif r < 0.55:
            yield "M%d %s %s %s %s nch W=%du L=0.18u" % (rng.randrange(100000), a, b, c, d, rng.randrange(1, 90))
        elif r < 0.75:
            yield "C%d %s %s %s IC=0" % (rng.randrange(100000), a, b, rng.choice(values))
        else:
            yield "X%d %s %s %s opamp_v2 gain=%s" % (rng.randrange(100000), a, b, c, rng.choice(values))


def write_netlist(path, size, line_end, seed):
    rng = random.Random(seed)
    written = 0
    with open(path, "wb") as out:
        chunk = []
        chunk_size = 0
        for line in netlist_lines(rng):
            data = (line + line_end).encode("ascii")
            chunk.append(data)
            chunk_size += len(data)
            if chunk_size >= MIB:
                out.write(b"".join(chunk))
                written += chunk_size
                chunk, chunk_size = [], 0
                if written >= size:
                    break


# One period of the patterned netlist's line kinds, in about the proportions of the random netlist:
# N an element line, R one with a ";" comment, "+" a continuation, "*" a comment line, B a blank line.
LINE_KIND_PATTERN = "N+NNN*NRNN+NNN*NNBN+NN*NNRNNN"


def line_kind(line):
    if not line:
        return "B"
    if line[:1] in (b"+", b"*"):
        return line[:1].decode()
    return "R" if b";" in line else "N"


def write_patterned_netlist(source, path):
    """The lines of `source` (LF) in the same size, each kind taken in its own order, but the kinds in
    LINE_KIND_PATTERN over and over: a reader's branches on a line's kind become predictable, which shows
    what their random order costs it."""
    with open(source, "rb") as f:
        lines = f.read().split(b"\n")[:-1]
    size = os.path.getsize(source)
    kinds = {kind: [] for kind in LINE_KIND_PATTERN}
    for line in lines:
        kinds[line_kind(line)].append(line)
    taken = dict.fromkeys(kinds, 0)
    written = 0
    with open(path, "wb") as out:
        # Written in blocks of 1 MiB, as the netlist it is set against: the same bytes written in blocks of
        # about 1 KiB read 6-9% slower from the page cache here, which would blur the comparison.
        while written < size:
            chunk = []
            chunk_size = 0
            while chunk_size < MIB:
                for kind in LINE_KIND_PATTERN:
                    line = kinds[kind][taken[kind] % len(kinds[kind])]
                    taken[kind] += 1
                    chunk.append(line + b"\n")
                    chunk_size += len(line) + 1
            out.write(b"".join(chunk))
            written += chunk_size


def write_library(path, single_path, loc_path, size, seed):
    rng = random.Random(seed)
    parts = ["* model library for benchmarks\n"]
    total = len(parts[0])
    n = 0
    while total < size:
        n += 1
        if n % 3:
            text = ".model nch%d nmos (level=54 vth0=%.3f tox=%.2fn\n+ u0=%d k1=%.3f)\n" % (
                n, rng.random(), rng.random() * 5, rng.randrange(100, 600), rng.random())
        else:
            body = "".join("M%d d g s b nch%d W=%du L=1u\n" % (k, n - 1, k + 1) for k in range(6))
            text = ".subckt cell%d d g s b\n%s.ends cell%d\n" % (n, body, n)
        parts.append(text)
        total += len(text)
    lines_before = sum(p.count("\n") for p in parts)
    last = ".subckt target d g s b\n" + "".join(
        "M%d d g s b nch1 W=%du L=1u\n+ AD=1p PD=1u\n" % (k, k + 1) for k in range(40)) + ".ends target\n"
    data = "".join(parts).encode("ascii")
    start = len(data)
    with open(path, "wb") as out:
        out.write(data)
        out.write(last.encode("ascii"))
    with open(single_path, "wb") as out:
        out.write(last.encode("ascii"))
    with open(loc_path, "w") as out:
        out.write("%d %d %d\n" % (start, start + len(last), lines_before))


def write_results(path, runs, seed, step=1):
    """A results file as the library writes it: 4 merit functions, 3 parameters per run, run names
    whose labels collide at the lower detail levels. The case numbers are step, 2 step, 3 step...
    Written a part at a time, so that a million runs do not need the whole text in memory."""
    rng = random.Random(seed)
    with open(path, "w") as f:
        f.write('<?xml version="1.0"?>\n<msw xmlns="http://results.example.net/schemas/application/msw/" '
                'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
                'xsi:schemaLocation="http://results.example.net/schemas/application/msw '
                'https://results.example.net/schemas/application/msw.xsd" version="1.0" rev="1">\n')
        f.write('\t<header analysis=".mc %d tran" date="2026-11-22" numcores="4" title="bench" group="g" />\n' % runs)
        for m in range(4):
            f.write('\t<meritfunction value="max(v(n%d))" name="M%d">\n' % (m, m))
            f.write("".join('\t\t<sensval case="%d" value="%r" />\n' % (c * step, 1.0 + rng.random())
                            for c in range(1, runs + 1)))
            f.write('\t</meritfunction>\n')
        f.write('\t<steps>\n')
        for first in range(1, runs + 1, 10000):
            out = []
            for c in range(first, min(first + 10000, runs + 1)):
                out.append('\t\t<step name="Refdes:R%d/DevParam:R/Term:%d" case="%d" seed="%d">\n'
                           % (c % 5000, c % 7, c * step, (1 << 40) + c))
                for k in range(3):
                    nom = 1000.0 * (k + 1)
                    out.append('\t\t\t<parameter name="P%d" nom="%r" usedvalue="%r" tol="0.05" />\n'
                               % (k, nom, nom * (1 + (rng.random() - 0.5) / 10)))
                out.append('\t\t</step>\n')
            f.write("".join(out))
        f.write('\t</steps>\n</msw>\n')


def write_main_inputs(folder):
    """The netlists, the UTF-16 netlist, the 50 MiB library and the 1 GiB netlist."""
    write_netlist(os.path.join(folder, "netlist_lf.cir"), 64 * MIB, "\n", 1)
    write_netlist(os.path.join(folder, "netlist_crlf.cir"), 64 * MIB, "\r\n", 1)
    with open(os.path.join(folder, "netlist_crlf.cir"), "rb") as f:
        text = f.read(32 * MIB)
    text = text[: text.rfind(b"\n") + 1]
    with open(os.path.join(folder, "netlist_utf16.cir"), "wb") as out:
        out.write(b"\xff\xfe" + text.decode("ascii").encode("utf-16-le"))
    write_library(os.path.join(folder, "library.lib"), os.path.join(folder, "single.lib"),
                  os.path.join(folder, "library.loc"), 50 * MIB, 2)
    # The 1 GiB input of the memory case is the LF netlist sixteen times over.
    with open(os.path.join(folder, "netlist_lf.cir"), "rb") as f:
        block = f.read()
    with open(os.path.join(folder, "netlist_1g.cir"), "wb") as out:
        for _ in range(16):
            out.write(block)


def write_shards(folder, count, same_size):
    """One-run results files, as many machines would write them: all of one size, or each of its own."""
    os.makedirs(folder, exist_ok=True)
    for i in range(count):
        value = "1" if same_size else "1." + "0" * (i + 1)
        with open(os.path.join(folder, "shard%05d.msw" % i), "w") as f:
            f.write('<?xml version="1.0"?><msw version="1.0"><meritfunction value="a" name="A">'
                    '<sensval case="%d" value="%s"/></meritfunction></msw>\n' % (10000 + i, value))


def main():
    folder = sys.argv[1]
    os.makedirs(folder, exist_ok=True)
    results_stamp = os.path.join(folder, "results.v1")
    if not os.path.exists(results_stamp):
        write_results(os.path.join(folder, "results_100k.msw"), 100000, 3)
        write_results(os.path.join(folder, "results_10k.msw"), 10000, 4)
        open(results_stamp, "w").close()
    million_stamp = os.path.join(folder, "results-1m.v1")
    if not os.path.exists(million_stamp):
        write_results(os.path.join(folder, "results_1m.msw"), 1000000, 6)
        open(million_stamp, "w").close()
    spread_stamp = os.path.join(folder, "results-spread.v1")
    if not os.path.exists(spread_stamp):
        # The same runs numbered 1, 2, 3... and 32768, 65536, 98304...: the hash table must not care.
        write_results(os.path.join(folder, "results_sequential.msw"), 65535, 5)
        write_results(os.path.join(folder, "results_spread.msw"), 65535, 5, step=32768)
        open(spread_stamp, "w").close()
    index_stamp = os.path.join(folder, "library-500m.v1")
    if not os.path.exists(index_stamp):
        # The model-library index's input: the benchmark library's mix of models and subcircuits.
        write_library(os.path.join(folder, "library_500m.lib"), os.path.join(folder, "single_500m.lib"),
                      os.path.join(folder, "library_500m.loc"), 500 * MIB, 7)
        open(index_stamp, "w").close()
    stamp = os.path.join(folder, "complete.v1")
    if not os.path.exists(stamp):
        write_main_inputs(folder)
        open(stamp, "w").close()
    shards_stamp = os.path.join(folder, "shards.v1")
    if not os.path.exists(shards_stamp):
        write_shards(os.path.join(folder, "shards_same"), 4000, True)
        write_shards(os.path.join(folder, "shards_sized"), 4000, False)
        open(shards_stamp, "w").close()
    pattern_stamp = os.path.join(folder, "netlist-pattern.v1")
    if not os.path.exists(pattern_stamp):
        write_patterned_netlist(os.path.join(folder, "netlist_lf.cir"), os.path.join(folder, "netlist_pattern.cir"))
        open(pattern_stamp, "w").close()


if __name__ == "__main__":
    main()
