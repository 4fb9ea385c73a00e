"""The module's public functions driven with generated arguments and compared with the model.

``check(data)`` turns fuzz bytes into a few calls of ``velmora.storage.code_text`` and of
``tests/model.py`` with the same arguments, and raises ``Mismatch`` when their outcomes differ.
An outcome is the result (compared by value and type, all the way down) or the type of the
error raised; a generator's outcome is what it yielded before it stopped, and how it stopped.
Arguments mostly have the annotated types; sometimes one does not, and then the module may
refuse it with a ``TypeError`` of its own where the model fails otherwise or not at all.

Run under atheris (``python fuzz/module_fuzz.py [libFuzzer flags] [corpus dirs]``, what
``.ci/fuzz`` does); ``tests/test_fuzz_regressions.py`` replays the kept inputs through
``check`` without it.
"""

from __future__ import annotations

import atexit
import itertools
import math
import os
import re
import shutil
import sys
import tempfile
from pathlib import Path
from typing import Any, Callable, Iterable

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "tests")]

import fuzz_text  # noqa: E402

if __name__ == "__main__":
    # libFuzzer comes with atheris: loaded for all to see, a module built with
    # -fsanitize=fuzzer-no-link reports its native coverage to it.
    sys.setdlopenflags(os.RTLD_GLOBAL | os.RTLD_NOW)
    import atheris

    atheris.Setup(sys.argv, lambda data: check(data))
    with atheris.instrument_imports():
        import model
else:
    import model  # noqa: E402

from velmora.storage import code_text as native  # noqa: E402

LANGUAGES = ("json", "python", "JSON", "json ", "", "\u0130json")
EDGE_NEEDLES = ("", "k", "i", "ki", "ik", "K", "I", "i\u0307", "\u03c3", "\u00e9", "\x00", "\n", "zz", "\ud800")
# Pieces of generated regexes. At most one quantifier in a regex is unbounded and none
# applies to an alternation, and texts searched by a regex are short: no search backtracks
# for long.
REGEX_CLASSES = ("[a-c]", "[^a]", "[A-Z0-9]", "[\u00e9\u0130]", r"\d", r"\w", r"\s", r"\W", ".", r"\b", "(?=a)", "(?<!k)")
REGEX_FLAGS = ("", "", "", "(?i)", "(?m)", "(?s)", "(?a)", "(?x)", "(?ia)", "(?i:k)")
BOUNDED = ("", "", "", "?", "{1,2}", "{2}")
UNBOUNDED = ("*", "+", "*?")
REGEX_TEXT = 400


class Str(str):
    """A str subclass that overrides nothing: the module must treat it as the str it is."""


ODD = (
    None, 0, -1, 1.5, math.nan, True, b"bytes", "7", 2**70, -(2**70), [], (), object(), 3.0,
)
SLICE = 1 << 22  # files above this many bytes are read a slice at a time
INTS = (0, 1, -1, 2, 63, 64, 65, 2**31, 2**63 - 1, 2**63, 2**64 + 1, 2**70, -(2**70), 32768, 32769)


class Mismatch(AssertionError):
    """The module and the model disagree."""


