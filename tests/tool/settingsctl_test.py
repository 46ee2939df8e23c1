#!/usr/bin/env python3
"""Drives the real settingsctl binary, each case in a temporary folder of its own.

    settingsctl_test.py SETTINGSCTL [Class.test_name ...]
"""

import json
import pathlib
import subprocess
import sys
import tempfile
import threading
import unittest

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLE = HERE.parent.parent / "examples" / "device.json"
ALL_TYPES = HERE / "all_types.json"
ALL_TYPES_EXPECTED = HERE / "all_types.expected.json"
BINARY = None

READ_ONLY = "read-only (Prohibited = 0x80000066)"
NOT_FOUND = "no such setting (Not found = 0x8000004c)"
BAD_CHAR = "a character keys may not hold (/ \\ \" ' ` % _ or a blank)"


class ToolCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="settingsctl-")
        self.addCleanup(folder.cleanup)
        self.dir = pathlib.Path(folder.name)

    def run_tool(self, *args, stdin=b"", db="test.db"):
        command = [BINARY] + (["--db", db] if db else []) + [str(a) for a in args]
        if isinstance(stdin, str):
            stdin = stdin.encode()
        return subprocess.run(command, cwd=self.dir, input=stdin, capture_output=True, timeout=60)

    def ok(self, *args, **kwargs):
        result = self.run_tool(*args, **kwargs)
        self.assertEqual(result.returncode, 0, f"{args}: {result.stderr.decode()}")
        return result.stdout.decode()

    def fails(self, status, message, *args, **kwargs):
        """Runs a command that must fail with `status` and exactly one line of ours."""
        result = self.run_tool(*args, **kwargs)
        self.assertEqual(result.returncode, status, f"{args}: {result.stderr.decode()}")
        self.assertEqual(result.stdout, b"")
        ours = [line for line in result.stderr.decode().splitlines() if line.startswith("settingsctl:")]
        if message is not None:
            self.assertEqual(ours, [message])
        return ours

    def write(self, name, text):
        (self.dir / name).write_text(text)
        return name

    def import_example(self, **kwargs):
        self.assertEqual(self.ok("import", EXAMPLE, **kwargs), "device created\n")


class RoundTrip(ToolCase):
    def test_all_alternatives_byte_identical(self):
        self.assertEqual(self.ok("import", ALL_TYPES), "all created\n")
        first = self.run_tool("export", "all").stdout
        (self.dir / "first.json").write_bytes(first)
        self.assertEqual(self.ok("import", "first.json", db="other.db"), "all created\n")
        second = self.run_tool("export", "all", db="other.db").stdout
        self.assertEqual(first, second)
        # The marks survive too, both values of them.
        self.assertEqual(self.ok("attr", "all/list"), "read-only: true\n")
        self.assertEqual(self.ok("attr", "all/boolFalse", db="other.db"), "read-only: false\n")

    def test_export_is_canonical(self):
        expected = ALL_TYPES_EXPECTED.read_bytes()
        self.ok("import", ALL_TYPES)
        self.assertEqual(self.run_tool("export", "all").stdout, expected)
        self.ok("import", ALL_TYPES_EXPECTED, db="other.db")
        self.assertEqual(self.run_tool("export", "all", db="other.db").stdout, expected)
        for path, text in [("all/int64Min", "-9223372036854775808"), ("all/uint64", "18446744073709551615"),
                           ("all/int64Big", "9007199254740993"), ("all/doubleTenth", "0.1"),
                           ("all/doubleNegZero", "-0"), ("all/timestamp", "2024-05-01T12:00:00.250001Z"),
                           ("all/bytes", "00017f80ff"), ("all/int8", "127")]:
            self.assertEqual(self.ok("get", path), text + "\n", path)

    def test_through_standard_input_at_another_path(self):
        self.ok("import", ALL_TYPES)
        exported = self.run_tool("export", "all").stdout
        self.assertEqual(self.ok("import", "-", "--at", "copy/of", stdin=exported), "copy/of created\n")
        copy = json.loads(self.run_tool("export", "copy/of").stdout)
        self.assertEqual(copy["path"], "copy/of")
        self.assertEqual(copy["node"], json.loads(exported)["node"])

    def test_example_device_configuration(self):
        self.import_example()
        self.assertEqual(self.ok("set", "device/network/port", "8081"), "device/network/port changed\n")
        self.assertEqual(self.ok("get", "device/network/port"), "8081\n")
        self.assertIn("    port: uint16 = 8081\n", self.ok("dump", "device"))
        exported = self.run_tool("export", "device").stdout
        self.assertEqual(self.ok("import", "-", db="other.db", stdin=exported), "device created\n")
        self.assertEqual(self.run_tool("export", "device", db="other.db").stdout, exported)


