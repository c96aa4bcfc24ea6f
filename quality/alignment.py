"""What was said beside what a recogniser heard."""
import re
from pathlib import Path

MODEL = Path("/usr/share/pocketsphinx/model/en-us")  # American English, of pocketsphinx-en-us


def words_of(text):
    return re.findall(r"[a-z']+", text.lower())


def align(said, heard):
    """(errors, words recognised) of the alignment with the fewest errors, and among those with the most words."""
    row = [(j, 0) for j in range(len(heard) + 1)]  # (errors, -recognised), so that the least is the best
    for i, word in enumerate(said, 1):
        last, row = row, [(i, 0)]
        for j, other in enumerate(heard, 1):
            errors, recognised = last[j - 1]
            through = (errors, recognised - 1) if word == other else (errors + 1, recognised)
            missed = (last[j][0] + 1, last[j][1])
            added = (row[j - 1][0] + 1, row[j - 1][1])
            row.append(min(through, missed, added))
    return row[-1][0], -row[-1][1]
