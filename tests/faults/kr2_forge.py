#!/usr/bin/env python3
"""Forged-source attacks on a KR2 responder, sent from addresses of the caller's network namespace
(tests/faults/kr2_forged_sources.sh puts them on its loopback device). Prints one result line.

  kr2_forge.py evict --to ADDR --victim ADDR --neighbour ADDR... [--seconds S]
      The victim's address floods status requests (128, 355-byte replies) while each neighbour sends
      one after each of the victim's: prints "victim_bytes N seconds S neighbour_replies M".
  kr2_forge.py short --to ADDR --source ADDR
      From SOURCE: a time-zone request (6) to fill the responder's receive buffer, then datagrams of
      1 to 4 bytes, a 160 of 8 and of 11 bytes, then a whole 5-byte 128 and a whole 160: prints
      "n=BYTES:REPLY_SIZE" for each, 0 for silence (300 ms).
"""
import argparse
import socket
import struct
import time

PORT = 9909
REQUEST = struct.Struct("<I B 3x I")   # tag, command code, the argument word: 12 bytes


def bound(address, timeout=None):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind((address, 0))
    s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
    if timeout is None:
        s.setblocking(False)
    else:
        s.settimeout(timeout)
    return s


def drain(s):
    n = 0
    while True:
        try:
            n += len(s.recv(2048))
        except BlockingIOError:
            return n


def evict(a):
    to = (a.to, PORT)
    victim = bound(a.victim)
    neighbours = [bound(n) for n in a.neighbour]
    got = answered = tag = 0
    start = time.monotonic()
    end = start + a.seconds
    while time.monotonic() < end:
        tag += 1
        victim.sendto(REQUEST.pack(tag, 128, 0), to)
        for n in neighbours:
            n.sendto(REQUEST.pack(tag, 128, 0), to)
        if tag % 16 == 0:
            got += drain(victim)
            answered += sum(drain(n) > 0 for n in neighbours)
            time.sleep(0.0005)   # the responder's pace, not the sender's
    time.sleep(0.3)   # the last replies
    got += drain(victim)
    answered += sum(drain(n) > 0 for n in neighbours)
    print(f"victim_bytes {got} seconds {time.monotonic() - start:.2f} neighbour_replies {answered}")


def short(a):
    to = (a.to, PORT)
    s = bound(a.source, timeout=0.3)

    def ask(data):
        s.sendto(data, to)
        try:
            return len(s.recv(2048))
        except socket.timeout:
            return 0

    results = [("tz", ask(REQUEST.pack(1, 6, 0)))]
    for n in range(1, 5):
        results.append((str(n), ask(bytes([0x40 + n]) * n)))
    for n in (8, 11):
        results.append((f"160/{n}", ask(REQUEST.pack(0x50 + n, 160, 0)[:n])))
    results.append(("128/5", ask(REQUEST.pack(2, 128, 0)[:5])))
    results.append(("160/12", ask(REQUEST.pack(3, 160, 0))))
    print(" ".join(f"n={k}:{v}" for k, v in results))


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = p.add_subparsers(dest="attack", required=True)
    e = sub.add_parser("evict")
    e.add_argument("--to", required=True)
    e.add_argument("--victim", required=True)
    e.add_argument("--neighbour", action="append", required=True)
    e.add_argument("--seconds", type=float, default=3)
    sh = sub.add_parser("short")
    sh.add_argument("--to", required=True)
    sh.add_argument("--source", required=True)
    a = p.parse_args()
    evict(a) if a.attack == "evict" else short(a)


if __name__ == "__main__":
    main()
