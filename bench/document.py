"""Puts what a program has found out into a document, between two marks."""
import pathlib
import re


def put(document, mark, text):
    file = pathlib.Path(document)
    begin, end = f"<!-- {mark} -->", f"<!-- end of {mark} -->"
    before = file.read_text()
    after, found = re.subn(f"{re.escape(begin)}.*?{re.escape(end)}", lambda _: f"{begin}\n\n{text}\n\n{end}", before,
                           flags=re.DOTALL)
    if found != 1:
        raise SystemExit(f"{document} has {found} places marked as {mark}, not one")
    file.write_text(after)
