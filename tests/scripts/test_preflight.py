"""scripts/preflight.sh names the Debian package of whatever a job lacks.

Each test hides one thing from the preflight (a Python module shadowed by one
that fails to import, a command left out of PATH) and checks that the
preflight stops with one line naming that thing's package.
"""
import os
import shutil
import subprocess
import tempfile
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
PREFLIGHT = os.path.join(ROOT, "scripts", "preflight.sh")
CHECKED_COMMANDS = ["c++", "make", "cmake", "pkg-config", "git", "clang-format",
                    "arm-linux-gnueabihf-g++", "qemu-arm", "mbpoll", "dpkg-deb", "readelf",
                    "upsc", "upsrw", "upscmd", "openssl", "clang", "clang++", "lintian",
                    "dpkg-shlibdeps", "systemd-analyze", "man", "gzip", "strace"]


def run_preflight(job, env_changes):
    env = dict(os.environ)
    env.update(env_changes)
    return subprocess.run(["/bin/bash", PREFLIGHT, job], env=env, capture_output=True, text=True,
                          timeout=60)


def missing_lines(result):
    return [line for line in result.stdout.splitlines() if line.startswith("preflight: missing")]


class PreflightTest(unittest.TestCase):
    def test_passes_when_everything_the_suites_need_is_installed(self):
        result = run_preflight("test", {})
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertEqual(missing_lines(result), [])

    def test_names_the_package_of_a_python_module_that_cannot_be_imported(self):
        with tempfile.TemporaryDirectory() as shadow:
            with open(os.path.join(shadow, "serial_asyncio.py"), "w") as module:
                module.write("raise ModuleNotFoundError(\"No module named 'serial_asyncio'\", "
                             "name='serial_asyncio')\n")
            result = run_preflight("test", {"PYTHONPATH": shadow})
        self.assertEqual(result.returncode, 1)
        lines = missing_lines(result)
        self.assertTrue(lines, result.stdout)
        for line in lines:
            self.assertIn("(Debian package: python3-serial-asyncio)", line)

    def test_names_the_package_of_a_missing_command(self):
        with tempfile.TemporaryDirectory() as bin_dir:
            for command in CHECKED_COMMANDS:
                if command != "mbpoll":
                    os.symlink(shutil.which(command), os.path.join(bin_dir, command))
            result = run_preflight("test", {"PATH": bin_dir})
        self.assertEqual(result.returncode, 1)
        self.assertEqual(missing_lines(result),
                         ["preflight: missing command 'mbpoll' (Debian package: mbpoll)"])

    def test_run_job_does_not_need_the_test_tools(self):
        with tempfile.TemporaryDirectory() as bin_dir:
            for command in ["c++", "make", "cmake", "pkg-config"]:
                os.symlink(shutil.which(command), os.path.join(bin_dir, command))
            result = run_preflight("run", {"PATH": bin_dir})
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_refuses_an_unknown_job(self):
        result = run_preflight("deploy", {})
        self.assertEqual(result.returncode, 2)
        self.assertIn("unknown set 'deploy'", result.stderr)


if __name__ == "__main__":
    unittest.main()
