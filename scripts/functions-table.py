#!/usr/bin/env python3
"""Prints docs/functions.md from the code's own tables: what the module and the strict front have of the standard.

    scripts/functions-table.py >docs/functions.md
    scripts/functions-table.py --check         ends with 1 where the document says something else
"""
import difflib
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs" / "functions.md"

HEAD = """# Functions, mechanisms, attributes

What the plain module and the strict front have. The tables are printed by `scripts/functions-table.py` from those of
the code, and a test holds this page against them. How the two differ where both have something is in
[strict.md](strict.md#the-two-libraries-function-by-function); what is unlike the standard in the plain module is in
[departures.md](departures.md).

"""

FUNCTIONS = """## Functions

The {count} functions of the standard's list. A code is what a function that is not supported answers to every call.

"""

EXTENSIONS = """
The plain module also exports {names},
for hosts that look for them. They answer `CKR_FUNCTION_NOT_SUPPORTED`; the strict front does not have them.

"""

MECHANISMS = """## Mechanisms

Sizes of keys in bits, as the module lists them for a slot that it does not know; a token's policy takes the smallest
away. [mechanisms.md](mechanisms.md) says what each is given, and what old firmware and the FIPS rules take away.

"""

ATTRIBUTES = """
## Attributes

The plain module has an attribute for objects of every class, if only with length 0, and answers any other with length
0. The strict front has it for the objects that are named, and refuses it for others. *Hidden* values never leave the
token: `CKR_ATTRIBUTE_SENSITIVE`, as does the value of a derived key that was made sensitive or not extractable.

"""

USES = {"CKF_ENCRYPT": "encrypt", "CKF_DECRYPT": "decrypt", "CKF_DIGEST": "digest", "CKF_SIGN": "sign",
        "CKF_VERIFY": "verify", "CKF_GENERATE_KEY_PAIR": "generate", "CKF_DERIVE": "derive"}
KINDS = {"CERTIFICATE": "certificates", "RSA_PUBLIC": "RSA public keys", "EC_PUBLIC": "EC public keys",
         "RSA_PRIVATE": "RSA private keys", "EC_PRIVATE": "EC private keys", "SECRET": "derived keys",
         "DATA": "data objects"}


def source(path):
    text = (ROOT / path).read_text(encoding="utf-8")
    return re.sub(r"//[^\n]*", "", text)


def table(text, beginning):
    """The text of a constant array, from its name to its end."""
    start = text.index(beginning)
    return text[start:text.index("\n};", start)]


def constants(text):
    """Named sums of flags, by their names: of constants and of enumerators."""
    sums = re.findall(r"\b([A-Z][A-Z_]*) = ([A-Z_]+(?: \| [A-Z_]+)+)\b", text)
    return {name: value.split(" | ") for name, value in sums}


def resolved(words, sums):
    """Names of single flags, for words that may stand for several."""
    parts = []
    for word in words:
        parts += resolved(sums[word], sums) if word in sums else [word]
    return parts


def markdown(header, rows):
    lines = [f"| {' | '.join(header)} |", f"|{' --- |' * len(header)}"]
    return "\n".join(lines + [f"| {' | '.join(row)} |" for row in rows]) + "\n"


def plain_refusals():
    return {name: "CKR_FUNCTION_NOT_SUPPORTED"
            for name in re.findall(r"CK_RV (C_\w+)\(.*return unsupported\(", source("src/frame/unsupported.cpp"))}


def strict_refusals():
    text = source("strict/entry_points.cpp")
    helpers = {"unsupported": "CKR_FUNCTION_NOT_SUPPORTED", "notParallel": "CKR_FUNCTION_NOT_PARALLEL"}
    refusals = {}
    for name, body in re.findall(r"\nCK_RV (C_\w+)\([^{]*\)\n\{\n(.*?)\n\}", text, re.DOTALL):
        called = re.search(r"return (unsupported|notParallel)\(", body)
        refused = re.search(r"return refuse\((CKR_\w*NOT_SUPPORTED)", body)
        if called or refused:
            refusals[name] = helpers[called.group(1)] if called else refused.group(1)
    return refusals


