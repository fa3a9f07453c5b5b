#!/usr/bin/env python3
"""chronwarden exporter's HTTP endpoints against a loopback KR2 fleet (bench/kr2_fleet), in a
network namespace of its own: probes of answering, silent and refusing machines, both exposition
formats, every kind of bad request with its exact reply, a silent machine that holds no other
probe, the probe limit, the cap of 1024 connections from one address, and 10,000 connections at
once; the exporter serves on throughout and ends with exit code 0 on SIGTERM."""
import os
import resource
import selectors
import socket
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from common import (CHRONWARDEN, KR2_FLEET, Failures, Processes, enter_network_namespace, fleet_list, http, lint,
                    metric, remove_shared_objects, status_block_path, test_folder, write_status_block)

enter_network_namespace()
folder = test_folder("http")
procs = Processes(folder)
t = Failures()
BASE = "http://127.0.0.1:9909"
MAX_PROBES = 50
SILENT = "127.1.0.60"          # in no fleet: nothing answers there
namespace = f"http{os.getpid()}."   # the shared-memory names of this test's exporter


def in_flight():
    return metric(http(BASE + "/metrics")[2], "chronwarden_exporter_probes_in_flight").get("", -1)


def wait_for(condition, what, timeout=20):
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            t.check(False, what)
            return False
        time.sleep(0.02)
    return True


def bad(path, status, text, method="GET"):
    code, headers, body = http(BASE + path, method=method)
    t.equal((code, body), (status, text + "\n"), f"{method} {path}")
    return headers


def many_connections(count, path):
    """count connections at once, each sending one request, 1000 of them from each of the loopback
    addresses 127.9.N.1 (one address may hold 1024 at once); the status of each reply (None: the
    connection ended without one)."""
    request = f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n".encode()
    sel = selectors.DefaultSelector()
    replies = {}
    for i in range(count):
        s = socket.socket()
        s.setblocking(False)
        s.bind((f"127.9.{i // 1000}.1", 0))
        s.connect_ex(("127.0.0.1", 9909))
        sel.register(s, selectors.EVENT_WRITE, i)
        replies[i] = b""
    open_ = count
    deadline = time.monotonic() + 120
    while open_ and time.monotonic() < deadline:
        for key, events in sel.select(timeout=1):
            s, i = key.fileobj, key.data
            try:
                if events & selectors.EVENT_WRITE:
                    s.send(request)
                    sel.modify(s, selectors.EVENT_READ, i)
                    continue
                chunk = s.recv(65536)
            except OSError:
                chunk = b""
            if chunk:
                replies[i] += chunk
            else:
                sel.unregister(s)
                s.close()
                open_ -= 1
    for key in list(sel.get_map().values()):
        key.fileobj.close()
    return [int(r.split(b" ", 2)[1]) if r.startswith(b"HTTP/1.1 ") else None for r in replies.values()]


