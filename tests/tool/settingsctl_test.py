#!/usr/bin/env python3
# Drives the real settingsctl binary, each case in a temporary folder of its own.
#   settingsctl_test.py SETTINGSCTL [Tool.test_name ...]
import atexit, functools, json, os, pathlib, random, re, shlex, shutil, signal, sqlite3, subprocess, sys, \
    tempfile, time, unittest

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLE, ALL_TYPES, BINARY, R = (HERE.parent.parent / "examples" / "device.json", HERE / "all_types.json",
                                 None, re.compile)
NOT_FOUND, PROHIBITED = "no such setting (Not found = 0x8000004c)", "(Prohibited = 0x80000066)"
# may read the test's files, not write them
AS_READER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]


@functools.lru_cache(maxsize=None)
def reader_command():
    # The reader runs a copy of the tool and its library from a folder it may enter: the build
    # tree may lie below one only its owner can (a clone in a private temporary folder).
    folder = tempfile.mkdtemp(prefix="settingsctl-reader-")
    atexit.register(shutil.rmtree, folder, True)
    os.chmod(folder, 0o755)
    linked = subprocess.run(["ldd", BINARY], stdout=subprocess.PIPE, text=True, check=True).stdout
    library = re.search(r"libsettings_manager\.so\.\d+ => (\S+)", linked).group(1)
    for source in (BINARY, library):
        shutil.copy2(source, folder)
    return tuple(AS_READER + ["env", f"LD_LIBRARY_PATH={folder}",
                              os.path.join(folder, os.path.basename(BINARY))])


