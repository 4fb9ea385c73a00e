"""Assemble the benchmark corpora from pinned sources, so every change is measured on the same text.

- ``stdlib``: the running interpreter's standard library (no site-packages, no bytecode).
- ``large``: ``stdlib`` plus ``/usr/include`` plus the source distributions below, unpacked;
  400+ MB of distinct real code (C, C++, Python, Fortran, JavaScript, docs).

Downloads are checked against the SHA-256 that the package index publishes and cached in
``--cache``; the trees are made once and reused.  Each tree is a git work tree with all its
files committed, as a user's repository would be.
Usage: corpus.py [--root DIR] [--cache DIR] stdlib|large
Prints the tree's path and its size.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import urllib.parse
import urllib.request
from pathlib import Path

SDISTS = [
    ("scipy", "1.14.1"),
    ("numpy", "2.1.3"),
    ("pandas", "2.2.3"),
    ("Django", "5.1.4"),
    ("sympy", "1.13.3"),
    ("matplotlib", "3.9.2"),
]


def sdist(name: str, version: str, cache: Path) -> Path:
    """The source distribution's archive, downloaded once and checked against its digest."""
    index = f"https://pypi.org/pypi/{name}/json"
    with urllib.request.urlopen(index, timeout=60) as r:
        release = json.load(r)["releases"][version]
    (entry,) = [u for u in release if u["packagetype"] == "sdist"]
    target = cache / entry["filename"]
    if not target.exists():
        cache.mkdir(parents=True, exist_ok=True)
        partial = target.with_suffix(".part")
        with urllib.request.urlopen(urllib.parse.urljoin(index, entry["url"]), timeout=600) as r, open(partial, "wb") as out:
            shutil.copyfileobj(r, out)
        partial.rename(target)
    digest = hashlib.sha256(target.read_bytes()).hexdigest()
    if digest != entry["digests"]["sha256"]:
        target.unlink()
        sys.exit(f"corpus: {target.name}: digest mismatch")
    return target


def copy_stdlib(target: Path) -> None:
    shutil.copytree(
        sysconfig.get_paths()["stdlib"], target,
        ignore=shutil.ignore_patterns("site-packages", "__pycache__", "*.pyc"),
        symlinks=True,
    )


def build(kind: str, root: Path, cache: Path) -> Path:
    tree = root / kind
    if (tree / ".git").exists():
        return tree
    shutil.rmtree(tree, ignore_errors=True)
    tree.mkdir(parents=True)
    copy_stdlib(tree / "stdlib")
    if kind == "large":
        shutil.copytree("/usr/include", tree / "include", symlinks=True)
        for name, version in SDISTS:
            with tarfile.open(sdist(name, version, cache)) as archive:
                archive.extractall(tree / "sdists", filter="data")
    git = ["git", "-C", str(tree), "-c", "core.hooksPath=/dev/null"]
    subprocess.run([*git, "init", "-q"], check=True)
    subprocess.run([*git, "add", "-A", "-f"], check=True)
    subprocess.run(
        [*git, "-c", "user.name=bench", "-c", "user.email=bench@localhost",
         "commit", "-q", "-m", "corpus"],
        check=True,
    )
    return tree


def text_bytes(tree: Path) -> int:
    return sum(p.stat().st_size for p in tree.rglob("*") if p.is_file() and ".git" not in p.parts)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("kind", choices=("stdlib", "large"))
    parser.add_argument("--root", type=Path, default=Path("/tmp/velmora-corpus"))
    parser.add_argument("--cache", type=Path, default=Path("/tmp/velmora-corpus/downloads"))
    args = parser.parse_args()
    tree = build(args.kind, args.root, args.cache)
    print(f"{tree}\t{text_bytes(tree) / 1e6:.0f} MB")


if __name__ == "__main__":
    main()
