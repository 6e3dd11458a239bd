#!/usr/bin/python3
"""usage: tests/station_tools.py BUILD

Checks qcstation's commands that serve no board: their arguments and times, and which store they take.
"""

import os, subprocess, sys, tempfile

QCSTATION = os.path.join(os.path.abspath(sys.argv[1]), "qcstation")
PLAN = "[{send: PING, match: '^PING'}, {send: INFO, match: '^INFO'}]"


def call(*arguments, status=0, **environment):
    ended = subprocess.run([QCSTATION, *arguments], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           env={"PATH": os.environ["PATH"], **environment}, timeout=60)
    assert ended.returncode == status, f"{arguments}: {ended.returncode} {ended.stdout}"
    return ended.stdout


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


def check_choice_of_store():
    """--store, then --line, then the environment; what changes a store says which."""
    write("stored.yaml", "{places: 1, plan: not-read.yaml, store: b.db}")
    choices = [("a", ["--store", "a.db", "--line", "stored.yaml"]), ("b", ["--line", "stored.yaml"]), ("c", [])]
    for name, _ in choices:
        call("store", "upgrade", "--store", f"{name}.db")
    for name, how in choices:
        changed = call("pool", "add", "02:00:00:00:00:00", "02:00:00:00:00:00", *how, QCSTATION_STORE="c.db")
        assert f"{name}.db: pool mac" in changed, changed


def check_arguments():
    wrong = ["nope", "run nope.yaml", "run --listen here plan.yaml", "discover udp:a:b", "discover lo --board x",
             "runs --since 2026-02-30", "runs --until 25:00", "runs --limit -1", "archive --before x --to y",
             "pool add 02:00:00:00:00:00 x", "pool import nope", "summary --table x", "show X", "export out nope"]
    for arguments in wrong:
        call(*arguments.split(), status=2, QCSTATION_STORE="c.db")
    call("pool", "list", "--line", "nope.yaml", status=2)
    call("discover", "nope", status=3)


with tempfile.TemporaryDirectory() as scratch:
    os.chdir(scratch)
    write("plan.yaml", PLAN)
    for check in check_choice_of_store, check_arguments:
        check()
    os.chdir("/")
