#!/usr/bin/env python3
"""Mutation testing of the library: how many planted faults does the suite catch?

Plants one-operator faults, one at a time, in lib/bt/*.cpp:
  cmp    a comparison flipped (negated: < to >=, == to !=, ...) or moved by
         one (< to <=, > to >=, ...);
  drop   a statement dropped (an assignment, a call, an increment);
  const  an integer constant off by one (+1 or -1);
  neg    the condition of an if or a while negated.
For each fault it rebuilds a plain build incrementally (the changed object,
then the library, the tests and the tools relink), runs the CTest suite
quickest test first (--test-jobs at a time) and stops at the first failure:
the fault is caught. A test that runs past its time limit catches it too. A fault that
does not compile is no mutant (stillborn). The file is always put back.

The sites are drawn at random with a seed from every candidate site, so a
seed and a count name the same mutants on the same sources. --save writes
them to a file and --load plants exactly those again on another tree (each
by its line's text, so that edits elsewhere in the file do not matter; a
mutant whose line is gone is reported as such). Mutants that cannot change
behaviour are not faults: the --equivalent file (lines "file|before|after",
the stripped original and mutated lines, then "# why") keeps them out of the
score and lists them apart.

Examples:
  nice python3 scripts/mutate.py --seed 12 --count 80 --save /tmp/m.json --out /tmp/before.json
  nice python3 scripts/mutate.py --load /tmp/m.json --out /tmp/after.json
  python3 scripts/mutate.py --seed 12 --count 80 --list
The tests run in an IPC namespace of their own when `unshare --ipc` works
(as root), so that a test killed at its time limit leaves no System V
segment or semaphore set behind.
"""
import argparse
import json
import os
import random
import re
import shutil
import subprocess
import sys
import time

# ---------------------------------------------------------------------------
# Candidate sites
# ---------------------------------------------------------------------------

CMP_NEGATE = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
CMP_SHIFT = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
# Lines that are not statements of a function body, or whose change would
# only break the build.
SKIP_LINE = re.compile(r"^\s*(#|static_assert|template\b|namespace\b|using\b|extern\s+\"C\"\s*\{|case\b|default:)")
DECL_START = re.compile(
    r"^(const|constexpr|static|auto|inline|struct|class|enum|typedef|return|break|continue|goto|"
    r"if|else|for|while|do|switch|throw|try|catch|delete|new)\b")
STATEMENT = re.compile(
    r"^(\+\+|--|\*)?[A-Za-z_]\w*((->|\.|::)[A-Za-z_]\w*|\[[^\]]*\])*\s*"
    r"(\(|=(?!=)|\+=|-=|\|=|&=|\^=|<<=|>>=|\+\+|--)")
COND = re.compile(r"\b(if|while)\s*\(")
INT = re.compile(r"(?<![\w.])(\d+)([uU]?[lL]{0,2})(?![\w.])")


def code_part(line):
    """The line with string and character literals blanked and a trailing //
    comment cut off, same length up to the comment."""
    out, i, n = [], 0, len(line)
    while i < n:
        c = line[i]
        if c in "\"'":
            q, j = c, i + 1
            while j < n and line[j] != q:
                j += 2 if line[j] == "\\" else 1
            out.append(q + " " * (min(j, n) - i - 1) + (q if j < n else ""))
            i = j + 1
            continue
        if line.startswith("//", i):
            break
        out.append(c)
        i += 1
    return "".join(out)


def balanced(s):
    return s.count("(") == s.count(")")


def sites_of(path, rel):
    """Every mutant one line of the file allows: dicts with file, line (1-based),
    kind, before and after (the whole line)."""
    with open(path) as f:
        lines = f.read().split("\n")
    found = []
    in_block = False
    for idx, line in enumerate(lines):
        s = line.strip()
        if in_block:
            if "*/" in s:
                in_block = False
            continue
        if s.startswith("/*"):
            in_block = "*/" not in s
            continue
        if not s or s.startswith("//") or SKIP_LINE.match(line):
            continue
        code = code_part(line)
        if not code.strip():
            continue
        prev = code_part(lines[idx - 1]).rstrip() if idx else ""

        def add(kind, new):
            if new != line:
                found.append({"file": rel, "line": idx + 1, "kind": kind, "before": line, "after": new,
                              "occurrence": sum(l == line for l in lines[:idx])})

        # Comparisons with a space on both sides (templates and shifts have none).
        for m in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", code):
            op = m.group(1)
            add("cmp", line[:m.start()] + CMP_NEGATE[op] + line[m.end():])
            if op in CMP_SHIFT:
                add("cmp", line[:m.start()] + CMP_SHIFT[op] + line[m.end():])
        # A whole statement on one line, not the continuation of another.
        body = code.strip()
        if (body.endswith(";") and balanced(body) and not DECL_START.match(body) and STATEMENT.match(body)
                and not prev.endswith((",", "(", "=", "&&", "||", "+", "-", "?", ":"))):
            indent = line[:len(line) - len(line.lstrip())]
            add("drop", indent + ";")
        # Integer constants.
        for m in INT.finditer(code):
            if re.match(r"\]\s*[={;]", code[m.end():]) and code[:m.start()].endswith("["):
                continue  # the size of an array being declared
            v = int(m.group(1))
            # A negative constant moves only towards zero: -1 to -2
            # keeps an error result an error.
            negative = code[:m.start()].rstrip().endswith("-") and re.search(r"(^|[=(,?:]|return)\s*-\s*$", code[:m.start()])
            for nv in ((v - 1,) if negative else (v + 1, v - 1)):
                if nv >= 0:
                    add("const", line[:m.start(1)] + str(nv) + line[m.end(1):])
        # Conditions that open and close on this line.
        for m in COND.finditer(code):
            depth, j = 0, m.end() - 1
            while j < len(code):
                depth += {"(": 1, ")": -1}.get(code[j], 0)
                if depth == 0:
                    break
                j += 1
            if j < len(code) and depth == 0:
                inner = line[m.end():j]
                if inner.strip() and ";" not in inner:
                    add("neg", line[:m.end()] + "!(" + inner + ")" + line[j:])
    return found