class Import(ToolCase):
    def test_plain_json_default_types(self):
        self.write("plain.json", json.dumps({"cfg": {
            "count": 5, "neg": -3, "top": 9223372036854775807, "huge": 9223372036854775808,
            "ratio": 1.5, "name": "x", "on": True, "nothing": None, "items": [1, "two"], "empty": {}}}))
        self.assertEqual(self.ok("import", "plain.json"), "cfg created\n")
        self.assertEqual(self.ok("dump", "cfg"), "\n".join([
            "cfg: map",
            "  count: int64 = 5",
            "  empty: map (empty)",
            "  huge: uint64 = 9223372036854775808",
            "  items: list",
            "    0: int64 = 1",
            '    1: string = "two"',
            '  name: string = "x"',
            "  neg: int64 = -3",
            "  nothing: none",
            "  on: bool = true",
            "  ratio: double = 1.5",
            "  top: int64 = 9223372036854775807",
            ""]))
        self.write("list.json", "[1, 2.5]")
        self.assertEqual(self.ok("import", "list.json", "--at", "a/b"), "a/b created\n")
        self.assertEqual(self.ok("dump", "a/b"), "a/b: list\n  0: int64 = 1\n  1: double = 2.5\n")

    def test_replaces_existing_and_reports_unchanged(self):
        self.import_example()
        self.assertEqual(self.ok("import", EXAMPLE), "device unchanged\n")
        self.ok("set", "device/network/port", "9000")
        self.ok("attr", "device/identity/serial", "--read-only=false")
        self.assertEqual(self.ok("import", EXAMPLE), "device replaced\n")
        self.assertEqual(self.ok("get", "device/network/port"), "8080\n")
        self.assertEqual(self.ok("attr", "device/identity/serial"), "read-only: true\n")

    def test_whole_tree_needs_a_map(self):
        self.write("list.json", "[1, 2]")
        self.fails(2, "settingsctl: import list.json: the whole tree is a map, not a list; give --at PATH",
                   "import", "list.json")


