"""A copy of this machine to try commands in: what is written there is gone with it, and its network is its own."""

import contextlib
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from processes import REPO

sys.path.append(str(REPO / "scripts"))

from fresh_root import MOUNTS, Failed, FreshRoot  # noqa: E402

# "$1" is a folder of ours, "$2" a folder whose files are added, "$3" the sources.
_COPY = """set -e
mount -t tmpfs -o mode=755 tmpfs "$1"
mkdir "$1/upper" "$1/work" "$1/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"
cp -a "$2/." "$1/root/"
mount -t tmpfs -o mode=1777 tmpfs "$1/root/tmp"
mount -t tmpfs -o mode=755 tmpfs "$1/root/run"
mkdir -p "$1/root/$3"
mount --bind -o ro "$3" "$1/root/$3"
"""


def can_be_made():
    """Whether this machine lets us; root in a container often may not."""
    return subprocess.run(["unshare", "--mount", "--net", "--pid", "--fork", "sh", "-c",
                           "mount -t tmpfs tmpfs /mnt && mkdir /mnt/u /mnt/w && mount -t overlay overlay "
                           "-o lowerdir=/etc,upperdir=/mnt/u,workdir=/mnt/w /etc"],
                          capture_output=True, check=False).returncode == 0


class CopiedRoot(FreshRoot):
    """`added` is a folder with files that it has beside those of this machine."""

    def __init__(self, added):
        self._base = Path(tempfile.mkdtemp(prefix="trabex-copy-"))
        super().__init__(self._base / "root")
        self._added = added
        self._networks = []

    def path(self, inside):
        return Path(f"/proc/{self._first}/root") / inside.lstrip("/")

    def claim(self):
        """Nobody else has this folder."""

    def make(self):
        self._open_namespaces()
        for script, arguments in ((_COPY, (self._base, self._added, REPO)), (MOUNTS, (self._folder,))):
            done = self._enter(["sh", "-c", script, "sh", *arguments], seconds=60)
            if done.returncode != 0:
                raise Failed(f"no copy of this machine could be made:\n{done.stdout}")

    def add_network(self, own, its):
        """A second network beside that of isolate_network(): a cable leads to it, with these addresses at its ends."""
        holder = subprocess.Popen(["unshare", "--net", "--kill-child", "sh", "-c", "echo there; cat"],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
        holder.stdout.readline()
        self._networks.append(holder)
        for network, words in (
                (self._network, f"link add cable type veth peer name cable netns {holder.pid}"),
                *((self._network, f"address add {address} dev cable") for address in own),
                (self._network, "link set cable up"), (holder, "link set lo up"),
                *((holder, f"address add {address} dev cable") for address in its), (holder, "link set cable up")):
            subprocess.run(["nsenter", f"--net=/proc/{network.pid}/ns/net", "ip", *words.split()], check=True)
        return holder

    @contextlib.contextmanager
    def in_network(self, network):
        """What is started in here is started in that network; None is the usual one."""
        usual, self._network = self._network, network or self._network
        try:
            yield
        finally:
            self._network = usual

    def remove(self):
        for network in self._networks:
            network.communicate()
        self.end_all()
        shutil.rmtree(self._base, ignore_errors=True)
