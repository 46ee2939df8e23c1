#!/usr/bin/env python3
"""Drives the real settingsctl binary, each case in a temporary folder of its own.

    settingsctl_test.py SETTINGSCTL [Class.test_name ...]
"""

import json
import os
import pathlib
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLE = HERE.parent.parent / "examples" / "device.json"
ALL_TYPES = HERE / "all_types.json"
ALL_TYPES_EXPECTED = HERE / "all_types.expected.json"
BINARY = None

NOT_FOUND = "no such setting (Not found = 0x8000004c)"
BAD_INPUT, NOT_FOUND_STATUS, REFUSED, DATABASE = 2, 3, 4, 5
# Runs a command as a user who may read the test's files but not write them.
AS_READER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]


class ToolCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="settingsctl-")
        self.addCleanup(folder.cleanup)
        self.dir = pathlib.Path(folder.name)

    def command(self, *args, db="test.db"):
        return [BINARY] + (["--db", db] if db is not None else []) + [str(a) for a in args]

    def run_tool(self, *args, stdin=b"", db="test.db", env=None, stdout=subprocess.PIPE, reader=False):
        if isinstance(stdin, str):
            stdin = stdin.encode()
        environment = {k: v for k, v in os.environ.items() if k not in ("SETTINGSCTL_DB", "SETTINGS_MANAGER_LOG_LEVEL")}
        return subprocess.run((AS_READER if reader else []) + self.command(*args, db=db), cwd=self.dir, input=stdin,
                              stdout=stdout, stderr=subprocess.PIPE, timeout=60, env={**environment, **(env or {})})

    def ok(self, *args, **kwargs):
        result = self.run_tool(*args, **kwargs)
        self.assertEqual((result.returncode, result.stderr.decode()), (0, ""), args)
        return result.stdout.decode()

    def fails(self, status, message, *args, **kwargs):
        """Runs a command that must fail with `status`, no output and one error line."""
        result = self.run_tool(*args, **kwargs)
        self.assertEqual(result.returncode, status, f"{args}: {result.stderr.decode()}")
        self.assertEqual(result.stdout, b"")
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1, lines)
        if isinstance(message, re.Pattern):
            self.assertRegex(lines[0], message)
        elif message is not None:
            self.assertEqual(lines[0], message)
        return lines[0]

    def write(self, name, text):
        (self.dir / name).write_text(text if isinstance(text, str) else json.dumps(text))
        return name

    def tree(self, db="test.db"):
        return self.run_tool("export", db=db).stdout

    def files(self):
        return sorted(p.name for p in self.dir.iterdir())

    def start_watch(self, *args, line, answer):
        """A watch session running beside the test, once it answered `line` with `answer`."""
        watch = subprocess.Popen(self.command("watch", *args), cwd=self.dir, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(watch.kill)
        watchdog = threading.Timer(60, watch.kill)  # a missing line then ends the read
        watchdog.start()
        self.addCleanup(watchdog.cancel)
        watch.stdin.write(line.encode() + b"\n")
        watch.stdin.flush()
        self.assertEqual(watch.stdout.readline().decode(), answer)
        return watch

    def import_example(self, **kwargs):
        self.assertEqual(self.ok("import", EXAMPLE, **kwargs), "device created\n")


class RoundTrip(ToolCase):
    def test_all_alternatives_byte_identical_and_canonical(self):
        expected = ALL_TYPES_EXPECTED.read_bytes()
        self.assertEqual(self.ok("import", ALL_TYPES), "all created\n")
        self.assertEqual(self.run_tool("export", "all").stdout, expected)
        self.assertEqual(self.ok("import", "-", "--at", "copy/of", stdin=expected, db="other.db"), "copy/of created\n")
        copy = json.loads(self.run_tool("export", "copy/of", db="other.db").stdout)
        self.assertEqual((copy["path"], copy["node"]), ("copy/of", json.loads(expected)["node"]))
        for path, text in [("all/int64Min", "-9223372036854775808"), ("all/uint64", "18446744073709551615"),
                           ("all/doubleNegZero", "-0"), ("all/timestamp", "2024-05-01T12:00:00.250001Z"),
                           ("all/bytes", "00017f80ff"), ("all/int8", "127"), ("all/stringEmpty", ""),
                           ("all/list/0", "-128")]:
            self.assertEqual(self.ok("get", path), text + "\n", path)
        self.assertEqual(self.ok("get", "all/none"), "")  # none prints nothing, "" an empty line
        self.assertEqual([self.ok("--json", "get", p) for p in ("all/none", "all/stringEmpty")], ["null\n", '""\n'])

    def test_whole_tree_is_a_text_backup(self):
        self.import_example()
        self.ok("create", "top", "1")
        whole = self.tree()
        self.assertEqual(json.loads(whole)["path"], "")
        self.assertEqual(self.ok("import", "-", stdin=whole, db="other.db"), "device created\ntop created\n")
        self.assertEqual(self.tree(db="other.db"), whole)
        self.assertEqual(self.ok("get", db="other.db"), self.ok("dump"))
        self.assertEqual(json.loads(self.ok("--json", "get")), json.loads(self.ok("dump", "--json")))


class Reads(ToolCase):
    def test_read_verbs(self):
        self.import_example()
        cases = [
            (["ls"], "device: map\n"),
            (["ls", "/device/network/"], "dhcp: bool\ndns: list\nhostname: string\nmtu: uint16\nport: uint16\nproxy: none\n"),
            (["ls", "device/firmware"], "build: uint32 [read-only]\nsignature: bytes [read-only]\nversion: string [read-only]\n"),
            (["ls", "device/network/dns"], "0: string\n1: string\n"),
            (["ls", "device/network/port"], "device/network/port: uint16\n"),
            (["--json", "ls", "device/network/dns"], '[\n  {\n    "name": "0",\n    "type": "string",\n    "readOnly": false\n  },\n'
                                                     '  {\n    "name": "1",\n    "type": "string",\n    "readOnly": false\n  }\n]\n'),
            (["get", "device/network/dns"], 'device/network/dns: list\n  0: string = "192.0.2.53"\n  1: string = "198.51.100.53"\n'),
            (["get", "device/network/dns", "--json"], '[\n  "192.0.2.53",\n  "198.51.100.53"\n]\n'),
            (["dump", "device/logging"], 'device/logging: map\n  level: string = "info"\n  maxSizeKb: uint32 = 512\n  retention: int32 = 7\n'),
            (["attr", "device/firmware/version"], "read-only: true\n"),
            (["--json", "attr", "device/network"], '{\n  "path": "device/network",\n  "readOnly": false\n}\n'),
        ]
        for args, expected in cases:
            self.assertEqual(self.ok(*args), expected, args)
        # Reads go through the file alone: a missing setting is not found, nothing is created.
        self.fails(NOT_FOUND_STATUS, f"settingsctl: get device/nope: {NOT_FOUND}", "get", "device/nope")
        self.assertEqual(self.files(), ["test.db"])

    def test_read_verbs_never_create_or_hang(self):
        os.mkfifo(self.dir / "fifo")
        for verb in (["get", "a"], ["ls"], ["export"], ["backup", "b.db"]):
            for db, why in [("missing.db", "cannot (read|back up) the database 'missing.db': .*: no such file: missing.db "
                                           r"\(Media error = 0x80000059\)"),
                            ("fifo", "the database 'fifo' is a FIFO, not a regular file"),
                            ("/dev/null", "the database '/dev/null' is a character device, not a regular file"),
                            (".", r"the database '\.' is a folder, not a regular file")]:
                subject = "b.db" if verb[0] == "backup" else verb[1] if len(verb) > 1 else "/"
                self.fails(DATABASE, re.compile(f"^settingsctl: {verb[0]} {subject}: {why}$"), *verb, db=db)
        self.fails(DATABASE, "settingsctl: set a: the database 'fifo' is a FIFO, not a regular file", "set", "a", "1", db="fifo")
        self.assertEqual(self.files(), ["fifo"])
        self.assertFalse(os.path.exists("/dev/null-journal"))

    def test_a_reader_who_may_not_write_leaves_nothing_behind(self):
        if os.geteuid() != 0:
            self.skipTest("running as another user needs root")
        self.import_example()
        os.chmod(self.dir, 0o755)
        self.assertEqual(self.ok("get", "device/network/port", reader=True), "8080\n")
        self.fails(DATABASE, re.compile(r"^settingsctl: set device/network/port: cannot change the database 'test\.db': "
                                        r".*attempt to write a readonly database: the file is open read-only"),
                   "set", "device/network/port", "1", reader=True)
        self.assertEqual(self.files(), ["test.db"])
        # A writer holds the file open, its log and index there: the reader reads through
        # them and leaves them as they were, and the owner goes on writing.
        watch = self.start_watch(line="set device/network/port 8081", answer="device/network/port changed\n")
        self.assertEqual(self.files(), ["test.db", "test.db-shm", "test.db-wal"])
        self.assertEqual(self.ok("get", "device/network/port", reader=True), "8081\n")
        os.chmod(shutil.copy(self.dir / "test.db", self.dir / "p.db"), 0o600)
        self.fails(DATABASE, re.compile(r"^settingsctl: get a: cannot read the database 'p\.db': .*: unable to open "
                                        r"database file: Permission denied \(Media error"), "get", "a", reader=True, db="p.db")
        self.assertEqual(self.ok("set", "device/network/port", "8082"), "device/network/port changed\n")
        watch.stdin.close()
        self.assertEqual(watch.wait(timeout=60), 0)
        self.assertEqual(self.files(), ["p.db", "test.db"])


class Writes(ToolCase):
    def test_set_keeps_type_and_kind(self):
        self.import_example()
        self.assertEqual(self.ok("set", "device/network/port", "8081"), "device/network/port changed\n")
        self.assertEqual(self.ok("set", "device/network/port", "8081"), "device/network/port unchanged\n")
        self.assertEqual(self.ok("set", "device/network/dns", '["a"]'), "device/network/dns changed\n")
        self.fails(BAD_INPUT, "settingsctl: set device/network/port: 'x' is not a uint16 (0 to 65535)", "set", "device/network/port", "x")
        self.fails(REFUSED, "settingsctl: set device/network: it is a map, and '[]' is a list; --type list changes its kind",
                   "set", "device/network", "[]")
        self.fails(REFUSED, "settingsctl: set device/network/dns: it is a list, and '7' is an int64; --type int64 changes its kind",
                   "set", "device/network/dns", "7")
        self.assertEqual(self.ok("set", "device/network/port", "-5", "--type", "int32"), "device/network/port changed\n")
        self.assertEqual(self.ok("dump", "device/network/port"), "device/network/port: int32 = -5\n")

    def test_read_only_needs_force(self):
        self.import_example()
        self.write("fw.json", {"format": "settingsctl/1", "path": "device/firmware", "node": {"type": "map"}})
        for args, message in [(["replace", "device/firmware/version", "2"], "device/firmware/version is read-only (--force replaces it anyway)"),
                              (["delete", "device/firmware"], "device/firmware/build is read-only (--force deletes it anyway)"),
                              (["import", "fw.json"], "device/firmware/build is read-only (--force imports it anyway)")]:
            self.ok("-q", "import", EXAMPLE, "--force")
            before = self.tree()
            subject = "fw.json" if args[0] == "import" else args[1]
            self.fails(REFUSED, f"settingsctl: {args[0]} {subject}: {message}", *args)
            self.assertEqual(self.tree(), before)
            self.assertNotEqual(self.ok(*args, "--force"), "")
            self.assertNotEqual(self.tree(), before)
        self.fails(REFUSED, "settingsctl: set device/identity/serial: read-only (Prohibited = 0x80000066)",
                   "set", "device/identity/serial", "x")

    def test_create_replace_attr_delete(self):
        self.assertEqual(self.ok("create", "a/b/c", "1"), "a/b/c created\n")
        self.assertEqual(self.ok("create", "a/b/c", "1"), "a/b/c unchanged\n")
        self.fails(REFUSED, "settingsctl: create a/b/c: a different setting is already there (Found = 0x8000004d)", "create", "a/b/c", "2")
        self.write("node.json", '{"format": "settingsctl/1", "node": {"type": "uint8", "value": 3, "readOnly": true}}')
        self.assertEqual(self.ok("create", "x", "--from", "node.json"), "x created\n")
        self.assertEqual(self.ok("create", "y", "--from", "-", "--read-only", stdin='{"k": "v"}'), "y created\n")
        self.assertEqual(self.ok("dump", "x"), "x: uint8 = 3 [read-only]\n")
        self.assertEqual(self.ok("dump", "y"), 'y: map [read-only]\n  k: string = "v"\n')
        self.assertEqual(self.ok("replace", "a/b/c", "2", "--read-only"), "a/b/c replaced\n")
        self.assertEqual(self.ok("attr", "a/b/c", "--read-only=false"), "a/b/c changed\n")
        self.assertEqual(self.ok("attr", "a/b/c", "--read-only=false"), "a/b/c unchanged\n")
        self.assertEqual(self.ok("replace", "a/b", "--from", "-", stdin="[1, 2]"), "a/b replaced\n")
        self.fails(REFUSED, "settingsctl: delete a/b/0: list elements cannot be deleted (Prohibited = 0x80000066)", "delete", "a/b/0")
        self.assertEqual(self.ok("delete", "a/b"), "a/b deleted\n")
        self.fails(NOT_FOUND_STATUS, f"settingsctl: delete a/b: {NOT_FOUND}", "delete", "a/b")
        self.assertEqual(self.ok("dump", "a"), "a: map (empty)\n")

    def test_import_replaces_or_merges(self):
        self.import_example()
        self.write("net.json", {"port": 1, "extra": {"on": True}})
        self.assertEqual(self.ok("import", "net.json", "--at", "device/network", "--merge"), "device/network merged\n")
        self.assertEqual(self.ok("ls", "device/network").count("\n"), 7)
        self.assertEqual(self.ok("import", "net.json", "--at", "device/network", "--merge"), "device/network unchanged\n")
        self.assertEqual(self.ok("import", "net.json", "--at", "device/network"), "device/network replaced\n")
        self.assertEqual(self.ok("ls", "device/network"), "extra: map\nport: int64\n")
        self.assertEqual(self.ok("import", "net.json", "--at", "new/deep"), "new/deep created\n")
        self.write("top.json", {"top": 1, "new": {"deep": {"port": 1, "extra": {"on": True}}}})
        self.assertEqual(self.ok("import", "top.json", "--merge"), "top created\n")
        self.assertEqual(self.ok("import", "top.json", "--force"), "device deleted\n")
        self.assertEqual(self.ok("import", "top.json"), "/ unchanged\n")
        self.write("list.json", "[1]")
        self.fails(BAD_INPUT, "settingsctl: import list.json: the whole tree is a map, not a list; give --at PATH", "import", "list.json")
        self.fails(REFUSED, "settingsctl: import list.json: top is an int64, which holds no 'x'", "import", "list.json", "--at", "top/x")


class Scripting(ToolCase):
    def test_exit_statuses_and_json_errors(self):
        self.import_example()
        self.write("junk.db", "not a database, just text long enough to hold a header\n" * 20)
        cases = [  # the library's code and reason, when a library call failed
            (["get", "device/nope"], NOT_FOUND_STATUS, "not-found", "0x8000004c", "^No setting at 'device/nope/'$"),
            (["set", "device/firmware/version", "2"], REFUSED, "refused", "0x80000066", "^Prohibited = 0x80000066$"),
            (["set", "device/network/port", "x"], BAD_INPUT, "bad-input", None, None),
            (["get", "wifi/5ghz"], BAD_INPUT, "bad-input", None, None),
            (["get", "a", "--db=junk.db"], DATABASE, "database", "0x80000059", "^.SMDB. Could not open .*: file is not a database$"),
            (["frob"], BAD_INPUT, "bad-input", None, None),
        ]
        for args, status, kind, code, reason in cases:
            db = None if "--db=junk.db" in args else "test.db"
            result = self.run_tool("--json", *args, db=db)
            self.assertEqual((result.returncode, result.stdout), (status, b""), args)
            error = json.loads(result.stderr)
            self.assertEqual((error["error"], error["status"], error.get("code")), (kind, status, code), args)
            if code:
                self.assertTrue(error["codeText"].endswith(" = " + code))
                self.assertRegex(error["reason"], reason)
                self.assertIn(error["codeText"], error["message"])
            quiet = self.run_tool("-q", *args, db=db)
            self.assertEqual((quiet.returncode, quiet.stderr), (status, b""), args)
        self.assertEqual(json.loads(self.ok("--json", "set", "device/network/port", "1")),
                         {"path": "device/network/port", "outcome": "changed"})
        self.assertEqual(self.ok("-q", "set", "device/network/port", "2"), "")
        self.assertEqual(self.ok("-q", "get", "device/network/port"), "2\n")

    def test_output_is_checked(self):
        self.import_example()
        with open("/dev/full", "wb") as full:
            for args in (["export"], ["--json", "get"], ["set", "device/network/port", "3"]):
                result = self.run_tool(*args, stdout=full)
                self.assertEqual(result.returncode, 1, args)
                self.assertIn("cannot write the output: No space left on device", result.stderr.decode())
                self.assertEqual(len(result.stderr.splitlines()), 1)

    def test_library_records_only_with_verbose(self):
        self.import_example()
        mismatch = r"library error: .*SetValue\(device/network/port/\): old/new value type mismatch: \d+/\d+\n"
        for i, (flags, level, expected) in enumerate([
                ([], "trace", "^$"), ([], "loud", "^$"),  # quiet whatever the variable says
                (["-v"], "error", f"^{mismatch}$"),
                (["-v"], "loud", f"^library error: Ignored SETTINGS_MANAGER_LOG_LEVEL='loud': expected 0 to 6 .*\n{mismatch}$"),
                (["-v"], None, r"^library info: (.*\n)*library info: \[SMDB\] VerifySchema\.\.\.\n(.*\n)*" + mismatch)]):
            args = ["set", "device/network/port", str(i)] + ["--type", "int8" if i % 2 else "uint16"]
            result = self.run_tool(*flags, *args, env={"SETTINGS_MANAGER_LOG_LEVEL": level} if level else {})
            self.assertEqual((result.returncode, result.stdout), (0, b"device/network/port changed\n"), (flags, level))
            self.assertRegex(result.stderr.decode(), expected, (flags, level))

    def test_conventions(self):
        self.assertEqual(self.ok("help", "--verbs").split(), ["get", "ls", "dump", "export", "attr", "set", "create", "replace",
                                                            "delete", "import", "backup", "restore", "watch", "help"])
        self.assertIn("Exit status: 0 done", self.ok("help"))
        self.assertEqual(self.ok("help"), self.ok("--help"))
        self.assertIn("Usage: settingsctl import [OPTIONS] FILE", self.ok("help", "import"))
        self.assertRegex(self.ok("--version"), r"^settingsctl \S+ \(library: libsettings_manager \S+\)\n$")
        unknown = "settingsctl: unknown verb 'frob' (settingsctl help --verbs lists them)"
        self.fails(BAD_INPUT, unknown, "frob")
        self.fails(BAD_INPUT, unknown, "help", "frob")
        self.fails(BAD_INPUT, "settingsctl: no verb given (settingsctl help --verbs lists them)")
        self.fails(BAD_INPUT, "settingsctl: --db: an empty path names no database (--memory works without one)", "create", "a", "1", db="")
        # The database: --db, else SETTINGSCTL_DB, else settings.db.
        self.assertEqual(self.ok("create", "k", "1", db=None, env={"SETTINGSCTL_DB": "env.db"}), "k created\n")
        self.assertEqual(self.ok("create", "k", "2", db=None), "k created\n")
        self.assertEqual([self.ok("get", "k", db=db) for db in ("env.db", "settings.db")], ["1\n", "2\n"])
        self.assertEqual(self.ok("--memory", "create", "m", "1", db=None), "m created\n")
        self.assertEqual(self.files(), ["env.db", "settings.db"])


class BadInput(ToolCase):
    def test_rules_are_named(self):
        for path, rule in [("wifi/5ghz", "a key must not begin with a digit ('5ghz')"),
                           ("dns_servers", "a key must not hold '_' ('dns_servers')"),
                           ("a b", "a key must not hold ' ' (a blank) ('a b')"),
                           ("0/a", "a path begins with a key, not a list index ('0')"),
                           ("l/70000", "a list index goes up to 65535 ('70000')"),
                           ("a//b", "a path has no empty steps")]:
            self.fails(BAD_INPUT, f"settingsctl: create {path}: invalid path '{path}': {rule}", "create", path, "1")
        deep = "a/" * 300
        self.fails(BAD_INPUT, None, "get", deep)
        for doc in ["[" * 20000 + "]" * 20000, {"k": json.loads("[" * 300 + "]" * 300)}]:
            self.write("deep.json", doc)
            self.assertRegex(self.fails(BAD_INPUT, None, "import", "deep.json"), r"settings nest at most 256 levels deep, and .* goes deeper$")
        self.write("keys.json", '{"device": {"bad key": 1}}')
        self.fails(BAD_INPUT, "settingsctl: import keys.json: at /device: 'bad key': a key must not hold ' ' (a blank)", "import", "keys.json")
        self.write("bad.json", '{\n  "a": 1,\n  "b": 2 3\n}\n')
        self.assertRegex(self.fails(BAD_INPUT, None, "import", "bad.json"), r"^settingsctl: import bad\.json: malformed JSON: parse error at line 3, column \d+: ")
        self.fails(BAD_INPUT, "settingsctl: import missing.json: cannot read 'missing.json': No such file or directory", "import", "missing.json")
        self.assertFalse((self.dir / "test.db").exists())

    def test_bad_typed_nodes_name_their_place(self):
        cases = [({"type": "map", "value": {"port": {"type": "uint16", "value": 70000}}}, "at /node/value/port/value: 70000 is out of range for uint16"),
                 ({"type": "int8", "value": 1.5}, "at /node/value: an int8 is a JSON integer"),
                 ({"type": "list", "value": [{"type": "word"}]}, 'at /node/value/0/type: unknown type "word"'),
                 ({"type": "bool", "value": True, "readonly": True}, 'at /node: unknown member "readonly"'),
                 ({"type": "uint64"}, 'at /node: a uint64 node needs a "value"')]
        for node, message in cases:
            self.write("t.json", {"format": "settingsctl/1", "path": "dev", "node": node})
            self.fails(BAD_INPUT, f"settingsctl: import t.json: {message}", "import", "t.json")

    def test_database_failures_name_the_real_reason(self):
        self.ok("create", "a", "1")
        self.write("junk.db", "not a database, just some text that is long enough\n" * 20)
        # Another process's write lock on locked.db, held past the busy timeout, stops no read.
        for name, sql in [("newer.db", "UPDATE meta SET value = '2'"), ("locked.db", "BEGIN IMMEDIATE")]:
            connection = sqlite3.connect(shutil.copy(self.dir / "test.db", self.dir / name), isolation_level=None)
            self.addCleanup(connection.close)
            connection.execute(sql)
        self.assertEqual(self.ok("get", "a", db="locked.db"), "1\n")
        for args, db, reason in [
                (["get", "a"], "junk.db", r"cannot read the database 'junk\.db': .*: file is not a database \(Media error = 0x80000059\)"),
                (["set", "a", "1"], "junk.db", r"cannot open the database 'junk\.db': .*: file is not a database \(Media error"),
                (["get", "a"], "newer.db", r"cannot read the database 'newer\.db': \[SMDB\] Unexpected schema version: '2' \(Invalid result"),
                (["set", "a", "1"], "no/such/x.db", r"cannot open the database 'no/such/x\.db': .*: unable to open database file: No such file or dir"),
                (["backup", "no/b.db"], "test.db", r"cannot back up the database 'test\.db': .*: cannot create the copy 'no/b\.db\.partial': No such file"),
                (["set", "a", "2"], "locked.db", r"cannot change the database 'locked\.db': \[SMDB\] Set: begin transaction: database is locked "
                                                 r"by another connection for longer than the busy timeout of 5000 ms \(")]:
            self.fails(DATABASE, re.compile(f"^settingsctl: {args[0]} {args[1]}: {reason}"), *args, db=db)


class BackupRestore(ToolCase):
    def test_backup_and_restore(self):
        self.import_example()
        saved = self.tree()
        self.assertEqual(self.ok("backup", "b.db"), "b.db written\n")
        self.ok("set", "device/network/port", "1")
        self.ok("create", "extra", "1")
        self.write("junk.db", "x" * 4096)
        os.mkfifo(self.dir / "fifo")
        self.fails(BAD_INPUT, "settingsctl: backup fifo: the backup 'fifo' is a FIFO, not a regular file", "backup", "fifo")
        for bad, why in [("junk.db", "file is not a database"), ("missing.db", "no such file: missing.db")]:
            self.fails(BAD_INPUT, re.compile(f"^settingsctl: restore {bad}: cannot read the backup '{bad}': .*: {why} "), "restore", bad)
        # A running watch hears what the restore changed.
        self.assertEqual(self.ok("watch", stdin="restore b.db\nrestore b.db\n"),
                         "/ restored\nevent: device/network/port value\nevent: extra deleted\n/ unchanged\n")
        self.assertEqual(self.tree(), saved)
        self.assertEqual(self.tree(db="b.db"), saved)
        self.assertEqual(self.files(), ["b.db", "fifo", "junk.db", "test.db"])

    def test_backup_during_concurrent_writes(self):
        self.ok("create", "c", '{"a": 0, "b": 0}')
        steps = 300
        script = "".join(f'replace c {{"a":{i},"b":{i}}}\n' for i in range(1, steps + 1)).encode()
        writer = subprocess.Popen(self.command("watch", "elsewhere"), cwd=self.dir, stdin=subprocess.PIPE,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        feeder = threading.Thread(target=lambda: (writer.stdin.write(script), writer.stdin.close()))
        feeder.start()
        seen = []
        for i in range(6):
            self.ok("-q", "backup", f"copy{i}.db")
            seen.append(json.loads(self.ok("--json", "get", "c", db=f"copy{i}.db")))
        feeder.join()
        with writer.stderr:
            self.assertEqual((writer.stderr.read(), writer.wait(timeout=60)), (b"", 0))
        for state in seen:  # each copy is one committed state: both keys of one replace
            self.assertEqual(state["a"], state["b"])
            self.assertTrue(0 <= state["a"] <= steps)
        self.assertEqual(json.loads(self.ok("--json", "get", "c")), {"a": steps, "b": steps})


class AtomicImport(ToolCase):
    def test_killed_import_applies_all_or_nothing(self):
        self.import_example()
        before = self.tree()
        self.write("big.json", {f"k{i}": {"a": i, "b": [i, str(i)], "c": {"d": True}} for i in range(2000)})
        start = time.monotonic()
        self.ok("import", "big.json", "--force", db="full.db")
        duration = time.monotonic() - start
        after = self.tree(db="full.db")
        rng = random.Random(15)
        outcomes = set()
        for attempt in range(8):
            process = subprocess.Popen(self.command("import", "big.json", "--force"), cwd=self.dir,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0, duration * 1.2))
            process.send_signal(signal.SIGKILL if attempt % 2 == 0 else signal.SIGINT)
            process.wait(timeout=60)
            tree = self.tree()
            self.assertIn(tree, (before, after), f"attempt {attempt}: a partial import")
            outcomes.add(tree == after)
            if tree == after:
                self.ok("-q", "import", "-", "--force", stdin=before)
                self.assertEqual(self.tree(), before)
        print(f"\n  import of 8,000 nodes: {duration * 1000:.0f} ms; applied whole in {sorted(outcomes)}", file=sys.stderr)


class Watch(ToolCase):
    def test_events_in_delivery_order(self):
        self.import_example()
        self.write("two.json", '{"b": 1, "a": 2}')
        script = "\n".join([
            "set device/network/port 8081", "get device/network/port", "# a comment, and an empty line", "",
            "create device/network/ntp pool.example", "attr device/network/ntp --read-only=true",
            "replace device/network/ntp 'time example' --force", "set device/network/port 8081",
            "delete device/network/ntp", "import two.json --merge", "ls", ""])
        self.assertEqual(self.ok("watch", stdin=script), "\n".join([
            "device/network/port changed", "event: device/network/port value", "8081",
            "device/network/ntp created", "event: device/network/ntp created",
            "device/network/ntp changed", "event: device/network/ntp attributes",
            "device/network/ntp replaced", "event: device/network/ntp setting",
            "device/network/port unchanged",
            "device/network/ntp deleted", "event: device/network/ntp deleted",
            "a created", "b created", "event: a created", "event: b created",
            "a: int64", "b: int64", "device: map", ""]))

    def test_subtree_only_and_failures(self):
        self.import_example()
        script = "\n".join(["set device/identity/name other", "set device/firmware/version 2", "set device/network/mtu 9000",
                            "bogus", "import -", "delete device/network", "get device/identity/name", "exit", "set device/network/mtu 1"])
        result = self.run_tool("--json", "watch", "device/network", stdin=script)
        self.assertEqual(result.returncode, BAD_INPUT)
        self.assertEqual([json.loads(line) for line in result.stdout.decode().splitlines()], [
            {"path": "device/identity/name", "outcome": "changed"},
            {"path": "device/network/mtu", "outcome": "changed"}, {"event": "value", "path": "device/network/mtu"},
            {"path": "device/network", "outcome": "deleted"}, {"event": "deleted", "path": "device/network"}, "other"])
        self.assertEqual([json.loads(line)["message"] for line in result.stderr.decode().splitlines()], [
            "read-only (Prohibited = 0x80000066)", "unknown verb 'bogus' (help lists them)", "standard input carries the commands here"])

    def test_changes_of_other_processes_are_shown(self):
        """A watch session prints what other settingsctl processes change, while it waits."""
        self.import_example()
        self.ok("-q", "backup", "saved.db")
        # A command of its own first: its answer tells that the subscription is in place.
        watch = self.start_watch("device/network", line="get device/network/port", answer="8080\n")
        self.ok("set", "device/network/port", "8081")
        self.assertEqual(watch.stdout.readline(), b"event: device/network/port value\n")
        self.ok("create", "device/network/ntp", "pool.example")
        self.assertEqual(watch.stdout.readline(), b"event: device/network/ntp created\n")
        self.assertEqual(self.ok("restore", "saved.db"), "/ restored\n")
        self.assertEqual(sorted(watch.stdout.readline() for _ in range(2)),
                         [b"event: device/network/ntp deleted\n", b"event: device/network/port value\n"])
        # Its own tree took the changes in: the value the restore put back is there.
        watch.stdin.write(b"get device/network/port\nset device/network/port 8082\nget device/network/port\n")
        watch.stdin.close()
        self.assertEqual(watch.stdout.read().decode(), "\n".join([
            "8080", "device/network/port changed", "event: device/network/port value", "8082", ""]))
        self.assertEqual(watch.wait(timeout=60), 0)


if __name__ == "__main__":
    BINARY = str(pathlib.Path(sys.argv[1]).resolve())
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)
