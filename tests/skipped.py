"""Lists the tests that were skipped, with the reason that each gave: skipped.py JUNIT_FILE, which ctest has written.

Standard error lists those that passed only when they were tried again.
"""
import re
import sys
import xml.etree.ElementTree

for test in xml.etree.ElementTree.parse(sys.argv[1]).iter("testcase"):
    said = test.findtext("system-out") or ""
    for again in re.findall(r"^\S+ is tried again", said, re.MULTILINE):
        print(f"{test.get('name')}: {again}", file=sys.stderr)
    if test.find("skipped") is None:
        continue
    reasons = re.findall(r"^SKIPPED: (.*)", said, re.MULTILINE) + re.findall(r"\bskipped ['\"](.*)['\"]$", said, re.MULTILINE)
    lines = said.strip().splitlines()
    print(f"{test.get('name')}: {'; '.join(dict.fromkeys(reasons)) or (lines[-1] if lines else 'it says nothing')}")