def functions():
    exports = source("src/frame/exports.inc")
    names = re.findall(r"^EXPORT\((\w+)\)", exports, re.MULTILINE)
    extensions = re.findall(r"^EXTENSION\((\w+)\)", exports, re.MULTILINE)
    plain, strict = plain_refusals(), strict_refusals()

    def cell(refusals, name):
        return f"`{refusals[name]}`" if name in refusals else "yes"

    rows = [(f"`{name}`", cell(plain, name), cell(strict, name)) for name in names]
    listed = ", ".join(f"`{name}`" for name in extensions[:-1]) + f" and `{extensions[-1]}`"
    return (FUNCTIONS.format(count=len(names)) + markdown(("Function", "Plain", "Strict"), rows) +
            EXTENSIONS.format(names=listed))


def mechanism_rows():
    text = source("src/mechanisms/mechanism_table.cpp")
    sums = constants(text)
    for name, low, high, flags in re.findall(r"\{(CKM_\w+),\s*(\d+),\s*(\d+),\s*([A-Z_]+(?: \| [A-Z_]+)*)",
                                             table(text, "MechanismRow MECHANISMS[]")):
        uses = [USES[flag] for flag in resolved(flags.split(" | "), sums)]
        yield name, f"{low}–{high}" if high != "0" else "", ", ".join(uses)


def strict_mechanisms(name):
    return re.findall(r"\{(CKM_\w+), CKK_\w+,[^}]*\}", table(source("strict/mechanisms.cpp"), f"Mechanism {name}[]"))


def mechanisms():
    module = list(mechanism_rows())
    known = {name for name, _, _ in module}
    signatures, ciphers = strict_mechanisms("SIGNATURES"), strict_mechanisms("CIPHERS")

    def of_strict(name, uses):
        missing = [] if name in signatures else ["sign", "verify"]
        missing += [] if name in ciphers else ["encrypt", "decrypt"]
        return ", ".join(use for use in uses.split(", ") if use not in missing)

    rows = [(f"`{name}`", keys, uses, of_strict(name, uses)) for name, keys, uses in module]
    rows += [(f"`{name}`", "256–521", "", "sign, verify") for name in signatures if name not in known]
    return MECHANISMS + markdown(("Mechanism", "Keys", "Plain", "Strict"), rows)


def plain_attributes():
    return re.findall(r"\{(CKA_\w+),", table(source("src/objects/object_attributes.cpp"), "AttributeRow ATTRIBUTES[]"))


def strict_attributes():
    """The kinds of objects that have each attribute, and those for which it is hidden."""
    text = source("strict/attributes.cpp")
    sums = constants(text[:text.index("Row ROWS[]")])
    has, hidden = {}, {}
    for name, kinds, rest in re.findall(r"\{(CKA_\w+), ([A-Z_]+(?: \| [A-Z_]+)*), Shape::\w+,\s*(nullptr)?",
                                        table(text, "Row ROWS[]")):
        single = resolved(kinds.split(" | "), sums)
        (hidden if rest else has).setdefault(name, []).extend(single)
    return has, hidden


def kinds_in_words(kinds, sums):
    """The widest names first; each kind is named once."""
    names = {"every object": sums["ANY"], "keys": sums["KEY"], "public keys": sums["PUBLIC"],
             "private keys": sums["PRIVATE"]}
    left, words = set(kinds), []
    for word, parts in names.items():
        parts = set(resolved(parts, sums))
        if parts <= left:
            words.append(word)
            left -= parts
    return ", ".join(words + [word for kind, word in KINDS.items() if kind in left])


def attributes():
    text = source("strict/attributes.cpp")
    sums = constants(text[:text.index("Row ROWS[]")])
    plain = plain_attributes()
    has, hidden = strict_attributes()
    names = list(dict.fromkeys(list(has) + list(hidden) + plain))
    rows = []
    for name in names:
        strict = kinds_in_words(has.get(name, []), sums)
        if name in hidden:
            strict += ("; " if strict else "") + "hidden: " + kinds_in_words(hidden[name], sums)
        rows.append((f"`{name}`", "yes" if name in plain else "", strict))
    return ATTRIBUTES + markdown(("Attribute", "Plain", "Strict"), rows)


def document():
    return HEAD + functions() + mechanisms() + attributes()


def main(arguments):
    if arguments != ["--check"]:
        sys.stdout.write(document())
        return 0
    written = DOCUMENT.read_text(encoding="utf-8")
    difference = list(difflib.unified_diff(written.splitlines(), document().splitlines(), str(DOCUMENT), "the code",
                                           lineterm="", n=0))
    print("\n".join(difference))
    return 1 if difference else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
