#!/usr/bin/python3
"""usage: tests/station_output.py BUILD

Checks what qcstation prints on a terminal and as JSON in real runs, and that it stops whatever happens to its output.
"""

import contextlib, fcntl, json, os, pty, re, select, shutil, signal, socket, struct, subprocess, sys, tempfile
import termios, threading, time
import jsonschema
from line_box import ROOT, await_line, converse, free_port, read, write

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


def visit(port, info="", go=None):
    """Plays a board that reports `info`."""
    with socket.create_connection(("127.0.0.1", int(port))) as station:
        converse(station, {"FW": "OK", "INFO": info, "MAC": "MAC 4", "COUNTRY": "OK"}, go=go)


def serve(port, infos, go=None):
    """Starts a board for each of `infos`."""
    for info in infos: threading.Thread(target=visit, args=(port, info, go), daemon=True).start()


def words(folder, plan, boards, *more):
    return [QCSTATION, "run", f"{folder}/{plan}.yaml", "--listen", "127.0.0.1", "--port", "0", "--boards", str(boards),
            "--results", f"{folder}/{plan}", *more]


def records(folder, plan):
    return [json.load(open(file.path)) for file in os.scandir(f"{folder}/{plan}") if file.name.endswith(".json")]


def on_terminal(talk, command):
    """Runs the command on a terminal of 80 x 24. Returns its output and its status. `talk` is a list of pairs: a
    pattern to wait for, and a function to call then; the text that the function returns is typed."""
    pid, terminal = pty.fork()
    if pid == 0: os.execvp(command[0], command)
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
    output, seen = "", 0
    while True:
        try: output += os.read(terminal, 65536).decode(errors="replace")
        except OSError: break
        if talk and (found := re.search(talk[0][0], output[seen:])):
            seen += found.end()
            os.write(terminal, (talk.pop(0)[1](found) or "").encode())
    assert not talk, f"{talk[0][0]} is not in {output}"
    return output, os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


def check_terminal(folder):
    good, bad = "INFO", "INFO \udcff\x1b[2J"
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
    talk = [(PORT, lambda found: serve(found[1], ["", ""])),
            (r"(board \d): Scan > ", lambda found: place.append(found[1]) or "oops\n"),
            (r"(board \d): .*\"oops\".* > ", lambda found: place.append(found[1]) or "SN1\n"),
            (r"board \d: Scan > ", lambda _: "SM\x7f\x15SN2\n")]
    output, status = on_terminal(talk, words(folder, "question", 2))
    units = {"board " + record["place"]["name"]: record["unit"] for record in records(folder, "question")}
    assert status == 0 and place[0] == place[1] and units[place[0]] == "SN1", output
    assert set(units.values()) == {"SN1", "SN2"}, units


def line_of(folder, plan, more="", places=1, **how):
    """Starts a line. Returns the process and its port."""
    port = free_port()
    write(f"{folder}/serve.yaml", f"{{listen: '127.0.0.1:{port}', places: {places}, plan: {plan}, {more}}}")
    station = subprocess.Popen([QCSTATION, "serve", "--json", f"{folder}/serve.yaml"], stdout=subprocess.PIPE, **how)
    await_line(station, b"line_starts")
    return station, port


def knock(port):
    """Connects as a stranger. Returns when the station has reported that and closed the connection."""
    with socket.socket() as stranger:
        stranger.setsockopt(socket.IPPROTO_IP, socket.IP_TTL, 255)  # not dropped while the place looks at another one
        stranger.connect(("127.0.0.1", port))
        stranger.sendall(b"?" * 64)
        while stranger.recv(64): pass


