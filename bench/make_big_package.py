#!/usr/bin/env python3
"""Writes a large, deterministic app package for the extraction benchmark.

About 200 MB in about 2,000 parts: mostly text-like data of mixed sizes,
one part in seven incompressible, a few big files; DEFLATE level 6, as
packaging tools write by default. The mixed packages carry a digest list
(unsigned), so that verified extraction can be timed on them too.

    make_big_package.py PATH [TOTAL_MB [PARTS [BIG_MB]]]
    make_big_package.py PATH --one-part MB

BIG_MB adds one text part of that size (the other parts share what is left
of TOTAL_MB); --one-part writes a package holding a single text part, for
measuring memory.
"""
import hashlib
import random
import sys
import zipfile

CONTENT_TYPES = """<?xml version="1.0" encoding="UTF-8"?>
<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">
<Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml"/>
<Default Extension="txt" ContentType="text/plain"/>
<Default Extension="bin" ContentType="application/octet-stream"/>
<Override PartName="/_digests/sha256sums" ContentType="text/vnd.corvane.tessal.app-digests"/>
</Types>"""

RELS = """<?xml version="1.0" encoding="UTF-8"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">
<Relationship Id="d" Target="/_digests/sha256sums" \
Type="http://schemas.corvane.com/tessal/app/2026/relationships/contentDigests"/>
</Relationships>"""

WORDS = ("function return const value index the a of and to in is for with "
         "package part name folder file byte stream manifest author version "
         "{ } ( ) ; = + - * / 0 1 2 3 42 1000 true false null").split()


def text_corpus(rng, size):
    out, total = [], 0
    while total < size:
        line = " ".join(rng.choice(WORDS) for _ in range(rng.randint(3, 14))) + "\n"
        out.append(line)
        total += len(line)
    return "".join(out).encode()[:size]


def one_part(path, megabytes):
    corpus = text_corpus(random.Random(20261123), 8 << 20)
    digest = hashlib.sha256()
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=6) as z:
        z.writestr("[Content_Types].xml", CONTENT_TYPES)
        z.writestr("_rels/.rels", RELS)
        info = zipfile.ZipInfo("files/huge.txt", date_time=(2026, 1, 1, 0, 0, 0))
        info.compress_type = zipfile.ZIP_DEFLATED
        with z.open(info, "w", force_zip64=True) as out:
            for _ in range(megabytes // 8):
                out.write(corpus)
                digest.update(corpus)
        z.writestr("_digests/sha256sums", "".join(
            "%s  %s\n" % (hashlib.sha256(data.encode()).hexdigest(), name)
            for name, data in (("[Content_Types].xml", CONTENT_TYPES), ("_rels/.rels", RELS)))
            + "%s  files/huge.txt\n" % digest.hexdigest())


def main(path, total_mb=200, parts=2000, big_mb=0):
    rng = random.Random(20261123)
    corpus = text_corpus(rng, 8 << 20)
    sizes = []
    for i in range(parts):
        if i % 400 == 7:
            sizes.append(rng.randint(4 << 20, 12 << 20))
        else:
            sizes.append(int(2 ** rng.uniform(9, 18.5)))
    scale = ((total_mb - big_mb) << 20) / sum(sizes)
    digests = []

    def add(z, name, data):
        info = zipfile.ZipInfo(name, date_time=(2026, 1, 1, 0, 0, 0))
        info.compress_type = zipfile.ZIP_DEFLATED
        z.writestr(info, data, compresslevel=6)
        digests.append("%s  %s\n" % (hashlib.sha256(data).hexdigest(), name))

    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=6) as z:
        add(z, "[Content_Types].xml", CONTENT_TYPES.encode())
        add(z, "_rels/.rels", RELS.encode())
        if big_mb:
            add(z, "files/big.txt", (corpus * (big_mb // 8 + 1))[:big_mb << 20])
        for i, size in enumerate(sizes):
            size = max(1, int(size * scale))
            folder = "files/d%02d/s%d" % (i % 37, i % 5)
            if i % 7 == 3:
                name, data = "%s/blob%04d.bin" % (folder, i), rng.randbytes(size)
            else:
                start = rng.randrange(0, len(corpus) - 1)
                data = (corpus[start:] + corpus)[:size]
                name = "%s/text%04d.txt" % (folder, i)
            add(z, name, data)
        z.writestr("_digests/sha256sums", "".join(digests))


if __name__ == "__main__":
    if len(sys.argv) == 4 and sys.argv[2] == "--one-part":
        one_part(sys.argv[1], int(sys.argv[3]))
    else:
        main(sys.argv[1], *(int(a) for a in sys.argv[2:]))
