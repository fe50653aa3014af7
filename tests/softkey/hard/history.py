"""What a key has to say, given what a process reported before it ended."""
from world import OTHER_PIN, PIN, ReadBack, opening_pin, require, require_whole

WRITE_REFUSED = {1, 48, 242, 345}


class History:
    def __init__(self, folder, pin=PIN):
        self.folder, self.pin = folder, pin
        found = ReadBack(folder, pin)
        self.tries, self.tries_max = found.tries, 255
        self.key_pairs, self.device = dict(found.key_pairs), found.device
        self.certificates = {line.split()[0] for line in found.certificates}
        self.pending, self.refused = None, []

    def follow(self, text):
        """Lines of a process, the last of which may be cut off."""
        for line in text.split("\n")[:-1]:
            word, _, rest = line.partition(" ")
            if word == "do":
                step, *about = rest.split()
                self.pending = step, about
            elif word == "did":
                self._done(int(rest.split()[0]), rest.split()[1:])

    def _done(self, status, result):
        step, about = self.pending
        self.pending = None
        if step == "wrong" and status == 312:
            require(int(result[0]) == self.tries - 1, f"a wrong PIN left {result[0]} tries of {self.tries}")
            self.tries -= 1
        elif status != 0:
            self.refused.append((step, about, status))
        else:
            self._succeeded(step, about, result)

    def _succeeded(self, step, about, result):
        if step in ("right", "pin"):
            self.tries = self.tries_max
        if step == "pin":
            self.pin = about[0]
        elif step == "generate":
            self.key_pairs[result[0]] = "5 3 "
        elif step == "relabel":
            self.key_pairs[about[0]] = "5 3 marked"
        elif step == "delete":
            del self.key_pairs[about[0]]
        elif step == "certificate":
            self.certificates.add(result[0])
        elif step == "uncertificate":
            self.certificates.remove(about[0])

    def hold(self):
        """Looks at the key; throws unless it is as reported, or as the step that was under way would have left it."""
        step, about = self.pending or (None, [])
        pin = opening_pin(self.folder) if step == "pin" else self.pin
        found = self._hold_tries(step, pin)
        self._hold_key_pairs(step, about, found.key_pairs)
        certificates = {line.split()[0] for line in found.certificates}
        changed = certificates ^ self.certificates
        may_change = len(changed) == 1 and (changed <= certificates if step == "certificate" else
                                            step == "uncertificate" and changed == set(about))
        require(not changed or may_change, f"certificates differ at {step}")
        require(pin == self.pin or step == "pin", "another PIN opens the key")
        require_whole(self.folder, pin)
        return pin

    def _hold_tries(self, step, pin):
        found = ReadBack(self.folder, pin)
        require(found.device == self.device and found.status == 0, f"the key says {found.status} {found.device}")
        if step == "pin":
            return found  # Asking which PIN opens the key has changed the tries.
        allowed = {self.tries}
        if step or self.refused:
            allowed |= {self.tries - 1}
        if step not in (None, "wrong"):
            allowed |= {self.tries_max}
        require(found.tries in allowed, f"{found.tries} tries are left, of {self.tries} before {step}")
        return found

    def _hold_key_pairs(self, step, about, found):
        changed = {name for name in found.keys() | self.key_pairs.keys() if found.get(name) != self.key_pairs.get(name)}
        if not changed:
            return
        name = changed.pop()
        require(not changed, "several key pairs differ")
        allowed = {"generate": (None, "5 3 "), "relabel": ("5 3 ", "5 3 marked"), "delete": ("5 3 marked", None)}
        require(step in allowed and (self.key_pairs.get(name), found.get(name)) == allowed[step] and
                (step == "generate" or name == about[0]), f"key pairs differ at {step}: {name}")


def other(pin):
    return OTHER_PIN if pin == PIN else PIN