class Draw:
    """Reads the fuzz bytes as the choices of one run; past the end every choice is 0."""

    def __init__(self, data: bytes) -> None:
        self.data = data
        self.at = 0

    def byte(self) -> int:
        if self.at >= len(self.data):
            return 0
        self.at += 1
        return self.data[self.at - 1]

    def below(self, n: int) -> int:
        return (self.byte() | self.byte() << 8) % n if n > 0 else 0

    def choice(self, items: Any) -> Any:
        return items[self.below(len(items))]

    def chance(self, sixteenths: int) -> bool:
        return self.byte() % 16 < sixteenths

    def raw(self, limit: int = 512) -> bytes:
        size = min(self.below(limit + 1), len(self.data) - self.at)
        self.at += size
        return self.data[self.at - size : self.at]

    def text(self, limit: int = 2048) -> str:
        width = fuzz_text.WIDTHS[self.byte() % 3]
        return fuzz_text.decode_text(self.raw(), width, None, limit)

    def integer(self) -> int:
        kind = self.byte() % 4
        if kind == 0:
            return self.choice(INTS)
        value = self.below(300) - 50
        return -value if kind == 3 else value

    def odd(self) -> Any:
        return self.choice(ODD)

    def regex(self, text: str) -> re.Pattern[str] | None:
        """A small regex, its literals mostly taken from ``text``."""
        parts = [self.choice(REGEX_FLAGS), "^" if self.chance(2) else ""]
        unbounded = True
        for _ in range(self.byte() % 5):
            kind = self.byte() % 4
            quantifiers = BOUNDED
            if kind == 1:
                alternatives = [re.escape(self.needle_for(text)[:3]) for _ in range(1 + self.byte() % 3)]
                atom = "(" + "|".join(alternatives) + ")"
            else:
                if kind == 0:
                    atom = self.choice(REGEX_CLASSES)
                else:
                    start = self.below(len(text) + 1)
                    atom = re.escape(text[start : start + 1 + self.byte() % 4]) or "a"
                    atom = "(?:" + atom + ")" if self.chance(8) else atom
                quantifiers = BOUNDED + UNBOUNDED if unbounded else BOUNDED
            quantifier = self.choice(quantifiers)
            unbounded = unbounded and quantifier not in UNBOUNDED
            parts.append(atom + quantifier)
        parts.append("$" if self.chance(2) else "")
        try:
            return re.compile("".join(parts))
        except (re.error, OverflowError, ValueError):
            return None

    def needle_for(self, text: str) -> str:
        kind = self.byte() % 5
        if kind == 0:
            return self.choice(EDGE_NEEDLES)
        if kind == 1:
            return self.text(8)
        start = self.below(len(text) + 1)
        needle = text[start : start + self.below(13)]
        return needle.lower() if kind == 2 else needle


# --- Outcomes --------------------------------------------------------------------------------


def same(a: Any, b: Any) -> bool:
    """Equal by value and by type, all the way down (NaN equal to itself). Each side has its
    own ``Segment`` class: those compare by name and fields."""
    if type(a) is not type(b):
        named = isinstance(a, tuple) and isinstance(b, tuple) and hasattr(a, "_fields")
        if not (named and type(a).__name__ == type(b).__name__ and a._fields == getattr(b, "_fields", None)):
            return False
        return all(same(x, y) for x, y in zip(a, b))
    if isinstance(a, float):
        return a == b or (math.isnan(a) and math.isnan(b))
    if isinstance(a, (list, tuple)):
        return len(a) == len(b) and all(same(x, y) for x, y in zip(a, b))
    if isinstance(a, dict):
        return list(a) == list(b) and all(same(a[k], b[k]) for k in a)
    return bool(a == b)


def outcome(call: Callable[[], Any]) -> tuple[str, Any]:
    try:
        return ("value", call())
    except Exception as error:  # noqa: BLE001 - the error is the outcome compared
        return ("error", type(error))


def drained(call: Callable[[], Iterable[Any]], limit: int = 10_000) -> Callable[[], Any]:
    """What a generator yields before it stops: (items, error type or None)."""

    def run() -> Any:
        items: list[Any] = []
        try:
            for item in itertools.islice(call(), limit):
                items.append(item)
        except Exception as error:  # noqa: BLE001 - the error is part of the outcome
            return (items, type(error))
        return (items, None)

    return run


def compare(what: str, ours: tuple[str, Any], theirs: tuple[str, Any], typed: bool, args: Any) -> None:
    if ours[0] == theirs[0] and same(ours[1], theirs[1]):
        return
    # An argument of the wrong type: the module may refuse it itself.
    if not typed and ours == ("error", TypeError):
        return
    raise Mismatch(f"{what}{args!r}: module {ours!r}, model {theirs!r}")


