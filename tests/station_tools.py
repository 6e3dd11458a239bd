#!/usr/bin/python3
"""usage: tests/station_tools.py BUILD

Checks qcstation's commands that serve no board: their arguments, which store they take, what "check" finds on a line
and "init" makes for one. Root tries the service's user and PostgreSQL, too.
"""

import glob, os, re, shlex, signal, socket, sqlite3, subprocess, sys, tempfile
from line_box import ROOT, await_line, free_port, write

QCSTATION = os.path.join(os.path.abspath(sys.argv[1]), "qcstation")
PLAN = "[{send: PING, match: '^PING'}, {send: INFO, match: '^INFO'}]"


def call(*arguments, status=0, **environment):
    ended = subprocess.run([QCSTATION, *arguments], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           env={"PATH": os.environ["PATH"], **environment}, timeout=60)
    assert ended.returncode == status, f"{arguments}: {ended.returncode} {ended.stdout}"
    return ended.stdout


def check_choice_of_store():
    """--store, then --line, then the environment; what changes a store says which."""
    write("stored.yaml", "{places: 1, plan: not-read.yaml, store: b.db}")
    choices = [("a", ["--store", "a.db", "--line", "stored.yaml"]), ("b", ["--line", "stored.yaml"]), ("c", [])]
    for name, _ in choices: call("store", "upgrade", "--store", f"{name}.db")
    for name, how in choices:
        changed = call("pool", "add", "02:00:00:00:00:00", "02:00:00:00:00:00", *how, QCSTATION_STORE="c.db")
        assert f"{name}.db: pool mac" in changed, changed


def check_arguments():
    wrong = ["nope", "run nope.yaml", "run --listen here plan.yaml", "discover lo --board x",
             "runs --since 2026-02-30", "runs --until 25:00", "runs --limit -1", "archive --before x --to y",
             "pool add 02:00:00:00:00:00 x", "pool import nope", "summary --table x", "show X", "export out nope"]
    for arguments in wrong: call(*arguments.split(), status=2, QCSTATION_STORE="c.db")
    call("pool", "list", "--line", "nope.yaml", status=2)
    write("asks.yaml", "[{ask: serial, prompt: Scan}]")  # where nobody can answer
    write("who.yaml", "{places: 1, plan: plan.yaml, operator: {prompt: Badge}}")
    for arguments in "run asks.yaml --json", "run asks.yaml", "serve who.yaml":
        assert "give the line a page" in call(*arguments.split(), status=2), arguments
    call("discover", "nope", status=3)


def line_of(**changes):
    """Writes a line without a fault, but for these keys."""
    keys = {"listen": f"127.0.0.1:{free_port()}", "places": 1, "plan": "plan.yaml", "results": "line/results",
            "store": "line/line.db", "page": free_port(), "before": "sh ok.sh", **changes}
    lines = "".join(f"{key}: {value}\n" for key, value in keys.items() if value)
    with open("line.yaml", "wb") as file: file.write(lines.encode(errors="surrogateescape"))


def files():
    found = glob.glob("**", recursive=True)
    return {name: (os.stat(name).st_mtime_ns, os.stat(name).st_size) for name in found if os.path.isfile(name)}


