"""bench/request_path/run.py: the callgrind pass reads each window's own dump.

callgrind_control and the load client are replaced by stand-ins that write
dumps into the pass's directory (or do not), so the choice of dump is checked
without valgrind.
"""
import importlib.util
import os
import subprocess
import tempfile
import types
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))


def load_bench():
    spec = importlib.util.spec_from_file_location(
        "request_path_run", os.path.join(ROOT, "bench", "request_path", "run.py"))
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def write_dump(path, instructions):
    with open(path, "w") as dump:
        dump.write(f"events: Ir\nsummary: {instructions}\n")


class FakeTools:
    """Stands in for subprocess.run: the load client answers at once, and each
    dump asked of callgrind writes the next of `dumps` (name, instructions),
    or nothing once they are used up."""

    def __init__(self, workdir, dumps):
        self.workdir, self.dumps = workdir, list(dumps)

    def __call__(self, command, **_):
        if command[0] == "callgrind_control" and command[1].startswith("--dump"):
            if self.dumps:
                name, instructions = self.dumps.pop(0)
                write_dump(os.path.join(self.workdir, name), instructions)
        stdout = "per_second 1000\n" if command[0] == "taskset" else ""
        return subprocess.CompletedProcess(command, 0, stdout, "")


class MeasuredInstructionsTest(unittest.TestCase):
    PID = 4242

    def setUp(self):
        self.bench = load_bench()
        self.bench.DUMP_WAIT_SECONDS = 1
        self.workdir = tempfile.TemporaryDirectory()
        self.addCleanup(self.workdir.cleanup)
        self.server = types.SimpleNamespace(port=1, process=types.SimpleNamespace(pid=self.PID))

    def measure(self, dumps):
        self.bench.subprocess.run = FakeTools(self.workdir.name, dumps)
        self.addCleanup(setattr, self.bench.subprocess, "run", subprocess.run)
        return self.bench.measured_instructions(self.server, "client", ("FC3", 3, 0, 2), 10,
                                                self.workdir.name)

    def test_busy_less_idle_over_the_requests_from_the_dumps_of_the_windows(self):
        # A dump of the same process from before the windows is not counted.
        write_dump(os.path.join(self.workdir.name, f"callgrind.out.{self.PID}.1"), 999_999)
        per_request = self.measure([(f"callgrind.out.{self.PID}.2", 5_000),
                                    (f"callgrind.out.{self.PID}.3", 1_000)])
        self.assertEqual(per_request, 400)

    def test_a_window_whose_dump_never_appears_fails_rather_than_reading_an_older_one(self):
        write_dump(os.path.join(self.workdir.name, f"callgrind.out.{self.PID}.1"), 5_000)
        with self.assertRaises(RuntimeError):
            self.measure([])

    def test_a_newer_dump_of_another_process_is_not_taken_for_ours(self):
        other = self.PID * 10 + 1
        tools = [(f"callgrind.out.{self.PID}.1", 5_000), (f"callgrind.out.{self.PID}.2", 1_000)]
        self.bench.subprocess.run = FakeTools(self.workdir.name, tools)
        self.addCleanup(setattr, self.bench.subprocess, "run", subprocess.run)
        original = self.bench.subprocess.run

        def dump_then_other(command, **options):
            result = original(command, **options)
            if command[0] == "callgrind_control" and command[1].startswith("--dump"):
                # Written later than ours: the newest file in the directory.
                path = os.path.join(self.workdir.name, f"callgrind.out.{other}")
                write_dump(path, 9_000_000)
                os.utime(path, (os.path.getmtime(path) + 5, os.path.getmtime(path) + 5))
            return result

        self.bench.subprocess.run = dump_then_other
        per_request = self.bench.measured_instructions(self.server, "client", ("FC3", 3, 0, 2),
                                                       10, self.workdir.name)
        self.assertEqual(per_request, 400)


if __name__ == "__main__":
    unittest.main()
