#!/usr/bin/env python3
"""Firefox, without a window, shows a page of a server that asks for a client certificate, which is on a token.

    firefox_client.py PROFILE TOKEN PIN URL TEXT

PROFILE is a folder with the databases of NSS, in which the module is entered. Ends with 0 when the page has TEXT.
"""
import json
import pathlib
import socket
import subprocess
import sys
import time

PREFERENCES = {
    "security.default_personal_cert": "Select Automatically",
    "marionette.port": 0,
    "network.proxy.type": 0,
    # Nothing but the page is asked for.
    "app.normandy.enabled": False,
    "app.update.enabled": False,
    "browser.safebrowsing.downloads.remote.enabled": False,
    "browser.safebrowsing.malware.enabled": False,
    "browser.safebrowsing.phishing.enabled": False,
    "browser.startup.page": 0,
    "datareporting.healthreport.uploadEnabled": False,
    "datareporting.policy.dataSubmissionEnabled": False,
    "network.captive-portal-service.enabled": False,
    "network.connectivity-service.enabled": False,
    "services.settings.server": "data:,#remote-settings-dummy/v1",
    "toolkit.telemetry.enabled": False,
}

FIND_TOKEN = """
const [name, pin] = arguments;
async function findToken() {
    const modules = Cc["@mozilla.org/security/pkcs11moduledb;1"].getService(Ci.nsIPKCS11ModuleDB);
    for (const module of await modules.listModules()) {
        const slot = (await module.slots).find(slot => slot.tokenName === name);
        if (slot)
            return slot.getToken();
    }
    throw new Error("no such token");
}
"""

# The PIN is given to the dialog that asks for it, as a user does.
LOGIN = FIND_TOKEN + """
window.answer = dialog => {
    dialog.Dialog.ui.password1Textbox.value = pin;
    dialog.Dialog.ui.button0.disabled = false;
    dialog.Dialog.ui.button0.click();
};
Services.obs.addObserver(window.answer, "common-dialog-loaded");
return findToken().then(token => { window.loggingIn = token.login(); });
"""

IS_LOGGED_IN = FIND_TOKEN + """
return findToken().then(token => token.isLoggedIn);
"""


class Browser:
    """The browser's own protocol for being driven: messages of JSON, each with its length before it."""

    def __init__(self, profile, patience):
        lines = [f"user_pref({json.dumps(name)}, {json.dumps(value)});\n" for name, value in PREFERENCES.items()]
        (profile / "user.js").write_text("".join(lines))
        command = ["firefox-esr", "--headless", "--no-remote", "--marionette", "--remote-allow-system-access",
                   "--profile", str(profile)]
        self.process = subprocess.Popen(command)
        self.deadline = time.monotonic() + patience
        self.connection = socket.create_connection(("127.0.0.1", self.port(profile / "MarionetteActivePort")))
        self.connection.settimeout(patience)
        self.stream = self.connection.makefile("rb")
        self.receive()
        self.number = 0

    def port(self, file):
        while not (file.exists() and file.read_text().strip()):
            if time.monotonic() > self.deadline or self.process.poll() is not None:
                raise RuntimeError("the browser does not start")
            time.sleep(0.1)
        return int(file.read_text())

    def receive(self):
        length = b""
        while not length.endswith(b":"):
            length += self.stream.read(1)
        return json.loads(self.stream.read(int(length[:-1])))

    def ask(self, command, **parameters):
        self.number += 1
        message = json.dumps([0, self.number, command, parameters]).encode()
        self.connection.sendall(b"%d:%s" % (len(message), message))
        _, _, error, result = self.receive()
        if error:
            raise RuntimeError(f"{command}: {error['error']}: {error['message']}")
        return result

    def log_in(self, token, pin):
        self.ask("Marionette:SetContext", value="chrome")
        self.ask("WebDriver:ExecuteScript", script=LOGIN, args=[token, pin])
        while not self.ask("WebDriver:ExecuteScript", script=IS_LOGGED_IN, args=[token, pin])["value"]:
            if time.monotonic() > self.deadline:
                raise RuntimeError("the PIN is not accepted")
            time.sleep(0.2)
        self.ask("Marionette:SetContext", value="content")

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()


def main(profile, token, pin, url, text):
    browser = Browser(pathlib.Path(profile), 60)
    try:
        browser.ask("WebDriver:NewSession", unhandledPromptBehavior="ignore")
        browser.log_in(token, pin)
        browser.ask("WebDriver:Navigate", url=url)
        page = browser.ask("WebDriver:GetPageSource")["value"]
        print(page)
        browser.ask("Marionette:Quit", flags=["eForceQuit"])
        code = browser.process.wait(30)
        print(f"the browser ended with {code}")
        return 0 if text in page and code == 0 else 1
    finally:
        browser.close()


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
