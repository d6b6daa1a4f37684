#!/usr/bin/env python3
"""Checks that the tests catch one-line faults.

Each mutant of scripts/mutants.txt replaces one exact piece of a source file
(the n-th occurrence, 1 by default); the test binary is rebuilt in
build/mutants and run until its first failing test; the mutant is caught when
a test fails, and the first failing test is named.  The file is restored after
every mutant, also on interruption.

    scripts/mutants.py [NAME_PREFIX ...]

mutants.txt: blocks of four lines and a blank line --
    name
    file[:occurrence]
    the exact text to replace
    its replacement
(in the two texts, \n stands for a line break).
"""
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build", "mutants")


def read_mutants(path):
    blocks = open(path).read().split("\n\n")
    out = []
    for b in blocks:
        lines = [l for l in b.split("\n") if l and not l.startswith("#")]
        if not lines:
            continue
        if len(lines) != 4:
            sys.exit("bad mutant block:\n" + b)
        name, where, old, new = lines
        old, new = old.replace("\\n", "\n"), new.replace("\\n", "\n")
        occ = 1
        if ":" in where:
            where, o = where.rsplit(":", 1)
            occ = int(o)
        out.append((name, where, old, new, occ))
    return out


def run(cmd, timeout=None):
    return subprocess.run(cmd, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=timeout, text=True)


def build():
    r = run(["cmake", "--build", BUILD, "-j2", "--target", "vlu_tests"])
    return r.returncode == 0, r.stdout


def main():
    prefixes = sys.argv[1:]
    mutants = read_mutants(os.path.join(ROOT, "scripts", "mutants.txt"))
    if prefixes:
        mutants = [m for m in mutants if any(m[0].startswith(p) for p in prefixes)]
    run(["cmake", "-S", ".", "-B", BUILD, "-DCMAKE_BUILD_TYPE=RelWithDebInfo"])
    ok, out = build()
    if not ok:
        sys.exit("the unchanged tree does not build:\n" + out)
    test = os.path.join(BUILD, "tests", "vlu_tests")
    survivors = []
    for name, path, old, new, occ in mutants:
        full = os.path.join(ROOT, path)
        text = open(full).read()
        pos = -1
        for _ in range(occ):
            pos = text.find(old, pos + 1)
            if pos < 0:
                break
        if pos < 0:
            print(f"{name:40s} NOT APPLICABLE (text not found)")
            survivors.append(name)
            continue
        try:
            open(full, "w").write(text[:pos] + new + text[pos + len(old):])
            t0 = time.time()
            ok, _ = build()
            if not ok:
                verdict = "caught (does not build)"
            else:
                try:
                    r = run([test, "--gtest_brief=1", "--gtest_fail_fast"], timeout=600)
                    verdict = "caught" if r.returncode != 0 else "SURVIVED"
                    failed = [l.split("]", 1)[1].split()[0].rstrip(",") for l in r.stdout.splitlines()
                              if l.startswith("[  FAILED  ]")]
                    failed = [f for f in failed if not f[0].isdigit()]  # not the summary
                    if failed:
                        verdict += " by " + failed[0]
                except subprocess.TimeoutExpired:
                    verdict = "caught (timeout)"
        finally:
            open(full, "w").write(text)
        if verdict == "SURVIVED":
            survivors.append(name)
        print(f"{name:40s} {verdict}  ({time.time() - t0:.0f} s)", flush=True)
    build()  # leave the build matching the tree
    print(f"{len(mutants) - len(survivors)} of {len(mutants)} caught")
    return 1 if survivors else 0


if __name__ == "__main__":
    sys.exit(main())