def both(what: str, typed: bool, args: tuple[Any, ...], call: Callable[[Any], Any]) -> None:
    compare(what, outcome(lambda: call(native)), outcome(lambda: call(model)), typed, args)


# --- The functions ---------------------------------------------------------------------------


def text_or_odd(d: Draw) -> tuple[Any, bool]:
    if d.chance(1):
        return d.odd(), False
    text = d.text()
    return (Str(text) if d.chance(1) else text), True


def fuzz_text_functions(d: Draw) -> None:
    text, typed = text_or_odd(d)
    both("code_chunks", typed, (text,), lambda m: m.code_chunks(text))
    both("stored_text_bytes", typed, (text,), lambda m: m.stored_text_bytes(text))


def fuzz_numbers(d: Draw) -> None:
    file_id = d.odd() if d.chance(2) else d.integer()
    both("file_rowids", type(file_id) in (int, bool), (file_id,), lambda m: m.file_rowids(file_id))
    language = d.odd() if d.chance(1) else d.choice(LANGUAGES) if d.chance(12) else d.text(8)
    size = d.odd() if d.chance(2) else d.integer()
    typed = isinstance(language, str) and type(size) in (int, bool)
    both("text_kept_on_disk", typed, (language, size), lambda m: m.text_kept_on_disk(language, size))


def fuzz_chunk_lines(d: Draw) -> None:
    start = d.odd() if d.chance(1) else d.integer()
    end = d.odd() if d.chance(1) else d.integer()
    text, typed = text_or_odd(d)
    typed = typed and type(start) in (int, bool) and type(end) in (int, bool)
    if typed and d.chance(8):
        # A stored chunk, as the index holds it.
        chunks = model.code_chunks(text)
        start, end, text = chunks[d.below(len(chunks))]
    both("_chunk_lines", typed, (start, end, text), lambda m: m._chunk_lines(start, end, text))


def some_lines(d: Draw, limit: int = 2048) -> tuple[Any, bool, str]:
    text = d.text(limit)
    if d.chance(1):
        return d.odd(), False, text
    lines: Any = text.splitlines() if d.chance(12) else text.split("\x00")
    kind = d.byte() % 8
    if kind == 0:
        return tuple(lines), False, text
    if kind == 1:
        return [*lines, d.odd()], False, text
    if kind == 2:
        return [Str(line) if i % 2 else line for i, line in enumerate(lines)], True, text
    if kind == 3:
        return Fresh(lines), False, text
    return lines, True, text


class Fresh:
    """Lines handed over as an iterator: each side gets its own (``side``)."""

    def __init__(self, items: list[str]) -> None:
        self.items = items

    def __repr__(self) -> str:
        return f"iter({self.items!r})"


def side(value: Any) -> Any:
    return iter(value.items) if isinstance(value, Fresh) else value


def fuzz_line_matches(d: Draw) -> None:
    regex = d.chance(5)
    lines, typed, text = some_lines(d, REGEX_TEXT if regex else 2048)
    needle: Any = d.needle_for(text)
    pattern = d.regex(text) if regex else None
    case_sensitive: Any = d.chance(8)
    if d.chance(1):
        needle = d.odd()
        typed = typed and pattern is not None
    if d.chance(1):
        case_sensitive = d.choice((0, 1, "", "x", None))
        typed = False
    args = (lines, needle, pattern, case_sensitive)
    compare("line_matches", outcome(drained(lambda: native.line_matches(side(lines), *args[1:]))),
            outcome(drained(lambda: model.line_matches(side(lines), *args[1:]))), typed, args)


