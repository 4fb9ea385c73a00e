"""code_chunks and stored_text_bytes: the model's time over the module's, and peak memory."""

from __future__ import annotations

import random
import tracemalloc

from common import each, megabytes, model, native, report, stdlib_texts


def mixed_non_ascii_text(lines: int) -> str:
    rnd = random.Random(7)
    words = ["naïve", "Straße", "Ωμέγα", "日本語", "ĳssel", "emoji 😀", "x = 1", "İstanbul", "KELVIN K"]
    ends = ["\n", "\r\n", "\u2028", "\n"]
    return "".join(" ".join(rnd.choices(words, k=6)) + rnd.choice(ends) for _ in range(lines))


def peak_bytes(fn, text: str) -> int:
    tracemalloc.start()
    result = fn(text)
    peak = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    del result
    return peak


def main() -> None:
    files = stdlib_texts()
    big = "".join(files)
    while len(big) < 50_000_000:
        big += big
    big = big[:50_000_000]
    mixed = mixed_non_ascii_text(200_000)
    print(f"inputs: {len(files)} stdlib files ({megabytes(files):.1f} MB), one 50 MB text, "
          f"a mixed non-ASCII text ({megabytes([mixed]):.1f} MB)\n")

    report("code_chunks, stdlib file by file", each(model.code_chunks, files),
           each(native.code_chunks, files), goal=8)
    report("stored_text_bytes, stdlib file by file", each(model.stored_text_bytes, files),
           each(native.stored_text_bytes, files), goal=30)
    report("code_chunks, one 50 MB text", lambda: model.code_chunks(big),
           lambda: native.code_chunks(big), goal=8, repeats=3)
    report("stored_text_bytes, one 50 MB text", lambda: model.stored_text_bytes(big),
           lambda: native.stored_text_bytes(big), goal=30, repeats=3)
    report("code_chunks, mixed non-ASCII lines", lambda: model.code_chunks(mixed),
           lambda: native.code_chunks(mixed), goal=8, repeats=3)
    report("stored_text_bytes, mixed non-ASCII lines", lambda: model.stored_text_bytes(mixed),
           lambda: native.stored_text_bytes(mixed), goal=30, repeats=3)

    chunks = native.code_chunks(big)
    held = sum(len(c[2].encode("utf-8", "surrogatepass")) + 49 + 88 for c in chunks)
    print(f"\npeak memory over the 50 MB text (chunks themselves ~{held / 1e6:.1f} MB):")
    print(f"  code_chunks        native {peak_bytes(native.code_chunks, big) / 1e6:7.1f} MB   "
          f"model {peak_bytes(model.code_chunks, big) / 1e6:7.1f} MB")
    print(f"  stored_text_bytes  native {peak_bytes(native.stored_text_bytes, big) / 1e6:7.1f} MB   "
          f"model {peak_bytes(model.stored_text_bytes, big) / 1e6:7.1f} MB")


if __name__ == "__main__":
    main()
