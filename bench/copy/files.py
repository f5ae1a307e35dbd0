"""The content of the volume whose backups are measured: files of all sizes with gaps between them."""
import math
import os
import random

PIECE = 1 << 20
LARGEST = 64 * PIECE
WORDS = ("accepted", "backup", "connection", "copied", "finished", "refused", "snapshot", "volume")
NOISE = os.urandom(LARGEST) # without zeros or equal blocks


def text():
    """LARGEST bytes that look like a log; a compressor shrinks them to a fifth."""
    chance = random.Random(3)
    lines = (f"{at // 7} host{at % 5} service[{chance.randrange(9999)}]: {chance.choice(WORDS)} "
             f"{chance.choice(WORDS)} took {chance.random():.4f} s\n" for at in range(LARGEST // 40))
    return "".join(lines).encode()[:LARGEST]


def fill(root, size, contents=(NOISE,)):
    """Writes files of `size` bytes in all, with these contents in turn. Every fourth file is deleted
    again."""
    chance = random.Random(1)
    kept, number = 0, 0
    while kept < size:
        length = min(int(math.exp(chance.uniform(8, math.log(LARGEST)))), LARGEST)
        path = root / f"d{number % 100}" / f"f{number}"
        path.parent.mkdir(exist_ok=True)
        begin = chance.randrange(LARGEST - length + 1)
        content = contents[number // 4 % len(contents)]
        path.write_bytes(memoryview(content)[begin:begin + length])
        if number % 4 == 1:
            path.unlink()
        else:
            kept += length
        number += 1
    os.sync()


def change(root, size):
    """Overwrites `size` bytes of the files, by mebibytes at random places; returns how many bytes that
    were."""
    chance = random.Random(2)
    large = sorted(path for path in root.glob("d*/f*") if path.stat().st_size >= PIECE)
    places = [(path, offset) for path in large for offset in range(0, path.stat().st_size - PIECE + 1, PIECE)]
    chosen = chance.sample(places, round(size / PIECE))
    for path, offset in chosen:
        with open(path, "r+b", buffering=0) as file:
            file.seek(offset)
            file.write(os.urandom(PIECE))
    os.sync()
    return len(chosen) * PIECE
