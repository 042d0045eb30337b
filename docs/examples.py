#!/usr/bin/env python3
"""Makes a source file of each ```cpp block in the pages, so that the build compiles what they show.

    docs/examples.py OUTPUT_FOLDER PAGE...

A block that is no whole source file has the rest of it in a comment right above,

    <!-- example
    #include <kest/utils/timer.h>
    void example() {
        ...
    }
    -->

where the line "..." stands for the block. Its #include lines go to the top. Prints the files' names.
"""
import re
import sys
from pathlib import Path

BLOCK = re.compile(r"(?:<!-- example\n(?P<frame>(?:(?!-->).)*?)-->\n+)?^```cpp\n(?P<code>.*?)^```$",
                   re.MULTILINE | re.DOTALL)
INCLUDE = re.compile(r"^#include .*$", re.MULTILINE)
PLACE = re.compile(r"^ *\.\.\.$", re.MULTILINE)


def source(page, text, match):
    code, frame = match["code"], match["frame"] or "..."
    if len(PLACE.findall(frame)) != 1:
        sys.exit(f"{page}: the comment above an example needs one line \"...\"")
    line = text.count("\n", 0, match.start("code")) + 1
    body = f'#line {line} "{page}"\n{INCLUDE.sub("", code)}'
    includes = INCLUDE.findall(code) + INCLUDE.findall(frame)
    return "\n".join([*includes, PLACE.sub(lambda _: body, INCLUDE.sub("", frame), count=1)])


def main():
    output = Path(sys.argv[1])
    output.mkdir(parents=True, exist_ok=True)
    for page in map(Path, sys.argv[2:]):
        text = page.read_text()
        matches = list(BLOCK.finditer(text))
        if len(matches) != text.count("\n```cpp"):
            sys.exit(f"{page}: a ```cpp block that is not understood")
        for number, match in enumerate(matches, 1):
            path = output / f"{page.stem.replace('-', '_')}_{number}.cpp"
            content = source(page, text, match)
            if not path.exists() or path.read_text() != content:
                path.write_text(content)
            print(path)


if __name__ == "__main__":
    main()
