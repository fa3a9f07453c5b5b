#!/usr/bin/env python3
"""KR2 status requests (command 128) to one responder from one UDP socket: a flood (up to WINDOW
requests in flight, the next sent as soon as one is answered; a request unanswered for 100 ms counts
as lost) or a steady RATE per second. Runs for SECONDS, or until SIGTERM/SIGINT, then prints
"sent N answered M" and exits 0. Used by the fault suite (tests/faults/) and bench/host_soak.sh.

Usage: kr2-load.py [--host 127.0.0.1] [--port 9909] [--rate N | --window W] [--seconds S]
"""
import argparse
import signal
import socket
import struct
import sys
import time

STATUS = 128
REQUEST = struct.Struct("<I B 3x I")   # tag, command code, the argument word: 12 bytes


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--host", default="127.0.0.1")
    p.add_argument("--port", type=int, default=9909)
    p.add_argument("--rate", type=float, default=0, help="requests per second (0: a flood)")
    p.add_argument("--window", type=int, default=16, help="a flood's requests in flight")
    p.add_argument("--seconds", type=float, default=0, help="how long (0: until stopped)")
    a = p.parse_args()
    if a.rate < 0 or a.window < 1 or a.seconds < 0:
        p.error("--rate, --window and --seconds take positive numbers")

    stop = []
    for s in (signal.SIGTERM, signal.SIGINT):
        signal.signal(s, lambda *_: stop.append(1))
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    to = (a.host, a.port)
    sent = answered = tag = in_flight = 0
    end = time.monotonic() + a.seconds if a.seconds else None
    next_send = time.monotonic()

    def send():
        nonlocal sent, tag
        tag = (tag + 1) & 0xFFFFFFFF
        try:
            sock.sendto(REQUEST.pack(tag, STATUS, 0), to)
            sent += 1
        except OSError:   # nothing listens (the host is down): refused, try again later
            pass

    while not stop and (end is None or time.monotonic() < end):
        if a.rate:
            now = time.monotonic()
            while next_send <= now:
                send()
                next_send += 1 / a.rate
            wait = max(0.0, min(next_send - time.monotonic(), 0.1))
        else:
            while in_flight < a.window:
                send()
                in_flight += 1
            wait = 0.1
        sock.settimeout(wait if wait > 0 else 0.001)
        try:
            while True:
                sock.recv(2048)
                answered += 1
                in_flight = max(0, in_flight - 1)
                sock.settimeout(0)
        except (BlockingIOError, socket.timeout):
            if not a.rate and wait == 0.1 and in_flight == a.window:
                in_flight = 0   # nothing came back within 100 ms: count the window lost
        except OSError:   # a refusal reported on the socket
            in_flight = 0
            time.sleep(0.01)
    print(f"sent {sent} answered {answered}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
