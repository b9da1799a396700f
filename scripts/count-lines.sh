#!/usr/bin/env bash
# Non-blank, non-comment lines of C and C++ files: tests (tests/, fuzz/) against the code
# (everything else but bench/). Usage: scripts/count-lines.sh [-v]
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  # Strips // and /* */ comments (not inside strings, good enough for this tree), then blanks.
  python3 - "$@" <<'PY'
import re, sys
total = 0
for path in sys.argv[1:]:
    text = open(path, encoding="utf-8", errors="replace").read()
    out, i, n, in_str = [], 0, len(text), None
    while i < n:
        c = text[i]
        if in_str:
            out.append(c)
            if c == "\\": out.append(text[i + 1:i + 2]); i += 2; continue
            if c == in_str or c == "\n": in_str = None
            i += 1
        elif text.startswith("//", i):
            j = text.find("\n", i); i = n if j < 0 else j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2); seg = text[i:(n if j < 0 else j + 2)]
            out.append("\n" * seg.count("\n")); i = n if j < 0 else j + 2
        elif text.startswith('R"', i):
            m = re.match(r'R"([^(]*)\(', text[i:]); end = text.find(")" + m.group(1) + '"', i)
            out.append(text[i:end + len(m.group(1)) + 2]); i = end + len(m.group(1)) + 2
        else:
            if c in "\"'" and not (c == "'" and i > 0 and text[i - 1].isalnum()): in_str = c
            out.append(c); i += 1
    lines = sum(1 for l in "".join(out).splitlines() if l.strip())
    print(f"{lines}\t{path}")
PY
}
files() { git ls-files -- "$@" | grep -E '\.(c|cc|cpp|cxx|h|hh|hpp)$' || true; }
tests=$(files tests fuzz)
code=$(files . ':!tests' ':!fuzz' ':!bench')
# Per-file counts in a file of this run's own: several checkouts may count at once.
listing=$(mktemp)
trap 'rm -f "$listing"' EXIT
t=$(count $tests | tee "$listing" | awk '{s+=$1} END {print s}')
c=$(count $code | awk '{s+=$1} END {print s}')
if [[ "${1:-}" == -v ]]; then sort -rn "$listing"; fi
python3 -c "print(f'tests {$t}  code {$c}  share {$t/$c:.3f}')"
