#!/usr/bin/env python3
"""Plants each fault of a table one at a time in the library, builds only the test binaries
that cover it, runs them and puts the code back. Usage: plant-faults.py TABLE.py [ID...]
A table lists (id, folder, file, old text, new text, description, [(binary, gtest filter)])."""
import os, re, subprocess, sys, time

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
table = {}
exec(open(sys.argv[1]).read(), table)
wanted = set(sys.argv[2:])
os.chdir(root)
for fid, folder, path, old, new, what, runs in table["F"]:
    if wanted and fid not in wanted:
        continue
    if subprocess.run(["git", "diff", "--quiet", "--", path]).returncode != 0:
        print(f"{fid}\tSKIP\t{path} has local changes", flush=True)
        continue
    text = open(path).read()
    if old not in text:
        print(f"{fid}\tNOTFOUND\t{path}", flush=True)
        continue
    open(path, "w").write(text.replace(old, new, 1))
    try:
        targets = sorted({b for b, _ in runs})
        build = subprocess.run(["cmake", "--build", "--preset", "debug", "-j", "2", "--target"]
                               + targets, capture_output=True, text=True, timeout=1800)
        if build.returncode != 0:
            print(f"{fid}\tBUILDFAIL\t{build.stdout[-400:]}", flush=True)
            continue
        caught = []
        for binary, flt in runs:
            start = time.time()
            try:
                run = subprocess.run([f"build/debug/tests/{binary}", f"--gtest_filter={flt}"],
                                     capture_output=True, text=True, timeout=240)
                failed = re.findall(r"^\[  FAILED  \] (\S+) \(", run.stdout, re.M)
                if run.returncode != 0:
                    caught.append(f"{binary}:{','.join(failed) or 'rc=%d' % run.returncode}")
            except subprocess.TimeoutExpired:
                caught.append(f"{binary}:timeout")
        verdict = "CAUGHT" if caught else "MISSED"
        print(f"{fid}\t{verdict}\t{folder}\t{what}\t{' '.join(caught)}", flush=True)
    finally:
        subprocess.run(["git", "checkout", "--", path])
