#!/usr/bin/env python3
"""Mutation check: how many small faults in the library's sources does the suite catch?

With a fixed seed, picks a sample of mutation sites in src/ (a comparison flipped or
loosened, + and - swapped, an integer constant changed by one, a condition negated, a statement
removed), applies each one alone, rebuilds incrementally, runs the suite, and restores the file.
A mutant is killed when the build succeeds and a test fails (or times out); a mutant that does not
compile is not counted. Prints per file and in total how many mutants the suite killed.

  python3 scripts/mutants.py [--count N] [--seed S] [--build DIR] [--only PATH_PREFIX] [--list]
  python3 scripts/mutants.py --replay scripts/mutants-baseline.txt

The sample depends only on the seed and on the sources, so two suites are compared on the same
mutants by running both over the same library sources with the same seed. Once the sources have
moved on, --replay applies the mutants of an earlier --list again: each original line is found
by its text, nearest to where it was, and mutants whose line is gone are reported, not counted.
"""
import argparse
import os
import random
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# Test binaries, in the order they run: the fast one first, so most mutants die early.
TEST_TARGETS = ["kestrelvue_unit_tests", "kestrelvue_integration_tests"]

COMPARISON_SWAPS = {"<": ">=", ">": "<=", "<=": ">", ">=": "<", "==": "!=", "!=": "=="}
LOOSENINGS = {"<": "<=", ">": ">=", "<=": "<", ">=": ">"}


def source_files():
    files = []
    # Public headers hold declarations and defaults; a fault there rebuilds everything for little.
    for top in ("src",):
        for dirpath, _, names in os.walk(os.path.join(ROOT, top)):
            for name in names:
                if name.endswith((".cpp", ".h")):
                    files.append(os.path.relpath(os.path.join(dirpath, name), ROOT))
    # The simulated platform is a test and replay aid, not the library hosts run.
    return sorted(f for f in files if "/sim/" not in f)


def code_spans(line):
    """The line with string and character literals and // comments blanked out (same length)."""
    out = []
    i, n = 0, len(line)
    while i < n:
        c = line[i]
        if c in "\"'":
            quote = c
            out.append(c)
            i += 1
            while i < n and line[i] != quote:
                if line[i] == "\\" and i + 1 < n:
                    out.append("  ")
                    i += 2
                    continue
                out.append(" ")
                i += 1
            if i < n:
                out.append(quote)
                i += 1
            continue
        if line.startswith("//", i):
            out.append(" " * (n - i))
            break
        out.append(c)
        i += 1
    return "".join(out)


OPERATOR = re.compile(r"(?<![<>=!+\-*/&|^%])(<=|>=|==|!=|<|>)(?![<>=])")
ARITH = re.compile(r"(?<=[\w)\]] )([+\-])(?= [\w(])")
INTEGER = re.compile(r"(?<![\w.])(\d+)(?![\w.])")
IF_COND = re.compile(r"\b(if|while) \((.*)\)(\s*\{?\s*)$")
STATEMENT = re.compile(r"^\s+[\w:.>\-\[\]()]+(\(.*\)|\s*[+\-*/]?=\s*.+|\+\+|--);\s*$")


def sites_in(path):
    """Every mutation site in a file: (line number, kind, replacement line)."""
    with open(os.path.join(ROOT, path), encoding="utf-8") as f:
        lines = f.read().split("\n")
    sites = []
    in_block_comment = False
    for no, line in enumerate(lines):
        stripped = line.strip()
        if in_block_comment:
            if "*/" in stripped:
                in_block_comment = False
            continue
        if stripped.startswith("/*"):
            in_block_comment = "*/" not in stripped
            continue
        if (not stripped or stripped.startswith(("#", "//", "static_assert", "template",
                                                  "assert(", "using ", "namespace"))
                or "operator" in stripped or "#include" in stripped):
            continue
        code = code_spans(line)
        # Template brackets and shifts look like comparisons; only lines with a clear boolean
        # context are mutated for comparisons.
        if re.search(r"\b(if|while|return|for)\b|&&|\|\||\?", code) and "<<" not in code and \
                not re.search(r"\w<[\w:, ]+>", code):
            for m in OPERATOR.finditer(code):
                op = m.group(1)
                a, b = m.span(1)
                sites.append((no, "comparison flipped", line[:a] + COMPARISON_SWAPS[op] + line[b:]))
                if op in LOOSENINGS:
                    sites.append((no, "comparison loosened", line[:a] + LOOSENINGS[op] + line[b:]))
        for m in ARITH.finditer(code):
            a, b = m.span(1)
            other = "-" if m.group(1) == "+" else "+"
            sites.append((no, "+/- swapped", line[:a] + other + line[b:]))
        if not re.search(r"\[\s*\d+\s*\]\s*[;=]|\b(case|enum)\b|^\s*\w+\s*=\s*\d+,?$", code):
            for m in INTEGER.finditer(code):
                a, b = m.span(1)
                value = int(m.group(1))
                sites.append((no, "constant + 1", line[:a] + str(value + 1) + line[b:]))
                if value > 0:
                    sites.append((no, "constant - 1", line[:a] + str(value - 1) + line[b:]))
        m = IF_COND.search(code)
        if m and m.group(2).count("(") == m.group(2).count(")"):
            a, b = m.span(2)
            sites.append((no, "condition negated", line[:a] + "!(" + line[a:b] + ")" + line[b:]))
        if STATEMENT.match(code) and not stripped.startswith(("return", "break", "continue")):
            indent = line[: len(line) - len(line.lstrip())]
            sites.append((no, "statement removed", indent + ";"))
    return lines, sites


