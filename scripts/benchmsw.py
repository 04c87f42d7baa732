#!/usr/bin/env python3
"""What a user writes instead of the library: read a results file with ElementTree and compute every
run's deltas against case 1. The reference row of the results-reading benchmark."""
import sys
import xml.etree.ElementTree as ET


def main():
    root = ET.parse(sys.argv[1]).getroot()
    ns = root.tag[: root.tag.index("}") + 1] if root.tag.startswith("{") else ""
    values = {}
    merits = root.findall(ns + "meritfunction")
    for i, merit in enumerate(merits):
        for sensval in merit.findall(ns + "sensval"):
            values.setdefault(int(sensval.get("case")), {})[i] = float(sensval.get("value"))
    steps = {}
    for step in root.iter(ns + "step"):
        steps[int(step.get("case"))] = [(p.get("name"), float(p.get("nom")), float(p.get("usedvalue")))
                                        for p in step.findall(ns + "parameter")]
    reference = values.get(1, {})
    deltas = {case: {i: v - reference.get(i, 0.0) for i, v in merit_values.items()}
              for case, merit_values in values.items()}
    print(len(deltas), len(steps))


if __name__ == "__main__":
    main()
