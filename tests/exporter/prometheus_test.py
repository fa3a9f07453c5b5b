#!/usr/bin/env python3
"""A real Prometheus scrapes chronwarden exporter for 200 loopback KR2 machines (bench/kr2_fleet),
in a network namespace of its own, with the shipped configuration and alert rules (intervals cut to
a second): every machine is up with the offset its responder gave and the computer name it named;
then one machine is silenced, goes down, and its ChronwardenMachineDown alert goes pending.
Prometheus keeps its data in the test's folder."""
import json
import os
import shutil
import sys
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from common import (CHRONWARDEN, KR2_FLEET, SOURCE_DIR, Failures, Processes, enter_network_namespace, fleet_list,
                    http, remove_shared_objects, test_folder, write_status_block)

enter_network_namespace()
folder = test_folder("prometheus")
procs = Processes(folder)
t = Failures()
PROMETHEUS = "http://127.0.0.1:9090"
namespace = f"prom{os.getpid()}."   # the shared-memory names of this test's exporter


def query(expr):
    code, _, body = http(PROMETHEUS + "/api/v1/query?" + urllib.parse.urlencode({"query": expr}))
    data = json.loads(body)
    if code != 200 or data["status"] != "success":
        raise RuntimeError(f"query {expr}: {code} {body}")
    return data["data"]["result"]


def by_instance(expr):
    return {r["metric"].get("instance"): r for r in query(expr)}


def wait_for(condition, what, timeout=60):
    deadline = time.monotonic() + timeout
    while True:
        try:
            if condition():
                t.check(True, what)
                return True
        except (OSError, RuntimeError, ValueError):
            pass
        if time.monotonic() > deadline:
            t.check(False, what)
            return False
        time.sleep(0.25)


def write_configuration(targets):
    """The shipped configuration with one-second intervals, the rules beside it, the targets in
    the file its service discovery reads."""
    with open(os.path.join(SOURCE_DIR, "prometheus", "prometheus.yml")) as f:
        config = f.read()
    for old, new in (("scrape_interval: 15s", "scrape_interval: 1s"), ("scrape_timeout: 10s", "scrape_timeout: 900ms"),
                     ("evaluation_interval: 15s", "evaluation_interval: 1s")):
        if old not in config:
            raise RuntimeError(f"the shipped configuration has no '{old}'")
        config = config.replace(old, new)
    with open(os.path.join(folder, "prometheus.yml"), "w") as f:
        f.write(config)
    shutil.copy(os.path.join(SOURCE_DIR, "prometheus", "chronwarden.rules.yml"), folder)
    os.makedirs(os.path.join(folder, "targets"))
    with open(os.path.join(folder, "targets", "chronwarden-fleet.yml"), "w") as f:
        f.write("- targets:\n" + "".join(f"    - {target}\n" for target in targets))


try:
    # 199 machines on 127.1.0.1-199 port 9909 and one more, on its own, that the test silences.
    procs.start("fleet", [KR2_FLEET, "--count", "199", "--list", os.path.join(folder, "fleet.txt")], "ready")
    lone = procs.start("lone", [KR2_FLEET, "--count", "1", "--first", "127.1.0.200", "--port", "9910",
                                "--list", os.path.join(folder, "lone.txt")], "ready")
    machines = fleet_list(os.path.join(folder, "fleet.txt")) + fleet_list(os.path.join(folder, "lone.txt"))
    t.equal(len(machines), 200, "machines")
    env = dict(os.environ, CHRONWARDEN_ROOT=folder, CHRONWARDEN_SHM_NAMESPACE=namespace)
    write_status_block(namespace, [32, 1, 7, 4, 2, 2008, 1210, 1])   # a time service of the family runs here
    exporter = procs.start("exporter", [CHRONWARDEN, "exporter"], "serving", env=env)
    write_configuration([m[0] for m in machines])
    data = os.path.join(folder, "data")
    procs.start("prometheus", ["prometheus", "--config.file=" + os.path.join(folder, "prometheus.yml"),
                               "--storage.tsdb.path=" + data, "--web.listen-address=127.0.0.1:9090",
                               "--log.level=warn"])
    wait_for(lambda: http(PROMETHEUS + "/-/ready")[0] == 200, "Prometheus is ready")

    wait_for(lambda: len(query("chronwarden_up == 1")) == 200, "all 200 machines up")
    offsets = by_instance("chronwarden_last_offset_seconds")
    names = by_instance("chronwarden_info")
    wrong = [target for target, name, offset_ms in machines
             if target not in offsets or float(offsets[target]["value"][1]) != offset_ms / 1000
             or names.get(target, {}).get("metric", {}).get("computer_name") != name]
    t.check(not wrong, f"every machine's offset and computer name as its responder gave them (wrong: {wrong[:5]})")
    t.equal(len(query('up{job="chronwarden"} == 1')), 200, "200 good scrapes of the machines")
    t.equal(len(query('up{job="chronwarden_exporter"} == 1')), 1, "the exporter's own scrape")
    t.equal(len(query("chronwarden_local_owner_active == 1")), 1, "the exporter reads this machine's sync status block")
    t.equal(query("ALERTS"), [], "no alert while every machine answers")
    t.check(os.path.isdir(os.path.join(data, "wal")), "Prometheus keeps its data in the test's folder")

    # Silence one machine: it goes down, its alert goes pending; the others stay up.
    lone_target = machines[-1][0]
    procs.stop(lone)
    wait_for(lambda: float(by_instance("chronwarden_up")[lone_target]["value"][1]) == 0, f"{lone_target} goes down")
    def pending():
        alerts = json.loads(http(PROMETHEUS + "/api/v1/alerts")[2])["data"]["alerts"]
        return [(a["labels"]["alertname"], a["labels"]["instance"], a["state"]) for a in alerts]
    wait_for(lambda: pending() == [("ChronwardenMachineDown", lone_target, "pending")],
             f"ChronwardenMachineDown pending for {lone_target}, and nothing else")
    t.equal(len(query("chronwarden_up == 1")), 199, "the other 199 stay up")
    t.equal(len(query('up{job="chronwarden"} == 0')), 0, "a silent machine is still a good scrape")
    if not t.equal(procs.stop(exporter), 0, "the exporter ends with exit code 0"):
        print(procs.output(exporter)[-4000:])
finally:
    procs.stop_all()
    remove_shared_objects(namespace)
t.exit()
