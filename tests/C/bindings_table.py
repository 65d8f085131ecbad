"""The tables of docs/bindings.md agree with the headers.

Every public operation of Kovantis (Kovantis.h) and of KOInbox (KOInbox.h) has a row, whose C
column names a function of kovantis_c.h or says, after a dash, why a host has none to call; every
function of kovantis_c.h and kovantis_sim_c.h appears in a table; every kov_ name a table gives
is declared.

  bindings_table.py <repository> [--drop NAME]   (--drop: the page as if the rows naming NAME
                                                  were gone; the check's own test)
"""

import pathlib
import re
import sys


def without_comments(text):
    return re.sub(r"//[^\n]*", "", re.sub(r"/\*.*?\*/", "", text, flags=re.S))


def operations(header, cls, end):
    """The names of the public member functions of a class, as its header declares them."""
    text = without_comments(header.read_text(encoding="utf-8"))
    body = text[text.index("class %s {" % cls):]
    body = body[:body.index(end)]
    names = set()
    for declaration in re.split(r"[;}]", body):
        m = re.search(r"\b(\w+)\s*\(", declaration)
        if m and m.group(1) not in (cls, "operator"):
            names.add(m.group(1))
    return names


def c_functions(header):
    text = without_comments(header.read_text(encoding="utf-8"))
    return set(re.findall(r"\b(kov_\w+)\(", text))


def c_names(header):
    """Every kov_ name a header declares: functions and types."""
    return set(re.findall(r"\bkov_\w+", without_comments(header.read_text(encoding="utf-8"))))


def rows(page):
    for line in page.splitlines():
        if not line.startswith("|") or re.fullmatch(r"\|[-| ]+\|", line.strip()):
            continue
        cells = [c.strip() for c in line.strip().strip("|").split("|")]
        if len(cells) >= 2:
            yield cells[0], cells[1]


def main():
    root = pathlib.Path(sys.argv[1])
    drop = sys.argv[sys.argv.index("--drop") + 1] if "--drop" in sys.argv else None
    include = root / "include" / "kovantis"
    page = (root / "docs" / "bindings.md").read_text(encoding="utf-8")
    if drop:
        page = "\n".join(line for line in page.splitlines() if drop not in line)

    facade = c_functions(include / "kovantis_c.h")
    every = facade | c_functions(include / "kovantis_sim_c.h")
    declared = c_names(include / "kovantis_c.h") | c_names(include / "kovantis_sim_c.h")
    wanted = {("Kovantis", n) for n in operations(include / "Kovantis.h", "Kovantis", "\n private:")}
    wanted |= {("KOInbox", n) for n in operations(include / "KOInbox.h", "KOInbox", "};")}

    problems = []
    listed = set()
    named = set()
    for cpp, c in rows(page):
        in_row = set(re.findall(r"\bkov_\w+", c))
        named |= in_row
        m = re.match(r"`(\w+)::(\w+)", cpp)
        if not m or (m.group(1), m.group(2)) not in wanted:
            continue
        listed.add((m.group(1), m.group(2)))
        if not (in_row & facade) and not c.startswith("—"):
            problems.append("%s::%s names no function of kovantis_c.h and gives no reason" % m.groups())
    for cls, name in sorted(wanted - listed):
        problems.append("%s::%s has no row" % (cls, name))
    for name in sorted(every - named):
        problems.append("%s is in no table" % name)
    for name in sorted(named - declared):
        problems.append("the page names %s, which no C header declares" % name)
    if problems:
        print("docs/bindings.md and the headers disagree:\n  " + "\n  ".join(problems))
        return 1
    print("docs/bindings.md: %d operations of Kovantis and KOInbox, %d C functions, all in its tables"
          % (len(wanted), len(every)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
