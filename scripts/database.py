# SPDX-License-Identifier: GPL-3.0-only
"""A private PostgreSQL server in a folder: on a free loopback port, with a user and a password of its own.

Everything lives in the folder: the data (data) and what clients need to connect (connection.json). PostgreSQL refuses
to run as root, so there the folder belongs to the user `postgres` (or `nobody`), who can reach it; otherwise it belongs
to the caller. The server has a record (processes.py) outside of the folder.
"""
import glob
import json
import os
import pwd
import secrets
import signal
import socket
import subprocess
import time

import processes

NAME = "pubsub"  # of the database and of its user
READY_SECONDS = 30
STOP_SECONDS = 10


def program(name):
    """The path of one of PostgreSQL's programs, which Debian installs outside of PATH."""
    found = glob.glob("/usr/lib/postgresql/*/bin/" + name)
    if not found:
        raise processes.Failed("PostgreSQL is not installed; install the package postgresql")
    return max(found, key=lambda path: int(path.split("/")[4]))


def identity():
    """The options of Popen under which the server runs."""
    if os.geteuid() != 0:
        return {}
    for name in ("postgres", "nobody"):
        try:
            user = pwd.getpwnam(name)
            return {"user": user.pw_uid, "group": user.pw_gid, "extra_groups": []}
        except KeyError:
            pass
    raise processes.Failed("there is no user postgres or nobody, and PostgreSQL does not run as root")


def hand_over(path, who):
    if who:
        os.chown(path, who["user"], who["group"])


def run(command, what, **options):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False, **options)
    if done.returncode != 0:
        raise processes.Failed(f"{what} failed:\n{done.stdout}")
    return done.stdout


def connection(folder):
    with open(folder + "/connection.json", encoding="ascii") as file:
        return json.load(file)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def create(folder):
    """Makes the server's data unless the folder has them already. The port stays the same from then on."""
    if os.path.exists(folder + "/connection.json"):
        return
    who = identity()
    os.makedirs(folder, mode=0o700, exist_ok=True)
    hand_over(folder, who)
    password = secrets.token_hex(16)
    file = folder + "/password"
    with open(os.open(file, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="ascii") as output:
        output.write(password)
    hand_over(file, who)
    try:
        run([program("initdb"), "-D", folder + "/data", "-U", NAME, "--pwfile=" + file, "-A", "scram-sha-256", "-E", "UTF8",
             "--locale=C.UTF-8", "--no-sync"], "making the database", cwd="/", **who)
    finally:
        os.unlink(file)
    known = {"server": "127.0.0.1", "port": free_port(), "database": NAME, "user": NAME, "password": password}
    with open(folder + "/connection.json", "w", encoding="ascii") as output:
        json.dump(known, output)


def start(folder, record, log):
    """Starts the server and creates the database if there is none yet."""
    known = connection(folder)
    settings = {"listen_addresses": "127.0.0.1", "port": known["port"], "unix_socket_directories": "",
                "max_connections": 200, "log_min_error_statement": "panic", "log_error_verbosity": "terse"}
    command = [program("postgres"), "-D", folder + "/data"]
    for name, value in settings.items():
        command += ["-c", f"{name}={value}"]
    deadline = time.monotonic() + READY_SECONDS
    # Processes of a killed server end when they notice it; until then another one refuses to start.
    while not attempt(folder, record, log, command):
        if time.monotonic() > deadline:
            raise processes.Failed(f"PostgreSQL did not start; its log is {log}")
        time.sleep(0.2)
    if query(folder, f"SELECT 1 FROM pg_database WHERE datname = '{NAME}'", "postgres").strip() != "1":
        query(folder, f"CREATE DATABASE {NAME}", "postgres")


def attempt(folder, record, log, command):
    try:
        processes.start(record, log, command, cwd="/", **identity())
        return processes.wait_ready(record, lambda: answers(folder), READY_SECONDS)
    except BaseException:  # interrupted: it must not be left running
        stop(record)
        raise


def answers(folder):
    try:
        query(folder, "SELECT 1", "postgres")
        return True
    except processes.Failed:
        return False


def stop(record):
    """A fast shutdown, which does not wait for clients."""
    processes.stop(record, STOP_SECONDS, signal.SIGINT)


def psql(folder, arguments, database=NAME):
    known = connection(folder)
    environment = dict(os.environ, PGHOST=known["server"], PGPORT=str(known["port"]), PGUSER=known["user"],
                       PGPASSWORD=known["password"], PGDATABASE=database, PGCONNECT_TIMEOUT="5")
    return run([program("psql"), "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", *arguments], "a statement",
               env=environment)


def query(folder, statement, database=NAME):
    """What the statement returns, as psql prints it without headings."""
    return psql(folder, ["-c", statement], database)


def load(folder, path):
    """Runs the statements of a file in one transaction."""
    psql(folder, ["-1", "-f", path])
