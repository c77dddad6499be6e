"""A headless browser for a test, led by its own driver over the WebDriver protocol."""
import base64
import json
import os
import re
import shutil
import subprocess
import time
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the protocol's name for an element's identifier
LIMIT_S = 20
ESCAPE, TAB, ENTER = "\ue00c", "\ue004", "\ue007"


def missing():
    """Which of the two programs is not installed; "" when both are."""
    names = [name for name in ("chromium", "chromedriver") if not shutil.which(name)]
    return " and ".join(names)


class Browser:
    """One window. Everything that it writes is below `folder`."""

    def __init__(self, folder):
        environment = dict(os.environ, HOME=str(folder))
        self._log = open(folder / "driver.log", "w")
        self._driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE,
                                        stderr=self._log, text=True, env=environment)
        self._session = ""
        self._address = f"http://127.0.0.1:{self._port()}"
        arguments = ["--headless=new", "--disable-gpu", "--disable-dev-shm-usage",
                     "--disable-background-networking", "--force-color-profile=srgb",
                     "--window-size=1280,1000", f"--user-data-dir={folder / 'profile'}"]
        if os.geteuid() == 0:
            arguments.append("--no-sandbox")  # which root cannot have
        capabilities = {"goog:chromeOptions": {"args": arguments},
                        "goog:loggingPrefs": {"browser": "ALL"}}
        made = self._ask("POST", "/session", {"capabilities": {"alwaysMatch": capabilities}}, 60)
        self._session = "/session/" + made["sessionId"]

    def _port(self):
        for line in self._driver.stdout:
            found = re.search(r"started successfully on port (\d+)", line)
            if found:
                return int(found[1])
        raise AssertionError("chromedriver did not start")

    def _ask(self, method, path, document=None, limit_s=LIMIT_S):
        data = None if document is None else json.dumps(document).encode()
        request = urllib.request.Request(self._address + self._session + path, data=data,
                                         method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=limit_s) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            value = json.load(error)["value"]
            raise AssertionError(f"{path}: {value['error']}: {value['message'][:500]}") from None

    def close(self):
        try:
            if self._session:
                self._ask("DELETE", "")
        finally:
            self._driver.terminate()
            self._driver.wait()
            self._driver.stdout.close()
            self._log.close()

    # --- the window ---

    def get(self, address):
        self._ask("POST", "/url", {"url": address})

    def width(self, pixels, height=900):
        """As wide as a screen of so many pixels, a phone's included."""
        self.tell("Emulation.setDeviceMetricsOverride", width=pixels, height=height,
                  deviceScaleFactor=1, mobile=pixels < 500)

    def prefers(self, **features):
        """prefers(color_scheme="dark"): what the system is set to."""
        self.tell("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-" + name.replace("_", "-"), "value": value}
            for name, value in features.items()])

    def tell(self, command, **parameters):
        """A command of the browser's own."""
        return self._ask("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def script(self, text, *arguments):
        return self._ask("POST", "/execute/sync", {"script": text, "args": list(arguments)})

    def picture(self, path):
        """Of the whole page."""
        size = self.script("const e = document.documentElement; return [innerWidth, "
                           "Math.min(e.scrollHeight, 6000)]")
        taken = self.tell("Page.captureScreenshot", captureBeyondViewport=True, clip={
            "x": 0, "y": 0, "width": size[0], "height": size[1], "scale": 1})
        path.write_bytes(base64.b64decode(taken["data"]))

    def complaints(self):
        """What the browser reported since the last call: errors of scripts, of the policy, ..."""
        return [entry["message"] for entry in self._ask("POST", "/se/log", {"type": "browser"})
                if entry["level"] == "SEVERE"]

    # --- what is in it ---

    def _element(self, selector):
        return self._ask("POST", "/element", {"using": "css selector", "value": selector})[ELEMENT]

    def click(self, selector):
        """As a person does: fails where something else lies above it."""
        element = self._element(selector)
        self.script("arguments[0].scrollIntoView({block: 'center'})", {ELEMENT: element})
        self._ask("POST", f"/element/{element}/click", {})

    def keys(self, selector, text):
        self._ask("POST", f"/element/{self._element(selector)}/value", {"text": text})

    def press(self, key):
        """A key on whatever has the focus."""
        element = self._ask("GET", "/element/active")[ELEMENT]
        self._ask("POST", f"/element/{element}/value", {"text": key})

    def fill(self, selector, text):
        """Replaces the text of a field, as pasting does."""
        self.script("const field = document.querySelector(arguments[0]); field.value = "
                    "arguments[1]; field.dispatchEvent(new Event('input', {bubbles: true}))",
                    selector, text)

    def choose(self, selector, value):
        self.script("const field = document.querySelector(arguments[0]); field.value = "
                    "arguments[1]; if (field.value !== arguments[1]) throw new Error('no such choice');"
                    "field.dispatchEvent(new Event('change', {bubbles: true}))", selector, value)

    def text(self, selector):
        """What is to be read there; "" where there is no such element."""
        return self.script("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def visible(self, selector):
        return self.script("return document.querySelector(arguments[0])?.checkVisibility() ?? false",
                           selector)

    def wait(self, condition, what, limit_s=LIMIT_S):
        """Until a script's expression is true; returns its value."""
        end = time.monotonic() + limit_s
        while True:
            value = self.script(f"return {condition}")
            if value:
                return value
            if time.monotonic() > end:
                raise AssertionError(f"not within {limit_s} s: {what}\n{self.complaints()}\n" + self.text("main")[:1500])
            time.sleep(0.05)

    def wait_for_text(self, selector, text, limit_s=LIMIT_S):
        self.wait(f"(document.querySelector({json.dumps(selector)})?.innerText ?? '')"
                  f".includes({json.dumps(text)})", f"{text!r} in {selector}", limit_s)
