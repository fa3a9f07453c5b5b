"""Helpers of the exporter's end-to-end tests: a network namespace of their own, a folder of their
own, the programs they start (stopped by PID at the end) and plain HTTP requests.

Environment (set by ctest): CHRONWARDEN and KR2_FLEET (the programs), CW_SOURCE_DIR, CW_TEST_DIR."""
import os
import shutil
import signal
import struct
import subprocess
import sys
import time
import urllib.error
import urllib.request

CHRONWARDEN = os.environ.get("CHRONWARDEN", "")
KR2_FLEET = os.environ.get("KR2_FLEET", "")
SOURCE_DIR = os.environ.get("CW_SOURCE_DIR", "")


def enter_network_namespace():
    """Runs this script again in a network namespace of its own with only the loopback, brought up.
    unshare -n as root, else as root of a new user namespace (unshare -r -n)."""
    if os.environ.get("CW_EXPORTER_NETNS") != "1":
        env = dict(os.environ, CW_EXPORTER_NETNS="1")
        for unshare in (["unshare", "-n"], ["unshare", "-r", "-n"]):
            if subprocess.run(unshare + ["true"], capture_output=True).returncode == 0:
                os.execvpe(unshare[0], unshare + [sys.executable] + sys.argv, env)
        sys.exit("cannot make a network namespace (unshare -n / unshare -r -n)")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    links = subprocess.run(["ip", "-o", "link", "show"], capture_output=True, text=True, check=True).stdout
    if len(links.splitlines()) != 1:
        sys.exit("not in a network namespace of our own: " + links)


def test_folder(name):
    """A fresh folder for this test under CW_TEST_DIR."""
    folder = os.path.join(os.environ.get("CW_TEST_DIR", "/tmp"), name)
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    return folder


def remove_shared_objects(namespace):
    """Removes the shared memory and events that the programs of a test made under its own
    CHRONWARDEN_SHM_NAMESPACE (they outlive their processes, as POSIX shared memory does)."""
    for name in os.listdir("/dev/shm"):
        if name.startswith(namespace):
            try:
                os.unlink(os.path.join("/dev/shm", name))
            except OSError:
                pass


class Processes:
    """Programs started by a test; stop() ends each by its PID (SIGTERM, then SIGKILL)."""

    def __init__(self, folder):
        self.folder = folder
        self.started = []

    def start(self, name, argv, ready=None, env=None, timeout=30):
        log = open(os.path.join(self.folder, name + ".log"), "w+")
        p = subprocess.Popen(argv, stdout=log, stderr=subprocess.STDOUT, env=env, start_new_session=True)
        p.name, p.log = name, log
        self.started.append(p)
        deadline = time.monotonic() + timeout
        while ready:
            log.seek(0)
            if ready in log.read():
                break
            if p.poll() is not None or time.monotonic() > deadline:
                log.seek(0)
                raise RuntimeError(f"{name} did not start (exit {p.poll()}):\n{log.read()}")
            time.sleep(0.05)
        return p

    def stop(self, p, timeout=30):
        if p.poll() is None:
            p.send_signal(signal.SIGTERM)
            try:
                p.wait(timeout)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        return p.returncode

    def output(self, p):
        p.log.seek(0)
        return p.log.read()

    def stop_all(self):
        for p in reversed(self.started):
            self.stop(p)


def http(url, headers=None, method="GET", data=None):
    """(status, headers, body as text) of one request; HTTP errors are answers too."""
    request = urllib.request.Request(url, headers=headers or {}, method=method, data=data)
    try:
        with urllib.request.urlopen(request, timeout=30) as r:
            return r.status, r.headers, r.read().decode()
    except urllib.error.HTTPError as e:
        return e.code, e.headers, e.read().decode()


def status_block_path(namespace):
    """Where this machine's sync status block lives under a shared-memory namespace."""
    return "/dev/shm/" + namespace + "Global.kairtim-sync-status-shared-memory"


def write_status_block(namespace, words):
    """Makes the sync status block as a time service of the family does: eight little-endian
    32-bit words (size, owner active, product code, major, minor, build year, month and day,
    closed mark). The caller removes it."""
    with open(status_block_path(namespace), "wb") as f:
        f.write(struct.pack("<8I", *words))
    # The family's objects are theirs alone: one that lets others in is refused by every reader.
    os.chmod(status_block_path(namespace), 0o660)


def lint(body):
    """promtool's verdict on an exposition: (exit code, what it found)."""
    r = subprocess.run(["promtool", "check", "metrics"], input=body, capture_output=True, text=True)
    return r.returncode, (r.stdout + r.stderr).strip()


def fleet_list(path):
    """The machines a fleet wrote with --list: [(target, computer name, offset in ms)]."""
    with open(path) as f:
        return [(t, n, int(o)) for t, n, o in (line.split() for line in f if line.strip())]


def metric(body, name):
    """The samples of one metric in an exposition: {labels text: value}."""
    found = {}
    for line in body.splitlines():
        if line.startswith(name + " ") or line.startswith(name + "{"):
            head, value = line.rsplit(" ", 1)
            found[head[len(name):]] = float(value)
    return found


class Failures:
    """Collects failed checks, so that one run reports all of them."""

    def __init__(self):
        self.failed = []

    def check(self, ok, what):
        print(("ok    " if ok else "FAIL  ") + what, flush=True)
        if not ok:
            self.failed.append(what)
        return ok

    def equal(self, got, expected, what):
        return self.check(got == expected, f"{what}: {got!r}" + ("" if got == expected else f", expected {expected!r}"))

    def exit(self):
        if self.failed:
            sys.exit(f"{len(self.failed)} checks failed")
        print("all checks passed")
