#!/usr/bin/env python3
"""Generates a folder tree for the full-scan benchmark: make-scan-tree.py DIR ENTRIES

About ENTRIES objects below DIR (folders, files, symbolic links), laid out breadth first with a
realistic fan-out: every folder holds 2 to 24 files and 0 to 5 sub-folders (about one object in
ten is a folder), about one in a hundred is a symbolic link (to a sibling file, to the parent
folder, or dangling). Files get small sizes (0 to 64 KiB, most under 4 KiB) set with ftruncate,
so the tree costs inodes but almost no data blocks. The layout is the same for the same ENTRIES
(fixed seed). The tree is built under DIR.tmp and renamed to DIR when complete, so a half-made
tree is never taken for a finished one.
"""
import collections
import os
import random
import shutil
import sys


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: make-scan-tree.py DIR ENTRIES")
    target, total = sys.argv[1], int(sys.argv[2])
    work = target + ".tmp"
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    rng = random.Random(20261121)
    made = 0
    folders = collections.deque([work])
    serial = 0
    while folders and made < total:
        folder = folders.popleft()
        files = []
        for _ in range(rng.randint(2, 24)):
            if made >= total:
                break
            serial += 1
            name = "file_%06d%s" % (serial, rng.choice((".txt", ".dat", ".log", ".cpp", ".jpg", "")))
            path = os.path.join(folder, name)
            fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
            size = int(rng.paretovariate(1.2) * 200) - 200
            os.ftruncate(fd, min(size, 65536))
            os.close(fd)
            files.append(name)
            made += 1
        if made < total and rng.random() < 0.12:
            serial += 1
            kind = rng.randint(0, 2)
            dest = (files[0] if files else "x") if kind == 0 else ".." if kind == 1 else "missing_%d" % serial
            os.symlink(dest, os.path.join(folder, "link_%06d" % serial))
            made += 1
        # Two sub-folders on average keep the tree growing; some folders are leaves.
        for _ in range(rng.choice((0, 0, 1, 2, 2, 3, 3, 4, 5))):
            if made >= total:
                break
            serial += 1
            sub = os.path.join(folder, "dir_%06d" % serial)
            os.mkdir(sub)
            folders.append(sub)
            made += 1
        if not folders and made < total:
            folders.append(folder)  # a tree that stopped growing continues below its last folder
    os.rename(work, target)
    print("%s: %d entries" % (target, made))


if __name__ == "__main__":
    main()
