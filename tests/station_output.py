#!/usr/bin/python3
"""usage: tests/station_output.py BUILD

Checks what qcstation prints on a terminal and as JSON in real runs, and that it stops whatever happens to its output.
"""

import contextlib, fcntl, json, os, pty, re, shutil, signal, socket, sqlite3, struct, subprocess, sys, tempfile
import termios, threading, xml.etree.ElementTree
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
            replies = {b"FW": b"OK", b"INFO": info, b"BYE": b"BYE", b"PING": b"PING 2", b"MAC": b"MAC 4",
                       b"COUNTRY": b"OK"}
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


def on_terminal(talk, command):
    """Runs the command on a terminal of 80 x 24. Returns its output and its status. `talk` is a list of pairs: a
    pattern to wait for, and a function to call then; the text that the function returns is typed."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execvp(command[0], command)
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
    for infos in [good], [good] * 63 + [bad]:
        go = threading.Event()  # when a part of the payload has been counted
        talk = [(PORT, lambda found: serve(found[1], infos, go)),
                (r"\r\x1b\[\?7l1/3 +[1-9]\d? % FW KERNEL|connected from", lambda _: go.set())]
        output, status = on_terminal(talk, words(folder, "line", len(infos)))
        assert status == (bad in infos), output
        assert "\x1b[2J" not in output, "a board's reply erases the terminal"
        if bad in infos:
            assert len(re.findall(r"board \d+  PASS ", output)) == 63, output
            assert re.search(r"FAIL .*step 2/3 INFO: expected \"INFO\", got", output), output
            assert len(re.findall(r"\d+: INFO\r\n", output)) == 64, "each reply with its place"


def check_questions(folder):
    """After a wrong answer the same place asks again, even when another one waits."""
    place = []
    talk = [(PORT, lambda found: serve(found[1], [b"", b""])),
            (r"(board \d): Scan > ", lambda found: place.append(found[1]) or "oops\n"),
            (r"(board \d): .*\"oops\".* > ", lambda found: place.append(found[1]) or "SN1\n"),
            (r"board \d: Scan > ", lambda _: "SM\x7f\x15SN2\n")]
    output, status = on_terminal(talk, words(folder, "question", 2))
    units = {"board " + record["place"]["name"]: record["unit"] for record in records(folder, "question")}
    assert status == 0 and place[0] == place[1] and units[place[0]] == "SN1", output
    assert set(units.values()) == {"SN1", "SN2"}, units


def check_unanswered(folder):
    """A plan that asks does not start where nobody can answer."""
    with open(f"{folder}/serve.yaml", "w") as file:
        file.write("{places: 1, plan: question.yaml}")
    with open(f"{folder}/badge.yaml", "w") as file:
        file.write("{places: 1, plan: line.yaml, operator: {prompt: Badge}}")
    for command in words(folder, "question", 1, "--json"), words(folder, "question", 1), \
            [QCSTATION, "serve", f"{folder}/serve.yaml"], [QCSTATION, "serve", f"{folder}/badge.yaml"]:
        ended = subprocess.run(command, capture_output=True, text=True, timeout=60)
        assert ended.returncode == 2 and "give the line a page" in ended.stderr, ended


def line_of(folder, plan, more="", places=1, **how):
    """Starts a line. Returns the process and its port."""
    with open(f"{folder}/serve.yaml", "w") as file:
        file.write(f"{{listen: '127.0.0.1:1', places: {places}, plan: {plan}, {more}}}".replace(":1'", f":{free_port()}'"))
    port = re.search(r":(\d+)'", open(f"{folder}/serve.yaml").read())[1]
    station = subprocess.Popen([QCSTATION, "serve", "--json", f"{folder}/serve.yaml"], stdout=subprocess.PIPE, **how)
    while b"line_starts" not in station.stdout.readline():
        pass
    return station, int(port)


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


def knock(port):
    """Connects as a stranger. Returns when the station has reported that and closed the connection."""
    with socket.socket() as stranger:
        stranger.setsockopt(socket.IPPROTO_IP, socket.IP_TTL, 255)  # not dropped while the place looks at another one
        stranger.connect(("127.0.0.1", port))
        stranger.sendall(b"?" * 64)
        while stranger.recv(64):
            pass


def check_shift(folder):
    """Who works is asked once and recorded; units that fail one after the other hold their place."""
    port = free_port()
    with open(f"{folder}/shift.yaml", "w") as file:
        file.write(f"{{listen: '127.0.0.1:{port}', places: 1, plan: info.yaml, "
                   "results: shift, operator: {prompt: Badge, match: '^[0-9]+$'}, hold_after: 2, "
                   "reference: {serial: GOLD, hours: 1}}")
    with open(f"{folder}/info.yaml", "w") as file:
        file.write("[{send: INFO, match: '^I am (?P<serial>.*)$'}, {send: BYE, expect: BYE, closes: true}]")
    talk = [("waiting for boards", lambda _: serve(port, [b"I am GOLD"])), (r"Badge > ", lambda _: "me\n"),
            (r'"me" does not look right: .*Badge > ', lambda _: "17\n"), (r"PASS ", lambda _: serve(port, [b"bad"])),
            (r"FAIL ", lambda _: serve(port, [b"bad"])), (r"board 1 is held: 2 runs in a row failed", lambda _: "\x03")]
    output, status = on_terminal(talk, [QCSTATION, "serve", f"{folder}/shift.yaml"])
    assert status == 0 and [record["operator"] for record in records(folder, "shift")] == ["17"] * 3, output
    assert [record["verdict"] for record in records(folder, "shift") if record.get("reference")] == ["passed"], output


def check_unread_output(folder):
    """A stop does not wait for a reader that has stopped reading."""
    station, port = line_of(folder, "slow.yaml", places=32)
    fcntl.fcntl(station.stdout, fcntl.F_SETPIPE_SZ, 4096)
    for _ in range(32):  # of whose events less than half fit into the pipe
        board(port, b"", None)
    station.send_signal(signal.SIGTERM)
    assert station.wait(60) == 4
    events = [json.loads(line) for line in station.stdout.read().decode().splitlines(True) if line.endswith("\n")]
    assert "run" in events[-1], events[-1]


def check_strangers(folder):
    """A flood of strangers is a line a second, and each of them is counted. One that resets at once has an address."""
    station, port = line_of(folder, "line.yaml")
    with socket.create_connection(("127.0.0.1", port)) as hasty:
        hasty.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    for _ in range(300):
        knock(port)
    station.send_signal(signal.SIGTERM)
    told = [event for event in map(json.loads, station.communicate(timeout=60)[0].splitlines())
            if event["event"] == "stranger_refused"]
    counted = sum(1 + int((re.search(r"\((\d+) more", event["why"]) or "00")[1]) for event in told)
    assert counted == 301 and len(told) < 100, told
    assert all(event["peer"].startswith("127.0.0.1:") for event in told), told


def check_signals(folder):
    """Neither a silent store delays a stop, nor a full standard error the second signal."""
    station, port = line_of(folder, "slow.yaml")
    with socket.create_server(("127.0.0.1", 0)) as database:
        with open(f"{folder}/serve.yaml", "w") as file:
            file.write(f"{{places: 1, plan: slow.yaml, spool: s, store: 'postgresql://127.0.0.1:{database.getsockname()[1]}/x'}}")
        station.send_signal(signal.SIGHUP)
        database.accept()
        station.send_signal(signal.SIGTERM)
        assert station.wait(60) == 0
    with open(f"{folder}/slow.yaml", "w") as plan:
        plan.write("{probe: false, steps: [{send: PING, expect: PING 2, timeout: 3600}]}")
    reader, full = os.pipe()
    station, port = line_of(folder, "slow.yaml", stderr=full)
    os.set_blocking(full, False)
    with contextlib.suppress(BlockingIOError):
        while os.write(full, b"x"):
            pass
    os.set_blocking(full, True)
    with socket.create_connection(("127.0.0.1", port)) as silent:
        for awaited in b"step_starts", b"line_stops":
            while awaited not in station.stdout.readline():
                pass
            station.send_signal(signal.SIGTERM)
        assert station.wait(60) == 5
    os.close(reader)


def check_examples(folder):
    """The examples work as they are, except for the line's addresses and interfaces, which are this machine's."""
    line, port = f"{folder}/examples/line", free_port()
    shutil.copytree(f"{ROOT}/examples", f"{folder}/examples")
    output, status = on_terminal([(PORT, lambda found: serve(found[1], [b"INFO \n"]))],
                                 words(folder, "examples/first-plan", 1))
    assert status == 0, output
    text = open(f"{line}/line.yaml").read()
    text = re.sub(r"(?ms)^places:.*^(?=plan:)", f"listen: 127.0.0.1:{port}\nplaces: 1\n", text)
    with open(f"{line}/line.yaml", "w") as file:
        file.write(re.sub(r"(?m)^page:.*\n", "", text))
    os.environ.update(LABEL_COMMAND=f"tee -a {folder}/labels", ADMITTED=f"{folder}/admitted")
    with open(f"{folder}/admitted", "w") as file:
        file.write("SN01\n")
    for command in ["init"], ["pool", "add", "02:00:00:00:00:00", "02:00:00:00:0F:FF", "--line"]:
        subprocess.run([QCSTATION, *command, f"{line}/line.yaml"], check=True, capture_output=True)
    report = b"INFO \n Memory: 125952 kB \n Wire MAC 1: 02:00:00:00:00:00 \n\0"
    talk = [(r"waiting", lambda _: serve(port, [report])), (r"Scan .*> ", lambda _: "SN-1\n"),
            (r"SN-1.*> ", lambda _: "SN02\n"), (r"FAIL.*SN02 has no order", lambda _: serve(port, [report])),
            (r"Scan .*> ", lambda _: "SN01\n"), (r"PASS", lambda _: "\x03")]
    output, status = on_terminal(talk, [QCSTATION, "serve", f"{line}/line.yaml"])
    assert status == 0, output
    assert open(f"{folder}/labels").read() == "AP-2\nSerial: SN01\nMAC: 02:00:00:00:00:00\n", output


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
        report = open(f"{folder}/line/line-{record['id']}-{record['place']['name']}.xml").read()
        assert f'failures="{int(record["verdict"] == "failed")}" errors="0"' in report, report


def check_death(folder):
    """Whoever kills the station before the command after a run has ended: nothing says that the run passed."""
    done, over = os.pipe()
    station, port = line_of(folder, "line.yaml", f"results: after, store: after.db, after: 'echo > /dev/fd/{over}; read'",
                            pass_fds=[over])
    serve(port, [b"INFO"])
    os.read(done, 1)
    station.kill()
    station.wait()
    station, _ = line_of(folder, "line.yaml", "results: after, store: after.db")
    station.send_signal(signal.SIGTERM)
    station.wait(60)
    files = {file.name.rsplit(".")[-1]: open(file.path).read() for file in os.scandir(f"{folder}/after")}
    assert re.search(r"^AGAIN .*died", files["log"], re.M), files["log"]
    suite = xml.etree.ElementTree.fromstring(files["xml"])[0]
    assert [suite.get(count) for count in ("failures", "errors")] == ["0", "1"], files["xml"]
    assert (record := json.loads(files["json"]))["verdict"] == "failed" and record["cause"] == "station", record
    assert list(sqlite3.connect(f"{folder}/after.db").execute("SELECT verdict, cause, ended FROM runs")) == [
        ("interrupted", "station", None)]


with tempfile.TemporaryDirectory() as scratch:
    for name, text in [("line", PLAN), ("question", QUESTION)]:
        with open(f"{scratch}/{name}.yaml", "w") as plan:
            plan.write(text)
    with open(f"{scratch}/{LONG}", "wb") as payload:
        payload.truncate(16 << 20)
    with open(f"{scratch}/slow.yaml", "w") as plan:
        plan.write("[{send: PING, expect: PING 2, timeout: 3600}]")
    for check in (check_schemas, check_questions, check_shift, check_unanswered, check_terminal, check_unread_output, check_strangers,
                  check_signals, check_examples, check_death):
        check(scratch)