def check_shift(folder):
    """Who works is asked once and recorded; units that fail one after the other hold their place."""
    port = free_port()
    write(f"{folder}/shift.yaml", f"{{listen: '127.0.0.1:{port}', places: 1, plan: info.yaml, results: shift, "
          "operator: {prompt: Badge, match: '^[0-9]+$'}, hold_after: 2, reference: {serial: GOLD, hours: 1}, "
          f"before: 'echo $QC_PLACE >> {folder}/begun'}}")
    write(f"{folder}/info.yaml", "[{send: INFO, match: '^I am (?P<serial>.*)$'}, {send: BYE, expect: BYE, closes: true}]")
    talk = [("waiting for boards", lambda _: serve(port, ["I am GOLD"])), (r"Badge > ", lambda _: "me\n"),
            (r'"me" does not look right: .*Badge > ', lambda _: "17\n"), (r"PASS ", lambda _: serve(port, ["bad"])),
            (r"FAIL ", lambda _: serve(port, ["bad"])), (r"board 1 is held: 2 runs in a row failed", lambda _: "\x03")]
    output, status = on_terminal(talk, [QCSTATION, "serve", f"{folder}/shift.yaml"])
    assert read(f"{folder}/begun") == "1\n1\n1\n", output
    assert status == 0 and [record["operator"] for record in records(folder, "shift")] == ["17"] * 3, output
    assert [record["verdict"] for record in records(folder, "shift") if record.get("reference")] == ["passed"], output


def check_unread_output(folder):
    """A stop does not wait for a reader that has stopped reading."""
    station, port = line_of(folder, "slow.yaml", places=32)
    fcntl.fcntl(station.stdout, fcntl.F_SETPIPE_SZ, 4096)
    for _ in range(32):  # of whose events less than half fit into the pipe
        visit(port)
    station.send_signal(signal.SIGTERM)
    assert station.wait(60) == 4
    events = [json.loads(line) for line in station.stdout.read().decode().splitlines(True) if line.endswith("\n")]
    assert "run" in events[-1], events[-1]


def check_strangers(folder):
    """A flood of strangers is a line a second, and each of them is counted. One that resets at once has an address."""
    station, port = line_of(folder, "line.yaml")
    with socket.create_connection(("127.0.0.1", port)) as hasty:
        hasty.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    for _ in range(300): knock(port)
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
        write(f"{folder}/serve.yaml",
              f"{{places: 1, plan: slow.yaml, spool: s, store: 'postgresql://127.0.0.1:{database.getsockname()[1]}/x'}}")
        station.send_signal(signal.SIGHUP)
        database.accept()
        station.send_signal(signal.SIGTERM)
        assert station.wait(60) == 0
    os.mkfifo(f"{folder}/fifo")
    command = "exec > fifo; ls /proc/self/fd; echo end; sleep 3600 & wait"
    write(f"{folder}/slow.yaml", f"{{probe: false, steps: [{{run: '{command}', timeout: 3600}}]}}")
    reader, full = os.pipe()
    station, port = line_of(folder, "slow.yaml", stderr=full)
    os.set_blocking(full, False)
    with contextlib.suppress(BlockingIOError):
        while os.write(full, b"x"): pass
    os.set_blocking(full, True)
    station.send_signal(signal.SIGSTOP)
    os.waitpid(station.pid, os.WUNTRACED)
    with socket.create_connection(("127.0.0.1", port)), socket.create_connection(("127.0.0.1", port)) as second:
        station.send_signal(signal.SIGCONT)
        with open(f"{folder}/fifo") as command:
            await_line(station, b"step_starts")
            second.close()
            await_line(station, b"it has gone before its turn")
            inherited = list(iter(command.readline, "end\n"))
            assert inherited == ["0\n", "1\n", "2\n", "3\n"], f"with one of ls: {inherited}"
            station.send_signal(signal.SIGTERM)
            await_line(station, b"line_stops")
            station.send_signal(signal.SIGTERM)
            assert station.wait(60) == 5
            assert select.select([command], [], [], 60)[0] and not command.read(), "it goes on, or what it has started"
    os.close(reader)


def check_reload(folder):
    """A plan that is half written is not taken."""
    whole = "- {send: PING, expect: PING 2}\n- {send: INFO, match: INFO}\n"
    write(f"{folder}/written.yaml", whole * 2)
    station, _ = line_of(folder, "written.yaml", stderr=subprocess.PIPE)
    write(f"{folder}/written.yaml", whole[:31])
    for name, age in ("serve", 60), ("written", -3): os.utime(f"{folder}/{name}.yaml", (time.time() - age,) * 2)
    station.send_signal(signal.SIGHUP)
    time.sleep(0.5)  # in which a hasty station takes it
    write(f"{folder}/written.yaml", whole)
    while b"read again" not in (said := station.stderr.readline()): assert said
    assert b"plan written with 2 steps, instead of written with 4 steps" in said, said
    station.send_signal(signal.SIGTERM)
    assert station.wait(60) == 0


