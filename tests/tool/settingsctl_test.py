#!/usr/bin/env python3
# Drives the real settingsctl binary, each case in a temporary folder of its own.
#   settingsctl_test.py SETTINGSCTL [Tool.test_name ...]
import atexit, functools, json, os, pathlib, random, re, shlex, shutil, signal, sqlite3, subprocess, sys, \
    tempfile, time, unittest

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLE, ALL_TYPES, BINARY, R = (HERE.parent.parent / "examples" / "device.json", HERE / "all_types.json",
                                 None, re.compile)
PORT, LEVEL = "device/network/port", "SETTINGS_MANAGER_LOG_LEVEL"


@functools.lru_cache(maxsize=None)
def reader_command():
    # One who may read the test's files, not write them, running a copy of the tool and its library
    # from a folder it may enter: the build tree may lie below one only its owner can.
    folder = tempfile.mkdtemp(prefix="settingsctl-reader-")
    atexit.register(shutil.rmtree, folder, True)
    os.chmod(folder, 0o755)
    linked = subprocess.run(["ldd", BINARY], stdout=subprocess.PIPE, text=True, check=True).stdout
    for source in (BINARY, re.search(r"libsettings_manager\.so\.\d+ => (\S+)", linked).group(1)):
        shutil.copy2(source, folder)
    return ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "env", f"LD_LIBRARY_PATH={folder}",
            os.path.join(folder, os.path.basename(BINARY)))


