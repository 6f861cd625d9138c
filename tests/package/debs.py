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
