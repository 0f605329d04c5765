"""Prepares a header for Doxygen and prints it.

The paragraphs that open a header describe its concept. They are moved to the class of the concept
or, in a header with a namespace of its own, to the topic `comparison`. A paragraph that starts with
a catchword ("Threads. ...") gets the catchword as its heading.
"""

import re
import sys

with open(sys.argv[1], encoding="utf-8") as header:
    lines = header.read().split("\n")

end = next(i for i, line in enumerate(lines) if not line.startswith("///"))
opening, rest = lines[:end], lines[end:]
for i, line in enumerate(opening):
    catchword = re.match(r"/// ([A-Z][a-z]+(?: [a-z]+){0,3})\. (.*)", line)
    if catchword and i > 0 and opening[i - 1] == "///":
        opening[i] = f"/// @par {catchword[1]}\n/// {catchword[2]}"

concept = re.compile(r"namespace orv::device_tree::utils|class ORV_DEVICE_TREE_EXPORT")
place = next(i for i, line in enumerate(rest) if concept.match(line))
if rest[place].startswith("namespace"):
    place += 1
    opening = ["/// @addtogroup comparison"] + opening + ["/// @{"]
    rest.insert(rest.index("}  // namespace orv::device_tree::utils"), "/// @}")
print("\n".join(rest[:place] + opening + rest[place:]))
