"""Keys and signatures of the releases that are measured. Needs minisign."""

import os
import subprocess


def new_key(keys, secret):
    """A directory of trusted keys with one key, and its secret part."""
    os.makedirs(keys)
    subprocess.run(["minisign", "-G", "-W", "-p", os.path.join(keys, "bench.pub"), "-s", secret],
                   check=True, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)


def sign(programs, tree, version, secret):
    release = os.path.join(os.path.dirname(programs.lead), "pkgdist-release")
    subprocess.run([release, "make", tree, "--name", "bench", "--version", str(version), "--floor", "1"], check=True,
                   stdout=subprocess.DEVNULL)
    manifest = os.path.join(tree, ".pkgdist", "manifest")
    with open(manifest, encoding="utf-8") as file:
        head = file.readline().strip()
    subprocess.run(["minisign", "-S", "-s", secret, "-m", manifest, "-t", head], check=True,
                   stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
