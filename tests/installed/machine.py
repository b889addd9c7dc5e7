# SPDX-License-Identifier: GPL-3.0-only
"""A Debian 12 of its own, booted in a container, with a private network and its own buses and users.

The root file system is made once and kept in build/machine, under a name for what it holds. A machine works on a layer
above it, so it starts clean and leaves nothing.
"""

import contextlib
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "scripts"))
import processes  # noqa: E402

PLACE = ROOT / "build" / "machine"
SUITE = "bookworm"
BOOTED = ("systemd", "systemd-sysv", "dbus", "dbus-user-session", "libpam-systemd", "ca-certificates")
TOOLS = ("ejabberd", "curl", "openssl", "procps", "python3", "python3-yaml", "python3-gi", "python3-cryptography")
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8", "HOME": "/root",
               "DEBIAN_FRONTEND": "noninteractive"}
BOOT_SECONDS = 90
REBOOTS = 133  # of a container that is kept in its unit: whoever started it starts it again


class Failed(AssertionError):
    """Something of the machine does not work; the text says what."""


class Unbooted(Failed):
    """The machine does not start."""


def why_not():
    """Why no machine can be booted here; None when one can."""
    if os.geteuid() != 0:
        return "only root can boot a machine"
    probe = subprocess.run(["unshare", "--mount", "--pid", "--net", "--fork", "--mount-proc", "true"],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if probe.returncode:
        return "namespaces cannot be made here: " + probe.stderr.strip()
    return None


def run(command, what, **more):
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", check=False, **more)
    if done.returncode:
        raise Failed(f"{what} failed with {done.returncode}:\n{done.stdout[-6000:]}")
    return done.stdout


def install_tools():
    run([ROOT / "scripts/install-packages", "systemd-container", "debootstrap", "dpkg-dev", "lintian"],
        "installing what boots a machine")


# --- packages

def packages():
    """The folder of the packages of this tree; they are built unless they are there."""
    install_tools()
    run([ROOT / "scripts/package", PLACE / "packages"], "building the packages")
    return PLACE / "packages"


def packages_again():
    """The folder of the same packages, built in another place, without a compiler cache, by another clock."""
    folder = PLACE / "packages-again" / "in-another-place"
    run(["sh", "-c", 'umask 077 && exec "$@"', "sh", ROOT / "scripts/package", folder], "building the packages again",
        env=dict(os.environ, CCACHE_DISABLE="1", TZ="Pacific/Kiritimati", LANG="C", HOME="/nonexistent"))
    return folder


def field(package, name):
    return run(["dpkg-deb", "-f", package, name], "reading a package").strip()


def product_of(folder):
    """What a machine gets, without the symbols for debuggers and the library for developers."""
    return sorted(path for path in folder.glob("*.deb") if "-dbgsym_" not in path.name and "-dev_" not in path.name)


def earlier(folder, version, target):
    """The packages again with a lower version, as an earlier release had them."""
    target.mkdir(parents=True, exist_ok=True)
    for package in product_of(folder):
        current = field(package, "Version")
        with tempfile.TemporaryDirectory(dir=PLACE) as unpacked:
            run(["dpkg-deb", "-R", package, unpacked], "unpacking a package")
            control = pathlib.Path(unpacked, "DEBIAN/control")
            control.write_text(control.read_text(encoding="utf-8").replace(f"Version: {current}\n", f"Version: {version}\n")
                               .replace(f"(= {current})", f"(= {version})"), encoding="utf-8")
            run(["dpkg-deb", "--root-owner-group", "-b", unpacked, target / f"{field(package, 'Package')}_{version}.deb"],
                "packing a package")
    return target


# --- the root file system

def base(folder):
    """The folder of a root file system with all that the packages need, made unless it is there."""
    depends = sorted({name for package in product_of(folder) for name in re.findall(
        r"[^,|]+", field(package, "Depends")) if "(= " not in name})
    key = hashlib.sha256(repr((SUITE, BOOTED, TOOLS, depends, pathlib.Path(__file__).read_text(encoding="utf-8")
                               .partition("def make_base")[2].partition("\n\n\n")[0])).encode()).hexdigest()[:16]
    kept = PLACE / f"base-{key}"
    if not kept.is_dir():
        for old in PLACE.glob("base-*"):
            shutil.rmtree(old)
        made = pathlib.Path(tempfile.mkdtemp(prefix="making-", dir=PLACE))
        try:
            make_base(made, folder)
            made.chmod(0o755)
            made.rename(kept)
        except BaseException:
            shutil.rmtree(made, ignore_errors=True)
            raise
    return kept


def mirror():
    """Where this machine gets the packages of the suite from."""
    sites = run(["apt-get", "indextargets", "--format", "$(SITE)", "Created-By: Packages", f"Codename: {SUITE}",
                 "Component: main"], "apt-get indextargets").split()
    if not sites:
        raise Failed(f"this machine gets no packages of {SUITE}; add it to the sources of apt")
    return sites[0]


def make_base(root, folder):
    run(["debootstrap", "--variant=minbase", "--include=" + ",".join(BOOTED), SUITE, root, mirror()], "debootstrap")
    quiet = root / "usr/sbin/policy-rc.d"  # nothing is started while it is made
    quiet.write_text("#!/bin/sh\nexit 101\n", encoding="ascii")
    quiet.chmod(0o755)
    inside = ["chroot", root, "env", "-i", *(f"{name}={value}" for name, value in ENVIRONMENT.items())]
    apt = [*inside, "apt-get", "install", "-q", "-y", "--no-install-recommends"]
    run([*apt, *TOOLS], "installing the tools")
    # The machine has no network: what the packages need is there already, in the cache of apt.
    debs = root / "debs"
    debs.mkdir()
    for package in product_of(folder):
        shutil.copy(package, debs)
    run([*apt, "--download-only", *("/debs/" + path.name for path in sorted(debs.iterdir()))],
        "fetching what the packages need")
    shutil.rmtree(debs)
    quiet.unlink()
    (root / "etc/machine-id").write_text("", encoding="ascii")  # each machine makes its own


# --- the machine

def why_not_booted(folder):
    """Why a machine without the packages does not boot here; None when it does."""
    try:
        bare = Machine(base(folder))
        try:
            bare.boot()
        finally:
            bare.stop()
    except Unbooted as error:
        return "systemd-nspawn boots no machine here: " + " ".join(str(error).split())
    return None


class Machine:
    """One booted machine; `stop` ends it and removes what it wrote."""

    def __init__(self, lower):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="run-", dir=PLACE))
        self.root = self.dir / "root"
        self._console = self.dir / "console"
        self._container = None
        for name in ("root", "upper", "work"):
            (self.dir / name).mkdir(mode=0o755)
        try:
            run(["mount", "-t", "overlay", "overlay", "-o",
                 f"lowerdir={lower},upperdir={self.dir / 'upper'},workdir={self.dir / 'work'}", self.root], "mounting")
        except Failed:  # a file system that cannot be a layer
            run(["cp", "-a", "--reflink=auto", f"{lower}/.", self.root], "copying the root file system")

    def boot(self):
        console = open(self._console, "ab")  # closed with the process that writes it
        with console:
            self._container = subprocess.Popen(
                ["systemd-nspawn", "--quiet", "-D", str(self.root), "--register=no", "--keep-unit", "--private-network",
                 "--capability=CAP_WAKE_ALARM", "--hostname=machine", "-b"],
                stdin=subprocess.DEVNULL, stdout=console, stderr=subprocess.STDOUT, start_new_session=True,
                env=dict(os.environ, SYSTEMD_NSPAWN_UNIFIED_HIERARCHY="1"))
        self.wait_booted()
        return self

    def leader(self):
        """The first process of the machine, as it is numbered outside; None when there is none."""
        path = pathlib.Path(f"/proc/{self._container.pid}/task/{self._container.pid}/children")
        with contextlib.suppress(OSError):
            return (path.read_text(encoding="ascii").split() or [None])[0]
        return None

    def wait_booted(self):
        """Until the machine has started all that it starts."""
        def up():
            if self._container.poll() is not None:
                raise Unbooted(f"the machine ended; its console:\n{self.console()}")
            state = self.leader() and self.output("systemctl", "is-system-running", check=False).strip()
            return state in ("running", "degraded")
        if not processes.wait_until(up, BOOT_SECONDS):
            raise Unbooted(f"not booted within {BOOT_SECONDS} s; its console:\n{self.console()}")

    def console(self):
        return self._console.read_text(encoding="utf-8", errors="replace")[-4000:]

    def run(self, *command, check=True, stdin="", user=None):
        """Runs a command in the machine; returns (exit status, output)."""
        leader = self.leader()
        if not leader:
            raise Failed(f"the machine does not run; its console:\n{self.console()}")
        words = ["nsenter", "-t", leader, "-m", "-u", "-i", "-n", "-p", "-C", "--", "env", "-i",
                 *(f"{name}={value}" for name, value in ENVIRONMENT.items())]
        if user:
            number = self.user_id(user)
            words += [f"HOME=/home/{user}", f"XDG_RUNTIME_DIR=/run/user/{number}",
                      f"DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/{number}/bus", "runuser", "-u", user, "--"]
        done = subprocess.run([*words, *map(str, command)], input=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, errors="replace", check=False, timeout=120, cwd="/")
        if check and done.returncode:
            raise Failed(f"{' '.join(map(str, command))} ended with {done.returncode}:\n{done.stdout[-4000:]}")
        return done.returncode, done.stdout

    def shell(self, text, **more):
        return self.run("sh", "-c", text, **more)

    def output(self, *command, **more):
        return self.run(*command, **more)[1]

    def user_id(self, user):
        found = re.search(rf"^{user}:[^:]*:(\d+):", self.path("etc/passwd").read_text(encoding="utf-8"), re.MULTILINE)
        if not found:
            raise Failed(f"the machine has no user {user}")
        return found[1]

    def path(self, name):
        return self.root / name.lstrip("/")

    def write(self, name, text, mode=0o644):
        path = self.path(name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        path.chmod(mode)

    def wait(self, condition, what, seconds=30):
        value = processes.wait_until(condition, seconds)
        if not value:
            raise Failed(f"not within {seconds} s: {what}")
        return value

    def install(self, folder, *options):
        """Installs what a folder has, with apt."""
        target = self.path("debs")
        shutil.rmtree(target, ignore_errors=True)
        target.mkdir()
        target.chmod(0o755)
        for package in product_of(folder):
            shutil.copy(package, target)
        names = ["/debs/" + path.name for path in sorted(target.iterdir())]
        return self.output("apt-get", "install", "-q", "-y", "--no-install-recommends", *options, *names)

    def reboot(self):
        self.run("systemctl", "reboot", check=False)
        try:
            status = self._container.wait(60)
        except subprocess.TimeoutExpired:
            raise Failed(f"the machine does not go down; its console:\n{self.console()}") from None
        if status != REBOOTS:
            raise Failed(f"the machine ended with {status}; its console:\n{self.console()}")
        self.boot()

    def main_pid(self, unit):
        return int(self.output("systemctl", "show", "-P", "MainPID", unit))

    def stop(self):
        if self._container and self._container.poll() is None:
            self._container.terminate()  # the machine powers off
            try:
                self._container.wait(20)
            except subprocess.TimeoutExpired:
                self._container.kill()
                self._container.wait()
        subprocess.run(["umount", str(self.root)], stdin=subprocess.DEVNULL, capture_output=True, check=False)
        shutil.rmtree(self.dir, ignore_errors=True)
