"""The tarsel-modbusd Debian package, as cpack made it (Package.Deb).

The packages are unpacked into a scratch root; the unit, the manual page and
the shipped settings are checked there with the tools an operator's machine
has (lintian, systemd-analyze, man), and the packaged program is started the
way the unit starts it.
"""
import json
import os
import re
import shlex
import shutil
import signal
import socket
import ssl
import stat
import subprocess
import sys
import tempfile
import time
import unittest

from debs import ARCHITECTURE, deb, hardening_findings, native, run

UNIT = "usr/lib/systemd/system/tarsel-modbusd.service"
SETTINGS = "etc/tarsel-modbusd/tarsel-modbusd.json"
SECRETS = "etc/tarsel-modbusd/secrets.json"
MAN_PAGE = "usr/share/man/man8/tarsel-modbusd.8.gz"
# The TLS module, under the package's library directory.
TLS_MODULE = re.compile(r"(?m) \./(usr/lib/(?:[^ /]+/)?tarsel-modbusd/tarsel-modbusd-tls\.so)$")
STARTUP_LIMIT_S = 20.0
E2E_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e")


def read_model(port):
    """The UPS model (input registers 0-15) once the shipped scenario has
    detected the UPS; None if it is not served within the limit."""
    from pymodbus.client import ModbusTcpClient
    client = ModbusTcpClient("127.0.0.1", port=port, timeout=5)
    try:
        deadline = time.monotonic() + STARTUP_LIMIT_S
        while time.monotonic() < deadline:
            answer = client.read_input_registers(0, 16, slave=1)
            if not answer.isError():
                text = b"".join(r.to_bytes(2, "big") for r in answer.registers)
                return text.rstrip(b"\0").decode()
            time.sleep(0.5)
        return None
    finally:
        client.close()


def unit_settings(text):
    """The unit's Key=value lines, each key with every value it has."""
    settings = {}
    for line in text.splitlines():
        line = line.strip()
        if line and not line.startswith(("#", "[")):
            key, _, value = line.partition("=")
            settings.setdefault(key, []).append(value)
    return settings


class DaemonPackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="tarsel-package-")
        cls.root = os.path.join(cls.scratch.name, "root")
        cls.deb = deb("tarsel-modbusd")
        for package in (deb("libtarsel-modbus1"), cls.deb):
            subprocess.run(["dpkg-deb", "-x", package, cls.root], check=True)
        with open(os.path.join(cls.root, UNIT), encoding="utf-8") as f:
            cls.unit = f.read()

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def path(self, relative):
        return os.path.join(self.root, relative)

    def field(self, name):
        return run("dpkg-deb", "-f", self.deb, name).stdout.strip()

    def test_package_holds_the_program_maps_manual_unit_and_settings(self):
        listing = run("dpkg-deb", "-c", self.deb).stdout
        for path in ("./usr/bin/tarsel-modbusd", "./usr/share/tarsel-modbusd/ups-map.json",
                     "./usr/share/tarsel-modbusd/nut-ups-map.json",
                     "./usr/share/tarsel-modbusd/ups-scenario.json", "./" + MAN_PAGE,
                     "./" + UNIT, "./" + SETTINGS, "./" + SECRETS,
                     "./usr/share/doc/tarsel-modbusd/copyright",
                     "./usr/share/doc/tarsel-modbusd/changelog.Debian.gz"):
            self.assertRegex(listing, r"(?m) %s$" % re.escape(path))
        self.assertEqual(self.field("Architecture"), ARCHITECTURE)
        self.assertEqual(self.field("Package"), "tarsel-modbusd")

    def test_files_in_etc_are_conffiles_and_the_secrets_file_is_private(self):
        control = os.path.join(self.scratch.name, "control")
        subprocess.run(["dpkg-deb", "-e", self.deb, control], check=True)
        with open(os.path.join(control, "conffiles"), encoding="utf-8") as f:
            self.assertEqual(sorted(f.read().split()), ["/" + SECRETS, "/" + SETTINGS])
        listing = run("dpkg-deb", "-c", self.deb).stdout
        self.assertRegex(listing, r"(?m)^-rw------- root/root .* \./%s$" % re.escape(SECRETS))
        self.assertRegex(listing, r"(?m)^-rw-r--r-- root/root .* \./%s$" % re.escape(SETTINGS))

    def test_depends_name_the_package_of_every_library_the_program_needs(self):
        if not native():
            self.skipTest("the build machine's dpkg knows only its own architecture's libraries")
        elf = run("readelf", "-d", self.path("usr/bin/tarsel-modbusd")).stdout
        needed = re.findall(r"\(NEEDED\)\s+Shared library: \[([^\]]+)\]", elf)
        self.assertIn("libmodbus.so.5", needed)
        depends = {re.split(r"[ (]", d.strip())[0] for d in self.field("Depends").split(",")}
        for library in needed:
            if library.startswith("libtarsel_"):
                self.assertIn("libtarsel-modbus1", depends)
                continue
            owners = run("dpkg", "-S", "*/" + library).stdout
            packages = {line.split(":")[0] for line in owners.splitlines()}
            self.assertTrue(packages & depends,
                            "%s comes from %s, none of which is in Depends: %s"
                            % (library, sorted(packages), sorted(depends)))

    def tls_module(self):
        """The TLS module's path in the package, relative to the root."""
        found = TLS_MODULE.search(run("dpkg-deb", "-c", self.deb).stdout)
        self.assertIsNotNone(found, "the package holds no TLS module")
        return found.group(1)

    def test_package_holds_the_tls_module_where_the_program_looks_for_it(self):
        module = self.tls_module()
        # The program in the scratch root looks beside itself: it names this
        # file when it cannot load it.
        os.rename(self.path(module), self.path(module) + ".away")
        try:
            out = run(self.path("usr/bin/tarsel-modbusd"), "--port", "0", "--scenario", "none",
                      "--run-seconds", "5", "--tls-port", "0", "--tls-cert", "c", "--tls-key",
                      "k", "--tls-ca", "a", "--tls-role", "r=read-only",
                      env=dict(os.environ, LD_LIBRARY_PATH=self.path("usr/lib")))
        finally:
            os.rename(self.path(module) + ".away", self.path(module))
        self.assertEqual(out.returncode, 2, out.stderr)
        self.assertIn('cannot load the TLS module "%s": ' % self.path(module), out.stderr)

    def test_depends_name_the_package_of_every_library_the_tls_module_needs(self):
        if not native():
            self.skipTest("the build machine's dpkg knows only its own architecture's libraries")
        elf = run("readelf", "-d", self.path(self.tls_module())).stdout
        needed = re.findall(r"\(NEEDED\)\s+Shared library: \[([^\]]+)\]", elf)
        self.assertIn("libssl.so.3", needed)
        depends = {re.split(r"[ (]", d.strip())[0] for d in self.field("Depends").split(",")}
        for library in needed:
            owners = run("dpkg", "-S", "*/" + library).stdout
            packages = {line.split(":")[0] for line in owners.splitlines()}
            self.assertTrue(packages & depends,
                            "%s comes from %s, none of which is in Depends: %s"
                            % (library, sorted(packages), sorted(depends)))

    def test_depends_name_the_package_of_nuts_client_library_the_program_loads(self):
        # Loaded for --nut by file name, not linked: no NEEDED entry names it.
        if not native():
            self.skipTest("the build machine's dpkg knows only its own architecture's libraries")
        with open(self.path("usr/bin/tarsel-modbusd"), "rb") as f:
            loaded = re.findall(rb"libupsclient\.so\.[0-9]+", f.read())
        self.assertTrue(loaded, "the program names no libupsclient.so.N to load")
        depends = {re.split(r"[ (]", d.strip())[0] for d in self.field("Depends").split(",")}
        owners = run("dpkg", "-S", "*/" + loaded[0].decode()).stdout
        packages = {line.split(":")[0] for line in owners.splitlines()}
        self.assertTrue(packages & depends,
                        "%s comes from %s, none of which is in Depends: %s"
                        % (loaded[0].decode(), sorted(packages), sorted(depends)))

    def test_depends_name_the_package_of_every_program_the_unit_runs(self):
        # systemctl reload runs ExecReload=: on a system without the package
        # of that program (/bin/kill is procps', which is not essential and
        # not in a minimal Debian) the reload fails.
        depends = {re.split(r"[ (]", d.strip())[0] for d in self.field("Depends").split(",")}
        programs = {shlex.split(values[-1].lstrip("-@:+!"))[0]
                    for key, values in unit_settings(self.unit).items()
                    if key.startswith("Exec") and values[-1]}
        self.assertIn("/bin/kill", programs)
        for program in sorted(programs):
            if os.path.exists(self.path(program.lstrip("/"))):
                continue  # a file of this package
            owners = run("dpkg", "-S", program).stdout
            packages = {line.split(":")[0] for line in owners.splitlines()}
            self.assertTrue(packages, "no package holds %s" % program)
            essential = {p for p in packages
                         if run("dpkg-query", "-W", "-f", "${Essential}", p).stdout == "yes"}
            self.assertTrue(packages & depends or essential,
                            "%s comes from %s, none of which is essential or in Depends: %s"
                            % (program, sorted(packages), sorted(depends)))

    def test_lintian_reports_no_errors(self):
        result = run("lintian", "--fail-on", "error", "--no-tag-display-limit", self.deb,
                     timeout=300)
        errors = [line for line in result.stdout.splitlines() if line.startswith("E: ")]
        self.assertEqual(errors, [])
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_lintian_finds_every_binary_hardened(self):
        findings = hardening_findings(self.deb)
        if findings is None:
            self.skipTest("this build is not fully hardened")
        self.assertEqual(findings, [])

    def test_systemd_analyze_verifies_the_unit_without_a_word(self):
        # The unit as shipped but for where its program is: in the scratch
        # root rather than /usr/bin. The manual page it names is looked up
        # in the scratch root too.
        program = self.path("usr/bin/tarsel-modbusd")
        unit_dir = os.path.join(self.scratch.name, "unit")
        os.makedirs(unit_dir, exist_ok=True)
        unit = os.path.join(unit_dir, "tarsel-modbusd.service")
        with open(unit, "w", encoding="utf-8") as f:
            f.write(self.unit.replace("/usr/bin/tarsel-modbusd", program))
        env = dict(os.environ, MANPATH=self.path("usr/share/man"))
        result = run("systemd-analyze", "verify", unit, env=env)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        # Unknown keys and other mistakes are only warnings.
        self.assertEqual(result.stdout + result.stderr, "")
        security = run("systemd-analyze", "security", "--offline=yes", unit, env=env)
        exposure = re.search(r"Overall exposure level for tarsel-modbusd.service: ([0-9.]+)",
                             security.stdout + security.stderr)
        self.assertIsNotNone(exposure, security.stdout + security.stderr)
        self.assertLessEqual(float(exposure.group(1)), 2.5)

    def test_unit_runs_unprivileged_sandboxed_and_notifies_readiness(self):
        settings = unit_settings(self.unit)
        expected = {
            "Type": "notify", "Restart": "on-failure", "DynamicUser": "yes",
            "AmbientCapabilities": "CAP_NET_BIND_SERVICE",
            "CapabilityBoundingSet": "CAP_NET_BIND_SERVICE", "ProtectSystem": "strict",
            "ProtectHome": "yes", "NoNewPrivileges": "yes", "PrivateTmp": "yes",
            "RestrictAddressFamilies": "AF_INET AF_INET6 AF_UNIX",
            "Documentation": "man:tarsel-modbusd(8)",
        }
        for key, value in expected.items():
            self.assertEqual(settings.get(key), [value], key)
        command = shlex.split(settings["ExecStart"][0])
        self.assertEqual(command[:3], ["/usr/bin/tarsel-modbusd", "--config", "/" + SETTINGS])

    def test_restarts_after_a_failure_are_spaced_so_the_start_limit_does_not_end_them(self):
        # A listener that cannot open yet (an address configured later at
        # boot, a port still held) fails with status 1 and is restarted;
        # restarts closer than the start limit allows leave the service
        # failed for good within a second.
        settings = unit_settings(self.unit)

        def seconds(key, default):
            value = settings.get(key, [default])[-1]
            found = re.fullmatch(r"([0-9.]+)(ms|s)?", value)
            self.assertIsNotNone(found, "%s=%s" % (key, value))
            return float(found.group(1)) / (1000 if found.group(2) == "ms" else 1)

        restart = seconds("RestartSec", "100ms")
        interval = seconds("StartLimitIntervalSec", "10s")
        burst = int(settings.get("StartLimitBurst", ["5"])[-1])
        self.assertGreater(restart * burst, interval,
                           "RestartSec=%g s: %d restarts within StartLimitIntervalSec=%g s end "
                           "the service" % (restart, burst, interval))

    def test_manual_page_renders_and_documents_every_option(self):
        env = dict(os.environ, MANWIDTH="80", MAN_KEEP_FORMATTING="", LC_ALL="C.UTF-8")
        result = run("man", "--warnings", "-l", self.path(MAN_PAGE), env=env)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr, "")
        page = re.sub(".\b", "", result.stdout)  # any overstrike left
        for section in ("NAME", "SYNOPSIS", "OPTIONS", "SETTINGS FILE", "FILES", "SIGNALS",
                        "EXIT STATUS", "EXAMPLES"):
            self.assertRegex(page, r"(?m)^%s$" % section)
        usage = run(self.path("usr/bin/tarsel-modbusd"), "--help",
                    env=dict(os.environ, LD_LIBRARY_PATH=self.path("usr/lib"))).stdout
        options = set(re.findall(r"--[a-z][a-z-]+", usage))
        self.assertGreater(len(options), 25)
        for option in sorted(options):
            self.assertRegex(page, r"(?<![a-z-])%s(?![a-z-])" % re.escape(option))

    def test_shipped_settings_name_files_of_the_package(self):
        with open(self.path(SETTINGS), encoding="utf-8") as f:
            settings = json.load(f)
        paths = [v for k, v in settings.items() if isinstance(v, str) and v.startswith("/")]
        self.assertIn("/usr/share/tarsel-modbusd/ups-map.json", paths)
        for path in paths:
            self.assertTrue(os.path.isfile(self.path(path.lstrip("/"))), path)

    def test_packaged_program_starts_from_the_units_command_and_reports_ready(self):
        # The unit's ExecStart, with its paths moved into the scratch root,
        # %d (the credentials directory) a private copy of the secrets file,
        # and a free loopback port instead of 502.
        work = tempfile.mkdtemp(dir=self.scratch.name)
        credentials = os.path.join(work, "credentials")
        os.mkdir(credentials, 0o700)
        shutil.copy(self.path(SECRETS), os.path.join(credentials, "secrets.json"))
        os.chmod(os.path.join(credentials, "secrets.json"), 0o400)
        with open(self.path(SETTINGS), encoding="utf-8") as f:
            settings = json.load(f)
        for key, value in settings.items():
            if isinstance(value, str) and value.startswith("/usr/"):
                settings[key] = self.path(value.lstrip("/"))
        moved_settings = os.path.join(work, "tarsel-modbusd.json")
        with open(moved_settings, "w", encoding="utf-8") as f:
            json.dump(settings, f)
        command = shlex.split(unit_settings(self.unit)["ExecStart"][0].replace("%d", credentials))
        command[0] = self.path(command[0].lstrip("/"))
        command[command.index("--config") + 1] = moved_settings
        command += ["--listen", "127.0.0.1", "--port", "0", "--run-seconds", "60"]

        notify_path = os.path.join(work, "notify")
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify.bind(notify_path)
        notify.settimeout(STARTUP_LIMIT_S)
        env = dict(os.environ, LD_LIBRARY_PATH=self.path("usr/lib"), NOTIFY_SOCKET=notify_path)
        env.pop("JOURNAL_STREAM", None)
        log_path = os.path.join(work, "log")
        with open(log_path, "w", encoding="utf-8") as log:
            daemon = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=log, env=env)
        try:
            ready = notify.recv(4096).decode()
            self.assertIn("READY=1", ready.split("\n"))
            with open(log_path, encoding="utf-8") as f:
                text = f.read()
            port = int(re.search(r"listening on 127\.0\.0\.1:(\d+) ", text).group(1))
            self.assertIn("STATUS=serving unit id 1 on 127.0.0.1:%d" % port, ready)
            self.assertEqual(read_model(port), "Simulated UPS 3000 RT")
        finally:
            daemon.send_signal(signal.SIGTERM)
            status = daemon.wait(timeout=30)
            notify.close()
        self.assertEqual(status, 0)

    def test_packaged_program_serves_tls_with_the_packaged_module(self):
        sys.path.insert(0, E2E_DIR)
        from tls_certs import make_certificates
        work = tempfile.mkdtemp(dir=self.scratch.name)
        files = make_certificates(work)
        cert, key = files["server"]
        command = [self.path("usr/bin/tarsel-modbusd"), "--listen", "127.0.0.1", "--port", "0",
                   "--run-seconds", "60", "--tls-port", "0", "--tls-cert", cert,
                   "--tls-key", key, "--tls-ca", files["ca"][0],
                   "--tls-role", "operator=read-write"]
        env = dict(os.environ, LD_LIBRARY_PATH=self.path("usr/lib"))
        env.pop("NOTIFY_SOCKET", None)
        log_path = os.path.join(work, "log")
        with open(log_path, "w", encoding="utf-8") as log:
            daemon = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=log, env=env)
        try:
            port = None
            deadline = time.monotonic() + STARTUP_LIMIT_S
            while port is None and time.monotonic() < deadline and daemon.poll() is None:
                with open(log_path, encoding="utf-8") as f:
                    found = re.search(r"Modbus/TCP Security \(TLS\) on 127\.0\.0\.1:(\d+)",
                                      f.read())
                port = int(found.group(1)) if found else None
                time.sleep(0.1)
            with open(log_path, encoding="utf-8") as f:
                self.assertIsNotNone(port, f.read())
            with open("/proc/%d/maps" % daemon.pid, encoding="utf-8") as f:
                self.assertIn(self.path(self.tls_module()), f.read())
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            context.load_verify_locations(files["ca"][0])
            context.check_hostname = False
            context.load_cert_chain(*files["operator"])
            with socket.create_connection(("127.0.0.1", port), timeout=10) as raw:
                with context.wrap_socket(raw) as tls:
                    # FC4, one register: answered, with the registers or an
                    # exception, through the module's session.
                    tls.sendall(bytes.fromhex("000100000006" "0104" "003d" "0001"))
                    answer = tls.recv(64)
            self.assertGreaterEqual(len(answer), 9, answer)
            self.assertEqual(answer[:2], b"\x00\x01")
            self.assertIn(answer[7], (0x04, 0x84))
        finally:
            daemon.send_signal(signal.SIGTERM)
            status = daemon.wait(timeout=30)
        self.assertEqual(status, 0)


if __name__ == "__main__":
    unittest.main()
