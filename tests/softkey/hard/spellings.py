"""Secrets in every spelling that could hide them, and a search for any piece of any of them."""
import base64
import itertools

PIECE = 16  # So many bytes of a secret in a row are a piece of it.
WORD = 8  # Any piece, however it is spelt, has a whole word of what is searched, wherever its words begin.
PART = 65536  # What is searched at once; pieces of spellings, however wide, that lie across its end are found as well.
LONGEST = 512
WIDTHS = {1: "", 2: " in UTF-16", 4: " in UTF-32"}  # Bytes for each character.


def in_base64(secret, skipped):
    """The characters that it alone makes, behind so many bytes of something else."""
    whole = base64.b64encode(bytes(skipped) + secret)
    return whole[-(-8 * skipped // 6):8 * (skipped + len(secret)) // 6]


def words_turned(secret, skipped, size):
    """Numbers of that size, in the other order of bytes."""
    whole = secret[skipped:skipped + (len(secret) - skipped) // size * size]
    return b"".join(whole[at:at + size][::-1] for at in range(0, len(whole), size))


def joined(secret, form, between=""):
    return between.join(form % byte for byte in secret).encode()


def spellings(secret):
    """By their names: the text, and how many of its characters a piece has."""
    forms = {
        "raw": (secret, PIECE),
        "backwards": (secret[::-1], PIECE),
        "as the key of an inner HMAC": (bytes(byte ^ 0x36 for byte in secret), PIECE),
        "as the key of an outer HMAC": (bytes(byte ^ 0x5C for byte in secret), PIECE),
        "hex": (joined(secret, "%02x"), 2 * PIECE),
        "HEX": (joined(secret, "%02X"), 2 * PIECE),
        "hex, backwards": (joined(secret[::-1], "%02x"), 2 * PIECE),
        "HEX, backwards": (joined(secret[::-1], "%02X"), 2 * PIECE),
        "percent": (joined(secret, "%%%02X"), 3 * PIECE),
        "escapes": (joined(secret, "\\x%02x"), 4 * PIECE),
        "list of hex": (joined(secret, "0x%02x", ", "), 6 * PIECE - 2),
        "list of decimals": (joined(secret, "%d", ", "), 3 * PIECE - 2),
        "list of decimals without blanks": (joined(secret, "%d", ","), 2 * PIECE - 1),
        "decimal": (str(int.from_bytes(secret, "big")).encode(), 2 * PIECE),
        "decimal, backwards": (str(int.from_bytes(secret, "little")).encode(), 2 * PIECE),
    }
    for (case, form), between in itertools.product((("hex", "%02x"), ("HEX", "%02X")), (" ", ":", "-")):
        forms[f"{case} with {between!r}"] = (joined(secret, form, between), 3 * PIECE - 1)
    for skipped in range(3):
        text = in_base64(secret, skipped)
        forms[f"base64, {skipped} behind"] = (text, 8 * PIECE // 6 - 1)
        for_urls = text.translate(bytes.maketrans(b"+/", b"-_"))
        forms[f"base64 for URLs, {skipped} behind"] = (for_urls, 8 * PIECE // 6 - 1)
    for size in (4, 8):
        for skipped in range(size):
            turned = words_turned(secret, skipped, size)
            forms[f"words of {size} turned, {skipped} behind"] = (turned, PIECE)
    return {name: form for name, form in forms.items() if len(form[0]) >= form[1]}


def words_of(text):
    """Each run of WORD characters, as the number that it is in memory."""
    padded = text + bytes(WORD)
    for shift in range(WORD):
        part = padded[shift:shift + (len(text) - shift) // WORD * WORD]
        yield from ((word, shift + WORD * at) for at, word in enumerate(memoryview(part).cast("Q")))


class Search:
    """Of secrets by their names."""

    def __init__(self, secrets):
        self.texts = []  # Name, spelling, text, characters of a piece.
        self.places = {}  # Of each word: text and offset.
        for name, secret in secrets.items():
            if len(secret) < PIECE:
                raise ValueError(f"{name} is too short to be searched for")
            for spelling, (text, size) in spellings(secret).items():
                for word, offset in words_of(text):
                    self.places.setdefault(word, []).append((len(self.texts), offset))
                self.texts.append((name, spelling, text, size))
        self.words = frozenset(self.places)

    def size(self):
        return len({name for name, *_ in self.texts}), len(self.texts) * len(WIDTHS)

    def found_in(self, content):
        """Name and spelling of each secret of which a piece is there."""
        found = set()
        for begin in range(0, len(content), PART):
            part = content[begin:begin + PART + LONGEST]
            if part.count(0) == len(part):
                continue
            for width, suffix in WIDTHS.items():
                for lane in range(width):
                    found |= {(name, spelling + suffix) for name, spelling in self._found_in(part[lane::width])}
        return found

    def _found_in(self, part):
        part += bytes(-len(part) % WORD)
        found = set()
        for word in self.words.intersection(memoryview(part).cast("Q")):
            needle = word.to_bytes(WORD, "little")
            at = part.find(needle)
            while at >= 0:
                for text, offset in self.places[word]:
                    name, spelling, characters, size = self.texts[text]
                    if (name, spelling) not in found and common_run(part, at, characters, offset) >= size:
                        found.add((name, spelling))
                at = part.find(needle, at + 1)
        return found


def common_run(content, at, text, offset):
    """The length of what both have in common around these places."""
    begin = 0
    while begin < min(at, offset) and content[at - begin - 1] == text[offset - begin - 1]:
        begin += 1
    end = 0
    while end < min(len(content) - at, len(text) - offset) and content[at + end] == text[offset + end]:
        end += 1
    return begin + end


def planted(secrets):
    """A piece of each secret in each spelling and width, all in one, and what a search has to find there."""
    content, expected = bytearray(), set()
    for name, secret in secrets.items():
        for number, (spelling, (text, size)) in enumerate(spellings(secret).items()):
            for width, suffix in WIDTHS.items():
                begin = (7 * number + width) % (len(text) - size + 1)
                content += b"\xff" * (1 + number % WORD)  # At each place in a word.
                for character in text[begin:begin + size]:
                    content += bytes([character]) + bytes(width - 1)
                expected.add((name, spelling + suffix))
    return bytes(content), expected
