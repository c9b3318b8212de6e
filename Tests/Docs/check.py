#!/usr/bin/env python3
"""Holds the pages against the project.

  check.py errors ROOT   Docs/errors.md lists the messages that the libraries throw: all of them, no others, each in the
                         section of its source file
  check.py links ROOT    every relative link of a page leads to a file, and so does every path that it names; the README
                         leads to every page, and the packages that are built with have their licence on a page
  check.py version ROOT  what pages say of the version is that of CMakeLists.txt
"""
import pathlib
import re
import sys

# Where messages come from. The stand-in has none of its own: it answers with error codes.
LIBRARIES = ["Qx.Core", "Qx.Core.Ex", "Qx.Core.Math", "Qx.Cuda.Core", "Qx.GPU.ResourceManager", "Qx.Cuda"]

LITERAL = r'"((?:[^"\\\n]|\\.)*)"'
CONVERSION = r"%[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z|j|t)?[a-zA-Z]"


def pieces(text):
    """The parts of a message between what is inserted, without spaces and punctuation at their ends. A part of a single
    word tells nothing: it may be a name."""
    parts = re.split(r"\.\.\.|" + CONVERSION, text)
    parts = [re.sub(r"^\W+|\W+$", "", re.sub(r"\s+", " ", part)) for part in parts]
    return [part for part in parts if " " in part]


def source_pieces(path):
    """The pieces of all literals of a source file, in their order."""
    text = path.read_text()
    # Comments and literals in one go, so that neither is looked for inside the other.
    comments_and_literals = re.compile(r"//[^\n]*|/\*.*?\*/|" + LITERAL, re.S)
    text = comments_and_literals.sub(lambda match: match.group(0) if match.group(0)[0] == '"' else "", text)
    text = re.sub(r"#\s*(?:include|error)[^\n]*|static_assert\([^;]*;", "", text)
    text = re.sub(r'"\s*\n\s*"', "", text)  # adjacent literals are one
    found = []
    for literal in re.findall(LITERAL, text):
        found += pieces(literal.replace("\\n", "\n").replace('\\"', '"'))
    return found


def is_in_order(wanted, found):
    rest = iter(found)
    return all(piece in rest for piece in wanted)


def check_errors(root):
    failures = []
    sources = {}
    for library in LIBRARIES:
        for path in sorted((root / "Source" / library).iterdir()):
            if path.suffix in (".h", ".cpp"):
                sources.setdefault(f"{library}/{path.stem}", []).extend(source_pieces(path))

    # A section of the page names its source files, and the rows of its table of messages begin with them.
    entries = {}
    files = []
    is_table = False
    for number, line in enumerate((root / "Docs/errors.md").read_text().splitlines(), 1):
        if line.startswith("#"):
            files = []
        elif line.startswith("In `"):
            files = re.findall(r"`(Qx.+?)`", line)
            failures += [f"line {number}: there is no source file {file}" for file in files if file not in sources]
        elif line.startswith("| Message |"):
            is_table = True
        elif not line.startswith("|"):
            is_table = False
        elif is_table and (row := re.match(r"\| (`+)(.+?)\1 \|", line)):
            wanted = pieces(row.group(2))
            origin = [file for file in files if wanted and is_in_order(wanted, sources.get(file, []))]
            if not origin:
                failures.append(f"line {number}: no message of {' and '.join(files) or 'any file'}: {row.group(2)}")
            for file in origin:
                entries.setdefault(file, set()).update(wanted)

    count = 0
    for file, found in sources.items():
        for piece in dict.fromkeys(found):
            count += 1
            if piece not in entries.get(file, ()):
                failures.append(f"{file}: the page lacks '{piece}'")
    print(f"{count} texts in {sum(map(bool, sources.values()))} source files")
    return failures if count > 100 else failures + ["hardly any message was found in the sources"]


def check_links(root):
    failures = []
    count = 0
    for page in [*root.glob("*.md"), *root.glob("Docs/**/*.md")]:
        text = re.sub(r"^```.*?^```", "", page.read_text(), flags=re.S | re.M)
        # Nor may a link name a heading, which Doxygen does not find in another page.
        links = [page.parent / link for link in re.findall(r"\]\(([^)\s]+)\)", text) if not re.match(r"[a-z]+:", link)]
        if page.name != "CHANGELOG.md":  # which tells of what is gone, too
            links += [root / path for path in re.findall(r"`((?:Source|Tests|Examples|Benchmarks|Docs|scripts|cmake|"
                                                         r"\.ci)/[\w./-]+)", text)]
        count += len(links)
        failures += [f"{page.relative_to(root)}: there is no {link.relative_to(root)}" for link in links
                     if not link.exists()]
    listed = (root / "README.md").read_text()
    failures += [f"README.md does not lead to {page.name}" for page in root.glob("Docs/*.md")
                 if f"](Docs/{page.name})" not in listed]
    dependencies = (root / "Docs/dependencies.md").read_text()
    failures += [f"dependencies.md does not name {package}" for package in
                 re.findall(r"\blib[a-z0-9]+-dev\b", (root / "scripts/common.sh").read_text()) if package not in dependencies]
    print(f"{count} links")
    return failures if count > 10 else failures + ["hardly any link was found in the pages"]


def check_version(root):
    version = re.search(r"^project\(.* VERSION ([\d.]+) ", (root / "CMakeLists.txt").read_text(), re.M).group(1)
    major, minor, _ = version.split(".")
    said = {r"libQx\.Cuda\.([\d.]*\d)": f"{major}.{minor}", r"QxCuda (\d\S*) CONFIG": major,
            r"\A# Changelog\n\n## ([\d.]+)": version}
    failures = []
    for pattern, wanted in said.items():
        texts = {page: page.read_text() for page in [*root.glob("*.md"), *root.glob("Docs/*.md")]}
        # Below its newest section the list of changes speaks of older versions.
        texts[root / "CHANGELOG.md"] = texts[root / "CHANGELOG.md"].split("\n### ")[0]
        found = [(page, value) for page, text in texts.items() for value in re.findall(pattern, text)]
        failures += [f"{page.relative_to(root)}: {value} is not {wanted}" for page, value in found if value != wanted]
        failures += [] if found else [f"no page says anything like {pattern}"]
    print(f"version {version}")
    return failures


def main():
    check = {"errors": check_errors, "links": check_links, "version": check_version}[sys.argv[1]]
    failures = check(pathlib.Path(sys.argv[2]))
    for failure in failures:
        print(failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
