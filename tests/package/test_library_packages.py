"""The library's Debian packages, libtarsel-modbus1 and libtarsel-modbus-dev,
as cpack made them (Package.Deb), seen by a firmware engineer who packages a
program of their own against them: dpkg must learn from the runtime package
which package a program linked against its libraries depends on, the dynamic
loader's cache must hear of the libraries, and lintian must find no error.
"""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from debs import deb, hardening_findings, native, run

RUNTIME = "libtarsel-modbus1"
DEVEL = "libtarsel-modbus-dev"


def sonames(root):
    """SONAME of every shared library under root, keyed by its file name."""
    found = {}
    for directory, _, files in os.walk(root):
        for name in files:
            path = os.path.join(directory, name)
            if os.path.islink(path) or ".so." not in name:
                continue
            elf = run("readelf", "-d", path).stdout
            soname = re.search(r"\(SONAME\)\s+Library soname: \[([^\]]+)\]", elf)
            if soname:
                found[name] = soname.group(1)
    return found


class LibraryPackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="tarsel-library-package-")
        cls.runtime = deb(RUNTIME)
        cls.devel = deb(DEVEL)
        cls.version = run("dpkg-deb", "-f", cls.runtime, "Version").stdout.strip()
        # The runtime package as a package build leaves it: files and DEBIAN/.
        cls.build = os.path.join(cls.scratch.name, "build")
        os.makedirs(os.path.join(cls.build, "debian"))
        cls.tree = os.path.join(cls.build, "debian", RUNTIME)
        subprocess.run(["dpkg-deb", "-R", cls.runtime, cls.tree], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def control_file(self, name):
        path = os.path.join(self.tree, "DEBIAN", name)
        self.assertTrue(os.path.exists(path), "%s has no %s control file" % (RUNTIME, name))
        with open(path, encoding="utf-8") as f:
            return f.read()

    def test_runtime_package_names_each_library_in_its_shlibs(self):
        upstream = self.version.rsplit("-", 1)[0]
        entries = {tuple(line.split(None, 2)) for line in self.control_file("shlibs").splitlines()
                   if line.strip() and not line.startswith("#")}
        libraries = sonames(os.path.join(self.tree, "usr"))
        self.assertIn("libtarsel_modbus.so.1", libraries.values())
        for soname in sorted(set(libraries.values())):
            name, _, abi = soname.partition(".so.")
            self.assertIn((name, abi, "%s (>= %s)" % (RUNTIME, upstream)), entries)

    def test_runtime_package_activates_the_ldconfig_trigger(self):
        triggers = self.control_file("triggers").split("\n")
        self.assertIn("activate-noawait ldconfig", triggers)

    def test_dpkg_shlibdeps_finds_the_runtime_package_for_a_program_linked_against_it(self):
        if not native():
            self.skipTest("the build machine's dpkg reads only its own architecture's programs")
        compiler = shutil.which("c++")
        self.assertIsNotNone(compiler, "no C++ compiler to link a program")
        with open(os.path.join(self.build, "debian", "control"), "w", encoding="utf-8") as f:
            f.write("Source: consumer\n\nPackage: consumer\nArchitecture: any\n")
        libdir = os.path.dirname(next(
            os.path.join(d, f) for d, _, files in os.walk(self.tree) for f in files
            if f.startswith("libtarsel_modbus.so.")))
        program = os.path.join(self.build, "consumer")
        linked = subprocess.run(
            [compiler, "-x", "c++", "-", "-o", program, "-L" + libdir, "-Wl,-rpath-link," + libdir,
             "-Wl,--no-as-needed", "-l:libtarsel_modbus.so.1"],
            input="int main() { return 0; }\n", capture_output=True, text=True, timeout=120)
        self.assertEqual(linked.returncode, 0, linked.stderr)
        result = run("dpkg-shlibdeps", "-O", "-l" + os.path.relpath(libdir, self.build),
                     "consumer", cwd=self.build)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertRegex(result.stdout, r"libtarsel-modbus1 \(>= [0-9.]+\)")

    def test_lintian_reports_no_errors_on_the_runtime_package(self):
        self.assertNoLintianErrors(self.runtime)

    def test_lintian_reports_no_errors_on_the_development_package(self):
        self.assertNoLintianErrors(self.devel)

    def test_lintian_finds_the_runtime_package_s_libraries_hardened(self):
        findings = hardening_findings(self.runtime)
        if findings is None:
            self.skipTest("this build is not fully hardened")
        self.assertEqual(findings, [])

    def assertNoLintianErrors(self, package):
        result = run("lintian", "--fail-on", "error", "--no-tag-display-limit", package,
                     timeout=300)
        errors = [line for line in result.stdout.splitlines() if line.startswith("E: ")]
        self.assertEqual(errors, [])
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)


if __name__ == "__main__":
    unittest.main()