def fuzz_line_matches_steps(d: Draw) -> None:
    """A match at a time, the list of lines changed between steps the same way on both sides."""
    regex = d.chance(4)
    lines, typed, text = some_lines(d, REGEX_TEXT if regex else 2048)
    if not isinstance(lines, list):
        return
    needle = d.needle_for(text)
    pattern = d.regex(text) if regex else None
    case_sensitive = d.chance(8)
    held = {m: list(lines) for m in (native, model)}
    runs = {m: m.line_matches(held[m], needle, pattern, case_sensitive) for m in (native, model)}
    for step in range(1 + d.byte() % 12):
        action = d.byte() % 6
        if action == 0:
            line = d.text(40) if d.chance(14) else d.odd()
            typed = typed and isinstance(line, str)
            for m in held:
                held[m].append(line)
        elif action == 1 and lines:
            at = d.below(len(held[model]) + 1)
            for m in held:
                del held[m][at:]
        elif action == 2 and held[model]:
            at = d.below(len(held[model]))
            for m in held:
                held[m][at] = Str(held[m][at]) if isinstance(held[m][at], str) else "x"
        else:
            compare("line_matches step", outcome(lambda: next(runs[native])), outcome(lambda: next(runs[model])),
                    typed, (step, needle, pattern, case_sensitive, held[model]))


def fuzz_context(d: Draw) -> None:
    lines, typed, _ = some_lines(d)
    first = d.odd() if d.chance(1) else d.integer()
    last = d.odd() if d.chance(1) else d.integer()
    typed = typed and type(first) in (int, bool) and type(last) in (int, bool)
    if d.chance(8):
        both("context", typed, (lines, first, last), lambda m: m.context(side(lines), first, last))
    else:
        start = d.odd() if d.chance(1) else d.integer()
        typed = typed and type(start) in (int, bool)
        both("context", typed, (lines, first, last, start),
             lambda m: m.context(side(lines), first, last, start))


