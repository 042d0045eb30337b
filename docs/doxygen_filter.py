#!/usr/bin/env python3
"""Tells Doxygen what our headers mean: a comment covers all declarations up to the next blank line.

Each such run becomes a member group, whose first comment Doxygen gives to the rest. Lines keep their
numbers.
"""
import re
import sys

COMMENT = re.compile(r"\s*///(?!<)")
# What ends a run, or cannot be grouped.
FENCE = re.compile(r"\s*(}|#|public:|protected:|private:|namespace\b|(enum|struct|class)\b.*\{|"
                   r"extern \"C\" \{)|.*[^/]//")


def plain(text):
    """A named group of declarations as a comment with a run of them."""
    text = re.sub(r"(///) @name (.*)", r"\1 \2.", text)
    return re.sub(r"^ *///( @\{| @\})$", lambda match: "" if "}" in match[1] else "///", text, flags=re.MULTILINE)


def runs(lines):
    """-> (first line of the comment, last line) of each comment with more than one declaration"""
    start, last, count, depth, opaque = None, None, 0, 0, False
    for number, line in enumerate([*lines, ""]):
        if depth == 0 and (COMMENT.match(line) and count or not line.strip() or FENCE.match(line)):
            if start is not None and count > 1 and not opaque:
                yield start, last
            start, count, opaque = None, 0, False
        if COMMENT.match(line):
            start = number if start is None else start
            opaque = opaque or "@file" in line
        elif start is not None:
            depth += line.count("{") - line.count("}")
            if depth == 0 and line.rstrip().endswith((";", "}")):
                count, last = count + 1, number


def main():
    with open(sys.argv[1], encoding="utf-8") as header:
        lines = plain(header.read()).split("\n")
    for start, last in runs(lines):
        lines[start - 1] += " /** @{ */"
        lines[last] += " /** @} */"
    print("\n".join(lines), end="")


if __name__ == "__main__":
    main()
