#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Runs services and clients for a while in namespaces of their own, makes life hard for them by a seeded
schedule, and has check.py compare what they wrote down. Usually started by script/soak."""
import argparse
import os
import pathlib
import random
import resource
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # the tree stays as it is
import check

HERE = pathlib.Path(__file__).resolve().parent
PIPES = "/opt/vorn/hostmgr/var/lib/kestrel/rendez"
HOSTS = {1: "10.77.0.1", 2: "10.77.0.2"}
KINDS = ("pipe", "socket", "udp")
SERVICES = (1, 2)  # each on the host of its number
SLOTS = 2 * len(KINDS)  # each service's clients: one of each kind on each host
BAD_NETWORK = 80  # packets of a thousand are dropped


def now():
    return time.monotonic_ns()


def run(*command):
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL)


class History:
    """As the processes' own: one line at once, the time, a word, and fields."""

    def __init__(self, path):
        self.file = open(path, "a", buffering=1)

    def write(self, word, **fields):
        text = "".join(f" {name.rstrip('_')}={value}" for name, value in fields.items())
        self.file.write(f"{now()} {word}{text}\n")


class Process:
    """One process of the soak, and what is being done to it."""

    def __init__(self, name, generation, popen):
        self.name, self.generation, self.popen = name, generation, popen
        self.stopped_since = self.limited_since = None

    @property
    def pid(self):
        return self.popen.pid

    def is_running(self):
        return self.popen.poll() is None