class Tree:
    """A scratch repository: files that hold the fuzz bytes, a symlink, a directory."""

    def __init__(self) -> None:
        self.root = Path(tempfile.mkdtemp(prefix="velmora-fuzz-"))
        (self.root / "dir").mkdir()
        (self.root / "a").write_bytes(b"")
        os.symlink(self.root / "a", self.root / "link")

    def fill(self, d: Draw) -> None:
        for name in ("a", "b"):
            raw = d.raw(1024) if d.chance(12) else d.text().encode("utf-8", "surrogatepass")
            if d.byte() == 0xFF:
                # Past the size that is read a slice at a time: the fuzz bytes just before and
                # after where the first slice may end.
                piece = d.raw(64) + b"x" * 64
                raw = (piece * (SLICE // len(piece) + 1))[: SLICE - d.byte()] + raw
            (self.root / name).write_bytes(raw)

    def name(self, d: Draw) -> str:
        return d.choice(("a", "a", "b", "b", "link", "dir", "missing", "dir/../a"))

    def close(self) -> None:
        shutil.rmtree(self.root, ignore_errors=True)


TREE: Tree | None = None


def tree() -> Tree:
    global TREE
    if TREE is None:
        TREE = Tree()
        atexit.register(TREE.close)
    return TREE


def search_args(d: Draw, text: str) -> tuple[Any, Any, bool]:
    needle: Any = None if d.chance(4) else d.needle_for(text)
    case_sensitive: Any = d.chance(8)
    if needle is not None and not case_sensitive and d.chance(12):
        needle = needle.lower()  # what a search that ignores case hands over
    typed = True
    if d.chance(1):
        needle, typed = d.odd(), False
    return needle, case_sensitive, typed


def fuzz_lines_holding(d: Draw) -> None:
    t = tree()
    t.fill(d)
    path = t.root / t.name(d)
    sample = (t.root / "a").read_bytes().decode("utf-8", "replace")
    needle, case_sensitive, typed = search_args(d, sample)
    both("_file_text", True, (path,), lambda m: m._file_text(path))
    both("_lines_holding", typed, (path, needle, case_sensitive),
         lambda m: m._lines_holding(path, needle, case_sensitive))


def fuzz_disk_text(d: Draw) -> None:
    t = tree()
    t.fill(d)
    sample = (t.root / "b").read_bytes().decode("utf-8", "replace")
    needle, case_sensitive, typed = search_args(d, sample)
    disks = {m: m.DiskText(t.root, needle, case_sensitive) for m in (native, model)}
    for _ in range(1 + d.byte() % 6):
        method = d.choice(("segments", "lines", "_load"))
        file_id: Any = d.choice((1, 2, 3, 1.0, True, math.nan)) if d.chance(14) else d.odd()
        name: Any = t.name(d) if d.chance(15) else d.odd()
        if d.chance(2):
            t.fill(d)  # the file changes between calls: the kept lines stay
        call_typed = typed and isinstance(name, str)
        both(f"DiskText.{method}", call_typed, (file_id, name),
             lambda m: getattr(disks[m], method)(file_id, name))
        compare("DiskText._read", ("value", disks[native]._read), ("value", disks[model]._read), True,
                (method, file_id, name))


class Dropping(int):
    """A file id that, compared with another, drops a field of the text source it is kept in:
    whatever held that field across the comparison must have held it strongly."""

    __hash__ = int.__hash__

    def __new__(cls, source: Any, name: str, delete: bool) -> Dropping:
        made = super().__new__(cls, 5)
        made.drop = (lambda: delattr(source, name)) if delete else (lambda: setattr(source, name, None))
        return made

    def __eq__(self, other: object) -> bool:
        self.drop()
        # Containers of the kinds just freed, likely made where they lay: a lookup that goes
        # on in freed memory then finds 5 in them, where the model finds nothing.
        DECOYS.append(([None, 5], frozenset((5,)), {5: ["decoy"]}, (5, ["decoy"])))
        return False

    __ne__ = __eq__


DECOYS: list[Any] = []
# (class, method, field, how the field keeps a Dropping)
DROPPED_FIELDS = (
    ("ChunkText", "lines", "_read", lambda dropping: (dropping, ["a", "b"])),
    ("ChunkText", "segments", "_on_disk", lambda dropping: [dropping]),
    ("ChunkText", "lines", "_on_disk", lambda dropping: frozenset({dropping})),
    ("ChunkText", "segments", "_candidates", lambda dropping: {dropping: ["x"]}),
    ("DiskText", "lines", "_read", lambda dropping: (dropping, ["a", "b"])),
)


def drop_mid_call(case: tuple[Any, ...], delete: bool, file_id: Any = 5) -> None:
    """A method whose field is dropped while it compares file ids answers as the model does;
    repeated, so that freed memory is reused and a dangling reference shows."""
    kind, method, name, keep = case
    for _ in range(20):
        results = []
        for m in (native, model):
            disk = m.DiskText(tree().root, None, True)
            source = disk if kind == "DiskText" else m.ChunkText(None, "code_chunks", {}, disk, frozenset())
            setattr(source, name, keep(Dropping(source, name, delete)))
            results.append((outcome(lambda: getattr(source, method)(file_id, "a")),
                            outcome(lambda: type(getattr(source, name)))))  # kept, None or deleted
        for ours, theirs in zip(*results):
            compare(f"{kind}.{method} dropping {name}", ours, theirs, True, (file_id, delete))
        DECOYS.clear()


def fuzz_dropped_fields(d: Draw) -> None:
    drop_mid_call(d.choice(DROPPED_FIELDS), d.chance(8), d.choice((5, 6, 5.0, True)))


TARGETS = (
    fuzz_text_functions,
    fuzz_numbers,
    fuzz_chunk_lines,
    fuzz_line_matches,
    fuzz_line_matches_steps,
    fuzz_context,
    fuzz_lines_holding,
    fuzz_disk_text,
    fuzz_dropped_fields,
)


def check(data: bytes) -> None:
    """One run: the first byte picks what is called, the rest draws the arguments."""
    d = Draw(data)
    TARGETS[d.byte() % len(TARGETS)](d)


if __name__ == "__main__":
    atheris.instrument_func(check)
    atheris.Fuzz()
