"""Looks up every test that docs/contract.md names: contract_test.py BUILD_FOLDER."""
import re
import subprocess
import sys
import tempfile
from pathlib import Path

document = (Path(__file__).resolve().parents[2] / "docs/contract.md").read_text()
with tempfile.TemporaryDirectory() as folder:  # in the build folder itself ctest would write over its log
    Path(folder, "CTestTestfile.cmake").write_text(f'subdirs("{Path(sys.argv[1]).resolve()}")\n')
    listed = subprocess.run(["ctest", "-N"], cwd=folder, capture_output=True, text=True, check=True).stdout
tests = re.findall(r"^ *Test +#\d+: (.*)$", listed, re.MULTILINE)
# A test of a program is called program:suite.test.
names = set(tests) | {test.split(":", 1)[1] for test in tests if re.match(r"\w+:\w", test)}
suites = {name.rsplit(".", 1)[0] for name in names}

rows = re.findall(r"^\| (?!fixed|---)[^|]+\|[^|]+\|([^|]+)\|$", document, re.MULTILINE)
unknown = []
for row in rows:
    held_by = re.findall(r"`([^`]+)`", row)
    if not held_by:
        unknown.append(f"a row names no test:{row}")
    unknown += [name for name in held_by if not (name in names or (name.endswith(".*") and name[:-2] in suites))]
if len(rows) < 30:
    unknown.append(f"only {len(rows)} rows were understood")
for name in unknown:
    print(f"FAILED: {name}")
sys.exit(1 if unknown else 0)
