"""What the package tests share: the packages cpack made (Package.Deb) and
the commands that inspect them."""
import os
import subprocess

PACKAGES = os.environ["TARSEL_PACKAGES"]
ARCHITECTURE = os.environ["TARSEL_DEB_ARCHITECTURE"]


def deb(name):
    """The one package of that name built for the tested architecture."""
    found = [f for f in os.listdir(PACKAGES)
             if f.startswith(name + "_") and f.endswith("_%s.deb" % ARCHITECTURE)]
    if len(found) != 1:
        raise AssertionError("expected one %s package in %s, found %s" % (name, PACKAGES, found))
    return os.path.join(PACKAGES, found[0])


def run(*command, cwd=None, env=None, timeout=120):
    return subprocess.run(command, capture_output=True, text=True, timeout=timeout, cwd=cwd,
                          env=env)


def native():
    """Whether this machine's dpkg is of the packages' architecture."""
    return run("dpkg", "--print-architecture").stdout.strip() == ARCHITECTURE


# lintian's tags for a binary built without one of the build's hardening flags.
HARDENING_TAGS = ("hardening-no-relro", "hardening-no-bindnow", "hardening-no-fortify-functions",
                  "hardening-no-pie")


def hardening_findings(package):
    """The hardening tags lintian finds on a package's binaries, or None when
    this build is not meant to have them all (hardening off, or a build that
    cannot use the checked functions: Debug, the sanitizers)."""
    if os.environ.get("TARSEL_HARDENED_FULLY") != "ON":
        return None
    result = run("lintian", "--display-info", "--tags", ",".join(HARDENING_TAGS), package,
                 timeout=300)
    if result.returncode != 0:
        raise AssertionError("lintian failed: " + result.stdout + result.stderr)
    return [line for line in result.stdout.splitlines()
            if any(tag in line for tag in HARDENING_TAGS)]