class Verbs(ToolCase):
    def test_get_scalar_subtree_and_json(self):
        self.ok("create", "net/port", "8080", "--type", "uint16")
        self.ok("create", "net/name", "sensor one")
        self.assertEqual(self.ok("get", "net/name"), "sensor one\n")
        self.assertEqual(self.ok("get", "net"), 'net: map\n  name: string = "sensor one"\n  port: uint16 = 8080\n')
        self.assertEqual(self.ok("get", "net", "--json"), '{\n  "name": "sensor one",\n  "port": 8080\n}\n')
        self.assertEqual(self.ok("get", "net/port", "--json"), "8080\n")
        self.assertEqual(self.ok("dump", "net/port"), "net/port: uint16 = 8080\n")
        self.assertEqual(self.ok("dump", "net/", "--json"), '{\n  "name": "sensor one",\n  "port": 8080\n}\n')

    def test_set_keeps_the_type(self):
        self.ok("create", "net/port", "8080", "--type", "uint16")
        self.assertEqual(self.ok("set", "net/port", "8081"), "net/port changed\n")
        self.assertEqual(self.ok("dump", "net/port"), "net/port: uint16 = 8081\n")
        self.assertEqual(self.ok("set", "net/port", "8081"), "net/port unchanged\n")
        self.ok("create", "label", "abc")
        self.ok("set", "label", "42")
        self.assertEqual(self.ok("dump", "label"), 'label: string = "42"\n')
        self.ok("set", "net/port", "-5", "--type", "int32")
        self.assertEqual(self.ok("dump", "net/port"), "net/port: int32 = -5\n")

    def test_set_with_type_and_text_forms(self):
        self.ok("create", "t", "2024-05-01T12:00:00.25Z", "--type", "timestamp")
        self.assertEqual(self.ok("get", "t"), "2024-05-01T12:00:00.250000Z\n")
        self.assertEqual(json.loads(self.ok("export", "t"))["node"], {"type": "timestamp", "value": 1714564800250000})
        self.ok("set", "t", "1")
        self.assertEqual(self.ok("get", "t"), "1970-01-01T00:00:00.000001Z\n")
        for path, type_, text, shown in [("b", "bytes", "00FF", "b: bytes = 00ff"), ("d", "double", "1e-3", "d: double = 0.001"),
                                         ("f", "bool", "true", "f: bool = true"), ("e", "none", None, "e: none"),
                                         ("l", "list", None, "l: list (empty)"), ("i8", "int8", "-128", "i8: int8 = -128"),
                                         ("m", "map", '{"a": 1}', "m: map\n  a: int64 = 1")]:
            self.ok("create", path, *([text] if text is not None else []), "--type", type_)
            self.assertEqual(self.ok("dump", path), shown + "\n")
        for path, text, shown in [("n", "12", "n: int64 = 12"), ("q", '"12"', 'q: string = "12"'),
                                  ("w", "hello world", 'w: string = "hello world"'), ("z", "[true]", "z: list\n  0: bool = true")]:
            self.ok("create", path, text)
            self.assertEqual(self.ok("dump", path), shown + "\n")

    def test_create_replace_attr_delete(self):
        self.assertEqual(self.ok("create", "a/b/c", "1"), "a/b/c created\n")
        self.assertEqual(self.ok("create", "a/b/c", "1"), "a/b/c unchanged\n")
        self.assertEqual(self.ok("dump", "a"), "a: map\n  b: map\n    c: int64 = 1\n")
        self.write("node.json", '{"format": "settingsctl/1", "node": {"type": "uint8", "value": 3, "readOnly": true}}')
        self.assertEqual(self.ok("create", "x", "--json", "node.json"), "x created\n")
        self.assertEqual(self.ok("dump", "x"), "x: uint8 = 3 [read-only]\n")
        self.assertEqual(self.ok("create", "y", "--json", "-", "--read-only", stdin='{"k": "v"}'), "y created\n")
        self.assertEqual(self.ok("dump", "y"), 'y: map [read-only]\n  k: string = "v"\n')
        self.assertEqual(self.ok("replace", "a/b/c", "2"), "a/b/c replaced\n")
        self.assertEqual(self.ok("replace", "a/b/c", "2", "--read-only"), "a/b/c replaced\n")
        self.assertEqual(self.ok("dump", "a/b/c"), "a/b/c: int64 = 2 [read-only]\n")
        self.assertEqual(self.ok("attr", "a/b/c"), "read-only: true\n")
        self.assertEqual(self.ok("attr", "a/b/c", "--read-only=false"), "a/b/c changed\n")
        self.assertEqual(self.ok("attr", "a/b/c", "--read-only=false"), "a/b/c unchanged\n")
        self.assertEqual(self.ok("replace", "a/b", "--json", "-", stdin='[1]'), "a/b replaced\n")
        self.assertEqual(self.ok("dump", "a"), "a: map\n  b: list\n    0: int64 = 1\n")
        self.assertEqual(self.ok("delete", "a/b"), "a/b deleted\n")
        self.assertEqual(self.ok("dump", "a"), "a: map (empty)\n")

    def test_memory_and_default_database(self):
        self.assertEqual(self.ok("create", "k", "1", db=None), "k created\n")
        self.assertTrue((self.dir / "settings.db").is_file())
        self.assertEqual(self.ok("get", "k", db=None), "1\n")
        self.assertEqual(self.ok("--memory", "create", "m", "1", db=None), "m created\n")
        self.fails(1, f"settingsctl: get m: {NOT_FOUND}", "--memory", "get", "m", db=None)
        self.assertEqual(sorted(p.name for p in self.dir.iterdir()), ["settings.db"])


