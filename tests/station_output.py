#!/usr/bin/python3
"""Holds what qcstation prints, on a terminal and as JSON, against a real run. usage: tests/station_output.py BUILD"""

import fcntl, json, os, pty, re, socket, struct, subprocess, sys, tempfile, termios, threading
import jsonschema

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
QCSTATION = os.path.join(os.path.abspath(sys.argv[1]), "qcstation")
LONG = "a-kernel-with-the-long-name-of-a-release-that-is-wider-than-a-terminal-of-eighty-columns.bin"
PLAN = f"""
- {{send: 'FW KERNEL {{size}}', upload: {LONG}, expect: OK, timeout: 60}}
- {{send: INFO, expect: INFO, show: true}}
- {{send: BYE, expect: BYE, closes: true}}
"""
QUESTION = """
- {ask: serial, prompt: Scan, match: '^SN[0-9]$'}
- {send: BYE, expect: BYE, closes: true}
"""
PORT = r"on 127.0.0.1:(\d+)\s"


def board(port, info, go):
    """Answers every command; takes the payload once `go` is set."""
    with socket.create_connection(("127.0.0.1", port)) as station:
        while command := station.recv(64, socket.MSG_WAITALL):
            word, *rest = command.rstrip(b"\0").split()
            if word == b"FW":
                go.wait(30)
                station.recv(int(rest[-1]), socket.MSG_WAITALL)
            replies = {b"FW": b"OK", b"INFO": info, b"BYE": b"BYE"}
            station.sendall(replies.get(word, b"UNKNOWN").ljust(64, b"\0"))
            if word == b"BYE":
                return


def serve(port, infos, go=None):
    """Starts a board for each of `infos`."""
    ready = threading.Event()
    ready.set()
    for info in infos:
        threading.Thread(target=board, args=(int(port), info, go or ready), daemon=True).start()


def words(folder, plan, boards, *more):
    return [QCSTATION, "run", f"{folder}/{plan}.yaml", "--listen", "127.0.0.1", "--port", "0", "--boards", str(boards),
            "--results", f"{folder}/{plan}", *more]


def records(folder, plan):
    return [json.load(open(file.path)) for file in os.scandir(f"{folder}/{plan}") if file.name.endswith(".json")]


def on_terminal(talk, command, **environment):
    """What the command writes to a terminal of 80 x 24, and its status. `talk` has, in order, what is waited for, and
    what is done then; what that returns is typed."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execvpe(command[0], command, {**os.environ, **environment})
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
    output, seen = "", 0
    while True:
        try:
            output += os.read(terminal, 65536).decode(errors="replace")
        except OSError:
            break
        if talk and (found := re.search(talk[0][0], output[seen:])):
            seen += found.end()
            os.write(terminal, (talk.pop(0)[1](found) or "").encode())
    assert not talk, f"{talk[0][0]} is not in {output}"
    return output, os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


def check_terminal(folder):
    good, bad = b"INFO", b"INFO \xff\x1b[2J"
    for infos, no_colour in [([good], "1"), ([good] * 63 + [bad], "")]:
        go = threading.Event()  # when a part of the payload has been counted
        talk = [(PORT, lambda found: serve(found[1], infos, go)),
                (r"\[#*-+\] +[1-9]\d? % +\d+ s  1/3 FW KERNEL .*\.\.", lambda _: go.set())]
        output, status = on_terminal(talk, words(folder, "line", len(infos)), XDG_CACHE_HOME=folder, NO_COLOR=no_colour)
        assert bool(no_colour) != bool(re.search(r"\x1b\[(1;)?(3[12]m|30;42m|97;41m)", output)), output
        assert status == (bad in infos), output
        for line in output.split("\n"):
            shown = re.sub(r"\x1b\[[?\d;]*[A-Za-z]|\r", "", line)
            long = any(mark in shown for mark in (" ->  ", "step 2/3", ": warning: "))
            assert len(shown) <= 80 or long, f"{len(shown)} columns: {shown}"
        assert "\x1b[2J" not in output, "a board's reply erases the display"
        assert all(int(rows) < 24 for rows in re.findall(r"\x1b\[(\d+)A", output)), output
        if bad in infos:
            assert re.search(r"64 places: +0 waiting  0 in work  0 asking  63 passed  1 failed", output), output
            assert re.search(r"FAIL .*step 2/3 INFO: expected \"INFO\", got", output), output
            assert len(re.findall(r"\d+: INFO\r\n", output.replace("\x1b[K", ""))) == 64, "each reply with its place"


def check_questions(folder):
    """A wrong answer is asked for again at the same place, whoever waits besides."""
    place = []
    talk = [(PORT, lambda found: serve(found[1], [b"", b""])),
            (r"(board \d) \(1 more wait\): Scan > ", lambda found: place.append(found[1]) or "oops\n"),
            (r"(board \d) \(1 more wait\): .*\"oops\".* > ", lambda found: place.append(found[1]) or "SN1\n"),
            (r"board \d: Scan > ", lambda _: "SM\x7f\x15SN2\n")]
    output, status = on_terminal(talk, words(folder, "question", 2), XDG_CACHE_HOME=folder)
    units = {"board " + record["place"]["name"]: record["unit"] for record in records(folder, "question")}
    assert status == 0 and place[0] == place[1] and units[place[0]] == "SN1", output
    assert set(units.values()) == {"SN1", "SN2"}, units


def check_schemas(folder):
    schemas = {name: json.load(open(f"{ROOT}/docs/{name}.schema.json")) for name in ("event", "record")}
    stored = {f"{name}.schema.json": schema for name, schema in schemas.items()}

    def validator(name):
        resolver = jsonschema.RefResolver.from_schema(schemas[name], store=stored)
        return jsonschema.Draft202012Validator(schemas[name], resolver=resolver)

    station = subprocess.Popen(words(folder, "line", 2, "--json"), text=True, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)
    while not (found := re.search(PORT, station.stderr.readline())):  # the plan's warnings come first
        pass
    serve(found[1], [b"INFO", b"\xff"])
    events = [json.loads(line) for line in station.communicate()[0].splitlines()]
    for event in events:
        validator("event").validate(event)
        assert not validator("event").is_valid({**event, "event": "party"})
    seen = {event["event"] for event in events}
    assert seen >= {"board_connects", "step_starts", "progress", "step_ends", "board_ends"}, seen
    known = {shape["properties"]["event"]["const"] for shape in schemas["event"]["oneOf"]}
    told = set(re.findall(r'line\("(\w+)"', open(f"{ROOT}/station/run/events.cc").read()))
    assert known == told, known ^ told
    assert sorted(record["verdict"] for record in records(folder, "line")) == ["failed", "passed"]
    for record in records(folder, "line"):
        validator("record").validate(record)


with tempfile.TemporaryDirectory() as scratch:
    for name, text in [("line", PLAN), ("question", QUESTION)]:
        with open(f"{scratch}/{name}.yaml", "w") as plan:
            plan.write(text)
    with open(f"{scratch}/{LONG}", "wb") as payload:
        payload.truncate(16 << 20)
    check_schemas(scratch)
    check_questions(scratch)
    check_terminal(scratch)
