"""Drives Debian's chromium by its chromedriver, over plain WebDriver: no package is needed for that."""
import base64
import json
import pathlib
import subprocess
import time
import urllib.error
import urllib.request

# The identifier of an element in the protocol's answers.
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
KEYS = {"Tab": "\ue004", "Enter": "\ue007", "Escape": "\ue00c",
        "PageDown": "\ue00f", "End": "\ue010"}


class Browser:
    """A window of its own profile; what it asks of which host, and its console, are kept."""

    def __init__(self, chromium, chromedriver, folder):
        self.driver = subprocess.Popen([chromedriver, "--port=0"], stdout=subprocess.PIPE, text=True)
        port = next(line.split()[-1].rstrip(".") for line in self.driver.stdout
                    if "started successfully on port" in line)
        self.base = f"http://127.0.0.1:{port}/session"
        arguments = ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--hide-scrollbars",
                     "--use-angle=swiftshader", "--enable-unsafe-swiftshader",
                     "--force-device-scale-factor=1", "--window-size=1280,900",
                     f"--user-data-dir={folder}"]
        capabilities = {"goog:chromeOptions": {"binary": chromium, "args": arguments},
                        "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"}}
        answer = self._ask("POST", "", {"capabilities": {"alwaysMatch": capabilities}})
        self.base += "/" + answer["sessionId"]

    def close(self):
        try:
            self._ask("DELETE", "")
        finally:
            self.driver.terminate()
            self.driver.wait()
            self.driver.stdout.close()

    def _ask(self, method, path, body=None):
        data = json.dumps(body or {}).encode() if method == "POST" else None
        request = urllib.request.Request(self.base + path, data, {"Content-Type": "application/json"},
                                         method=method)
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def open(self, url):
        self._ask("POST", "/url", {"url": url})

    def reload(self):
        self._ask("POST", "/refresh")

    def run(self, script, *values):
        """The value that a script returns."""
        return self._ask("POST", "/execute/sync", {"script": script, "args": values})

    def until(self, script, *values):
        """Waits until a script returns something true, which is answered."""
        end = time.monotonic() + 30
        while time.monotonic() < end:
            if found := self.run(script, *values):
                return found
            time.sleep(0.05)
        text = self.run("return document.body.innerText")
        raise AssertionError(f"in vain: {script} {values}\n{text}")

    def element(self, css):
        self.until("return document.querySelector(arguments[0])", css)
        return self._ask("POST", "/element", {"using": "css selector", "value": css})[ELEMENT]

    def click(self, css):
        self._ask("POST", f"/element/{self.element(css)}/click")

    def click_at(self, css, x, y):
        """Clicks at a place of an element, from its upper left corner."""
        box = self.run("const b = document.querySelector(arguments[0]).getBoundingClientRect();"
                       "return [b.left, b.top]", css)
        steps = [{"type": "pointerMove", "duration": 0, "x": round(box[0] + x), "y": round(box[1] + y)},
                 {"type": "pointerDown", "button": 0}, {"type": "pointerUp", "button": 0}]
        self._ask("POST", "/actions", {"actions": [{"type": "pointer", "id": "mouse",
                                                    "actions": steps}]})

    def press(self, *keys):
        """Keys by name, or text; to whatever has the focus."""
        steps = []
        for key in keys:
            for value in [KEYS[key]] if key in KEYS else key:
                steps += [{"type": "keyDown", "value": value}, {"type": "keyUp", "value": value}]
        self._ask("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": steps}]})

    def shoot(self, path, css=None):
        """A screenshot of the window, or of an element."""
        place = f"/element/{self.element(css)}/screenshot" if css else "/screenshot"
        pathlib.Path(path).write_bytes(base64.b64decode(self._ask("GET", place)))

    def emulate(self, command, **values):
        """A command of the browser's own protocol, such as another size of the window."""
        return self._ask("POST", "/goog/cdp/execute", {"cmd": command, "params": values})

    def log(self, kind):
        return self._ask("POST", "/se/log", {"type": kind})

    def console(self):
        """What the console has been told since the last call."""
        return [f"{entry['level']}: {entry['message']}" for entry in self.log("browser")]

    def requests(self):
        """The addresses that were asked for since the last call."""
        messages = (json.loads(entry["message"])["message"] for entry in self.log("performance"))
        return [message["params"]["request"]["url"] for message in messages
                if message["method"] == "Network.requestWillBeSent"]
