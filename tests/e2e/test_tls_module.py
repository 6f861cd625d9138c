"""The TLS module: tarsel-modbusd loads its OpenSSL code (and with it libssl
and libcrypto) from a module beside the program, for --tls-port only. A
daemon without TLS maps none of it; a daemon copied elsewhere looks for the
module beside the copy, and says which file it could not load and why."""
import fcntl
import os
import pty
import re
import shutil
import subprocess
import tempfile
import termios
import unittest
from unittest import mock

import harness
from harness import DAEMON, Daemon
from tls_certs import make_certificates

MODULE_FAILURE = re.compile(r'--tls-port: cannot load the TLS module "([^"]+)": (.+)')


def mapped_files(pid):
    """The files mapped into process pid, by full path."""
    with open("/proc/%d/maps" % pid, encoding="utf-8") as f:
        return {line.split()[-1] for line in f if line.split()[-1].startswith("/")}


def mapped_names(pid):
    return {os.path.basename(path) for path in mapped_files(pid)}


class TlsModuleTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-tls-module-")
        self.addCleanup(self.dir.cleanup)
        self.files = make_certificates(self.dir.name)

    def tls_args(self):
        cert, key = self.files["server"]
        return ("--tls-port", "0", "--tls-cert", cert, "--tls-key", key,
                "--tls-ca", self.files["ca"][0], "--tls-role", "operator=read-write")

    def copied_daemon(self):
        """The build's program copied into a directory of its own, with no
        module beside it."""
        program = os.path.join(self.dir.name, "elsewhere", "bin", "tarsel-modbusd")
        os.makedirs(os.path.dirname(program))
        shutil.copy2(DAEMON, program)
        return program

    def start_failing(self, program):
        """Runs program with TLS until it exits; returns its exit status, its
        log, and the module file and reason its failure names."""
        out = subprocess.run([program, "--port", "0", "--scenario", "none", "--run-seconds", "20",
                              *self.tls_args()], capture_output=True, text=True, timeout=60)
        found = MODULE_FAILURE.search(out.stderr)
        self.assertIsNotNone(found, out.stderr)
        return out.returncode, out.stderr, found.group(1), found.group(2)

    def test_a_daemon_without_tls_maps_neither_libssl_nor_libcrypto_nor_the_module(self):
        with Daemon(args=("--scenario", "none")) as daemon:
            mapped = mapped_names(daemon.process.pid)
            status, _ = daemon.stop()
        self.assertEqual(status, 0)
        self.assertTrue(any(name.startswith("libmodbus.so") for name in mapped), mapped)
        for library in ("libssl.so", "libcrypto.so", "tarsel-modbusd-tls"):
            self.assertFalse(any(name.startswith(library) for name in mapped),
                             "%s is mapped: %s" % (library, sorted(mapped)))

    def test_a_daemon_with_tls_maps_its_module_and_openssl(self):
        with Daemon(args=("--scenario", "none", *self.tls_args())) as daemon:
            self.assertTrue(daemon.wait_for_log("Modbus/TCP Security (TLS) on 127.0.0.1:"))
            mapped = mapped_names(daemon.process.pid)
            status, _ = daemon.stop()
        self.assertEqual(status, 0)
        for library in ("libssl.so", "libcrypto.so", "tarsel-modbusd-tls"):
            self.assertTrue(any(name.startswith(library) for name in mapped),
                            "%s is not mapped: %s" % (library, sorted(mapped)))

    def test_a_missing_module_is_a_start_up_error_naming_the_file_and_why(self):
        program = self.copied_daemon()
        status, log, module, reason = self.start_failing(program)
        self.assertEqual(status, 2, log)
        # Looked for beside the copy, not in the build tree it came from.
        self.assertTrue(module.startswith(self.dir.name + "/elsewhere/"), module)
        self.assertFalse(os.path.exists(module))
        self.assertIn("No such file or directory", reason)
        self.assertNotIn("listening on", log)

    def test_a_broken_module_is_a_start_up_error_with_the_loaders_reason(self):
        program = self.copied_daemon()
        _, _, module, _ = self.start_failing(program)
        os.makedirs(os.path.dirname(module), exist_ok=True)
        with open(module, "w", encoding="utf-8") as f:
            f.write("not a shared object\n" * 20)
        status, log, named, reason = self.start_failing(program)
        self.assertEqual(status, 2, log)
        self.assertEqual(named, module)
        self.assertIn("invalid ELF header", reason)
        self.assertNotIn("listening on", log)

    def test_a_copied_daemon_serves_tls_with_the_module_beside_it(self):
        program = self.copied_daemon()
        _, _, module, _ = self.start_failing(program)
        # The build's own module, where the build's program finds it.
        built = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(DAEMON)),
                                              os.path.relpath(module, os.path.dirname(program))))
        os.makedirs(os.path.dirname(module), exist_ok=True)
        shutil.copy2(built, module)
        with mock.patch.object(harness, "DAEMON", program):
            with Daemon(args=("--scenario", "none", *self.tls_args())) as daemon:
                self.assertTrue(daemon.wait_for_log("Modbus/TCP Security (TLS) on 127.0.0.1:"))
                mapped = mapped_files(daemon.process.pid)
                status, _ = daemon.stop()
        self.assertEqual(status, 0)
        self.assertIn(module, mapped)
        self.assertNotIn(os.path.realpath(built), mapped)

    def test_without_tls_a_daemon_without_its_module_serves_as_before(self):
        program = self.copied_daemon()
        with mock.patch.object(harness, "DAEMON", program):
            with Daemon(args=("--scenario", "none")) as daemon:
                daemon.client().close()
                status, log = daemon.stop()
        self.assertEqual(status, 0, log)
        self.assertNotIn("TLS module", log)

    def test_a_daemon_that_cannot_read_its_own_file_loads_no_module_from_where_it_runs(self):
        # Without /proc the program cannot know its own file. A module at
        # the path relative to the working directory, here the build's own,
        # could be anyone's there: the daemon refuses to look for one.
        program = self.copied_daemon()
        _, _, module, _ = self.start_failing(program)
        relative = os.path.relpath(module, os.path.dirname(program))
        built = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(DAEMON)), relative))
        here = os.path.join(self.dir.name, "work", "here")
        os.makedirs(here)
        planted = os.path.normpath(os.path.join(here, relative))
        os.makedirs(os.path.dirname(planted))
        shutil.copy2(built, planted)
        hide_proc = ["unshare", "--mount", "--propagation", "private", "sh", "-c",
                     'mount -t tmpfs none /proc && exec "$0" "$@"']
        probe = subprocess.run([*hide_proc, "true"], capture_output=True, text=True, timeout=30)
        if probe.returncode != 0:
            self.skipTest("cannot hide /proc in a mount namespace here: " + probe.stderr.strip())
        out = subprocess.run([*hide_proc, os.path.abspath(DAEMON), "--port", "0", "--scenario",
                              "none", "--run-seconds", "3", *self.tls_args()],
                             cwd=here, capture_output=True, text=True, timeout=60)
        # Built with the sanitizers, the daemon's exit status is
        # LeakSanitizer's, which cannot work without /proc.
        linked = subprocess.run(["ldd", DAEMON], capture_output=True, text=True).stdout
        if "libasan" not in linked:
            self.assertEqual(out.returncode, 2, out.stderr)
        self.assertIn("--tls-port: cannot find the TLS module: the program's own file cannot be "
                      "read from /proc/self/exe", out.stderr)
        self.assertNotIn("Modbus/TCP Security (TLS) on", out.stderr)

    def test_an_encrypted_key_stops_the_daemon_at_start_without_asking_its_terminal(self):
        # A daemon has no one to type a passphrase: started from a terminal
        # with an encrypted key, it must not wait on that terminal (SIGTERM
        # included) but say which key it cannot load and stop.
        from cryptography.hazmat.primitives import serialization
        cert, key = self.files["server"]
        with open(key, "rb") as f:
            plain = serialization.load_pem_private_key(f.read(), password=None)
        encrypted = os.path.join(self.dir.name, "encrypted.key")
        with open(encrypted, "wb") as f:
            f.write(plain.private_bytes(serialization.Encoding.PEM,
                                        serialization.PrivateFormat.PKCS8,
                                        serialization.BestAvailableEncryption(b"secret")))
        terminal, its_side = pty.openpty()
        self.addCleanup(os.close, terminal)

        def with_terminal():
            os.setsid()
            fcntl.ioctl(its_side, termios.TIOCSCTTY, 0)

        process = subprocess.Popen(
            [DAEMON, "--port", "0", "--scenario", "none", "--run-seconds", "20", "--tls-port", "0",
             "--tls-cert", cert, "--tls-key", encrypted, "--tls-ca", self.files["ca"][0],
             "--tls-role", "operator=read-write"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            text=True, preexec_fn=with_terminal, pass_fds=(its_side,))
        os.close(its_side)
        try:
            _, log = process.communicate(timeout=15)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            os.set_blocking(terminal, False)
            try:
                shown = os.read(terminal, 200)
            except OSError:
                shown = b""
            self.fail("still running after 15 s; its terminal shows %r" % shown)
        self.assertEqual(process.returncode, 2, log)
        self.assertIn("TLS: cannot load the key %s: " % encrypted, log)
        self.assertNotIn("listening on", log)


if __name__ == "__main__":
    unittest.main()
