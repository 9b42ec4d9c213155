"""Trees of files as people have them: all sizes, awkward names."""

import hashlib
import random

MIB = 1 << 20

AWKWARD = ["100% done.txt", "Report #1 (final).txt", "plus+and&more='[x]@!$,;.txt", "two  spaces.txt", ".hidden",
           "Ämter und Straßen.txt", "報告書.txt", "Отчёт.txt", "snow ☃ and 🐬.txt", "comma,semi;colon.txt",
           "~tilde.txt", "caret^and`tick.txt", "a" * 200 + ".txt", "-rf.txt", "e\u0301 decomposed.txt"]


def content(size, seed):
    return random.Random(seed).randbytes(size)


def make(folder, files, large=()):
    """Fills `folder` with that many files: empty, small, some of 4 MiB and a byte around it, and those of the
    sizes in `large`."""
    sizes = [4 * MIB, 4 * MIB + 1, *large]
    generator = random.Random(files)
    while len(sizes) < files:
        sizes.append(0 if len(sizes) % 20 == 0 else generator.randint(1, 40_000))
    for number, size in enumerate(sizes):
        name = AWKWARD[number] if number < len(AWKWARD) else f"file {number:03}.bin"
        place = folder / f"Ordner {number % 7}" / "tiefer & weiter" if number % 3 else folder / f"Ordner {number % 7}"
        place.mkdir(parents=True, exist_ok=True)
        (place / name).write_bytes(content(size, number))


def digests(folder):
    """The SHA-256 of every file, by its path in the folder."""
    found = {}
    for path in folder.rglob("*"):
        if path.is_file():
            with open(path, "rb") as file:
                found[str(path.relative_to(folder))] = hashlib.file_digest(file, "sha256").hexdigest()
    return found
