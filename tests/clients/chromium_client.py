#!/usr/bin/env python3
"""Chromium, on a screen that nobody sees, shows a page of a server that asks for a certificate, which is on a token.

    chromium_client.py FOLDER PIN URL TEXT

FOLDER is made, for what the browser and the screen keep. The module is entered in the databases of NSS in the home. The
PIN goes to the dialog that asks for it, and the certificate is chosen in the next one, by the keyboard: these dialogs are
not in the browser's own protocol for being driven. Ends with 0 when the page has TEXT and the browser ends well.
"""
import fcntl
import json
import os
import pathlib
import select
import subprocess
import sys
import time

PATIENCE = 100  # seconds
FLAGS = [
    "--remote-debugging-pipe", "--no-first-run", "--disable-gpu", "--disable-quic", "--password-store=basic",
    "--window-position=0,0", "--window-size=1024,768",
    # Nothing but the page is asked for.
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE localhost",
]


def high_pipe():
    """Both ends have numbers that those of the browser's protocol do not stand in the way of."""
    low = os.pipe()
    high = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10) for end in low]
    for end in low:
        os.close(end)
    return high


class Refused(Exception):
    """What the browser answers to an order that it does not follow."""


class Screen:
    def __init__(self, folder):
        folder.mkdir()
        self.file = folder / "Xvfb_screen0"
        number, its_end = high_pipe()
        self.process = subprocess.Popen(["Xvfb", "-displayfd", str(its_end), "-screen", "0", "1024x768x24", "-nolisten", "tcp",
                                         "-fbdir", str(folder)], pass_fds=[its_end])
        os.close(its_end)
        os.environ["DISPLAY"] = ":" + os.fdopen(number).readline().strip()

    def picture(self):
        """What is below the bars of a window at the screen's upper edge."""
        pixels = self.file.read_bytes()
        return pixels[len(pixels) // 4:]

    def hand(self, *arguments):
        subprocess.run(["xdotool", *arguments], check=True, stdout=subprocess.DEVNULL)

    def close(self):
        self.process.terminate()
        self.process.wait()


class Browser:
    """Driven by messages of JSON, each with a zero byte behind it, through the files 3 and 4."""

    def __init__(self, folder):
        orders, self.orders = high_pipe()
        self.answers, answers = high_pipe()
        flags = FLAGS + ([] if os.getuid() else ["--no-sandbox"]) + [f"--user-data-dir={folder}", "about:blank"]
        self.process = subprocess.Popen(["bash", "-c", f'exec "$@" 3<&{orders} 4>&{answers}', "bash", "chromium", *flags],
                                        pass_fds=[orders, answers])
        os.close(orders)
        os.close(answers)
        self.number = 0
        self.received = b""
        self.session = {}

    def receive(self, deadline):
        while b"\0" not in self.received:
            if not select.select([self.answers], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError("the browser does not answer")
            part = os.read(self.answers, 65536)
            if not part:
                raise RuntimeError("the browser has ended")
            self.received += part
        message, self.received = self.received.split(b"\0", 1)
        return json.loads(message)

    def tell(self, method, **parameters):
        self.number += 1
        order = {"id": self.number, "method": method, "params": parameters, **self.session}
        os.write(self.orders, json.dumps(order).encode() + b"\0")

    def ask(self, deadline, method, **parameters):
        self.tell(method, **parameters)
        while True:
            answer = self.receive(deadline)
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise Refused(f"{method}: {answer['error']['message']}")
                return answer["result"]

    def take_page(self, deadline):
        while True:
            targets = self.ask(deadline, "Target.getTargets")["targetInfos"]
            page = next((target["targetId"] for target in targets if target["type"] == "page"), None)
            if page:
                break
            time.sleep(0.1)
        self.session = {"sessionId": self.ask(deadline, "Target.attachToTarget", targetId=page, flatten=True)["sessionId"]}

    def text(self):
        """Nothing as long as the page is still coming: the browser answers for none then."""
        try:
            return self.ask(time.monotonic() + 1, "Runtime.evaluate",
                            expression="document.body.innerText")["result"].get("value", "")
        except (TimeoutError, Refused):
            return ""

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()


def await_picture(screen, deadline, wanted):
    """The picture of two looks, one behind the other, that both are as wanted; a cursor may blink meanwhile."""
    earlier = screen.picture()
    while True:
        time.sleep(1)
        picture = screen.picture()
        if wanted(earlier, picture):
            return picture
        if time.monotonic() > deadline:
            raise RuntimeError("the screen does not show what is waited for")
        earlier = picture


def visit(screen, browser, pin, url, text):
    deadline = time.monotonic() + PATIENCE
    browser.take_page(deadline)
    screen.hand("search", "--sync", "--onlyvisible", "--class", "chromium", "windowfocus")
    blank = await_picture(screen, deadline, lambda earlier, picture: earlier == picture)
    browser.tell("Page.navigate", url=url)
    await_picture(screen, deadline, lambda earlier, picture: blank not in (earlier, picture))
    screen.hand("type", "--delay", "50", pin)
    while text not in browser.text():
        if time.monotonic() > deadline:
            raise RuntimeError("the page does not come")
        if screen.picture() != blank:
            screen.hand("key", "Return")  # The end of the PIN, then the first certificate.
        time.sleep(1)
    print(browser.text())


def main(folder, pin, url, text):
    folder = pathlib.Path(folder)
    folder.mkdir()
    screen = Screen(folder / "screen")
    try:
        browser = Browser(folder / "data")
        try:
            visit(screen, browser, pin, url, text)
            browser.session = {}
            browser.ask(time.monotonic() + 20, "Browser.close")
            code = browser.process.wait(30)
            print(f"the browser ended with {code}")
            return 0 if code == 0 else 1
        finally:
            browser.close()
    finally:
        screen.close()


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
