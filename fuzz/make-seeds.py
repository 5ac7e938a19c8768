#!/usr/bin/env python3
"""Writes the starting inputs of L3TcamFuzz: one small input for each layout family, each running the
operations that layout is for, so that the fuzzer starts from inputs that fill tables, drain them,
move borders, switch uRPF and restart. The byte format is described at the top of L3TcamFuzz.cpp.

    fuzz/make-seeds.py [DIRECTORY]      (default: fuzz/corpus/L3TcamFuzz next to this script)
"""
import os
import sys

BLOCKS = {1: 0, 2: 1, 4: 2, 8: 3, 16: 4, 32: 5, 3: 6, 5: 7}


def layout(size=512, mode=2, blocks=8, two=True, pairing=False, moving=False, interleave=False,
           urpf=False, mcast=False, readd=False, noswap=False, gap=None, fallback=False,
           shared=False, mcast_size=512, mcast_gap=False, odd=0, invalid_runs=0, invalid_pairs=0,
           invalid_at=0):
    """The six layout bytes. gap: None derives it, a power of two from 8 to 512, or ('raw', n)."""
    n = next(n for n in range(32) if 64 * (1 + n * n // 31) == size)
    b0 = n | odd << 5
    b1 = (mode - 1) | BLOCKS[blocks] << 5
    b2 = (two << 0 | pairing << 1 | moving << 2 | interleave << 3 | urpf << 4 | mcast << 5
          | readd << 6 | noswap << 7)
    if gap is None:
        b3 = 0
    elif isinstance(gap, tuple):
        b3 = 0x80 | gap[1]
    else:
        b3 = {8: 1, 16: 2, 32: 3, 64: 4, 128: 5, 256: 6, 512: 7}[gap]
    msel = {64: 0, 128: 1, 256: 2, 512: 3, 1024: 4, 2048: 5}[mcast_size]
    b4 = fallback | shared << 1 | msel << 2 | mcast_gap << 5
    b5 = invalid_runs | invalid_pairs << 2 | invalid_at << 4
    return bytes([b0, b1, b2, b3, b4, b5])


def word(x):
    return bytes([x & 0xff, x >> 8 & 0xff])


# Operations; names as in the opcode table of L3TcamFuzz.cpp.
def add4(key, swap=False): return bytes([0]) + word(key) + bytes([swap])
def del4(pick, merge_at_once=True): return bytes([2]) + word(pick) + bytes([merge_at_once])
def add6(key, swap=False): return bytes([3]) + word(key) + bytes([swap])
def del6(pick): return bytes([4]) + word(pick)
def fill4(count, seed, shape=0): return bytes([5, count, seed, shape])
def fill6(count, seed, shape=0): return bytes([6, count, seed, shape])
def drain(count, seed, which): return bytes([7, count, seed, which])
def addm(key): return bytes([8]) + word(key)
def delm(pick): return bytes([9]) + word(pick)
def fillm(count, seed, shape=0): return bytes([10, count, seed, shape])
def border(step, swap=False): return bytes([11, step | swap << 7])
def urpf(drain_first): return bytes([12, drain_first])
def restart(unicast=True, mcast=False, entry_by_entry=False, order=0):
    return bytes([13, unicast | mcast << 1 | entry_by_entry << 2 | order << 3])
def readd(pick, v6=False): return bytes([14]) + word(pick) + bytes([v6])
def mixed(count, seed, shape=0): return bytes([15, count, seed, shape])


def length(index, swap=False, one_vrf=False):
    """A fill shape: every key of one length (index into the key's length table)."""
    return (index + 1) | swap << 3 | one_vrf << 4


def ops(*parts):
    return b"".join(parts)


SEEDS = {
    # IPv4 on the usual separate layout: a fill to full, nested single adds, deletes that merge at
    # once and afterwards, a drain, restarts (rebuilt at once, then entry by entry).
    "ipv4-separate-two-per-entry": layout(256, 2, 8) + ops(
        fill4(255, 1), fill4(255, 2), add4(0x0000), add4(0x0012), add4(0x0124),
        add4(0x1238, swap=True), del4(1, True), del4(2, False), del4(3, False), del4(7, True),
        drain(100, 5, 0), restart(), fill4(120, 6, length(4)), del4(9, False),
        restart(entry_by_entry=True, order=3)),
    "ipv4-one-per-entry-odd-size-no-swap": layout(320, 2, 5, two=False, noswap=True, odd=5) + ops(
        fill4(255, 7), fill4(120, 8), drain(90, 9, 0), fill4(100, 10, length(7, swap=True)),
        restart(), drain(200, 11, 3)),
    # Single-size IPv6 beside IPv4: conversions of IPv4 entries between the two regions.
    "ipv6-single-size-mode2": layout(256, 2, 8) + ops(
        fill4(200, 12), mixed(200, 13), fill6(100, 14, length(3)), add6(0x00e0),
        del6(4), drain(60, 15, 1), mixed(100, 16, length(2, swap=True)), restart(),
        drain(80, 17, 3)),
    # A fixed pairing border: double-size IPv6 below it, IPv4 above.
    "ipv6-fixed-pairing-border": layout(512, 2, 8, pairing=True, gap=64) + ops(
        fill4(255, 19), fill6(150, 18), add6(0x01fe, swap=True), del6(3), mixed(100, 20),
        fill4(40, 19, length(4, swap=True)),
        restart(entry_by_entry=True, order=5), drain(100, 21, 3)),
    # A platform with invalid entries and pairs, in the separate and the paired layouts.
    "invalid-entries": layout(256, 2, 8, invalid_runs=3, invalid_pairs=2, invalid_at=7) + ops(
        mixed(200, 60), fill4(150, 61), drain(255, 62, 3), drain(255, 62, 3), urpf(True),
        fill4(150, 63), restart(entry_by_entry=True, order=1)),
    "invalid-entries-moving-border": layout(512, 2, 8, pairing=True, moving=True, gap=16,
                                            invalid_runs=2, invalid_pairs=3, invalid_at=11) + ops(
        fill6(100, 64), fill4(200, 65), border(9), drain(100, 66, 3), border(4), restart()),
    # A moving border: both partitions grow on demand; explicit moves, refused ones included.
    "moving-border": layout(512, 2, 8, pairing=True, moving=True, gap=16) + ops(
        fill6(80, 22), border(10), border(2), fill4(200, 23), border(14, True), border(17),
        fill6(100, 25, length(10)), drain(100, 26, 1), border(6), restart(), border(1),
        drain(100, 28, 3), border(0)),
    # uRPF from the start, switched off on a drained table, refused on a full one, on again.
    "urpf-switch": layout(512, 2, 8, urpf=True) + ops(
        fill4(120, 29), urpf(False), mixed(80, 30), urpf(True), fill4(100, 31), restart(),
        drain(255, 32, 3), urpf(False), urpf(True), fill6(60, 33)),
    "urpf-moving-border": layout(1024, 2, 8, pairing=True, moving=True, urpf=True, gap=16) + ops(
        mixed(200, 34), fill6(100, 35), restart(), urpf(True), fill4(150, 36)),
    # A multicast table beside the unicast one.
    "multicast": layout(128, 1, 4, mcast=True, mcast_size=256, mcast_gap=True) + ops(
        fillm(255, 37), addm(0x0004), addm(0x0044), delm(5), fillm(100, 38, length(6)),
        drain(80, 39, 2), restart(unicast=False, mcast=True), fillm(60, 40), fill4(40, 41),
        restart(unicast=True, mcast=True, entry_by_entry=True, order=9)),
    # Single- and double-size IPv6 regions side by side: the whole conversion ladder.
    "ipv6-shared-regions-ladder": layout(512, 2, 8, pairing=True, interleave=True, shared=True,
                                         noswap=True) + ops(
        fill4(255, 42), fill6(120, 44, length(3)), fill6(120, 45, length(6)), mixed(200, 46),
        drain(100, 47, 1), fill6(100, 48, length(7)), drain(60, 49, 0), fill6(60, 50, length(1))),
    # Adds of installed routes where re-adding is allowed.
    "re-add-allowed": layout(256, 2, 8, readd=True) + ops(
        fill4(150, 51), mixed(60, 52), readd(3), readd(5, True), readd(17), del4(2, False),
        readd(1)),
    "fallback-vrf-mode4": layout(512, 4, 8, pairing=True, moving=True, fallback=True, gap=16) +
        ops(mixed(200, 53), fill6(100, 54), border(5), restart(), drain(100, 55, 3)),
    # Interleaving allowed without pairing: one block for IPv4 and IPv6 alike.
    "mode4-four-blocks-interleaved": layout(256, 4, 4, two=False, interleave=True,
                                            gap=('raw', 24)) + ops(
        fill4(150, 56), mixed(100, 58), add6(0x0021), drain(50, 57, 0), restart(),
        fill4(255, 59)),
}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "corpus", "L3TcamFuzz")
    os.makedirs(out, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(out, "seed-" + name), "wb") as f:
            f.write(data)
    print(f"{len(SEEDS)} seeds in {out}")


if __name__ == "__main__":
    main()
