"""Bad input, tried: every parameter of every public function and method, one at a time, gets
values it should not, and the native module answers as the model does.

The others keep good values. The answer must be the model's: the same value, or an error of
the same type, which is the host's own error for that input. Then the same function (or the
same object, for a method) answers a good call as the model does: a bad call leaves nothing
broken behind. A line_matches sequence is read to its end, and must stay ended after an
error. Where the native module checks an argument's type at the door (CHECKED), its
TypeError stands for the model's later error.
"""

from __future__ import annotations

import sqlite3
from pathlib import Path
from typing import Any, Iterator

import pytest

import model
import workbench
from velmora.storage import code_text as native
from workbench import BY_KIND, CHECKED, GENERIC, TARGETS, answer, resolve, run


CASES = [
    (name, param, value)
    for name, target in TARGETS.items()
    for param, (kind, _) in {**target.params, **target.fields}.items()
    for value in [*GENERIC, *BY_KIND[kind]]
]
# Calls of the wrong shape: no arguments, one too many, an unknown keyword; and (below) each
# positional argument given by keyword too, as in f(x, name=x).
SHAPES = {
    "no arguments": lambda args, kwargs: ((), {}),
    "one too many": lambda args, kwargs: ((*args, 1), kwargs),
    "unknown keyword": lambda args, kwargs: (args, {**kwargs, "unknown": 1}),
}
WRONG_SHAPES = [
    (name, shape)
    for name, target in TARGETS.items()
    for shape in [*SHAPES, *(f"{p} twice" for p in target.params if p not in target.keyword_only)]
]


@pytest.fixture(scope="module")
def bench(tmp_path_factory: pytest.TempPathFactory) -> Iterator[workbench.Workbench]:
    made = workbench.Workbench(tmp_path_factory.mktemp("bad"))
    yield made
    made.close()


@pytest.mark.parametrize(("name", "param", "value"), CASES, ids=[" ".join(case) for case in CASES])
def test_a_bad_input_gets_the_models_answer(bench: workbench.Workbench, name: str, param: str, value: str) -> None:
    kind = {**TARGETS[name].params, **TARGETS[name].fields}[param][0]
    bad = GENERIC[value] if value in GENERIC else BY_KIND[kind][value]
    got, want = run(bench, native, name, param, bad), run(bench, model, name, param, bad)
    checked = CHECKED.get((name, param))
    if checked is not None and not isinstance(resolve(bad, bench, native), checked):
        assert got == (("error", TypeError), want[1])
        with pytest.raises(TypeError, match=f"argument '{param}' must be {checked.__name__}, not"):
            TARGETS[name].make(bench, native)(*[resolve(bad if p == param else v, bench, native)
                                               for p, (_, v) in TARGETS[name].params.items()])
    else:
        assert got == want


@pytest.mark.parametrize(("name", "shape_name"), WRONG_SHAPES, ids=[" ".join(case) for case in WRONG_SHAPES])
def test_a_call_of_the_wrong_shape(bench: workbench.Workbench, name: str, shape_name: str) -> None:
    def run_shape(impl: Any) -> Any:
        target = TARGETS[name]
        values = {p: resolve(v, bench, impl) for p, (_, v) in target.params.items()}
        args = [values[p] for p in target.params if p not in target.keyword_only]
        kwargs = {p: values[p] for p in target.keyword_only}
        if shape_name in SHAPES:
            args, kwargs = SHAPES[shape_name](args, kwargs)
        else:
            twice = shape_name.removesuffix(" twice")
            kwargs[twice] = values[twice]
        return answer(lambda: target.make(bench, impl)(*args, **kwargs))

    assert run_shape(native) == run_shape(model) == ("error", TypeError)


# --- Changes between calls ---------------------------------------------------------------


def replaced_between_calls(impl: Any, root: Path) -> list[Any]:
    """A file read, then replaced by a link, a directory, a link to a directory and a file
    again, read through one DiskText (new ids: the cache is by id) and directly."""
    root.mkdir()
    (root / "other").write_text("key elsewhere\n")
    (root / "f").write_text("key here\nand more\n")
    disk = impl.DiskText(root, "key", True)
    seen = [answer(lambda: disk.lines(1, "f"))]
    changes = [lambda f: f.symlink_to(root / "other"), lambda f: f.mkdir(),
               lambda f: f.symlink_to(root, target_is_directory=True), lambda f: f.write_bytes(b"key \xff back\n")]
    for file_id, change in enumerate(changes, start=2):
        path = root / "f"
        path.rmdir() if path.is_dir() and not path.is_symlink() else path.unlink()
        change(path)
        seen += [answer(lambda: disk.segments(file_id, "f")), answer(lambda: disk.lines(file_id, "f")),
                 answer(lambda: disk.lines(1, "f")), answer(lambda: impl._file_text(path)),
                 answer(lambda: impl._lines_holding(path, None, True))]
    return seen


def test_a_file_replaced_between_calls(tmp_path: Path) -> None:
    assert replaced_between_calls(native, tmp_path / "native") == replaced_between_calls(model, tmp_path / "model")


def locked_between_calls(impl: Any, bench: workbench.Workbench, store: str) -> list[Any]:
    """ChunkText.lines while another connection holds the database: the failed read keeps
    the file read before, and once the lock is gone every file reads again."""
    db = bench.build(f"locked-{store}-{impl.__name__}", store, wait=False)
    chunks = impl.ChunkText(db, store, {}, impl.DiskText(bench.repo, None, True), ())
    seen = [answer(lambda: chunks.lines(1, "f1.py"))]
    holder = sqlite3.connect(db.db_path, isolation_level=None)
    holder.execute("BEGIN EXCLUSIVE")
    try:
        seen += [answer(lambda: chunks.lines(3, "f3.txt")), answer(lambda: chunks.lines(1, "f1.py")),
                 answer(lambda: impl._chunk_state(db, store)), answer(lambda: chunks._read[0])]
    finally:
        holder.rollback()
        holder.close()
    return seen + [answer(lambda: chunks.lines(3, "f3.txt")), answer(lambda: chunks._read[0])]


@pytest.mark.parametrize("store", ["code_chunks", "compressed"])
def test_a_database_locked_between_calls(bench: workbench.Workbench, store: str) -> None:
    assert locked_between_calls(native, bench, store) == locked_between_calls(model, bench, store)