class Failures(ToolCase):
    def assert_device_unchanged(self, before):
        self.assertEqual(self.run_tool("export", "device").stdout, before)

    def test_read_only_refused(self):
        self.import_example()
        before = self.run_tool("export", "device").stdout
        self.fails(1, f"settingsctl: set device/firmware/version: {READ_ONLY}", "set", "device/firmware/version", "9.9.9")
        # A read-only node below makes its ancestors read-only for the value setter too.
        self.fails(1, f"settingsctl: set device/firmware: {READ_ONLY}", "set", "device/firmware", "{}")
        self.assert_device_unchanged(before)

    def test_missing_settings(self):
        self.import_example()
        before = self.run_tool("export", "device").stdout
        self.fails(1, f"settingsctl: get device/nope: {NOT_FOUND}", "get", "device/nope")
        self.fails(1, f"settingsctl: set device/nope: {NOT_FOUND}", "set", "device/nope", "1")
        self.fails(1, f"settingsctl: set device/nope: {NOT_FOUND}", "set", "device/nope", "1", "--type", "uint8")
        self.fails(1, f"settingsctl: replace device/nope: {NOT_FOUND}", "replace", "device/nope", "1", "--type", "uint8")
        self.fails(1, f"settingsctl: attr device/nope: {NOT_FOUND}", "attr", "device/nope", "--read-only=true")
        self.fails(1, "settingsctl: delete device/nope: no such setting", "delete", "device/nope")
        self.fails(1, "settingsctl: delete nope/x: no such setting (Not matched = 0x8000004a)", "delete", "nope/x")
        self.assert_device_unchanged(before)

    def test_create_over_a_different_setting(self):
        self.ok("create", "a", "1")
        self.fails(1, "settingsctl: create a: a different setting is already there (Found = 0x8000004d)",
                   "create", "a", "2")
        self.assertEqual(self.ok("get", "a"), "1\n")

    def test_delete_list_element(self):
        self.ok("create", "l", "[1, 2]")
        self.fails(1, "settingsctl: delete l/0: list elements cannot be deleted (Prohibited = 0x80000066)",
                   "delete", "l/0")
        self.assertEqual(self.ok("get", "l", "--json"), "[\n  1,\n  2\n]\n")

    def test_bad_values_and_paths(self):
        self.import_example()
        before = self.run_tool("export", "device").stdout
        self.fails(2, "settingsctl: set device/network/port: '65536' is not a uint16 (0 to 65535)",
                   "set", "device/network/port", "65536")
        self.fails(2, "settingsctl: set device/network/port: '-1' is not a uint16 (0 to 65535)",
                   "set", "device/network/port", "-1")
        self.fails(2, "settingsctl: set device/network/dhcp: 'yes' is not a bool", "set", "device/network/dhcp", "yes")
        self.fails(2, "settingsctl: create device/x: 'abc' is not bytes (an even number of hex digits)",
                   "create", "device/x", "abc", "--type", "bytes")
        self.fails(2, "settingsctl: create device/x: 'noon' is not a timestamp "
                      "(microseconds since 1970, or like 2024-05-01T12:00:00Z)",
                   "create", "device/x", "noon", "--type", "timestamp")
        self.fails(2, f"settingsctl: create device/dns_servers: invalid path 'device/dns_servers': {BAD_CHAR}",
                   "create", "device/dns_servers", "1")
        self.fails(2, "settingsctl: get device//port: invalid path 'device//port': an empty step", "get", "device//port")
        self.fails(1, "settingsctl: get 0/a: invalid path (Invalid argument = 0x80000046)", "get", "0/a")
        self.write("keys.json", '{"device": {"bad key": 1}}')
        self.fails(2, f"settingsctl: import keys.json: at /device: the key 'bad key' holds {BAD_CHAR}",
                   "import", "keys.json")
        self.assert_device_unchanged(before)

    def test_malformed_json_names_line_and_column(self):
        self.write("bad.json", '{\n  "a": 1,\n  "b": 2 3\n}\n')
        message = self.fails(2, None, "import", "bad.json")
        self.assertEqual(len(message), 1)
        self.assertRegex(message[0], r"^settingsctl: import bad\.json: malformed JSON: parse error at line 3, column \d+: ")
        message = self.fails(2, None, "create", "x", "--json", "bad.json")
        self.assertRegex(message[0], r"^settingsctl: create x: bad\.json: malformed JSON: parse error at line 3, column \d+: ")
        self.fails(2, "settingsctl: import missing.json: cannot read 'missing.json': No such file or directory",
                   "import", "missing.json")
        self.fails(1, f"settingsctl: get x: {NOT_FOUND}", "get", "x")

    def test_bad_typed_nodes_name_their_place(self):
        def document(node):
            return json.dumps({"format": "settingsctl/1", "path": "dev", "node": node})
        cases = [
            ({"type": "map", "value": {"port": {"type": "uint16", "value": 70000}}},
             "at /node/value/port/value: 70000 is out of range for uint16"),
            ({"type": "int8", "value": 1.5}, "at /node/value: an int8 is a JSON integer"),
            ({"type": "list", "value": [{"type": "word"}]}, 'at /node/value/0/type: unknown type "word"'),
            ({"type": "bool", "value": True, "readonly": True}, 'at /node: unknown member "readonly"'),
            ({"type": "uint64"}, 'at /node: a uint64 node needs a "value"'),
            ({"type": "double", "value": "nan:0x0000000000000001"},
             'at /node/value: a double is a JSON number or "inf", "-inf", "nan", "nan:0x<16 hex digits>"'),
        ]
        for node, message in cases:
            self.write("t.json", document(node))
            self.fails(2, f"settingsctl: import t.json: {message}", "import", "t.json")
        self.fails(1, f"settingsctl: get dev: {NOT_FOUND}", "get", "dev")

    def test_database_that_cannot_be_opened(self):
        for db, why in [("no/such/folder/x.db", "its folder does not exist"), (".", "it is a folder")]:
            message = self.fails(1, None, "get", "a", db=db)
            self.assertEqual(len(message), 1)
            self.assertRegex(message[0], rf"^settingsctl: cannot open the database '{db}': .+ = 0x8[0-9a-f]{{7}} \({why}\)$")
        self.write("junk.db", "not a database, just some text that is long enough\n" * 20)
        message = self.fails(1, None, "get", "a", db="junk.db")
        self.assertRegex(message[0], r"^settingsctl: cannot open the database 'junk\.db': .+ = 0x8[0-9a-f]{7} "
                                     r"\(not an SQLite database file\)$")

    def test_command_line_usage(self):
        for args in [[], ["frob"], ["get"], ["set", "a"], ["--memory", "get", "a"], ["get", "a", "--bogus"],
                     ["set", "a", "1", "--type", "int7"], ["create", "a", "1", "--json", "f.json"]]:
            result = self.run_tool(*args)
            self.assertEqual(result.returncode, 2, args)
            self.assertNotEqual(result.stderr, b"", args)
        self.assertEqual(self.ok("--help").splitlines()[0], "Read, change, export, import and watch device settings.")