class Tool(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="settingsctl-")))

    def command(self, args, db="test.db", reader=False):
        return ((list(reader_command()) if reader else [BINARY]) + (["--db", db] if db else [])
                + (shlex.split(args) if isinstance(args, str) else [str(a) for a in args]))

    # (status, output, errors)
    def run_tool(self, args, stdin="", db="test.db", env=None, stdout=subprocess.PIPE, reader=False):
        env = {**{k: v for k, v in os.environ.items() if k not in ("SETTINGSCTL_DB", LEVEL)}, **(env or {})}
        result = subprocess.run(self.command(args, db, reader), cwd=self.dir, stdout=stdout,
                                stderr=subprocess.PIPE, input=stdin.encode(), timeout=60, env=env)
        return result.returncode, (result.stdout or b"").decode(), result.stderr.decode()

    # exits with `status`; 0: no error line, the output `expected` (None: any), returned; otherwise
    # no output, one error line, `expected` or matching its pattern (None: any), returned
    def check(self, args, status=0, expected=None, **kwargs):
        code, output, errors = self.run_tool(args, **kwargs)
        if status == 0:
            self.assertEqual((code, errors, output), (0, "", output if expected is None else expected), args)
            return output
        self.assertEqual((code, output, errors.count("\n")), (status, "", 1), f"{args}: {errors}")
        (self.assertRegex if isinstance(expected, re.Pattern) else self.assertEqual)(
            errors[:-1], expected or errors[:-1])
        return errors

    # rows of (args, status, output or error line[, options]), run in order
    def table(self, rows, **common):
        for args, status, expected, *options in rows:
            self.check(args, status, expected, **{**common, **(options[0] if options else {})})

    # a watch beside the test; its answer to `line` tells it subscribed
    def start_watch(self, *args, line, answer):
        watch = self.enterContext(subprocess.Popen(self.command(["watch", *args]), cwd=self.dir,
                                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0))
        self.addCleanup(watch.kill)  # before the wait for its end: ctest's time limit ends a stuck read
        watch.stdin.write(line.encode() + b"\n")
        self.assertEqual(watch.stdout.readline().decode(), answer)
        return watch

    def test_all_alternatives_round_trip_byte_identical(self):
        expected = (HERE / "all_types.expected.json").read_bytes().decode()
        self.table([
            (["import", ALL_TYPES], 0, "all created\n"), ("export all", 0, expected), ("get all/none", 0, ""),
            ("import - --at copy/of", 0, "copy/of created\n", {"stdin": expected, "db": "other.db"}),
            ("export copy/of", 0, expected.replace('"all"', '"copy/of"', 1), {"db": "other.db"}),
            ("get all/doubleNegZero", 0, "-0\n"), ("get all/timestamp", 0, "2024-05-01T12:00:00.250001Z\n")])

    def test_backup_during_concurrent_writes_copies_one_committed_state(self):
        self.check("create c '{\"a\": 0, \"b\": 0}'")
        (self.dir / "script").write_text("".join(f'replace c {{"a":{i},"b":{i}}}\n' for i in range(1, 301)))
        with open(self.dir / "script") as script:
            writer = self.enterContext(subprocess.Popen(self.command("watch elsewhere"), cwd=self.dir,
                                                        stdin=script, stdout=subprocess.DEVNULL))
        copies = [json.loads(self.check(f"-q backup c{i}.db") + self.check("--json get c", db=f"c{i}.db"))
                  for i in range(6)]
        self.assertEqual((writer.wait(timeout=60), json.loads(self.check("--json get c"))),
                         (0, {"a": 300, "b": 300}))
        # both keys of one replace
        self.assertTrue(all(c["a"] == c["b"] and 0 <= c["a"] <= 300 for c in copies), copies)

    @unittest.skipIf(os.geteuid() != 0, "running as another user needs root")
    def test_a_reader_who_may_not_write_leaves_nothing_behind(self):
        self.check(["import", EXAMPLE])
        os.chmod(self.dir, 0o755)
        self.table([(f"get {PORT}", 0, "8080\n"), (f"set {PORT} 1", 5, R(
            rf"^settingsctl: set {PORT}: cannot change the database 'test\.db': "
            r".*attempt to write a readonly database"))], reader=True)
        self.assertEqual(sorted(os.listdir(self.dir)), ["test.db"])
        # A writer holds the file open with its log and index: the reader reads through them and
        # leaves them be.
        watch = self.start_watch(line=f"set {PORT} 8081", answer=f"{PORT} changed\n")
        self.assertEqual(sorted(os.listdir(self.dir)), ["test.db", "test.db-shm", "test.db-wal"])
        self.check(f"get {PORT}", 0, "8081\n", reader=True)
        self.check(f"set {PORT} 8082", 0, f"{PORT} changed\n")  # the owner goes on writing
        watch.stdin.close()
        self.assertEqual((watch.wait(timeout=60), sorted(os.listdir(self.dir))), (0, ["test.db"]))

    def test_exit_statuses_and_their_reasons(self):
        os.mkfifo(self.dir / "fifo")
        for verb, subject in [("get a", "a"), ("backup b.db", "b.db")]:  # they never create or hang
            for db, why in [
                    ("missing.db", r"cannot (read|back up) the database 'missing.db': .*: no such file: "
                                   r"missing.db \(Media error = 0x80000059\)"),
                    ("fifo", "the database 'fifo' is a FIFO, not a regular file")]:
                self.check(verb, 5, R(f"^settingsctl: {verb.split()[0]} {subject}: {why}$"), db=db)
        self.assertEqual(os.listdir(self.dir), ["fifo"])
        (self.dir / "junk.db").write_text("not a database, just text long enough to hold a header\n" * 20)
        (self.dir / "bad.json").write_text('{\n  "a": 1,\n  "b": 2 3\n}\n')
        self.check(["import", EXAMPLE])
        self.assertEqual(self.run_tool("-q get device/nope"), (3, "", ""))
        self.table([
            ("create wifi/5ghz 1", 2, "settingsctl: create wifi/5ghz: invalid path 'wifi/5ghz': "
             "a key must not begin with a digit ('5ghz')"),
            ("import bad.json", 2,
             R(r"^settingsctl: import bad\.json: malformed JSON: parse error at line 3, ")),
            ("frob", 2, "settingsctl: unknown verb 'frob' (settingsctl help --verbs lists them)"),
            ("--json get device/nope", 3, '{"error":"not-found","status":3,"verb":"get","subject":'
             '"device/nope","message":"no such setting (Not found = 0x8000004c)","code":"0x8000004c",'
             '"codeText":"Not found = 0x8000004c","reason":"No setting at \'device/nope/\'"}'),
            ("--json get a", 5, R(r'^\{"error":"database","status":5,.*"codeText":"Media error = 0x80000059",'
                                  r'"reason":"\[SMDB\] Could not open .*: file is not a database"\}$'),
             {"db": "junk.db"}),
            ("replace device/firmware/version 2", 4, "settingsctl: replace device/firmware/version: "
             "device/firmware/version is read-only (--force replaces it anyway)"),
            (f"set {PORT} x", 2, f"settingsctl: set {PORT}: 'x' is not a uint16 (0 to 65535)"),
            ("create device/network/dhcp 2", 4, "settingsctl: create device/network/dhcp: "
             "a different setting is already there (Found = 0x8000004d)"),
            ("delete device/network/dns/0", 4, "settingsctl: delete device/network/dns/0: "
             "list elements cannot be deleted (Prohibited = 0x80000066)"),
            ("delete a", 3, "settingsctl: delete a: no such setting (Not found = 0x8000004c)"),
            (f"--json set {PORT} 2", 0, f'{{"path":"{PORT}","outcome":"changed"}}\n')])
        with open("/dev/full", "wb") as full:  # a failed write of the output fails the command
            self.check("export", 1, R("cannot write the output: No space left on device"), stdout=full)
        # the library's records go to stderr with -v only, whatever the variable says
        self.check(f"set {PORT} 0 --type int8", 0, f"{PORT} changed\n", env={LEVEL: "trace"})
        status, output, errors = self.run_tool(f"-v set {PORT} 1 --type uint16", env={LEVEL: "loud"})
        self.assertEqual((status, output), (0, f"{PORT} changed\n"))
        self.assertRegex(errors, rf"^library error: Ignored {LEVEL}='loud': expected 0 to 6 .*\n"
                         rf"library error: .*SetValue\({PORT}/\): old/new value type mismatch: \d+/\d+\n$")

    def test_killed_import_applies_all_or_nothing(self):
        self.check(["import", EXAMPLE])
        (self.dir / "big.json").write_text(json.dumps(
            {f"k{i}": {"a": i, "b": [i, str(i)], "c": {"d": True}} for i in range(2000)}))
        before, start = self.check("export"), time.monotonic()
        self.check("-q import big.json --force", db="full.db")
        rng, window, after = (random.Random(15), (time.monotonic() - start) * 1.2,  # the import's time
                              self.check("export", db="full.db"))
        for attempt in range(8):
            process = self.enterContext(subprocess.Popen(
                self.command("import big.json --force"), cwd=self.dir, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL))
            time.sleep(rng.uniform(0, window))  # a kill at a random point of the import, not an ordering
            process.send_signal(signal.SIGKILL if attempt % 2 == 0 else signal.SIGINT)
            process.wait(timeout=60)
            self.assertIn(tree := self.check("export"), (before, after), f"attempt {attempt}: partial import")
            if tree == after:
                self.check("-q import - --force", stdin=before)

    def test_watch_shows_events_in_order_and_changes_of_other_processes(self):
        self.check(["import", EXAMPLE])
        self.check("-q backup saved.db")
        watch = self.start_watch("device/network", line=f"get {PORT}", answer="8080\n")
        self.table([("set device/identity/name other", 0, "device/identity/name changed\n"),
                    (f"set {PORT} 1", 0, f"{PORT} changed\n")])
        # outside its subtree: no event
        self.assertEqual(watch.stdout.readline().decode(), f"event: {PORT} value\n")
        self.check("create device/network/ntp pool.example")
        self.assertEqual(watch.stdout.readline(), b"event: device/network/ntp created\n")
        self.check("restore saved.db", 0, "/ restored\n")
        self.assertEqual(sorted(watch.stdout.readline().decode() for _ in range(2)),
                         ["event: device/network/ntp deleted\n", f"event: {PORT} value\n"])
        watch.stdin.write(f"get {PORT}\nset {PORT} 8082\nget {PORT}\n".encode())
        watch.stdin.close()  # its own tree took the changes in: the value the restore put back is there
        self.assertEqual((watch.stdout.read().decode(), watch.wait(timeout=60)),
                         (f"8080\n{PORT} changed\nevent: {PORT} value\n8082\n", 0))


if __name__ == "__main__":
    BINARY = str(pathlib.Path(sys.argv[1]).resolve())
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)
