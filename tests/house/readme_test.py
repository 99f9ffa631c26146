#!/usr/bin/env python3
"""The example in README.md compiles as strict C99 and prints what README.md says.

usage: readme_test.py README.md INCLUDE_DIR LIBRARY_DIR COMPILER [FLAG...]
"""
import os
import re
import subprocess
import sys
import tempfile


def main():
    readme, include, libraries, *compiler = sys.argv[1:]
    with open(readme, encoding="ascii") as text:
        blocks = re.findall(r"^```(c|text)\n(.*?)^```$", text.read(), flags=re.M | re.S)
    kinds = [kind for kind, _ in blocks]
    if kinds != ["c", "text"]:
        raise SystemExit(f"{readme}: expected one C example and its output, found {kinds}")
    code, expected = (text for _, text in blocks)
    with tempfile.TemporaryDirectory() as folder:
        source, program = os.path.join(folder, "example.c"), os.path.join(folder, "example")
        with open(source, "w", encoding="ascii") as text:
            text.write(code)
        subprocess.run(compiler + ["-std=c99", "-pedantic", "-Wall", "-Wextra", "-Werror", "-I" + include, source, "-o",
                                   program, "-L" + libraries, "-Wl,-rpath," + libraries, "-lzenrpx", "-lzencore"],
                       check=True)
        printed = subprocess.run([program], check=True, stdout=subprocess.PIPE, universal_newlines=True).stdout
    if printed != expected:
        raise SystemExit(f"expected:\n{expected}printed:\n{printed}")


if __name__ == "__main__":
    main()