def run(cmd, timeout):
    try:
        return subprocess.run(cmd, cwd=ROOT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def build(build_dir, jobs):
    return run(["cmake", "--build", build_dir, "-j", str(jobs), "--target"] + TEST_TARGETS,
               timeout=900)


def suite_fails(build_dir, test_timeout):
    for target in TEST_TARGETS:
        exe = os.path.join(build_dir, "tests", target)
        rc = run([exe, "--gtest_fail_fast", "--gtest_brief=1"], timeout=test_timeout)
        if rc != 0:
            return True
    return False


LISTED = re.compile(r"^(\S+):(\d+): ([^:]+): (.*?)  ->  (.*)$")


def replayed(listing, originals):
    """The mutants of an earlier --list, placed on today's lines."""
    sample = []
    with open(listing, encoding="utf-8") as f:
        for entry in f:
            m = LISTED.match(entry.rstrip("\n"))
            if not m:
                continue
            path, line, kind, before, after = m.group(1), int(m.group(2)), m.group(3), m.group(4), m.group(5)
            lines = originals.get(path)
            if lines is None and os.path.exists(os.path.join(ROOT, path)):
                lines = originals[path] = sites_in(path)[0]
            matches = [i for i, l in enumerate(lines or []) if l.strip() == before]
            if not matches:
                print(f"gone     {path}:{line} {kind} (the line is not in today's sources)")
                continue
            no = min(matches, key=lambda i: abs(i - (line - 1)))
            sample.append((path, no, kind, lines[no].replace(before, after, 1)))
    return sample


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--count", type=int, default=60, help="mutants to try (default 60)")
    parser.add_argument("--seed", type=int, default=20261124, help="sampling seed")
    parser.add_argument("--build", default="build/mutants", help="build directory")
    parser.add_argument("--only", default="", help="mutate only files under this path")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--test-timeout", type=int, default=300)
    parser.add_argument("--list", action="store_true", help="print the sample and exit")
    parser.add_argument("--replay", default="", help="apply the mutants of an earlier --list")
    args = parser.parse_args()

    all_sites = []
    originals = {}
    for path in source_files():
        if not path.startswith(args.only):
            continue
        lines, sites = sites_in(path)
        originals[path] = lines
        all_sites += [(path, no, kind, text) for no, kind, text in sites]
    rng = random.Random(args.seed)
    sample = rng.sample(all_sites, min(args.count, len(all_sites)))
    sample.sort(key=lambda s: (s[0], s[1]))
    if args.replay:
        sample = replayed(args.replay, originals)
    print(f"{len(all_sites)} mutation sites in {len(originals)} files; trying {len(sample)} "
          f"(seed {args.seed})", flush=True)
    if args.list:
        for path, no, kind, text in sample:
            print(f"{path}:{no + 1}: {kind}: {originals[path][no].strip()}  ->  {text.strip()}")
        return 0

    build_dir = os.path.join(ROOT, args.build)
    if not os.path.exists(os.path.join(build_dir, "CMakeCache.txt")):
        launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if subprocess.run(
            ["sh", "-c", "command -v ccache"], stdout=subprocess.DEVNULL).returncode == 0 else []
        subprocess.run(["cmake", "-S", ROOT, "-B", build_dir, "-DCMAKE_BUILD_TYPE=RelWithDebInfo"]
                       + launcher, check=True, stdout=subprocess.DEVNULL)
    if build(build_dir, args.jobs) != 0 or suite_fails(build_dir, args.test_timeout):
        print("the unmutated suite does not build and pass; nothing measured", file=sys.stderr)
        return 1

    per_file = {}
    survivors = []
    started = time.monotonic()
    for index, (path, no, kind, text) in enumerate(sample, 1):
        full = os.path.join(ROOT, path)
        mutated = list(originals[path])
        mutated[no] = text
        try:
            with open(full, "w", encoding="utf-8") as f:
                f.write("\n".join(mutated))
            if build(build_dir, args.jobs) != 0:
                outcome = "unviable"
            else:
                outcome = "killed" if suite_fails(build_dir, args.test_timeout) else "survived"
        finally:
            with open(full, "w", encoding="utf-8") as f:
                f.write("\n".join(originals[path]))
        killed, total = per_file.get(path, (0, 0))
        if outcome != "unviable":
            per_file[path] = (killed + (outcome == "killed"), total + 1)
        if outcome == "survived":
            survivors.append(f"{path}:{no + 1}: {kind}: {originals[path][no].strip()}  ->  "
                             f"{text.strip()}")
        print(f"[{index}/{len(sample)}] {outcome:8} {path}:{no + 1} {kind}", flush=True)
    build(build_dir, args.jobs)

    print(f"\nper file (killed / viable), {time.monotonic() - started:.0f} s:")
    killed_all = viable_all = 0
    for path in sorted(per_file):
        killed, total = per_file[path]
        killed_all += killed
        viable_all += total
        print(f"  {path:50} {killed:3} / {total:3}")
    share = 100.0 * killed_all / viable_all if viable_all else 0.0
    print(f"total: {killed_all} of {viable_all} viable mutants killed ({share:.1f} %)")
    if survivors:
        print("survivors:")
        for s in survivors:
            print("  " + s)
    return 0


if __name__ == "__main__":
    sys.exit(main())