def check_examples(folder):
    """The examples work as they are, except for the line's addresses and interfaces, which are this machine's."""
    line, port = f"{folder}/examples/line", free_port()
    shutil.copytree(f"{ROOT}/examples", f"{folder}/examples")
    output, status = on_terminal([(PORT, lambda found: serve(found[1], ["INFO \n"]))],
                                 words(folder, "examples/first-plan", 1))
    assert status == 0, output
    text = re.sub(r"(?ms)^places:.*^(?=plan:)", f"listen: 127.0.0.1:{port}\nplaces: 1\n", read(f"{line}/line.yaml"))
    write(f"{line}/line.yaml", re.sub(r"(?m)^page:.*\n", "", text))
    os.environ.update(LABEL_COMMAND=f"tee -a {folder}/labels", ADMITTED=f"{folder}/admitted")
    write(f"{folder}/admitted", "SN01\n")
    for command in ["init"], ["pool", "add", "02:00:00:00:00:00", "02:00:00:00:0F:FF", "--line"]:
        subprocess.run([QCSTATION, *command, f"{line}/line.yaml"], check=True, capture_output=True)
    report = "INFO \n Memory: 125952 kB \n Wire MAC 1: 02:00:00:00:00:00 \n\0"
    talk = [(r"waiting", lambda _: serve(port, [report])), (r"Scan .*> ", lambda _: "SN-1\n"),
            (r"SN-1.*> ", lambda _: "SN02\n"), (r"FAIL.*SN02 has no order", lambda _: serve(port, [report])),
            (r"Scan .*> ", lambda _: "SN01\n"), (r"PASS", lambda _: "\x03")]
    output, status = on_terminal(talk, [QCSTATION, "serve", f"{line}/line.yaml"])
    assert status == 0, output
    assert read(f"{folder}/labels") == "AP-2\nSerial: SN01\nMAC: 02:00:00:00:00:00\n", output


def check_schemas(folder):
    schemas = {name: json.loads(read(f"{ROOT}/docs/{name}.schema.json")) for name in ("event", "record")}
    stored = {f"{name}.schema.json": schema for name, schema in schemas.items()}

    def validator(name):
        resolver = jsonschema.RefResolver.from_schema(schemas[name], store=stored)
        return jsonschema.Draft202012Validator(schemas[name], resolver=resolver)

    station = subprocess.Popen(words(folder, "line", 2, "--json"), text=True, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)
    while not (found := re.search(PORT, station.stderr.readline())):  # the plan's warnings come first
        pass
    serve(found[1], ["INFO", "\udcff"])
    events = [json.loads(line) for line in station.communicate()[0].splitlines()]
    for event in events:
        validator("event").validate(event)
        assert not validator("event").is_valid({**event, "event": "party"})
    seen = {event["event"] for event in events}
    assert seen >= {"board_connects", "step_starts", "progress", "step_ends", "board_ends"}, seen
    known = {shape["properties"]["event"]["const"] for shape in schemas["event"]["oneOf"]}
    told = set(re.findall(r'line\("(\w+)"', read(f"{ROOT}/station/run/events.cc")))
    assert known == told, known ^ told
    assert sorted(record["verdict"] for record in records(folder, "line")) == ["failed", "passed"]
    for record in records(folder, "line"):
        validator("record").validate(record)
        report = read(f"{folder}/line/line-{record['id']}-{record['place']['name']}.xml")
        assert f'failures="{int(record["verdict"] == "failed")}" errors="0"' in report, report


with tempfile.TemporaryDirectory() as scratch:
    for name, text in [("line", PLAN), ("question", QUESTION)]: write(f"{scratch}/{name}.yaml", text)
    with open(f"{scratch}/{LONG}", "wb") as payload: payload.truncate(16 << 20)
    write(f"{scratch}/slow.yaml", "[{send: PING, expect: PING 2, timeout: 3600}]")
    for check in (check_schemas, check_questions, check_shift, check_terminal, check_unread_output, check_strangers,
                  check_signals, check_reload, check_examples):
        check(scratch)
