"""Copies a description of a binary interface from standard input to standard output, and leaves out every type that no
exported function leads to: those of the C++ library inside are nobody's business."""

import sys
import xml.etree.ElementTree as xml

corpus = xml.parse(sys.stdin).getroot()
units = corpus.findall("abi-instr")
functions = [f for unit in units for f in unit.findall("function-decl") if f.get("elf-symbol-id")]
types = {each.get("id"): each for unit in units for each in unit.iter() if each.get("id")}

reached, waiting = set(), list(functions)
while waiting:
    for each in waiting.pop().iter():
        for attribute in "type-id", "naming-typedef-id":
            wanted = each.get(attribute)
            if wanted in types and wanted not in reached:
                reached.add(wanted)
                waiting.append(types[wanted])


def prune(scope):
    for each in list(scope):
        is_namespace = each.tag == "namespace-decl"
        if is_namespace:
            prune(each)
        wanted = len(each) > 0 if is_namespace else each in functions or each.get("id") in reached
        if not wanted:
            scope.remove(each)


for unit in units:
    prune(unit)
xml.ElementTree(corpus).write(sys.stdout, encoding="unicode")
print()