try:
    fleet = procs.start("fleet", [KR2_FLEET, "--count", "3", "--list", os.path.join(folder, "fleet.txt")], "ready")
    machines = fleet_list(os.path.join(folder, "fleet.txt"))
    env = dict(os.environ, CHRONWARDEN_ROOT=folder, CHRONWARDEN_SHM_NAMESPACE=namespace)
    exporter = procs.start("exporter", [CHRONWARDEN, "exporter", "--timeout", "2000", "--max-probes", str(MAX_PROBES)],
                           "serving", env=env)
    t.check("serving http://127.0.0.1:9909/ on port 9909" in procs.output(exporter), "listens on 127.0.0.1:9909 by default")
    # A second exporter on the same port: exit code 1 and why.
    second = procs.start("second", [CHRONWARDEN, "exporter"], env=env)
    t.equal((second.wait(30), procs.output(second)),
            (1, "chronwarden exporter: cannot serve HTTP on 127.0.0.1:9909: Error 10048: address already in use\n"),
            "a second exporter on a taken port")

    # An answering machine, in the text format and in OpenMetrics.
    target, name, offset_ms = machines[1]
    code, headers, body = http(f"{BASE}/probe?target={target}")
    t.equal(code, 200, "probe of an answering machine")
    t.equal(headers["Content-Type"], "text/plain; version=0.0.4; charset=utf-8", "text format by default")
    t.equal(metric(body, "chronwarden_up"), {"": 1.0}, "chronwarden_up")
    t.equal(metric(body, "chronwarden_last_offset_seconds"), {"": offset_ms / 1000}, "the machine's offset")
    t.equal(metric(body, "chronwarden_info"),
            {f'{{computer_name="{name}",version="4.2.b.20081210R",product_code="7"}}': 1.0}, "chronwarden_info")
    t.equal(metric(body, "chronwarden_partner_info"), {'{partner="ntp.fleet.test"}': 1.0}, "the partner")
    t.check("# TYPE chronwarden_sync_successes_total counter\nchronwarden_sync_successes_total 101\n" in body,
            "sync successes as a counter")
    t.equal(lint(body), (0, ""), "promtool finds nothing to say of a probe")
    code, headers, body = http(f"{BASE}/probe?target={target}",
                               {"Accept": "application/openmetrics-text;version=1.0.0,text/plain;q=0.5"})
    t.equal(headers["Content-Type"], "application/openmetrics-text; version=1.0.0; charset=utf-8", "OpenMetrics asked")
    t.check(body.endswith("\n# EOF\n") and "# TYPE chronwarden info\n" in body and
            "# TYPE chronwarden_sync_successes counter\n" in body and
            "# UNIT chronwarden_last_offset_seconds seconds\n" in body, "OpenMetrics families, units and end")
    host, port = target.split(":")
    for query in (f"target={host}&port={port}", f"target={host}", f"target={target}&port={port}&products=0"):
        t.equal(metric(http(f"{BASE}/probe?{query}")[2], "chronwarden_up"), {"": 1.0}, f"/probe?{query}")

    # Machines that do not answer: a good scrape with chronwarden_up 0.
    for query, what in ((f"target={SILENT}", "a silent machine"), (f"target={host}&port=9", "a port nothing serves"),
                        ("target=no-such-machine.invalid", "a name that does not resolve")):
        code, _, body = http(f"{BASE}/probe?{query}")
        t.equal((code, metric(body, "chronwarden_up")), (200, {"": 0.0}), what)
    code, _, body = http(f"{BASE}/probe?target={target}&products=1")
    t.equal(metric(body, "chronwarden_up"), {"": 1.0}, "products asked of a machine that does not give them")
    t.check("chronwarden_product_installed" not in body, "no products when none came")

    # Bad requests: a clear reply each, the exporter serves on.
    bad("/probe", 400, "Target parameter is missing")
    bad("/probe?target=", 400, "Target parameter is missing")
    bad("/probe?port=9909", 400, "Target parameter is missing")
    bad("/probe?target=a&target=b", 400, "target is given more than once")
    bad("/probe?target=a&port=0", 400, 'port "0" is not a number from 1 to 65535')
    bad("/probe?target=a&port=65536", 400, 'port "65536" is not a number from 1 to 65535')
    bad("/probe?target=a&port=x9", 400, 'port "x9" is not a number from 1 to 65535')
    bad("/probe?target=a:0", 400, 'target "a:0" does not end in a port from 1 to 65535')
    bad("/probe?target=a:99999", 400, 'target "a:99999" does not end in a port from 1 to 65535')
    bad("/probe?target=a:1&port=2", 400, "target and port name different ports")
    bad("/probe?target=a&products=maybe", 400, 'products takes 1 or 0, not "maybe"')
    bad("/probe?target=a&module=kr2", 400, 'unknown parameter "module"; /probe takes target, port and products')
    bad("/probe?%ZZ&&==&target=a", 400, 'unknown parameter "%ZZ"; /probe takes target, port and products')
    bad("/probe?target=%FF%FE%01", 400, 'target "\\xFF\\xFE\\x01" is not a host name or IPv4 address')
    bad("/probe?target=a%20b", 400, 'target "a b" is not a host name or IPv4 address')
    bad("/probe?target=" + "a" * 300, 400, 'target "' + "a" * 64 + '..." is not a host name or IPv4 address')
    bad("/metrics?x=1", 400, "/metrics takes no parameters")
    bad("/nothing", 404, "no page /nothing; this exporter serves /probe?target=HOST[:PORT] and /metrics")
    headers = bad("/probe?target=a", 405, "method POST is not allowed; use GET", method="POST")
    t.equal(headers["Allow"], "GET, HEAD", "405 names the methods")
    # Requests the HTTP library refuses before they reach the exporter: a request line without a
    # version (400), an unknown version (505), one too long (414); a line of binary bytes that is no
    # request line at all ends the connection without a reply.
    for raw, expected, what in ((b"hello there\r\n\r\n", b"HTTP/1.1 400 ", "a request line without a version"),
                                (b"GET /probe?target=a HTTP/9.9\r\n\r\n", b"HTTP/1.1 505 ", "HTTP/9.9"),
                                (b"GET /probe?target=" + b"a" * 100000 + b" HTTP/1.1\r\nHost: x\r\n\r\n",
                                 b"HTTP/1.1 414 ", "a 100 kB request line"),
                                (b"\x16\x03\x01\x00\xff\xfe\r\n\r\n", b"", "binary bytes")):
        with socket.create_connection(("127.0.0.1", 9909)) as s:
            # The server may answer and close before the whole request is sent (the 100 kB line):
            # the reply already received counts, the failed rest of the send does not.
            try:
                s.sendall(raw)
                s.shutdown(socket.SHUT_WR)
            except OSError:
                pass
            try:
                reply = s.recv(4096)
            except OSError:
                reply = b""
        t.check(reply[:13] == expected, f"{what}: {reply[:40]!r}")
    code, _, body = http(BASE + "/metrics")
    t.equal(code, 200, "/metrics after the bad requests")
    t.equal(metric(body, "chronwarden_exporter_bad_requests_total"), {"": 19.0}, "bad requests counted")
    t.check(metric(body, "process_resident_memory_bytes").get("", 0) > 0, "the exporter's own process")
    t.equal(lint(body), (0, ""), "promtool finds nothing to say of /metrics")
    # This machine's sync status block: none until a time service of the family makes it (reading
    # it makes none), then its owner as that service wrote it.
    t.equal(metric(body, "chronwarden_local_status_block"), {"": 0.0}, "no sync status block yet")
    t.check(not os.path.exists(status_block_path(namespace)), "reading the block made none")
    write_status_block(namespace, [32, 1, 7, 4, 2, 2008, 1210, 1])
    body = http(BASE + "/metrics")[2]
    t.equal(metric(body, "chronwarden_local_status_block"), {"": 1.0}, "the sync status block is read")
    t.equal(metric(body, "chronwarden_local_owner_active"), {"": 1.0}, "its owner announces itself")
    t.equal(metric(body, "chronwarden_local_owner_info"), {'{product_code="7",version="4.2",build="20081210"}': 1.0},
            "its owner's product, version and build")

    # A silent machine holds no other probe: with 20 silent probes in flight, an answering machine
    # is probed (and the 20 are still in flight when its reply is in).
    results = []
    def probe(target):
        results.append(http(f"{BASE}/probe?target={target}"))
    silent = [threading.Thread(target=probe, args=(SILENT,)) for _ in range(20)]
    for th in silent:
        th.start()
    wait_for(lambda: in_flight() == 20, "20 silent probes in flight")
    code, _, body = http(f"{BASE}/probe?target={target}")
    t.equal((code, metric(body, "chronwarden_up")), (200, {"": 1.0}), "an answering machine beside 20 silent ones")
    t.equal(in_flight(), 20, "the silent probes still in flight after it")
    # The probe limit: 50 in flight, the next gets 503.
    more = [threading.Thread(target=probe, args=(SILENT,)) for _ in range(MAX_PROBES - 20)]
    for th in more:
        th.start()
    wait_for(lambda: in_flight() == MAX_PROBES, "50 probes in flight")
    code, headers, body = http(f"{BASE}/probe?target={target}")
    t.equal((code, body, headers["Retry-After"]), (503, "too many probes in flight (50); try again later\n", "1"),
            "the 51st probe")
    for th in silent + more:
        th.join()
    t.equal(sorted(set((c, metric(b, "chronwarden_up")[""]) for c, _, b in results)), [(200, 0.0)],
            "every silent probe ended as a good scrape")

    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    t.check(hard >= 10300, f"open-file limit {hard} allows 10,000 connections")
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    # One address holds at most 1024 connections: with 1024 open (accepted in their order), the
    # 1025th ends without a reply, and the 1024 are served.
    held = [socket.create_connection(("127.0.0.1", 9909)) for _ in range(1024)]
    with socket.create_connection(("127.0.0.1", 9909)) as s:
        try:
            s.sendall(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n")
            reply = s.recv(4096)
        except OSError:
            reply = b""
    t.equal(reply, b"", "the 1025th connection of one address is closed unanswered")
    held[0].sendall(b"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
    t.check(held[0].recv(4096).startswith(b"HTTP/1.1 200 "), "the 1024 held are served")
    for s in held:
        s.close()
    # 10,000 connections at once from 10 addresses, each asking for a silent machine: every one
    # gets 200 or 503.
    statuses = many_connections(10000, f"/probe?target={SILENT}")
    counts = {s: statuses.count(s) for s in set(statuses)}
    print("10,000 connections:", counts, flush=True)
    t.check(set(counts) <= {200, 503} and counts.get(503, 0) > 0, "every one of 10,000 connections gets 200 or 503")
    wait_for(lambda: in_flight() == 0, "the probes of the 10,000 connections end")
    code, _, body = http(BASE + "/metrics")
    t.equal(code, 200, "/metrics after 10,000 connections")
    t.equal(metric(body, "chronwarden_exporter_probes_rejected_total"), {"": float(counts.get(503, 0) + 1)},
            "every 503 counted")
    t.equal(metric(http(f"{BASE}/probe?target={target}")[2], "chronwarden_up"), {"": 1.0}, "probes after the storm")
    t.equal(exporter.poll(), None, "the exporter still runs")
    t.equal(procs.stop(exporter), 0, "exit code 0 on SIGTERM")
    t.check(procs.output(exporter).endswith("chronwarden exporter: stopping\n"), "says it stops")
finally:
    procs.stop_all()
    remove_shared_objects(namespace)
t.exit()
