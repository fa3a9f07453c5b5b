#!/usr/bin/env python3
"""chronwarden monitor --openmetrics against a loopback KR2 fleet (bench/kr2_fleet), in a network
namespace of its own: one sweep as metrics, each machine labelled with its target, that promtool
accepts; exit code 1 while a machine is silent, 0 when all answer; -o FILE replaced whole after
each sweep, nothing left aside; a file that cannot be written and wrong command lines."""
import os
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from common import (CHRONWARDEN, KR2_FLEET, Failures, Processes, enter_network_namespace, fleet_list, lint, metric,
                    remove_shared_objects, test_folder)

enter_network_namespace()
folder = test_folder("monitor")
procs = Processes(folder)
t = Failures()
SILENT = "127.1.0.60"          # in no fleet: nothing answers there
namespace = f"monitor{os.getpid()}."   # the shared-memory names of this test's programs


def monitor(*args):
    r = subprocess.run([CHRONWARDEN, "monitor", *args], capture_output=True, text=True, timeout=60,
                       env=dict(os.environ, CHRONWARDEN_ROOT=folder, CHRONWARDEN_SHM_NAMESPACE=namespace))
    return r.returncode, r.stdout, r.stderr


try:
    procs.start("fleet", [KR2_FLEET, "--count", "3", "--list", os.path.join(folder, "fleet.txt")], "ready")
    machines = fleet_list(os.path.join(folder, "fleet.txt"))
    targets = [m[0] for m in machines]

    # Three machines and a silent one, printed.
    code, out, err = monitor(*targets, SILENT, "--openmetrics", "--timeout", "300")
    t.equal((code, err), (1, ""), "exit code 1 while a machine is silent, and nothing on stderr")
    up = {f'{{target="{target}"}}': 1.0 for target in targets}
    up[f'{{target="{SILENT}"}}'] = 0.0
    t.equal(metric(out, "chronwarden_up"), up, "chronwarden_up of every machine, by target")
    t.equal(metric(out, "chronwarden_last_offset_seconds"),
            {f'{{target="{target}"}}': offset_ms / 1000 for target, _, offset_ms in machines},
            "the offsets the responders gave; none for the silent machine")
    t.equal(metric(out, "chronwarden_info"),
            {f'{{target="{target}",computer_name="{name}",version="4.2.b.20081210R",product_code="7"}}': 1.0
             for target, name, _ in machines}, "each machine's computer name and version")
    t.check("# TYPE chronwarden_sync_successes_total counter\n" in out, "counters in the text format")
    t.check("# EOF" not in out and "# UNIT" not in out, "the text format, as the textfile collector reads it")
    t.equal(lint(out), (0, ""), "promtool finds nothing to say of a sweep")

    # All answering: exit code 0; -o FILE written whole, twice, nothing left aside.
    prom = os.path.join(folder, "textfile", "chronwarden.prom")
    os.makedirs(os.path.dirname(prom))
    code, out, err = monitor(*targets, "--openmetrics", "-o", prom, "--interval", "1", "--count", "2")
    t.equal((code, out, err), (0, "", ""), "two sweeps into a file: exit code 0, nothing printed")
    with open(prom) as f:
        written = f.read()
    t.equal(metric(written, "chronwarden_up"), {f'{{target="{target}"}}': 1.0 for target in targets},
            "the file holds the last sweep")
    t.equal(sorted(os.listdir(os.path.dirname(prom))), ["chronwarden.prom"], "nothing left aside")

    # A file that cannot be written: exit code 1 and why.
    missing = os.path.join(folder, "no-such-folder", "chronwarden.prom")
    code, out, err = monitor(targets[0], "--openmetrics", "-o", missing)
    t.equal(code, 1, "a file that cannot be written: exit code 1")
    t.check(err.startswith(f"chronwarden monitor: cannot write {missing}: "), f"and why: {err!r}")

    # Wrong command lines: exit code 2 and the reason.
    for args, reason in (((targets[0], "--openmetrics", "--json"), "--json and --openmetrics exclude each other"),
                         ((targets[0], "-o", prom), "-o belongs to --openmetrics"),
                         ((targets[0], "--openmetrics", "-o"), "-o needs a file name")):
        code, out, err = monitor(*args)
        t.equal((code, err.splitlines()[:1]), (2, [f"chronwarden monitor: {reason}"]), " ".join(args[1:]))
finally:
    procs.stop_all()
    remove_shared_objects(namespace)
t.exit()
