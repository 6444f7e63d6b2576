#!/usr/bin/env python3
"""Writes the seed corpus of fuzz_engine: call sequences a caller would make,
and a few it should not, encoded the way fuzz_engine.cpp reads its input.

    python3 fuzz/make_corpus.py fuzz/corpus

Each value in a range of up to 256 numbers is one byte (value - lo), up to
65536 two bytes little endian, more four bytes. Coordinates are one byte c,
read as c * (side + 16) // 255 - 8.
"""
import os
import sys

OP = dict(source=0, init=1, marker=2, path=3, process=4, cutout=5, rect=6, undo=7, redo=8,
          can=9, reset=10, deinit=11, cancel=12, exit=13, free=14, copy=15, load=16,
          livewire=17, fetch=18, edit=19)
MAX_SIDE = 32


def rng(value, lo, hi):
    span = hi - lo + 1
    v = value - lo
    assert 0 <= v < span
    if span <= 256:
        return bytes([v])
    if span <= 65536:
        return v.to_bytes(2, "little")
    return v.to_bytes(4, "little")


def word(w):
    return (w & 0xFFFFFFFF).to_bytes(4, "little")


def coord(value, side):
    """The byte whose coordinate is closest to value."""
    s = side if side > 0 else 1
    return bytes([min(range(256), key=lambda c: abs(c * (s + 16) // 255 - 8 - value))])


def size(w, h, large=False):
    lo, hi = (270, 300) if large else (-1, MAX_SIDE)
    return rng(w, lo, hi) + rng(h, lo, hi)


def image(a=0xFF2040C0, b=0xFFE0D020, shape=0x05, noise=7):
    return word(a) + word(b) + bytes([shape, noise])


class Seq:
    def __init__(self):
        self.data = b""
        self.w = self.h = 0

    def op(self, name, payload=b""):
        self.data += bytes([OP[name]]) + payload
        return self

    def source(self, w, h, deinit=False, null=False, large=False, **img):
        flags = (1 if deinit else 0) | (2 if null else 0) | (0x0C if large else 0)
        if not null and w > 0 and h > 0:
            self.w, self.h = w, h
        return self.op("source", bytes([flags]) + size(w, h, large) + image(**img))

    def init(self):
        return self.op("init")

    def marker_payload(self, kind, inner, outer, box, other=None, null=False):
        flags = (1 if other else 0) | (2 if null else 0) | (0x0C if other and other[2] else 0)
        w, h = (other[0], other[1]) if other else (self.w, self.h)
        out = bytes([flags])
        if other:
            out += size(w, h, other[2])
        x0, y0, x1, y1 = box
        out += rng(kind, -1, 4) + rng(inner, -5, 300) + rng(outer, 0, 4)
        out += coord(x0, w) + coord(y0, h) + coord(x1, w) + coord(y1, h)
        return out

    def marker(self, kind=0, inner=4, outer=0, box=None, other=None, null=False):
        box = box or (self.w // 4, self.h // 4, 3 * self.w // 4, 3 * self.h // 4)
        return self.op("marker", self.marker_payload(kind, inner, outer, box, other, null))

    def path_payload(self, points, count=None, null=False):
        count = len(points) if count is None else count
        out = rng(count, -2, 40) + bytes([1 if null else 0])
        n = count if count > 0 else 1
        for i in range(n):
            v = points[i] if i < len(points) else 0
            out += coord(v, self.w if i % 2 == 0 else self.h)
        return out

    def path(self, points, count=None, null=False):
        return self.op("path", self.path_payload(points, count, null))

    def loop(self):
        x0, y0, x1, y1 = self.w // 4, self.h // 4, 3 * self.w // 4, 3 * self.h // 4
        return [x0, y0, x1, y0, x1, y1, x0, y1]

    def request(self, name, null_argb=False, null_mask=False, fill=0x01020304):
        return self.op(name, bytes([(1 if null_argb else 0) | (2 if null_mask else 0)]) + word(fill))

    def rect(self, w, h, box, null_argb=False, null_mask=False, large=False, **img):
        flags = (1 if null_argb else 0) | (2 if null_mask else 0) | (0x0C if large else 0)
        x1, y1, x2, y2 = box
        payload = bytes([flags]) + size(w, h, large) + image(**img)
        payload += coord(x1, w) + coord(y1, h) + coord(x2, w) + coord(y2, h)
        if not null_argb and not null_mask and w > 0 and h > 0:
            self.w, self.h = w, h
        return self.op("rect", payload)

    def edit(self, kind=0, inner=4, box=None, points=None):
        box = box or (self.w // 4, self.h // 4, 3 * self.w // 4, 3 * self.h // 4)
        points = self.loop() if points is None else points
        return self.op("edit", self.marker_payload(kind, inner, 0, box) + self.path_payload(points)
                       + bytes([0]) + word(0x0A0B0C0D))

    def livewire(self, row, col, pattern=0x23, alpha=128, cost_map=False, wrong_labels=False):
        flags = (1 if cost_map else 0) | (2 if wrong_labels else 0)
        h, w = max(self.h, 1), max(self.w, 1)
        return self.op("livewire", bytes([pattern]) + rng(row, -2, h + 1) + rng(col, -2, w + 1)
                       + bytes([alpha, flags]) + rng(min(row, h + 1), -2, h + 1)
                       + rng(min(col, w + 1), -2, w + 1) + rng(0, -2, h + 1) + rng(1, -2, w + 1))

    def fetch(self, null_array=False, null_length=False):
        return self.op("fetch", bytes([(1 if null_array else 0) | (2 if null_length else 0)]))


def seeds():
    out = {}

    def add(name, seq):
        out[name] = seq.data

    # The caller's ordinary sequences.
    s = Seq().source(24, 18).init()
    add("edit_loop", s.edit(0))
    s = Seq().source(24, 18).init().edit(0).edit(2, inner=2, box=(10, 8, 12, 10), points=[10, 8, 12, 10])
    add("edit_then_brush", s.request("undo").request("redo").op("can"))
    s = Seq().source(30, 20).init().edit(0).edit(1, inner=4, box=(8, 5, 14, 12))
    add("loop_remove", s.edit(3, inner=1, box=(20, 4, 22, 6), points=[20, 4, 22, 6]))
    add("rectangle", Seq().rect(28, 22, (5, 4, 22, 17)))
    add("rectangle_then_edit", Seq().rect(28, 22, (5, 4, 22, 17)).edit(2, inner=2, box=(12, 9, 14, 11),
                                                                       points=[12, 9, 14, 11]))
    add("rectangle_large", Seq().rect(290, 285, (60, 50, 230, 240), large=True, shape=0x03))
    s = Seq().source(290, 290, large=True, shape=0x07).init()
    add("edit_large", s.edit(0, box=(70, 70, 220, 220), points=[70, 70, 220, 70, 220, 220, 70, 220]))
    s = Seq().source(20, 16).init()
    add("cutout_history", s.marker(0, inner=2).request("cutout").marker(1, inner=1, box=(2, 2, 6, 6))
        .request("cutout").request("undo").request("undo").request("redo").op("can"))
    add("cutout_no_engine", Seq().source(12, 9).marker(2, inner=2, box=(3, 3, 3, 3)).request("cutout"))
    add("copy_source", Seq().source(7, 3, shape=0x00).request("copy").source(3, 7).request("copy"))
    s = Seq().source(24, 18).init().edit(0)
    add("reset_and_edit", s.op("reset").edit(0).request("undo").request("redo"))

    # Cancel, exit, teardown.
    s = Seq().source(24, 18).init().op("cancel")
    add("cancel_before_request", s.edit(0).edit(0))
    s = Seq().source(24, 18).init().op("cancel").op("exit")
    add("cancel_exit_teardown", s.edit(0).edit(0).init().edit(0))
    add("exit_alone", Seq().source(24, 18).init().op("exit").edit(0))
    add("deinit_twice", Seq().source(10, 10).init().op("deinit").op("deinit").op("free").edit(0))
    add("requests_after_teardown", Seq().source(16, 12).init().edit(0).op("deinit")
        .request("process").request("undo").request("redo").request("cutout").request("load")
        .op("can"))
    add("init_twice", Seq().source(16, 12).init().edit(0).init().edit(0))
    add("source_while_engine", Seq().source(16, 12).init().edit(0).source(20, 10).init().edit(0))

    # Bad input.
    add("source_bad_sizes", Seq().source(0, 5).source(-1, -1).source(5, 0).source(8, 8, null=True)
        .init().request("copy"))
    add("no_source", Seq().init().marker(0, box=(0, 0, 3, 3)).path([1, 1, 2, 2])
        .request("process").request("cutout").request("undo").request("copy"))
    s = Seq().source(20, 14).init()
    add("marker_other_size", s.marker(0, other=(19, 14, False)).request("process")
        .marker(0, other=(20, 15, False)).request("cutout"))
    add("marker_bad", Seq().source(20, 14).init().marker(0, null=True).marker(0, other=(0, 14, False))
        .marker(4, inner=300, outer=4).request("process"))
    s = Seq().source(20, 14).init()
    add("path_bad", s.path([1, 2, 3], count=3).path([], count=-2).path([1, 2], null=True)
        .path([-5, -5, 30, 30, 10, 40]).marker(0).request("process"))
    add("null_buffers", Seq().source(20, 14).init().marker(0).request("process", null_argb=True)
        .marker(0).request("process", null_mask=True).request("undo", null_mask=True)
        .request("redo", null_argb=True).request("load").request("copy", null_argb=True))
    add("rect_inverted", Seq().rect(24, 18, (20, 15, 3, 2)))
    add("rect_outside", Seq().rect(24, 18, (-8, -8, -2, -3)).rect(24, 18, (-5, 4, 30, 22)))
    add("rect_bad", Seq().rect(0, 18, (1, 1, 5, 5)).rect(24, 18, (1, 1, 5, 5), null_mask=True)
        .rect(24, 18, (1, 1, 5, 5), null_argb=True))
    add("rect_one_pixel", Seq().rect(1, 1, (0, 0, 0, 0)).rect(2, 1, (0, 0, 1, 0)))
    add("tiny_images", Seq().source(1, 1).init().edit(0, box=(0, 0, 0, 0), points=[0, 0])
        .source(2, 3).init().edit(2, inner=2, box=(0, 0, 1, 1), points=[0, 0, 1, 2]))
    add("stripe_images", Seq().source(32, 1).init().edit(0, box=(4, 0, 20, 0), points=[4, 0, 20, 0])
        .source(1, 32).init().edit(0, box=(0, 3, 0, 25), points=[0, 3, 0, 25]))

    # Live-wire and contours.
    s = Seq().source(16, 12).init().edit(0)
    add("livewire", s.livewire(5, 7).livewire(0, 0, cost_map=True).livewire(11, 15, alpha=0))
    add("livewire_outside", Seq().source(9, 7).livewire(-1, 3).livewire(7, 2).livewire(3, 9)
        .livewire(2, 2, wrong_labels=True))
    add("livewire_no_source", Seq().livewire(0, 0).livewire(1, 0))
    s = Seq().source(20, 16).init().edit(0)
    add("fetch", s.fetch().fetch().fetch(null_array=True).fetch(null_length=True))
    s = Seq().source(20, 16).marker(0, inner=2, box=(2, 2, 6, 6)).request("cutout")
    add("fetch_after_cutout", s.fetch().request("undo").fetch())
    add("fetch_after_teardown", Seq().rect(20, 16, (3, 3, 15, 12)).op("deinit").fetch())

    # History through many edits (ring of 32).
    s = Seq().source(12, 10)
    for i in range(34):
        s.marker(0 if i % 2 == 0 else 1, inner=2 if i % 2 == 0 else 1,
                 box=(i % 12, i % 10, i % 12, i % 10)).request("cutout")
    add("history_ring", s.request("undo").request("undo").request("redo"))
    return out


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    os.makedirs(folder, exist_ok=True)
    for name, data in sorted(seeds().items()):
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)
    print(f"{len(seeds())} seeds in {folder}")


if __name__ == "__main__":
    main()
