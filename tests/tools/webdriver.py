"""Headless Chromium through chromedriver, as far as the tests of the report need it."""
import base64
import contextlib
import json
import re
import subprocess
import tempfile
import urllib.error
import urllib.request

FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         # Nothing is to be asked of a network: every name and address fails at once.
         "--host-resolver-rules=MAP * ~NOTFOUND"]
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # How the protocol names a reference.


class Browser:
    """One session. Everything is done in order: a call returns when it is done."""

    def __init__(self, base, capabilities):
        self.base = base
        answer = self.call("POST", "/session", {"capabilities": {"alwaysMatch": capabilities}})
        self.base += "/session/" + answer["sessionId"]

    def call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data=data, method=method,
                                         headers={"Content-Type": "application/json"})
        # The browser is on this machine: no proxy stands between.
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request) as response:
                return json.load(response)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(f"{path}: {json.load(error)['value']['message']}") from error

    def open(self, file):
        self.call("POST", "/url", {"url": "file://" + file})

    def size(self, width, height):
        self.call("POST", "/window/rect", {"width": width, "height": height})

    def run(self, script, *arguments):
        """Runs a function body in the page and returns what it returns."""
        return self.call("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def click(self, selector, text=""):
        """Clicks the first element of a selector that contains the text."""
        found = self.call("POST", "/elements", {"using": "css selector", "value": selector})
        for each in found:
            path = "/element/" + each[ELEMENT]
            if text in self.call("GET", path + "/text"):
                self.call("POST", path + "/click", {})
                return
        raise RuntimeError(f"no {selector} with \"{text}\"")

    def keys(self, selector, text):
        found = self.call("POST", "/element", {"using": "css selector", "value": selector})
        self.call("POST", f"/element/{found[ELEMENT]}/value", {"text": text})

    def pointer(self, *steps):
        """Moves the pointer to (x, y), or presses ("down") and releases it ("up")."""
        actions = []
        for step in steps:
            if step in ("down", "up"):
                actions.append({"type": "pointer" + step.capitalize(), "button": 0})
            else:
                actions.append({"type": "pointerMove", "duration": 0, "x": round(step[0]),
                                "y": round(step[1])})
        self.call("POST", "/actions", {"actions": [
            {"type": "pointer", "id": "mouse", "actions": actions}]})

    def wheel(self, x, y, down, ctrl=False):
        pauses = [{"type": "keyDown", "value": "\ue009"}, {"type": "pause"},
                  {"type": "keyUp", "value": "\ue009"}] if ctrl else [{"type": "pause"}]
        scroll = {"type": "scroll", "x": round(x), "y": round(y), "deltaX": 0, "deltaY": down,
                  "duration": 0}
        self.call("POST", "/actions", {"actions": [
            {"type": "key", "id": "keys", "actions": pauses},
            {"type": "wheel", "id": "wheel", "actions": [{"type": "pause"}, scroll]}]})

    def errors(self):
        """What the console has shown of errors and warnings since the last call."""
        return [entry["message"] for entry in self.call("POST", "/se/log", {"type": "browser"})
                if entry["level"] in ("SEVERE", "WARNING")]

    def picture(self, file):
        with open(file, "wb") as png:
            png.write(base64.b64decode(self.call("GET", "/screenshot")))


@contextlib.contextmanager
def browser(width=1500, height=1000):
    with tempfile.TemporaryDirectory() as profile:
        driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True)
        try:
            port = None
            for line in driver.stdout:  # Ends with the driver if it does not start.
                port = re.search(r"started successfully on port (\d+)", line)
                if port:
                    break
            if not port:
                raise RuntimeError("chromedriver does not start")
            session = Browser("http://127.0.0.1:" + port.group(1), {
                "goog:chromeOptions": {
                    "args": FLAGS + ["--user-data-dir=" + profile,
                                     f"--window-size={width},{height}"]},
                "goog:loggingPrefs": {"browser": "ALL"}})
            try:
                yield session
            finally:
                session.call("DELETE", "")
        finally:
            driver.terminate()
            driver.wait()
            driver.stdout.close()