class Tool(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="settingsctl-")))

    def command(self, args, db="test.db", reader=False):
        return ((list(reader_command()) if reader else [BINARY]) + (["--db", db] if db is not None else [])
                + (shlex.split(args) if isinstance(args, str) else [str(a) for a in args]))

    # (status, output, errors)
    def run_tool(self, args, stdin="", db="test.db", env=None, stdout=subprocess.PIPE, reader=False):
        env = {k: v for k, v in {**os.environ, "SETTINGSCTL_DB": None, "SETTINGS_MANAGER_LOG_LEVEL": None,
                                 **(env or {})}.items() if v is not None}
        result = subprocess.run(
            self.command(args, db, reader), cwd=self.dir, stdout=stdout, stderr=subprocess.PIPE,
            input=stdin.encode() if isinstance(stdin, str) else stdin, timeout=60, env=env)
        return result.returncode, (result.stdout or b"").decode(), result.stderr.decode()

    # exit 0, no error line, and `out` if given
    def ok(self, args, out=None, **kwargs):
        status, output, errors = self.run_tool(args, **kwargs)
        self.assertEqual((status, errors, output), (0, "", output if out is None else out), args)
        return output

    # exit `status`, no output, one error line: `message` or matching its pattern
    def fails(self, args, status, message, **kwargs):
        outcome = self.run_tool(args, **kwargs)
        self.assertEqual((outcome[0], outcome[1], outcome[2].count("\n")), (status, "", 1),
                         f"{args}: {outcome}")
        (self.assertRegex if isinstance(message, re.Pattern) else self.assertEqual)(
            outcome[2][:-1], message or outcome[2][:-1])
        return outcome[2]

    # rows of (args, status, output or error line[, options]), run in order
    def table(self, rows, **common):
        for args, status, expected, *options in rows:
            kwargs = {**common, **(options[0] if options else {})}
            self.fails(args, status, expected, **kwargs) if status else self.ok(args, expected, **kwargs)

    def write(self, files):
        for name, text in files.items():
            (self.dir / name).write_text(text if isinstance(text, str) else json.dumps(text))

    # a watch beside the test; its answer to `line` tells it subscribed
    def start_watch(self, *args, line, answer):
        watch = self.enterContext(subprocess.Popen(self.command(["watch", *args]), cwd=self.dir,
                                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0))
        # before the wait for its end; ctest's time limit ends a read that never gets its line
        self.addCleanup(watch.kill)
        watch.stdin.write(line.encode() + b"\n")
        self.assertEqual(watch.stdout.readline().decode(), answer)
        return watch

    def import_example(self):
        self.ok(["import", EXAMPLE], "device created\n")

    def test_all_alternatives_round_trip_byte_identical(self):
        expected = (HERE / "all_types.expected.json").read_bytes().decode()
        self.table([
            (["import", ALL_TYPES], 0, "all created\n"), ("export all", 0, expected), ("get all/none", 0, ""),
            ("import - --at copy/of", 0, "copy/of created\n", {"stdin": expected, "db": "other.db"}),
            ("--json get all/none", 0, "null\n"), ("--json get all/stringEmpty", 0, '""\n'),
            ("export copy/of", 0, expected.replace('"path": "all"', '"path": "copy/of"', 1),
             {"db": "other.db"})]
            + [(f"get all/{p}", 0, text + "\n") for p, text in [
                ("int64Min", "-9223372036854775808"), ("uint64", "18446744073709551615"),
                ("doubleNegZero", "-0"), ("list/0", "-128"), ("timestamp", "2024-05-01T12:00:00.250001Z"),
                ("bytes", "00017f80ff"), ("stringEmpty", "")]])

    def test_whole_tree_dump_import_backup_restore(self):
        self.import_example()
        whole = self.ok("create top 1", "top created\n") and self.ok("export")
        self.ok("import -", "device created\ntop created\n", stdin=whole, db="other.db")
        self.assertEqual((json.loads(whole)["path"], self.ok("export", db="other.db"),
                          self.ok("get", db="other.db")), ("", whole, self.ok("dump")))
        os.mkfifo(self.dir / "fifo")
        self.table([
            ("backup b.db", 0, "b.db written\n"),
            ("set device/network/port 1", 0, "device/network/port changed\n"),
            ("create extra 1", 0, "extra created\n"),
            ("backup fifo", 2, "settingsctl: backup fifo: the backup 'fifo' is a FIFO, not a regular file"),
            # a watch hears what it restored
            ("watch", 0, "/ restored\nevent: device/network/port value\nevent: extra deleted\n/ unchanged\n",
             {"stdin": "restore b.db\nrestore b.db\n"})])
        self.assertEqual((self.ok("export"), self.ok("export", db="b.db"), sorted(os.listdir(self.dir))),
                         (whole, whole, ["b.db", "fifo", "other.db", "test.db"]))

    def test_backup_during_concurrent_writes_copies_one_committed_state(self):
        self.ok("create c '{\"a\": 0, \"b\": 0}'")
        self.write({"script": "".join(f'replace c {{"a":{i},"b":{i}}}\n' for i in range(1, 301))})
        with open(self.dir / "script") as script:
            writer = self.enterContext(subprocess.Popen(self.command("watch elsewhere"), cwd=self.dir,
                                                        stdin=script, stdout=subprocess.DEVNULL))
        copies = [json.loads(self.ok(f"-q backup copy{i}.db") + self.ok("--json get c", db=f"copy{i}.db"))
                  for i in range(6)]
        self.assertEqual((writer.wait(timeout=60), json.loads(self.ok("--json get c"))),
                         (0, {"a": 300, "b": 300}))
        # both keys of one replace
        self.assertTrue(all(c["a"] == c["b"] and 0 <= c["a"] <= 300 for c in copies), copies)

    def test_read_verbs_never_create_files_or_hang(self):
        os.mkfifo(self.dir / "fifo")
        for verb, subject in [("get a", "a"), ("ls", "/"), ("export", "/"), ("backup b.db", "b.db")]:
            for db, why in [
                    ("missing.db", r"cannot (read|back up) the database 'missing.db': .*: no such file: "
                                   r"missing.db \(Media error = 0x80000059\)"),
                    ("fifo", "the database 'fifo' is a FIFO, not a regular file"),
                    (".", r"the database '\.' is a folder, not a regular file"),
                    ("/dev/null", "the database '/dev/null' is a character device, not a regular file")]:
                self.fails(verb, 5, R(f"^settingsctl: {verb.split()[0]} {subject}: {why}$"), db=db)
        self.fails("set a 1", 5, "settingsctl: set a: the database 'fifo' is a FIFO, not a regular file",
                   db="fifo")
        self.assertEqual((sorted(os.listdir(self.dir)), os.path.exists("/dev/null-journal")),
                         (["fifo"], False))

    @unittest.skipIf(os.geteuid() != 0, "running as another user needs root")
    def test_a_reader_who_may_not_write_leaves_nothing_behind(self):
        self.import_example()
        os.chmod(self.dir, 0o755)
        self.table([("get device/network/port", 0, "8080\n"), ("set device/network/port 1", 5, R(
            r"^settingsctl: set device/network/port: cannot change the database 'test\.db': "
            r".*attempt to write a readonly database"))], reader=True)
        self.assertEqual(sorted(os.listdir(self.dir)), ["test.db"])
        # A writer holds the file open with its log and index: the reader reads through them and
        # leaves them be.
        watch = self.start_watch(line="set device/network/port 8081", answer="device/network/port changed\n")
        self.assertEqual(sorted(os.listdir(self.dir)), ["test.db", "test.db-shm", "test.db-wal"])
        self.ok("get device/network/port", "8081\n", reader=True)
        self.ok("set device/network/port 8082", "device/network/port changed\n")  # the owner goes on writing
        watch.stdin.close()
        self.assertEqual((watch.wait(timeout=60), sorted(os.listdir(self.dir))), (0, ["test.db"]))

    def test_verbs_keep_type_and_kind_read_only_needs_force_import_replaces_or_merges(self):
        self.import_example()
        self.write({
            "net.json": {"port": 1, "extra": {"on": True}},
            "top.json": {"top": 1, "new": {"deep": {"port": 1, "extra": {"on": True}}}}, "list.json": "[1]",
            "fw.json": {"format": "settingsctl/1", "path": "device/firmware", "node": {"type": "map"}}})
        self.table([  # refused for read-only members, the tree as it was; --force does it
            ("replace device/firmware/version 2", 4, "settingsctl: replace device/firmware/version: "
             "device/firmware/version is read-only (--force replaces it anyway)"),
            ("delete device/firmware", 4, "settingsctl: delete device/firmware: "
             "device/firmware/build is read-only (--force deletes it anyway)"),
            ("import fw.json", 4, "settingsctl: import fw.json: "
             "device/firmware/build is read-only (--force imports it anyway)"),
            ("set device/identity/serial x", 4,
             f"settingsctl: set device/identity/serial: read-only {PROHIBITED}"),
            ("export", 0, self.ok("export")),
            ("replace device/firmware/version 2 --force", 0, "device/firmware/version replaced\n"),
            ("import fw.json --force", 0, "device/firmware replaced\n"),
            ("delete device/firmware --force", 0, "device/firmware deleted\n"),
            ("ls /device/network/", 0, "dhcp: bool\ndns: list\nhostname: string\nmtu: uint16\nport: uint16\n"
             "proxy: none\n"),
            ("get device/network/dns", 0,
             'device/network/dns: list\n  0: string = "192.0.2.53"\n  1: string = "198.51.100.53"\n'),
            ("set device/network/port 8081", 0, "device/network/port changed\n"),
            ("set device/network/port 8081", 0, "device/network/port unchanged\n"),
            ("set device/network/port x", 2,
             "settingsctl: set device/network/port: 'x' is not a uint16 (0 to 65535)"),
            ("set device/network []", 4, "settingsctl: set device/network: "
             "it is a map, and '[]' is a list; --type list changes its kind"),
            ("set device/network/dns 7", 4, "settingsctl: set device/network/dns: "
             "it is a list, and '7' is an int64; --type int64 changes its kind"),
            ("set device/network/port -5 --type int32", 0, "device/network/port changed\n"),
            ("ls device/network/port", 0, "device/network/port: int32\n"),
            ("create a/b/c 1", 0, "a/b/c created\n"), ("create a/b/c 1", 0, "a/b/c unchanged\n"),
            ("create a/b/c 2", 4,
             "settingsctl: create a/b/c: a different setting is already there (Found = 0x8000004d)"),
            ("replace a/b --from - --read-only", 0, "a/b replaced\n", {"stdin": "[1, 2]"}),
            ("attr a/b --read-only=false", 0, "a/b changed\n"),
            ("delete a/b/0", 4, f"settingsctl: delete a/b/0: list elements cannot be deleted {PROHIBITED}"),
            ("delete a/b", 0, "a/b deleted\n"), ("delete a/b", 3, f"settingsctl: delete a/b: {NOT_FOUND}"),
            ("import net.json --at device/network --merge", 0, "device/network merged\n"),
            ("ls device/network", 0, "dhcp: bool\ndns: list\nextra: map\nhostname: string\nmtu: uint16\n"
             "port: int64\nproxy: none\n"),
            ("import net.json --at device/network --merge", 0, "device/network unchanged\n"),
            ("import net.json --at device/network", 0, "device/network replaced\n"),
            ("ls device/network", 0, "extra: map\nport: int64\n"),
            ("import net.json --at new/deep", 0, "new/deep created\n"),
            ("import top.json --merge", 0, "top created\n"),
            ("import top.json --force", 0, "a deleted\ndevice deleted\n"),
            ("import top.json", 0, "/ unchanged\n"),
            ("import list.json", 2,
             "settingsctl: import list.json: the whole tree is a map, not a list; give --at PATH"),
            ("import list.json --at top/x", 4,
             "settingsctl: import list.json: top is an int64, which holds no 'x'")])

    def test_exit_statuses_json_errors_output_errors_and_library_records(self):
        self.import_example()
        self.write({"junk.db": "not a database, just text long enough to hold a header\n" * 20})
        for args, status, kind, code, reason in [  # the library's code and reason, when a library call failed
                ("get device/nope", 3, "not-found", "0x8000004c", "^No setting at 'device/nope/'$"),
                ("set device/firmware/version 2", 4, "refused", "0x80000066", "^Prohibited = 0x80000066$"),
                ("get a --db=junk.db", 5, "database", "0x80000059",
                 "^.SMDB. Could not open .*: file is not a database$"),
                ("set device/network/port x", 2, "bad-input", None, None),
                ("get wifi/5ghz", 2, "bad-input", None, None)]:
            db = None if "junk" in args else "test.db"
            error = json.loads(self.fails("--json " + args, status, None, db=db))
            self.assertEqual(
                (error["error"], error["status"], error.get("code"), self.run_tool("-q " + args, db=db)),
                (kind, status, code, (status, "", "")), args)
            self.assertTrue(not code or error["codeText"].endswith(" = " + code)
                            and error["codeText"] in error["message"]
                            and re.search(reason, error["reason"]), error)
        self.table([
            ("--json set device/network/port 1", 0, '{"path":"device/network/port","outcome":"changed"}\n'),
            ("-q set device/network/port 2", 0, ""), ("-q get device/network/port", 0, "2\n"),
            ("frob", 2, "settingsctl: unknown verb 'frob' (settingsctl help --verbs lists them)"),
            ("", 2, "settingsctl: no verb given (settingsctl help --verbs lists them)")])
        with open("/dev/full", "wb") as full:  # a failed write of the output fails the command
            for args in ("export", "--json get", "set device/network/port 3"):
                self.fails(args, 1, R("cannot write the output: No space left on device"), stdout=full)
        mismatch = (r"library error: .*SetValue\(device/network/port/\): "
                    r"old/new value type mismatch: \d+/\d+\n")
        # the library's records go to stderr with -v only, whatever the variable says
        for i, (flags, level, expected) in enumerate([
                ("", "trace", "^$"), ("-v", "error", f"^{mismatch}$"),
                ("-v", "loud", f"^library error: Ignored SETTINGS_MANAGER_LOG_LEVEL='loud': "
                 f"expected 0 to 6 .*\n{mismatch}$"),
                ("-v", None,
                 r"^library info: (.*\n)*library info: \[SMDB\] VerifySchema\.\.\.\n(.*\n)*" + mismatch)]):
            status, output, errors = self.run_tool(
                f"{flags} set device/network/port {i} --type {'int8' if i % 2 else 'uint16'}",
                env={"SETTINGS_MANAGER_LOG_LEVEL": level})
            self.assertEqual((status, output), (0, "device/network/port changed\n"), (flags, level))
            self.assertRegex(errors, expected, (flags, level))

    def test_bad_input_names_the_rule_and_a_locked_database_the_real_reason(self):
        typed = lambda node: {"format": "settingsctl/1", "path": "dev", "node": node}
        self.write({"keys.json": '{"device": {"bad key": 1}}', "bad.json": '{\n  "a": 1,\n  "b": 2 3\n}\n',
                    "deep.json": "[" * 20000 + "]" * 20000,
                    "t0.json": typed({"type": "map", "value": {"port": {"type": "uint16", "value": 70000}}}),
                    "t1.json": typed({"type": "int8", "readonly": 1})})
        self.table([
            (["create", p, 1], 2, f"settingsctl: create {p}: invalid path '{p}': {rule}") for p, rule in [
                ("wifi/5ghz", "a key must not begin with a digit ('5ghz')"),
                ("dns_servers", "a key must not hold '_' ('dns_servers')"),
                ("a//b", "a path has no empty steps"), ("a b", "a key must not hold ' ' (a blank) ('a b')"),
                ("0/a", "a path begins with a key, not a list index ('0')"),
                ("l/70000", "a list index goes up to 65535 ('70000')")]] + [
            ("import keys.json", 2,
             "settingsctl: import keys.json: at /device: 'bad key': a key must not hold ' ' (a blank)"),
            ("import bad.json", 2,
             R(r"^settingsctl: import bad\.json: malformed JSON: parse error at line 3, column \d+: ")),
            ("import deep.json", 2, R(r"^settingsctl: import deep\.json: "
                                      r".*settings nest at most 256 levels deep, and .* goes deeper$")),
            ("import t0.json", 2,
             "settingsctl: import t0.json: at /node/value/port/value: 70000 is out of range for uint16"),
            ("import t1.json", 2, 'settingsctl: import t1.json: at /node: unknown member "readonly"'),
            ("import missing.json", 2,
             "settingsctl: import missing.json: cannot read 'missing.json': No such file or directory")])
        # no database made
        self.assertEqual(sorted(os.listdir(self.dir)),
                         ["bad.json", "deep.json", "keys.json", "t0.json", "t1.json"])
        self.ok("create a 1")
        connection = self.enterContext(
            sqlite3.connect(shutil.copy(self.dir / "test.db", self.dir / "locked.db"), isolation_level=None))
        # another process's write lock, held past the busy timeout, stops no read
        connection.execute("BEGIN IMMEDIATE")
        self.table([("get a", 0, "1\n"), ("set a 2", 5, R(r"^settingsctl: set a: cannot change the database "
                    r"'locked\.db': \[SMDB\] Set: begin transaction: database is locked by another "
                    r"connection for longer than the busy timeout of 5000 ms \("))], db="locked.db")

    def test_killed_import_applies_all_or_nothing(self):
        self.import_example()
        self.write({"big.json": {f"k{i}": {"a": i, "b": [i, str(i)], "c": {"d": True}} for i in range(2000)}})
        before, start = self.ok("export"), time.monotonic()
        self.ok("-q import big.json --force", db="full.db")
        rng, window, after = (random.Random(15), (time.monotonic() - start) * 1.2,  # the import's time
                              self.ok("export", db="full.db"))
        for attempt in range(8):
            process = self.enterContext(subprocess.Popen(
                self.command("import big.json --force"), cwd=self.dir, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL))
            time.sleep(rng.uniform(0, window))  # a kill at a random point of the import, not an ordering
            process.send_signal(signal.SIGKILL if attempt % 2 == 0 else signal.SIGINT)
            process.wait(timeout=60)
            self.assertIn(tree := self.ok("export"), (before, after), f"attempt {attempt}: a partial import")
            if tree == after:
                self.ok("-q import - --force", stdin=before)

    def test_watch_shows_events_in_order_and_changes_of_other_processes(self):
        self.import_example()
        self.write({"two.json": '{"b": 1, "a": 2}'})
        self.ok("watch", stdin="set device/network/port 8081\nget device/network/port\n"
                "# a comment, and an empty line\n\ncreate device/network/ntp p\n"
                "attr device/network/ntp --read-only=true\nreplace device/network/ntp 'a b' --force\n"
                "set device/network/port 8081\ndelete device/network/ntp\nimport two.json --merge\nls\n",
                out="device/network/port changed\nevent: device/network/port value\n8081\n"
                "device/network/ntp created\nevent: device/network/ntp created\ndevice/network/ntp changed\n"
                "event: device/network/ntp attributes\ndevice/network/ntp replaced\n"
                "event: device/network/ntp setting\ndevice/network/port unchanged\n"
                "device/network/ntp deleted\nevent: device/network/ntp deleted\na created\nb created\n"
                "event: a created\nevent: b created\na: int64\nb: int64\ndevice: map\n")
        self.ok("-q backup saved.db")
        watch = self.start_watch("device/network", line="get device/network/port", answer="8081\n")
        self.table([("set device/identity/name other", 0, "device/identity/name changed\n"),
                    ("set device/network/port 1", 0, "device/network/port changed\n")])
        # outside its subtree: no event
        self.assertEqual(watch.stdout.readline(), b"event: device/network/port value\n")
        self.ok("create device/network/ntp pool.example")
        self.assertEqual(watch.stdout.readline(), b"event: device/network/ntp created\n")
        self.ok("restore saved.db", "/ restored\n")
        self.assertEqual(sorted(watch.stdout.readline() for _ in range(2)),
                         [b"event: device/network/ntp deleted\n", b"event: device/network/port value\n"])
        watch.stdin.write(b"get device/network/port\nset device/network/port 8082\nget device/network/port\n")
        watch.stdin.close()  # its own tree took the changes in: the value the restore put back is there
        self.assertEqual((watch.stdout.read(), watch.wait(timeout=60)),
                         (b"8081\ndevice/network/port changed\nevent: device/network/port value\n8082\n", 0))


if __name__ == "__main__":
    BINARY = str(pathlib.Path(sys.argv[1]).resolve())
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)
