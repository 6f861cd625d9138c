"""scripts/nut-dummy.sh: the upsd a newcomer tries the NUT source with. What
it prints is copied and pasted, so it must name a program that is there."""
import os
import shlex
import subprocess
import tempfile
import unittest

from nut_harness import UPSD, free_port

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
SCRIPT = os.path.join(ROOT, "scripts", "nut-dummy.sh")


@unittest.skipUnless(os.path.exists(UPSD), "NUT's upsd is not installed")
class NutDummyTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-nut-dummy-")
        self.addCleanup(self.dir.cleanup)

    def start(self):
        self.addCleanup(subprocess.run, [SCRIPT, "stop", self.dir.name], capture_output=True,
                        timeout=30)
        out = subprocess.run([SCRIPT, "start", self.dir.name, str(free_port())],
                             capture_output=True, text=True, timeout=60, stdin=subprocess.DEVNULL)
        self.assertEqual(out.returncode, 0, out.stderr)
        return out.stdout

    def test_the_printed_commands_name_a_program_that_runs_from_the_checkout(self):
        printed = self.start()
        # One command a line, a line that ends in a backslash going on.
        commands = [line.strip() for line in printed.replace("\\\n", " ").splitlines()
                    if "--nut dummy@" in line]
        self.assertEqual(len(commands), 2, printed)
        for command in commands:
            words = shlex.split(command)
            program = os.path.join(ROOT, words[0])
            self.assertTrue(os.access(program, os.X_OK), "%s names %r: no program there"
                            % (command, words[0]))
            if os.path.basename(program) != "tarsel-modbusd":
                continue  # scripts/run.sh, which would install and build first
            out = subprocess.run([program, *words[1:], "--check"], cwd=ROOT, capture_output=True,
                                 text=True, timeout=60)
            self.assertEqual(out.returncode, 0, out.stderr)


if __name__ == "__main__":
    unittest.main()
