#!/usr/bin/env python3
"""Writes the bundled example results files under examples/results from a simple model of the buck
converter in examples/netlists/buck_converter.cir: a sensitivity run, a Monte Carlo run and a
worst-case run. The output is deterministic; run it again after changing the model."""
import math
import os
import random

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "..", "examples", "results")

ROOT = ('<?xml version="1.0"?>\n<msw xmlns="http://results.example.net/schemas/application/msw/" '
        'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
        'xsi:schemaLocation="http://results.example.net/schemas/application/msw '
        'https://results.example.net/schemas/application/msw.xsd" version="1.0" rev="1">\n')

# Component values of the converter: reference designator, device parameter, nominal, tolerance.
PARTS = [
    ("VIN", "DC", 12.0, 0.05),
    ("L1", "L", 4.7e-6, 0.20),
    ("C1", "C", 22e-6, 0.10),
    ("RLOAD", "R", 1.65, 0.05),
    ("S1", "RON", 10e-3, 0.30),
    ("S2", "RON", 10e-3, 0.30),
    ("VHI", "PW", 550e-9, 0.02),
]

MERITS = [
    ("max(v(out))-min(v(out))", "ripple"),
    ("avg(v(out))", "vout"),
    ("avg(v(out)*i(RLOAD))/avg(-v(in)*i(VIN))", "efficiency"),
    ("max(i(L1))", "ipeak"),
]

PERIOD = 2e-6


def evaluate(p):
    """The merit values of one set of component values: averaged-model formulas of a buck converter."""
    vin, l, c, rload, ron_hi, ron_lo, width = (p[name] for name, _, _, _ in PARTS)
    duty = width / PERIOD
    ron = duty * ron_hi + (1 - duty) * ron_lo
    vout = duty * vin * rload / (rload + ron + 0.015)
    iout = vout / rload
    ripple_i = (vin - vout) * duty * PERIOD / l
    ripple_v = ripple_i * PERIOD / (8 * c) + ripple_i * 0.004
    pout = vout * iout
    loss = iout * iout * (ron + 0.015) + 0.5 * vin * iout * 20e-9 / PERIOD * 2 + 0.05
    return [ripple_v, vout, pout / (pout + loss), iout + ripple_i / 2]


def fmt(v):
    return repr(float(v))


def header(analysis, title, runs):
    out = [ROOT, '\t<header analysis="%s" date="2026-11-22 10:15:00" numcores="2" title="%s" group="buck" />\n'
           % (analysis, title)]
    for m, (value, name) in enumerate(MERITS):
        out.append('\t<meritfunction value="%s" name="%s">\n' % (value, name))
        out.extend('\t\t<sensval case="%d" value="%s" />\n' % (case, fmt(values[m])) for case, _, values in runs)
        out.append('\t</meritfunction>\n')
    return out


def write(path, analysis, title, runs, step_attributes):
    out = header(analysis, title, runs)
    out.append('\t<steps>\n')
    for case, changed, _ in runs:
        out.append('\t\t<step %s>\n' % step_attributes(case, changed))
        for name, nominal, used, tol in changed:
            out.append('\t\t\t<parameter name="%s" nom="%s" usedvalue="%s" tol="%s" />\n'
                       % (name, fmt(nominal), fmt(used), fmt(tol)))
        out.append('\t\t</step>\n')
    out.append('\t</steps>\n</msw>\n')
    with open(path, "w", newline="\n") as f:
        f.write("".join(out))


def nominal():
    return {name: nom for name, _, nom, _ in PARTS}


def sensitivity():
    runs = [(1, [], evaluate(nominal()))]
    names = {}
    for i, (refdes, param, nom, tol) in enumerate(PARTS):
        p = nominal()
        p[refdes] = nom * 1.01
        case = i + 2
        runs.append((case, [("%s.%s" % (refdes, param), nom, nom * 1.01, tol)], evaluate(p)))
        names[case] = "Refdes:%s/DevParam:%s/PDF:uniform/Term:1" % (refdes, param)
    write(os.path.join(OUT, "buck_sensitivity.msw"), ".sens 1%", "Buck converter sensitivity", runs,
          lambda case, changed: ('name="%s" case="%d"' % (names[case], case)) if case in names
          else 'case="%d" description="Nominal"' % case)


def monte_carlo(count):
    rng = random.Random(20261122)
    runs = [(1, [], evaluate(nominal()))]
    seeds = {1: 1}
    for case in range(2, count + 1):
        p = nominal()
        changed = []
        for refdes, param, nom, tol in PARTS:
            used = nom * (1 + rng.gauss(0.0, tol / 3))
            p[refdes] = used
            changed.append(("%s.%s" % (refdes, param), nom, used, tol))
        runs.append((case, changed, evaluate(p)))
        seeds[case] = 1000003 * case + 17
    write(os.path.join(OUT, "buck_montecarlo.msw"), ".mc %d tran" % count, "Buck converter Monte Carlo", runs,
          lambda case, changed: 'case="%d" seed="%d"' % (case, seeds[case]))


def worst_case():
    runs = [(1, [], evaluate(nominal()))]
    corners = [("VIN", "L1", "C1")]
    case = 2
    for signs in range(8):
        p = nominal()
        changed = []
        for bit, refdes in enumerate(corners[0]):
            _, param, nom, tol = next(part for part in PARTS if part[0] == refdes)
            used = nom * (1 + tol if signs & (1 << bit) else 1 - tol)
            p[refdes] = used
            changed.append(("%s.%s" % (refdes, param), nom, used, tol))
        runs.append((case, changed, evaluate(p)))
        case += 1
    write(os.path.join(OUT, "buck_worstcase.msw"), ".wc tran", "Buck converter worst case", runs,
          lambda case, changed: 'case="%d" description="%s"'
          % (case, "Nominal" if not changed else " ".join(
              "%s%s" % (name.split(".")[0], "+" if used > nom else "-") for name, nom, used, _ in changed)))


def main():
    os.makedirs(OUT, exist_ok=True)
    sensitivity()
    monte_carlo(400)
    worst_case()


if __name__ == "__main__":
    main()
