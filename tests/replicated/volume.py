"""A replicated volume: three servers with a brick each, and two hosts that have it mounted.

Each of the five has a network namespace of its own, on one bridge, so that its link can be cut. All of it
runs in the root and the namespaces that scripts/replicated_test.sh has made, and ends with them.
"""

import os
import signal
import subprocess
import time
from pathlib import Path

SERVERS = (1, 2, 3)
HOSTS = (11, 12)
# What docs/several-hosts.md tells operators to set.
OPTIONS = {
    "client.strict-locks": "on",
    "network.ping-timeout": "5",
    "server.tcp-user-timeout": "6",
    "performance.quick-read": "off",
    "performance.open-behind": "off",
    "performance.stat-prefetch": "off",
}


def run(*words, **more):
    return subprocess.run(words, check=True, capture_output=True, text=True, **more).stdout


def wait_until(what, holds, seconds=30):
    """Until holds() is true; what it waits for is said when it never is."""
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.05)


def address(number):
    return f"10.99.0.{number}"


class Node:
    """A server or a host: its part of the network, and the one program that lives there."""

    def __init__(self, number):
        self.number = number
        self.name = f"n{number}"
        self.folder = Path("/srv") / self.name
        self.folder.mkdir()
        self.program = None
        run("ip", "netns", "add", self.name)
        run("ip", "link", "add", f"to_{self.name}", "type", "veth", "peer", "name", "eth0", "netns", self.name)
        run("ip", "link", "set", f"to_{self.name}", "master", "bridge", "up")
        run("ip", "-n", self.name, "address", "add", f"{address(number)}/24", "dev", "eth0")
        run("ip", "-n", self.name, "link", "set", "eth0", "up")
        run("ip", "-n", self.name, "link", "set", "lo", "up")

    def start(self, own, command):
        """Starts the program; `own` are folders of which this node has its own."""
        steps = []
        for path in own:
            mine = self.folder / path.strip("/").replace("/", "_")
            mine.mkdir(exist_ok=True)
            Path(path).mkdir(parents=True, exist_ok=True)
            steps.append(f"mount --bind {mine} {path}")
        steps.append(f"exec {command}")
        with open(self.folder / "output", "ab") as output:
            # pylint: disable-next=consider-using-with
            self.program = subprocess.Popen(
                ["ip", "netns", "exec", self.name, "unshare", "--mount", "sh", "-euc", "; ".join(steps)],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output)

    def inside(self, *words):
        """The command line for a program that sees what this node's program sees."""
        return ["nsenter", "-t", str(self.program.pid), "--net", "--mount", *words]

    def cut(self):
        run("ip", "-n", self.name, "link", "set", "eth0", "down")

    def mend(self):
        run("ip", "-n", self.name, "link", "set", "eth0", "up")


class Server(Node):
    def __init__(self, number):
        super().__init__(number)
        self.start(("/var/lib/glusterd", "/var/log/glusterfs", "/run", "/bricks"), "glusterd -N")

    def gluster(self, *words):
        return run(*self.inside("gluster", "--mode=script", *words))

    def answers(self):
        return subprocess.run(self.inside("gluster", "--mode=script", "pool", "list"), check=False,
                              capture_output=True).returncode == 0

    def brick(self):
        """The process that serves this server's brick, which its daemon has started."""
        found = subprocess.run(["pgrep", "-f", f"glusterfsd -s {address(self.number)} "], check=False,
                               capture_output=True, text=True).stdout.split()
        return int(found[0]) if found else None

    def files_below(self, folder):
        """What this server keeps of a folder of the volume."""
        found = run(*self.inside("sh", "-c", 'cd "$1" && find . -type f -exec sha256sum {} + | sort', "sh",
                                 folder.replace("/volume", "/bricks/v", 1)))
        return found.splitlines()

    def kill_brick(self):
        os.kill(self.brick(), signal.SIGKILL)
        wait_until("the killed brick is gone", lambda: self.brick() is None)


class Host(Node):
    """A host that has the volume mounted at /volume."""

    def mount(self):
        self.start(("/var/log/glusterfs", "/volume"),
                   f"glusterfs -N --volfile-server={address(1)} --volfile-id=v --attribute-timeout=0"
                   " --entry-timeout=0 /volume")
        wait_until(f"{self.name} has the volume mounted", self.is_mounted)

    def is_mounted(self):
        return subprocess.run(self.inside("mountpoint", "-q", "/volume"), check=False,
                              capture_output=True).returncode == 0

    def reaches(self):
        return subprocess.run(self.inside("ls", "/volume"), check=False, capture_output=True).returncode == 0

    def kill_client(self):
        """As a crash of the host: what it had mounted is gone, with all who used it."""
        self.program.kill()
        self.program.wait()


class Volume:
    def __init__(self):
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "bridge", "type", "bridge")
        run("ip", "link", "set", "bridge", "up")
        self.servers = [Server(number) for number in SERVERS]
        for server in self.servers:
            wait_until(f"{server.name} answers", server.answers)
        first = self.servers[0]
        for server in self.servers[1:]:
            first.gluster("peer", "probe", address(server.number))
        wait_until("the servers know each other",
                   lambda: first.gluster("pool", "list").count("Connected") == len(SERVERS))
        first.gluster("volume", "create", "v", "replica", str(len(SERVERS)),
                      *(f"{address(number)}:/bricks/v" for number in SERVERS), "force")
        self.set(OPTIONS)
        first.gluster("volume", "start", "v")
        self.hosts = [Host(number) for number in HOSTS]
        for host in self.hosts:
            host.mount()

    def set(self, options):
        self.servers[0].gluster("volume", "set", "v", *(word for pair in options.items() for word in pair))

    def start_bricks(self):
        """Those that are dead, until all are served and nothing waits to be healed."""
        if all(server.brick() for server in self.servers):
            return
        self.servers[0].gluster("volume", "start", "v", "force")
        wait_until("all bricks are served", lambda: all(server.brick() for server in self.servers))
        wait_until("the bricks are healed", self.is_healed, 60)
        wait_until("the hosts reach the volume", lambda: all(host.reaches() for host in self.hosts))

    def is_healed(self):
        subprocess.run(self.servers[0].inside("gluster", "volume", "heal", "v"), check=False, capture_output=True)
        told = subprocess.run(self.servers[0].inside("gluster", "volume", "heal", "v", "info", "summary"),
                              check=False, capture_output=True, text=True)
        counts = [line.split(":")[1].strip() for line in told.stdout.splitlines()
                  if line.startswith("Total Number of entries")]
        return counts == ["0"] * len(SERVERS)