class Watch(ToolCase):
    def test_events_in_delivery_order(self):
        self.import_example()
        script = "\n".join([
            "set device/network/port 8081",
            "get device/network/port",
            "# a comment, and an empty line",
            "",
            "create device/network/ntp pool.example",
            "attr device/network/ntp --read-only=true",
            "replace device/network/ntp 'time example'",
            "set device/network/port 8081",
            "delete device/network/ntp",
            "import two.json",
            ""])
        self.write("two.json", '{"b": 1, "a": 2}')
        self.assertEqual(self.ok("watch", stdin=script), "\n".join([
            "device/network/port changed",
            "event: device/network/port value",
            "8081",
            "device/network/ntp created",
            "event: device/network/ntp created",
            "device/network/ntp changed",
            "event: device/network/ntp attributes",
            "device/network/ntp replaced",
            "event: device/network/ntp setting",
            "device/network/port unchanged",
            "device/network/ntp deleted",
            "event: device/network/ntp deleted",
            "a created",
            "b created",
            "event: a created",
            "event: b created",
            ""]))

    def test_subtree_only_and_failures(self):
        self.import_example()
        script = "\n".join([
            "set device/identity/name other",
            "set device/firmware/version 2",
            "set device/network/mtu 9000",
            "bogus",
            "import -",
            "delete device/network",
            "get device/identity/name",
            "exit",
            "set device/network/mtu 1"])
        result = self.run_tool("watch", "device/network", stdin=script)
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stdout.decode(), "\n".join([
            "device/identity/name changed",
            "device/network/mtu changed",
            "event: device/network/mtu value",
            "device/network deleted",
            "event: device/network deleted",
            "other",
            ""]))
        self.assertEqual(result.stderr.decode(), "\n".join([
            f"settingsctl: set device/firmware/version: {READ_ONLY}",
            "settingsctl: unknown command 'bogus' (help lists them)",
            "settingsctl: import: standard input carries the commands here",
            ""]))

    def test_changes_of_other_processes_are_shown(self):
        """A watch session prints what other settingsctl processes change, while it waits."""
        self.import_example()
        watch = subprocess.Popen([BINARY, "--db", "test.db", "watch", "device/network"], cwd=self.dir,
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(watch.kill)
        watchdog = threading.Timer(60, watch.kill)  # a missing line then ends the read
        watchdog.start()
        self.addCleanup(watchdog.cancel)
        # A command of its own first: its answer tells that the subscription is in place.
        watch.stdin.write(b"get device/network/port\n")
        watch.stdin.flush()
        self.assertEqual(watch.stdout.readline(), b"8080\n")
        self.ok("set", "device/network/port", "8081")
        self.assertEqual(watch.stdout.readline(), b"event: device/network/port value\n")
        self.ok("create", "device/network/ntp", "pool.example")
        self.assertEqual(watch.stdout.readline(), b"event: device/network/ntp created\n")
        # Its own tree took the changes in: the value the other process set is there.
        watch.stdin.write(b"set device/network/port 8080\nget device/network/port\n")
        watch.stdin.close()
        self.assertEqual(watch.stdout.read().decode(), "\n".join([
            "device/network/port changed", "event: device/network/port value", "8080", ""]))
        self.assertEqual(watch.wait(timeout=60), 0)


if __name__ == "__main__":
    BINARY = str(pathlib.Path(sys.argv[1]).resolve())
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)
