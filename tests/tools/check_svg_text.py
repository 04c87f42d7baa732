"""Checks SVG pictures for readable text: each file parses as SVG, and no two texts overlap, each text's
box estimated from its font size, anchor and length (0.6 em per character, one em high), and no text
lies outside the picture's width or over a bar.
Prints, per file, its name, its number of texts and its number of clashes (with the first clashes)."""
import sys
import xml.etree.ElementTree as ET

NS = '{http://www.w3.org/2000/svg}'
for path in sys.argv[1:]:
    root = ET.parse(path).getroot()
    assert root.tag == NS + 'svg', root.tag
    boxes = []
    for t in root.iter(NS + 'text'):
        size = float(t.get('font-size'))
        x = float(t.get('x'))
        y = float(t.get('y'))
        w = 0.6 * size * len(t.text or '')
        left = {'start': x, 'middle': x - w / 2, 'end': x - w}[t.get('text-anchor')]
        boxes.append((left, y - 0.8 * size, left + w, y + 0.2 * size, t.text))
    clashes = [(a[4], b[4]) for i, a in enumerate(boxes) for b in boxes[i + 1:]
               if a[0] < b[2] and b[0] < a[2] and a[1] < b[3] and b[1] < a[3]]
    width = float(root.get('width'))
    outside = [b[4] for b in boxes if b[0] < 0 or b[2] > width]
    # No text over a bar either.
    bars = [(float(r.get('x')), float(r.get('y')), float(r.get('x')) + float(r.get('width')),
             float(r.get('y')) + float(r.get('height')))
            for r in root.iter(NS + 'rect') if r.get('fill') in ('#4a7fb5', '#d9534f')]
    outside += [b[4] for b in boxes for r in bars if b[0] < r[2] and r[0] < b[2] and b[1] < r[3] and r[1] < b[3]]
    print(path, len(boxes), len(clashes) + len(outside), clashes[:3], outside[:3])
