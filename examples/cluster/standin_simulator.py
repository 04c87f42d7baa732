#!/usr/bin/env python3
"""A stand-in for the simulator in the cluster examples: runs no circuit, but writes the results file of
one shard of a Monte Carlo run of a buck converter, as the simulator would, so that the scripts around
it can be tried on any machine.

Usage: standin_simulator.py --shard K --runs N --seed S -o FILE
Shard K holds the cases K*N+1 .. K*N+N (shard 0 starts with the nominal run, case 1), so shards never
share a case number.
"""
import argparse
import math
import random
from xml.sax.saxutils import quoteattr

PARAMETERS = [("L1.L", 10e-6, 0.2), ("C1.C", 47e-6, 0.1), ("VIN.DC", 12.0, 0.05), ("RLOAD.R", 6.6, 0.02)]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--shard", type=int, required=True)
    parser.add_argument("--runs", type=int, required=True)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("-o", dest="out", required=True)
    args = parser.parse_args()
    rng = random.Random(args.seed * 1000003 + args.shard)
    first = args.shard * args.runs + 1
    runs = []
    for case in range(first, first + args.runs):
        used = []
        for name, nominal, tolerance in PARAMETERS:
            deviation = 0.0 if case == 1 else rng.gauss(0.0, tolerance / 3)
            used.append((name, nominal, tolerance, nominal * (1 + deviation), deviation))
        dl, dc, dv = used[0][4], used[1][4], used[2][4]
        vout = 3.3 * (1 + dv) + rng.gauss(0, 0.01)
        ripple = 0.015 * (1 - 0.9 * dl) * (1 - 0.5 * dc) * (1 + dv)
        runs.append((case, rng.randrange(1 << 40), vout, ripple, used))
    with open(args.out, "w", encoding="utf-8") as f:
        f.write('<?xml version="1.0" encoding="UTF-8"?>\n'
                '<msw xmlns="http://results.example.net/schemas/application/msw/" version="1.0" rev="1">\n')
        f.write('\t<header analysis=".mc %d tran" date="2026-11-24" numcores="1" title="Buck converter" group="mc"/>\n'
                % args.runs)
        for index, (value, name) in enumerate([("avg(v(out))", "vout"), ("max(v(out))-min(v(out))", "ripple")]):
            f.write("\t<meritfunction value=%s name=%s>\n" % (quoteattr(value), quoteattr(name)))
            for run in runs:
                f.write('\t\t<sensval case="%d" value="%r"/>\n' % (run[0], run[2 + index]))
            f.write("\t</meritfunction>\n")
        f.write("\t<steps>\n")
        for case, seed, _, _, used in runs:
            f.write('\t\t<step case="%d" seed="%d">\n' % (case, seed))
            for name, nominal, tolerance, value, _ in used:
                f.write('\t\t\t<parameter name="%s" nom="%r" usedvalue="%r" tol="%r"/>\n'
                        % (name, nominal, value, tolerance))
            f.write("\t\t</step>\n")
        f.write("\t</steps>\n</msw>\n")


if __name__ == "__main__":
    main()
