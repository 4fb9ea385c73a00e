"""Index size, build speed, one-file re-index and chunk decoding, per corpus and layout.

    python bench/bench_index.py [stdlib] [large] [--workers N]

Each corpus is linked (not copied) into a scratch directory, so its files are shared and
the index is written beside them; the one file touched is replaced there, never written
through the link.
"""

from __future__ import annotations

import argparse
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time
import zlib
from pathlib import Path

import zstandard

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "src"))

from common import best_time  # noqa: E402
from velmora.index import build as indexer
from velmora.search import chunk_groups
from velmora.storage import schema  # noqa: E402
from velmora.storage.database import Database  # noqa: E402
from velmora.storage import chunk_store  # noqa: E402

GOALS = "goals: index <= 1.0x the text, build >= 8 MB/s, one-file re-index < 0.3 s, decode >= 5x zlib"


def corpus(name: str) -> Path:
    out = subprocess.run([sys.executable, str(ROOT / "bench" / "corpus.py"), name],
                         capture_output=True, text=True, check=True).stdout
    return Path(out.split()[0])


def table_sizes(db_path: Path) -> dict[str, int]:
    """Bytes per table, its shadow tables and indexes counted with it."""
    con = sqlite3.connect(db_path)
    try:
        sizes: dict[str, int] = {}
        for name, size in con.execute("SELECT name, sum(pgsize) FROM dbstat GROUP BY name"):
            base = next((t for t in ("chunk_trigrams", "code_chunks", "chunk_text", "chunk_dictionary",
                                     "files", "skipped", "meta") if name.startswith(t)
                         or name == f"sqlite_autoindex_{t}_1"), "other")
            sizes[base] = sizes.get(base, 0) + size
        return sizes
    finally:
        con.close()


def decode_times(db_path: Path) -> tuple[float, float, float, int]:
    """Seconds to decode every chunk as the search does (a group at a time, frame by frame),
    each group in one call on two threads instead (python-zstandard's
    multi_decompress_to_buffer), and with zlib (as before); the best of three runs each."""
    db = Database(db_path)
    bodies = [row[0] for row in db.fetchall(f"SELECT body FROM {chunk_store.COMPRESSED_TABLE} ORDER BY id")]
    groups = [bodies[i : i + chunk_groups._GROUP_CHUNKS] for i in range(0, len(bodies), chunk_groups._GROUP_CHUNKS)]
    decoder = chunk_store.decoder(db)
    batched = zstandard.ZstdDecompressor(dict_data=zstandard.ZstdCompressionDict(chunk_store.dictionary(db)))
    texts = [text for group in groups for text in decoder.decode_many(group)]
    zipped = [zlib.compress(t.encode()) for t in texts]
    db.close()

    def in_one_call() -> None:
        for group in groups:
            frames = batched.multi_decompress_to_buffer(group, threads=2)
            [frames[i].tobytes().decode() for i in range(len(frames))]

    searched = best_time(lambda: [decoder.decode_many(group) for group in groups], 3)
    together = best_time(in_one_call, 3)
    zipped_time = best_time(lambda: [zlib.decompress(body).decode() for body in zipped], 3)
    return searched, together, zipped_time, sum(len(t.encode()) for t in texts)


def measure(name: str, layout: str, workers: int | None) -> None:
    source = corpus(name)
    with tempfile.TemporaryDirectory(prefix="velmora-bench-") as scratch:
        root = Path(scratch) / name
        subprocess.run(["cp", "-al", str(source), str(root)], check=True)
        shutil.rmtree(root / ".velmora", ignore_errors=True)
        start = time.perf_counter()
        summary = indexer.index(root, layout, progress=False, workers=workers)
        build = time.perf_counter() - start
        db_path = schema.index_path(root)
        text = summary.bytes  # the text held in chunks (files kept on disk are not)
        size = db_path.stat().st_size
        sizes = table_sizes(db_path)
        # One file touched: replaced by a new file, so the corpus's own stays as it was.
        python_files = [p for p in indexer.list_files(root) if p.endswith(".py")]
        touched = root / python_files[len(python_files) // 2]
        data = touched.read_bytes() + b"# touched\n"
        touched.unlink()
        touched.write_bytes(data)
        start = time.perf_counter()
        again = indexer.index(root, progress=False, workers=workers)
        reindex = time.perf_counter() - start
        assert again.changed == 1, again.line()
        print(f"{name:>6} {layout:<11} text {text / 1e6:7.1f} MB  index {size / 1e6:7.1f} MB "
              f"({size / text:.2f}x)  build {build:6.1f} s = {summary.bytes / 1e6 / build:5.1f} MB/s  "
              f"re-index 1 of {summary.files} files {reindex:.3f} s")
        print("       tables: " + ", ".join(f"{t} {b / 1e6:.1f} MB" for t, b in sorted(sizes.items())))
        if layout == "compressed":
            searched, together, zipped, total = decode_times(db_path)
            print(f"       decode every chunk: as the search does {searched:.2f} s ({total / searched / 1e9:.2f} GB/s), "
                  f"a group per call on 2 threads {together:.2f} s ({total / together / 1e9:.2f} GB/s), "
                  f"zlib {zipped:.2f} s ({total / zipped / 1e9:.2f} GB/s): {zipped / searched:.1f}x")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("corpora", nargs="*", default=["stdlib", "large"])
    parser.add_argument("--layouts", nargs="*", default=["compressed", "code_chunks"])
    parser.add_argument("--workers", type=int, help="reader threads (default: as the indexer picks)")
    args = parser.parse_args()
    print(GOALS)
    for name in args.corpora:
        for layout in args.layouts:
            measure(name, layout, args.workers)


if __name__ == "__main__":
    main()