def check_line():
    """Each line has one fault, which is found; nothing is changed."""
    line_of()
    call("init", "line.yaml")
    call("pool", "add", "02:00:00:00:00:00", "02:00:00:00:00:0F", "--line", "line.yaml")
    write("plain.sh", "exit 0")
    write("taking.yaml", "[{ask: serial, prompt: Scan}, {send: 'MAC {mac}', expect: MAC 4}]")
    write("wrong.yaml", "[{send: PING, match: '('}]")
    write("pinned.yaml", "[{send: 'FW KERNEL {size}', upload: ok.sh, expect: OK, sha256: '" + "0" * 64 + "'}]")
    with sqlite3.connect("newer.db") as newer:
        newer.executescript("CREATE TABLE schema_version (version); INSERT INTO schema_version VALUES (99);")
    newer.close()
    for name, words in ("none", "[]"), ("more", '{"nope": "x"}'), ("few", '{"took": "{tim}"}'):
        write(f"{name}.json", words)
    speaking = lambda words: {"page": f"{{listen: {free_port()}, language: {words}.json}}"}
    taken, silent = socket.create_server(("127.0.0.1", 0)), socket.create_server(("127.0.0.1", 0))
    cases = [({}, 0, "no faults, no warnings"),
             ({"listen": "here"}, 2, 'line.yaml:1:9: "here" is not an IPv4 address'),
             ({"plan": "Pr\udcfcf.yaml"}, 2, "line.yaml:3:9: this is not UTF-8"),
             ({"results": "~/results"}, 2, "line.yaml:4:10: '~' stands for a home folder"),
             ({"listen": "192.0.2.1"}, 1, "no interface has the address"),
             ({"places": "[{interface: nope}]"}, 1, "no place can take a board"),
             ({"places": "[{interface: nope}, {interface: lo}]"}, 0, "there is no interface nope"),
             ({"page": taken.getsockname()[1]}, 1, "fault    page"),
             (speaking("nope"), 1, "cannot read nope.json"),
             (speaking("none"), 1, "expected a file of words in JSON"),
             (speaking("more"), 0, 'not used by the page: nope'),
             (speaking("few"), 0, '"took" must have {time}, as'),
             ({"page": None, "operator": "{prompt: Badge}"}, 0, '"operator" of the line asks: without a page'),
             ({"before": "./plain.sh 1"}, 1, "cannot run ./plain.sh"),
             ({"after": "no-such-program | cat"}, 1, "cannot run no-such-program"),
             ({"after": "'echo \"'"}, 2, "the shell does not understand"),
             ({"after": "'[ $QC_VERDICT = passed ]'"}, 0, "no faults"),
             ({"results": "plan.yaml/results"}, 1, "plan.yaml is not a folder"),
             ({"store": "newer.db"}, 1, "made by a newer program"),
             ({"store": "new/line.db"}, 0, "is not there yet"),
             ({"store": f"postgresql://127.0.0.1:{silent.getsockname()[1]}/x", "spool": "s"}, 1, "fault    store"),
             ({"store": "postgresql:///x"}, 2, 'a server needs "spool"'),
             ({"plan": "taking.yaml"}, 0, "enough for 4 units: fill it"),
             ({"plan": "wrong.yaml"}, 2, "wrong.yaml:1:22"),
             ({"plan": "pinned.yaml"}, 2, "pinned.yaml:1:")]
    for changes, status, found in cases:
        line_of(**changes)
        before = files()
        said = call("check", "line.yaml", status=status)
        assert found in said, f"{changes}: {said}"
        assert files() == before, changes
    line_of()
    station = subprocess.Popen([QCSTATION, "serve", "line.yaml"], stdout=subprocess.PIPE, text=True)
    await_line(station, "waiting for boards")
    assert "in use" in call("check", "line.yaml")
    station.send_signal(signal.SIGTERM)
    assert station.wait(60) == 0


def check_init():
    """What is made is the service's; "check" says how to mend what root has made; the second time nothing is done."""
    line_of(store="root/line.db", results="made/results", before=None)
    user = ["--user", "nobody"] if os.getuid() == 0 else []
    if user:
        os.mkdir("root")
        call("store", "upgrade", "--line", "line.yaml")
        assert "init, run as root, makes it" in call("check", "line.yaml", *user, status=1)
        assert "qcstation check line.yaml says more" in call("init", "line.yaml", *user, status=4)
    while user and (mend := re.search("cannot write .* As root: (.*)", subprocess.run(
            [QCSTATION, "check", "line.yaml", *user], text=True, stdout=subprocess.PIPE).stdout)):
        subprocess.run(shlex.split(mend[1]), check=True)
    assert ("made/results made" in call("init", "line.yaml", *user)) != bool(user)
    assert call("init", "line.yaml", *user).startswith("all is there")
    assert "no faults" in call("check", "line.yaml", *user)


def check_init_of_postgresql():
    """As the documents say: a role for the service, whose the database is. To read its tables is not enough."""
    os.mkdir("server")
    server = subprocess.Popen([f"{ROOT}/tests/postgresql", "server"])
    url = f"postgresql:///line?host={os.getcwd()}/server"
    psql = ["psql", "-qd", f"postgresql:///postgres?host={os.getcwd()}/server&user=station", "-c"]
    while subprocess.run([*psql, "CREATE ROLE nobody LOGIN"], stderr=subprocess.DEVNULL).returncode:
        assert server.poll() is None
    for name, sql in ("line", "OWNER nobody"), ("other", ""):
        subprocess.run([*psql, f"CREATE DATABASE {name} {sql}"], check=True)
    line_of(store=url, results="made/results", spool="made/spool", before=None)
    assert "tables made" in call("init", "line.yaml", "--user", "nobody")
    assert "no faults" in call("check", "line.yaml", "--user", "nobody")
    other = url.replace("/line?", "/other?")
    call("store", "upgrade", "--store", other + "&user=station")
    line_of(store=other, results="made/results", spool="made/spool", before=None)
    subprocess.run(["psql", "-qd", other + "&user=station", "-c", "GRANT SELECT ON ALL TABLES IN SCHEMA public TO nobody"],
                   check=True)
    assert "GRANT ALL" in call("check", "line.yaml", "--user", "nobody", status=1)
    server.send_signal(signal.SIGINT)
    server.wait(60)


with tempfile.TemporaryDirectory() as scratch:
    os.chdir(scratch)
    os.chmod(scratch, 0o755)
    write("plan.yaml", PLAN)
    write("ok.sh", "exit 0")
    as_root = [check_init_of_postgresql] if os.getuid() == 0 else []
    for check in check_choice_of_store, check_arguments, check_line, check_init, *as_root: check()
    os.chdir("/")
