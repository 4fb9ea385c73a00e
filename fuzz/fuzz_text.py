"""The fuzz targets' text tokens, read in Python: the same decoding as fuzz_text.hpp, so that an
input kept from a core target replays through the module's Python functions, and the module's
own fuzz target draws its texts the same way."""

from __future__ import annotations

SPECIAL = (
    0x0A, 0x0B, 0x0C, 0x0D, 0x1C, 0x1D, 0x1E, 0x85, 0x2028, 0x2029,
    0x0D, 0x0A, 0x0D, 0x0D,
    0x130, 0x212A, 0x307, 0x131, 0x3A3, 0x17F,
    ord("k"), ord("K"), ord("i"), ord("I"),
    0xD800, 0xDBFF, 0xDC00, 0xDFFF,
    0x7F, 0x80, 0x84, 0x86, 0xFF, 0x100, 0x7FF, 0x800,
    0xFFFF, 0xFFFD, 0x10000, 0x10FFFF, 0x8000, 0x7FFF,
    0x010A, 0x010D, 0x0A0A, 0xFF0D, 0xFF85, 0x2027, 0x202A, 0x2128,
    0x12028, 0x12029, 0x1000A, 0x1000D, 0x10085, 0x30A, 0x2029 | 0x10000,
    0xE2, 0x84, 0xAA, 0xC4, 0xB0,
)
MAX_TEXT = 1 << 13
WIDTHS = (1, 2, 4)


def clamp(cp: int, width: int) -> int:
    if width == 1 and cp > 0xFF:
        return cp & 0xFF
    if width == 2 and cp > 0xFFFF:
        return cp & 0xFFFF
    return cp


def _needle_code_points(needle: bytes, bits: int) -> list[int]:
    out = []
    for i, c in enumerate(needle):
        if bits & 1 and ord("a") <= c <= ord("z"):
            c -= 32
        if bits & 2 and needle[i] == ord("k"):
            c = 0x212A
        if bits & 4 and needle[i] == ord("i") and i + 1 == len(needle):
            c = 0x130
        out.append(c)
    return out


def decode_code_points(data: bytes, width: int, needle: bytes | None = None, max_text: int = MAX_TEXT) -> list[int]:
    """The code points that the tokens in ``data`` stand for (see fuzz_text.hpp)."""
    out: list[int] = []
    i = 0
    size = len(data)

    def nxt() -> int:
        nonlocal i
        if i < size:
            i += 1
            return data[i - 1]
        return 0

    while i < size and len(out) < max_text:
        t = data[i]
        i += 1
        if t < 0x80:
            out.append(t)
        elif t < 0xC0:
            out.append(clamp(SPECIAL[(t - 0x80) % len(SPECIAL)], width))
        elif t < 0xE0:
            lo = nxt()
            out.append(clamp(lo | nxt() << 8, width))
        elif t < 0xF0:
            b0, b1, b2 = nxt(), nxt(), nxt()
            out.append(clamp((b0 | b1 << 8 | (b2 & 0x1F) << 16) % 0x110000, width))
        elif t >= 0xF8 and needle is not None:
            out.extend(clamp(c, width) for c in _needle_code_points(needle, t & 7))
        else:
            span = 1 + (nxt() & 0x3F)
            times = (1 + nxt()) << ((t & 7) >> 1)
            if not out:
                continue
            piece = out[len(out) - min(span, len(out)):]
            room = (max_text - len(out)) // len(piece)
            out.extend(piece * min(times, room))
    return out[:max_text]


def decode_text(data: bytes, width: int, needle: bytes | None = None, max_text: int = MAX_TEXT) -> str:
    return "".join(map(chr, decode_code_points(data, width, needle, max_text)))


def core_input(target: str, data: bytes) -> tuple[str, str | None]:
    """The text (and, for the search target, the ASCII needle) of an input of a core target."""
    if len(data) < 4:
        return "", None
    width = WIDTHS[data[0] % 3]
    if target == "ascii_search":
        needle = bytes(c & 0x7F for c in data[4 : 4 + min(data[1] % 24, len(data) - 4)])
        return decode_text(data[4 + len(needle) :], width, needle), needle.decode("ascii")
    max_text = 1 << 16 if target == "stored_size" else MAX_TEXT
    return decode_text(data[4:], width, None, max_text), None


def encode_text(text: str) -> bytes:
    """Tokens that decode to ``text`` at any width that holds it (for writing seeds)."""
    out = bytearray()
    for ch in text:
        cp = ord(ch)
        if cp < 0x80:
            out.append(cp)
        elif cp in SPECIAL:
            out.append(0x80 + SPECIAL.index(cp))
        elif cp <= 0xFFFF:
            out += bytes((0xC0, cp & 0xFF, cp >> 8))
        else:
            out += bytes((0xE0, cp & 0xFF, (cp >> 8) & 0xFF, cp >> 16))
    return bytes(out)
