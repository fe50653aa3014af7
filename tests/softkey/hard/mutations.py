"""Files that were damaged or edited: what they say is what was written, or they are refused and left as they are."""
import random
import shutil
import sqlite3

from world import FILE_REFUSED, Failure, PIN_LOCKED, ReadBack, key_file, make_key, require, verify

PAGE = 4096

# Each table then has the other one's index, which finds nothing.
SWAP_INDEXES = """UPDATE sqlite_schema SET rootpage = (SELECT sum(rootpage) FROM sqlite_schema WHERE type = 'index')
    - rootpage WHERE type = 'index'"""

EDITS = (
    SWAP_INDEXES,
    "UPDATE device SET label = 'edited'",
    "UPDATE device SET model = 'VK2 Soft'",
    "UPDATE device SET authenticator = x''",
    "UPDATE device SET authenticator = randomblob(32)",
    "UPDATE pin SET tries_left = 0 WHERE role = 1",
    "UPDATE pin SET tries_max = tries_max - 1, tries_left = 1",
    "UPDATE pin SET changed = 1 - changed",
    "UPDATE pin SET salt = randomblob(16) WHERE role = 1",
    "UPDATE pin SET salt = (SELECT salt FROM pin WHERE role = 2) WHERE role = 1",
    "UPDATE pin SET scrypt_log_n = 5 WHERE role = 1",
    "UPDATE pin SET wrapped_master_key = randomblob(length(wrapped_master_key)) WHERE role = 1",
    "UPDATE pin SET checksum = randomblob(32) WHERE role = 1",
    "DELETE FROM pin WHERE role = 1",
    "UPDATE key_pair SET label = x'656469746564' WHERE id = 1",
    "UPDATE key_pair SET usage_flags = 1",
    "UPDATE key_pair SET oaep_only = 1 WHERE id = 1",
    "UPDATE key_pair SET object_id = x'09' WHERE id = 2",
    "UPDATE key_pair SET kind = 3 WHERE id = 1",
    "UPDATE key_pair SET identifier = randomblob(16) WHERE id = 2",
    "UPDATE key_pair SET sealed_private_key = randomblob(length(sealed_private_key)) WHERE id = 1",
    "UPDATE key_pair SET sealed_private_key = (SELECT sealed_private_key FROM key_pair WHERE id = 2) WHERE id = 1",
    "UPDATE key_pair SET id = id + 7",
    "DELETE FROM key_pair WHERE id = 2",
    "UPDATE certificate SET label = x'656469746564'",
    "UPDATE certificate SET der = CAST(der || x'00' AS BLOB)",
    "DELETE FROM certificate",
    "CREATE TRIGGER t AFTER UPDATE ON pin BEGIN UPDATE pin SET tries_left = tries_max; END",
    "PRAGMA user_version = 9",
    "PRAGMA user_version = 2",
    "PRAGMA application_id = 1",
    "PRAGMA journal_mode = WAL",
)


def turn_bits(content, chance):
    for _ in range(chance.choice((1, 1, 1, 4, 16))):
        content[chance.randrange(len(content))] ^= 1 << chance.randrange(8)


def turn_a_bit_of_the_header(content, chance):
    content[chance.randrange(100)] ^= 1 << chance.randrange(8)


def overwrite(content, chance):
    size = chance.choice((4, 32, 512, PAGE))
    at = chance.randrange(len(content) - size)
    content[at:at + size] = chance.randbytes(size) if chance.random() < 0.5 else bytes(size)


def cut(content, chance):
    del content[chance.randrange(len(content)):]


def append(content, chance):
    content.extend(chance.randbytes(chance.choice((1, 100, PAGE))))


def swap_pages(content, chance):
    one, other = (chance.randrange(len(content) // PAGE) * PAGE for _ in range(2))
    content[one:one + PAGE], content[other:other + PAGE] = content[other:other + PAGE], content[one:one + PAGE]


def spoil(number, file, chance):
    """An edit by way of SQLite as long as there are some, then blind damage."""
    if number < len(EDITS):
        with sqlite3.connect(file) as database:
            database.execute("PRAGMA writable_schema = ON")
            database.execute(EDITS[number])
        database.close()
        return EDITS[number]
    content = bytearray(file.read_bytes())
    change = chance.choice((turn_bits, turn_bits, turn_bits, turn_a_bit_of_the_header, overwrite, cut, append,
                            swap_pages))
    change(content, chance)
    file.write_bytes(content)
    return change.__name__


def hold(folder, before):
    """Gives whether the key worked as if nothing had happened."""
    spoiled = key_file(folder).read_bytes()
    found = ReadBack(folder)
    answers = set(found.signatures.values())
    if found.status != 0 or not answers:
        require(found.status in FILE_REFUSED or not answers, f"opening answers {found.status}")
        require(not found.key_pairs, "a refused file lists key pairs")
        require(found.status == 0 or key_file(folder).read_bytes() == spoiled, "a refused file was written to")
        require(verify(folder) != 0, "verify finds nothing wrong")
        return False
    allowed = FILE_REFUSED | ({PIN_LOCKED} if found.tries == 0 else set())
    require(answers <= allowed | {0}, f"signatures answer {answers}")
    require(0 not in answers or found.says() == before, "changed contents are used")
    require((verify(folder) == 0) == (answers == {0}), f"verify does not say what signatures do: {answers}")
    return answers == {0}


def mutations(folder, material, count):
    """How many of them did no harm; all others were refused."""
    pristine, at = folder / "pristine", folder / "at-work"
    folder.mkdir()
    make_key(pristine, material)
    before, chance, harmless = ReadBack(pristine).says(), random.Random(20240304), 0
    for number in range(count):
        shutil.rmtree(at, ignore_errors=True)
        shutil.copytree(pristine, at)
        name = spoil(number * (1 if count >= 100 else 3), key_file(at), chance)
        try:
            harmless += hold(at, before)
        except Exception as failure:
            raise Failure(f"mutation {number}, {name}: {failure}") from failure
    require(harmless < count * 0.8, "the mutations hardly change anything")
    return harmless