def all_sites(root):
    lib = os.path.join(root, "lib", "bt")
    out = []
    for name in sorted(os.listdir(lib)):
        if name.endswith(".cpp"):
            out += sites_of(os.path.join(lib, name), "lib/bt/" + name)
    return out


def key_of(m):
    return "%s|%s|%s" % (m["file"], m["before"].strip(), m["after"].strip())


# ---------------------------------------------------------------------------
# Build and test
# ---------------------------------------------------------------------------

def run(cmd, timeout=None, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=timeout, **kw)


def configure(root, build):
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        r = run(["cmake", "-S", root, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DVARLO_WERROR=OFF"])
        if r.returncode != 0:
            sys.exit("configure failed:\n" + r.stdout)


def build_ok(build, jobs):
    return run(["cmake", "--build", build, "-j%d" % jobs]).returncode == 0


def test_names(build):
    r = run(["ctest", "--show-only=json-v1"], cwd=build)
    return [t["name"] for t in json.loads(r.stdout)["tests"]]


IPC_NS = None


def ipc_prefix():
    global IPC_NS
    if IPC_NS is None:
        IPC_NS = shutil.which("unshare") is not None and run(["unshare", "--ipc", "true"]).returncode == 0
    return ["unshare", "--ipc"] if IPC_NS else []


def start_test(build, name, limit):
    cmd = ipc_prefix() + ["ctest", "-R", "^%s$" % re.escape(name), "--timeout", str(int(limit))]
    return subprocess.Popen(cmd, cwd=build, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            start_new_session=True)


def outcome(proc):
    out = proc.stdout.read()
    if proc.returncode == 0:
        return "pass"
    return "timeout" if "Timeout" in out else "fail"


def stop(proc):
    try:
        os.killpg(proc.pid, 9)
    except ProcessLookupError:
        pass
    proc.wait()


def run_suite(build, order, limits, jobs):
    """Runs the tests in order, `jobs` at a time, until one fails: (None, None)
    when all pass, else (test, 'fail' or 'timeout')."""
    queue, running = list(order), {}
    try:
        while queue or running:
            while queue and len(running) < jobs:
                n = queue.pop(0)
                running[n] = (start_test(build, n, limits[n]), time.time())
            time.sleep(0.1)
            for n, (p, t0) in list(running.items()):
                if p.poll() is None:
                    if time.time() - t0 > limits[n] + 30:
                        stop(p)
                        del running[n]
                        return n, "timeout"
                    continue
                del running[n]
                r = outcome(p)
                if r != "pass":
                    return n, r
        return None, None
    finally:
        for p, _ in running.values():
            stop(p)


def baseline(build, names):
    times = {}
    for n in names:
        t0 = time.time()
        p = start_test(build, n, 900)
        p.wait()
        res = outcome(p)
        times[n] = time.time() - t0
        print("  baseline %-32s %-7s %6.1f s" % (n, res, times[n]), flush=True)
        if res != "pass":
            sys.exit("the suite fails without a mutant (%s): fix it first" % n)
    return times


def locate(lines, m):
    """Index of the mutant's line: where it was, else the line with its text
    (the same occurrence of it as in the file the mutant was drawn from)."""
    i = m["line"] - 1
    if 0 <= i < len(lines) and lines[i] == m["before"]:
        return i
    hits = [k for k, l in enumerate(lines) if l == m["before"]]
    k = m.get("occurrence", 0)
    return hits[0] if len(hits) == 1 else hits[k] if "occurrence" in m and k < len(hits) else None


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--root", default=os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    ap.add_argument("--build", help="build folder (default ROOT/build-mutate, configured when new)")
    ap.add_argument("--seed", type=int, default=12)
    ap.add_argument("--count", type=int, default=80)
    ap.add_argument("--save", help="write the chosen mutants to this file")
    ap.add_argument("--load", help="plant the mutants of this file instead of drawing")
    ap.add_argument("--equivalent", help="file of mutants known to be equivalent")
    ap.add_argument("--only", help="comma-separated mutant ids to run")
    ap.add_argument("--out", help="write the results as JSON")
    ap.add_argument("--list", action="store_true", help="print the mutants and stop")
    ap.add_argument("--jobs", type=int, default=2, help="build jobs")
    ap.add_argument("--test-jobs", type=int, default=2, help="tests run at a time (quickest first)")
    ap.add_argument("--factor", type=float, default=3.0, help="time limit per test: factor x its baseline + 10 s")
    a = ap.parse_args()
    root = os.path.abspath(a.root)
    build = os.path.abspath(a.build or os.path.join(root, "build-mutate"))

    if a.load:
        with open(a.load) as f:
            mutants = json.load(f)
    else:
        sites = all_sites(root)
        mutants = random.Random(a.seed).sample(sites, min(a.count, len(sites)))
        for i, m in enumerate(mutants):
            m["id"] = i
        print("%d candidate sites, %d drawn with seed %d" % (len(sites), len(mutants), a.seed))
    if a.save:
        with open(a.save, "w") as f:
            json.dump(mutants, f, indent=1)
    equivalent = {}
    if a.equivalent:
        with open(a.equivalent) as f:
            for l in f:
                if l.strip() and not l.startswith("#"):
                    k, _, why = l.rstrip("\n").partition(" # ")
                    equivalent[k.strip()] = why.strip()
    if a.only:
        keep = {int(x) for x in a.only.split(",")}
        mutants = [m for m in mutants if m["id"] in keep]
    if a.list:
        for m in mutants:
            print("#%-3d %s:%d %s\n   - %s\n   + %s" % (m["id"], m["file"], m["line"], m["kind"],
                                                     m["before"].strip(), m["after"].strip()))
        return

    configure(root, build)
    if not build_ok(build, a.jobs):
        sys.exit("the tree does not build without a mutant")
    names = test_names(build)
    times = baseline(build, names)
    order = sorted(names, key=lambda n: times[n])
    limits = {n: a.factor * times[n] + 10 for n in names}

    results = []
    for m in mutants:
        k = key_of(m)
        path = os.path.join(root, m["file"])
        with open(path) as f:
            text = f.read()
        lines = text.split("\n")
        i = locate(lines, m)
        res = {"id": m["id"], "file": m["file"], "line": m["line"], "kind": m["kind"],
               "before": m["before"].strip(), "after": m["after"].strip()}
        if k in equivalent:
            res.update(status="equivalent", why=equivalent[k])
        elif i is None:
            res["status"] = "gone"
        else:
            res["line"] = i + 1
            lines[i] = m["after"]
            t0 = time.time()
            try:
                with open(path, "w") as f:
                    f.write("\n".join(lines))
                if not build_ok(build, a.jobs):
                    res["status"] = "stillborn"
                else:
                    by, how = run_suite(build, order, limits, a.test_jobs)
                    res["status"] = "caught" if by else "survived"
                    if by:
                        res.update(by=by, how=how)
            finally:
                with open(path, "w") as f:
                    f.write(text)
            res["seconds"] = round(time.time() - t0, 1)
        results.append(res)
        print("#%-3d %-10s %s:%d %s %s" % (m["id"], res["status"], m["file"], res["line"], m["kind"],
                                          res.get("by", "")), flush=True)
    build_ok(build, a.jobs)  # the build as the sources are again

    counted = [r for r in results if r["status"] in ("caught", "survived")]
    caught = [r for r in counted if r["status"] == "caught"]
    print("\nSurviving mutants:")
    for r in results:
        if r["status"] == "survived":
            print("  #%d %s:%d %s\n     - %s\n     + %s" % (r["id"], r["file"], r["line"], r["kind"],
                                                         r["before"], r["after"]))
    eq = [r for r in results if r["status"] == "equivalent"]
    if eq:
        print("\nEquivalent (not counted):")
        for r in eq:
            print("  #%d %s:%d %s: %s" % (r["id"], r["file"], r["line"], r["kind"], r["why"]))
    for st in ("stillborn", "gone"):
        n = sum(r["status"] == st for r in results)
        if n:
            print("%d %s (not counted): %s" % (n, st, " ".join("#%d" % r["id"] for r in results if r["status"] == st)))
    pct = 100.0 * len(caught) / len(counted) if counted else 0.0
    print("\nscore: %d / %d caught (%.1f%%)" % (len(caught), len(counted), pct))
    if a.out:
        with open(a.out, "w") as f:
            json.dump({"caught": len(caught), "counted": len(counted), "results": results}, f, indent=1)


if __name__ == "__main__":
    main()