class Stage:
    """The two hosts, the network between them, and all processes."""

    def __init__(self, options):
        self.options = options
        self.directory = options.history
        self.history = History(self.directory / "director.log")
        self.processes = {}
        self.generations = {}
        self.bad_network_since = None
        self.build_hosts()

    # --- the hosts and the network ---

    def spawn(self, role, name, *arguments, host=1, environment=None):
        generation = self.generations[name] = self.generations.get(name, 0) + 1
        command = [self.options.program, role, self.directory / f"{name}.{generation}.log", *map(str, arguments)]
        if host == 2:
            place = f"/proc/{self.other_host.pid}/ns"
            command = ["nsenter", f"--net={place}/net", f"--mount={place}/mnt", "--", *command]
        process = subprocess.Popen(command, env=os.environ | (environment or {}), stdin=subprocess.DEVNULL)
        return Process(name, generation, process)

    def on_other_host(self, *command):
        place = f"/proc/{self.other_host.pid}/ns"
        run("nsenter", f"--net={place}/net", f"--mount={place}/mnt", "--", *command)

    def use_hosts_file(self, number, mount):
        path = f"/opt/soak/hosts{number}"
        pathlib.Path(path).write_text(f"{HOSTS[number]} localhost\n")
        mount("mount", "--bind", path, "/etc/hosts")

    def build_hosts(self):
        os.makedirs(PIPES)
        os.makedirs("/opt/soak")
        pathlib.Path("/opt/soak/nsswitch.conf").write_text("hosts: files\n")
        if os.path.exists("/etc/nsswitch.conf"):
            run("mount", "--bind", "/opt/soak/nsswitch.conf", "/etc/nsswitch.conf")
        self.other_host = subprocess.Popen(["unshare", "--net", "--mount", "sh", "-c", "echo ready; exec cat"],
                                           stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.other_host.stdout.readline()
        run("ip", "link", "add", "near1", "type", "veth", "peer", "name", "near2")
        run("ip", "link", "set", "near2", "netns", str(self.other_host.pid))
        for number, on_host in ((1, run), (2, self.on_other_host)):
            self.use_hosts_file(number, on_host)
            on_host("ip", "link", "set", "lo", "up")
            on_host("ip", "addr", "add", f"{HOSTS[number]}/24", "dev", f"near{number}")
            on_host("ip", "link", "set", f"near{number}", "address", f"02:00:00:00:00:0{number}", "up")
            # Asking for the neighbour's number would be one more packet to lose, with errors of its own.
            on_host("ip", "neigh", "replace", HOSTS[3 - number], "lladdr", f"02:00:00:00:00:0{3 - number}",
                    "dev", f"near{number}", "nud", "permanent")
            on_host("nft", "add table ip soak; add chain ip soak in { type filter hook input priority 0; }")

    def spoil_network(self):
        if self.bad_network_since is None:
            self.bad_network_since = now()
            for number, on_host in ((1, run), (2, self.on_other_host)):
                on_host("nft", f"add rule ip soak in iifname near{number} numgen random mod 1000 < {BAD_NETWORK} drop")

    def mend_network(self):
        if self.bad_network_since is not None:
            for on_host in (run, self.on_other_host):
                on_host("nft", "flush chain ip soak in")
            self.history.write("fault", kind="net", from_=self.bad_network_since)
            self.bad_network_since = None

    # --- services and clients ---

    def start_service(self, number):
        name = f"service{number}"
        self.processes[name] = self.spawn("service", name, number, HOSTS[number], 6000 + number, SLOTS,
                                          self.options.seed, host=number)

    def start_client(self, name):
        if name in self.processes:
            return
        kind, service, host = name.split("-")
        service, host = int(service), int(host)
        slot = 2 * KINDS.index(kind) + host - 1
        generation = self.generations.get(name, 0) + 1
        # The desk over TCP serves clients on the other host.
        desk = f"pipe:soak{service}" if host == service else f"socket:{HOSTS[service]}:{6000 + service}"
        self.processes[name] = self.spawn("client", name, slot, generation, desk, host=host,
                                          environment={"QUORAX_CALLB_CONN_TYPE": kind})

    def clients(self):
        return [f"{kind}-{service}-{host}" for service in SERVICES for kind in KINDS for host in HOSTS]

    def start_all(self):
        for number in SERVICES:
            self.start_service(number)
        for number in SERVICES:
            await_idle(self.directory / f"service{number}.1.log")
        for name in self.clients():
            self.start_client(name)

    # --- faults ---

    def kill(self, name):
        process = self.processes.get(name)
        if process is None:
            return
        since = now()
        process.popen.kill()
        process.popen.wait()
        self.record_fault("kill", process, since)
        self.record_fault("stop", process, process.stopped_since)
        self.record_fault("table", process, process.limited_since)
        del self.processes[name]

    def record_fault(self, kind, process, since):
        """Written when it is over, with the widest times: from before it began until after it ended."""
        if since is not None:
            self.history.write("fault", kind=kind, process=process.name, generation=process.generation,
                               from_=since)

    def stop(self, name):
        process = self.processes.get(name)
        if process is not None and process.stopped_since is None:
            process.stopped_since = now()
            os.kill(process.pid, signal.SIGSTOP)

    def resume(self, name):
        process = self.processes.get(name)
        if process is not None and process.stopped_since is not None:
            os.kill(process.pid, signal.SIGCONT)
            self.record_fault("stop", process, process.stopped_since)
            process.stopped_since = None

    def fill_table(self, name, spare):
        """Leaves room for a few more descriptors, or for none."""
        process = self.processes.get(name)
        if process is None or process.limited_since is not None:
            return
        process.limited_since = now()
        open_now = len(os.listdir(f"/proc/{process.pid}/fd"))
        _, hard = resource.prlimit(process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(process.pid, resource.RLIMIT_NOFILE, (open_now + spare, hard))

    def free_table(self, name):
        process = self.processes.get(name)
        if process is not None and process.limited_since is not None:
            soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
            resource.prlimit(process.pid, resource.RLIMIT_NOFILE, (soft, hard))
            self.record_fault("table", process, process.limited_since)
            process.limited_since = None

    # --- watching ---

    def look_after(self):
        """Takes a sample of every process, and notices those that have ended without being told to."""
        for name, process in list(self.processes.items()):
            if not process.is_running():
                self.fail(f"{name} ended by itself with status {process.popen.returncode}")
                del self.processes[name]
                continue
            status = dict(line.split(":\t", 1) for line in
                          pathlib.Path(f"/proc/{process.pid}/status").read_text().splitlines())
            if "VmRSS" in status:  # not if it has just ended
                self.history.write("sample", process=name, generation=process.generation,
                                   memory=status["VmRSS"].split()[0], threads=status["Threads"],
                                   descriptors=len(os.listdir(f"/proc/{process.pid}/fd")))

    def fail(self, text):
        self.history.write("failure", text=text.replace(" ", "_"))
        print("soak:", text, flush=True)

    def end(self, name):
        """Ends one process in the ordinary way."""
        process = self.processes.pop(name)
        process.popen.terminate()
        try:
            status = process.popen.wait(60)
        except subprocess.TimeoutExpired:
            self.fail(f"{name} does not end")
            return
        if status != 0:
            self.fail(f"{name} ended with status {status}")

    def await_quiet(self):
        """What has been sent arrives, at the latest when a lost packet has been repeated several times."""
        sizes, since = None, time.monotonic()
        for _ in range(600):
            found = [path.stat().st_size for path in self.directory.glob("*-*.log")]
            if found != sizes:
                sizes, since = found, time.monotonic()
            if time.monotonic() - since > 3:
                return
            time.sleep(0.1)

    def end_all(self):
        for name in list(self.processes):
            self.resume(name)
            self.free_table(name)
        self.mend_network()
        for name in [f"service{number}" for number in SERVICES]:
            if name in self.processes:
                self.end(name)
        self.await_quiet()
        for name in list(self.processes):
            self.end(name)
        self.other_host.stdin.close()
        self.other_host.wait(60)


def await_idle(path):
    for _ in range(6000):
        if path.exists() and " idle " in path.read_text():
            return
        time.sleep(0.01)
    raise RuntimeError(f"{path.name} does not begin")


class Schedule:
    """What happens when, by its seed alone."""

    def __init__(self, stage, options):
        self.stage = stage
        self.random = random.Random(options.seed)
        self.seconds = options.seconds
        self.pace = 1.0 if options.seconds >= 60 else 0.4
        self.steps = []
        self.plan()
        self.steps.sort(key=lambda step: step[0])

    def add(self, at, action, *arguments):
        if at < self.seconds:
            self.steps.append((at, action, arguments))

    def times(self, mean):
        at = 2.0
        while at < self.seconds:
            yield at
            at += self.random.uniform(0.3, 1.7) * mean * self.pace

    def plan(self):
        stage, pick, length = self.stage, self.random.choice, self.random.uniform
        # The clients of the first service live through the whole run, so that their memory can be compared.
        mortal = [name for name in stage.clients() if name.split("-")[1] == "2"]
        for at in self.times(6):
            name = pick(mortal)
            self.add(at, stage.kill, name)
            self.add(at + length(0.1, 1.0), stage.start_client, name)
        for at in self.times(4):
            name = pick(stage.clients())
            self.add(at, stage.stop, name)
            self.add(at + length(0.2, 3.5), stage.resume, name)
        for at in self.times(6) if not stage.options.no_full_tables else ():
            name = pick(stage.clients() + ["service1", "service2"] * 2)
            self.add(at, stage.fill_table, name, pick((0, 0, 1, 2, 3)))
            self.add(at + length(0.2, 1.0), stage.free_table, name)
        for at in self.times(12):
            self.add(at, stage.spoil_network)
            self.add(at + length(3, 5) * self.pace, stage.mend_network)

    def run(self):
        start = time.monotonic()
        for second in range(1, int(self.seconds)):
            self.add(second, self.stage.look_after)
            if second % 60 == 0:
                self.add(second, print, f"soak: {second} s of {self.seconds:g} s")
        self.steps.sort(key=lambda step: step[0])
        for at, action, arguments in self.steps:
            time.sleep(max(0.0, at - (time.monotonic() - start)))
            action(*arguments)
        time.sleep(max(0.0, self.seconds - (time.monotonic() - start)))


# --- outside and inside the namespaces ---


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seconds", type=float, required=True)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--program", type=lambda path: pathlib.Path(path).resolve(), required=True,
                        help="the built tests/hostile/soak/soak")
    parser.add_argument("--history", type=lambda path: pathlib.Path(path).resolve(), required=True,
                        help="directory for the histories; those of an earlier run are removed")
    parser.add_argument("--no-full-tables", action="store_true", help="let no process run out of descriptors")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    return parser.parse_args()


def enter_namespaces():
    """Starts this program again with mounts and a network of its own, as root or by a user namespace."""
    for options in (["--mount", "--net"], ["--user", "--map-root-user", "--mount", "--net"]):
        if subprocess.run(["unshare", *options, "true"], capture_output=True).returncode == 0:
            os.execvp("unshare", ["unshare", *options, sys.executable, *sys.argv, "--inside"])
    print("soak: no private namespaces; run it as root, or allow unprivileged user namespaces (sysctl "
          "user.max_user_namespaces, kernel.unprivileged_userns_clone)")
    sys.exit(77)  # the status that says "skipped" to ctest


def cover_opt(needed):
    """Puts an empty /opt over the host's; what is needed of the old one is put back."""
    kept = {path: os.open(path, os.O_PATH) for path in needed}
    run("mount", "-t", "tmpfs", "-o", "mode=0755", "soak", "/opt")
    for path, descriptor in kept.items():
        if not path.exists():
            path.mkdir(parents=True)
            subprocess.run(["mount", "--no-canonicalize", "--rbind", f"/proc/self/fd/{descriptor}", path],
                           check=True, pass_fds=[descriptor])
        os.close(descriptor)


def soak(options):
    tree = options.program.parents[3]  # with the libraries
    cover_opt([tree, HERE, options.history])
    stage = Stage(options)
    print(f"soak: {options.seconds:g} s, seed {options.seed}", flush=True)
    schedule = Schedule(stage, options)
    stage.start_all()
    schedule.run()
    stage.end_all()
    return check.main(options.history)


def main():
    options = parse_arguments()
    if not options.inside:
        options.history.mkdir(parents=True, exist_ok=True)
        for old in options.history.glob("*.log"):
            old.unlink()
        enter_namespaces()
    return soak(options)


if __name__ == "__main__":
    sys.exit(main())
