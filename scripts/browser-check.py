#!/usr/bin/python3
"""Opens report pages in headless Chromium and checks what a reader would see.

  browser-check.py [--screenshots DIR] [--height PX] NAME=PAGE...
  browser-check.py --self-test

Each page must load without a console error, a script error or a failed request, fetch nothing
from the network, show every image decoded with a non-zero size, and have no table cell that
reads None, nan, NaN, null or undefined. A screenshot of each page goes to DIR/NAME.png (the
whole page, or its top --height pixels). --self-test first shows the check passing a good page
and failing pages with a broken image, a "None" cell and a console error.
Exit status: 0 every page passed, 1 a page failed, 2 the browser could not be run.

Talks to Chromium over its DevTools protocol with a small WebSocket client of its own, so it
needs nothing but Python's standard library and Debian's chromium.
"""

import argparse
import base64
import json
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
import urllib.parse
import zlib

TIMEOUT_S = 30
WIDTH = 1280

# Runs in the page once it has loaded; returns what is wrong with it as text.
CHECKER = r"""
(() => {
  const problems = [];
  const images = Array.from(document.images);
  for (const img of images) {
    if (!img.complete || img.naturalWidth === 0 || img.naturalHeight === 0) {
      problems.push('image not shown: ' + (img.getAttribute('src') || '(no src)').slice(0, 60));
    }
  }
  const cells = Array.from(document.querySelectorAll('td, th'));
  for (const c of cells) {
    const m = c.textContent.match(/\b(None|nan|NaN|null|undefined)\b/);
    if (m) problems.push('a cell reads "' + m[1] + '": ' + c.textContent.trim().slice(0, 60));
  }
  if (!images.length && !cells.length) problems.push('the page has neither a table nor an image');
  return JSON.stringify({problems, images: images.length, cells: cells.length});
})()
"""


class BrowserError(Exception):
    pass


class WebSocket:
    """The client side of RFC 6455, enough for DevTools: text frames, masked, no extensions."""

    def __init__(self, url):
        u = urllib.parse.urlparse(url)
        self.sock = socket.create_connection((u.hostname, u.port), timeout=TIMEOUT_S)
        key = base64.b64encode(os.urandom(16)).decode()
        self.sock.sendall((f"GET {u.path} HTTP/1.1\r\nHost: {u.hostname}:{u.port}\r\nUpgrade: websocket\r\n"
                           f"Connection: Upgrade\r\nSec-WebSocket-Key: {key}\r\n"
                           "Sec-WebSocket-Version: 13\r\n\r\n").encode())
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = self.sock.recv(4096)
            if not chunk:
                raise BrowserError("the browser closed the DevTools connection")
            head += chunk
        status, _, self.buffer = head.partition(b"\r\n\r\n")
        if b" 101 " not in status.split(b"\r\n")[0]:
            raise BrowserError(f"DevTools refused the connection: {status.splitlines()[0]!r}")

    def _read(self, n):
        while len(self.buffer) < n:
            chunk = self.sock.recv(1 << 16)
            if not chunk:
                raise BrowserError("the browser closed the DevTools connection")
            self.buffer += chunk
        data, self.buffer = self.buffer[:n], self.buffer[n:]
        return data

    def _frame(self, opcode, payload):
        mask = os.urandom(4)
        n = len(payload)
        head = bytes([0x80 | opcode])
        if n < 126:
            head += bytes([0x80 | n])
        elif n < 1 << 16:
            head += bytes([0x80 | 126]) + struct.pack("!H", n)
        else:
            head += bytes([0x80 | 127]) + struct.pack("!Q", n)
        self.sock.sendall(head + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(payload)))

    def send(self, text):
        self._frame(0x1, text.encode())

    def recv(self):
        message = b""
        while True:
            first, second = self._read(2)
            n = second & 0x7F
            if n == 126:
                n = struct.unpack("!H", self._read(2))[0]
            elif n == 127:
                n = struct.unpack("!Q", self._read(8))[0]
            payload = self._read(n)
            opcode = first & 0x0F
            if opcode == 0x8:
                raise BrowserError("the browser closed the DevTools connection")
            if opcode == 0x9:
                self._frame(0xA, payload)
                continue
            message += payload
            if first & 0x80 and opcode in (0x0, 0x1):
                return message.decode()


class Browser:
    """One headless Chromium with a DevTools connection to it."""

    def __init__(self):
        exe = shutil.which("chromium") or shutil.which("chromium-browser")
        if not exe:
            raise BrowserError("no chromium on PATH (scripts/deps.sh browser installs Debian's)")
        self.profile = tempfile.mkdtemp(prefix="pelyx-browser-")
        self.log = open(os.path.join(self.profile, "chromium.log"), "w")
        # No sandbox: the check runs as root in CI containers, where Chromium's sandbox cannot
        # start, and it only ever opens pages this project wrote.
        self.process = subprocess.Popen(
            [exe, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run", "--no-default-browser-check",
             "--disable-extensions", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", "--hide-scrollbars", "--remote-debugging-port=0", f"--user-data-dir={self.profile}",
             f"--window-size={WIDTH},900", "about:blank"],
            stdout=self.log, stderr=self.log)
        port_file = os.path.join(self.profile, "DevToolsActivePort")
        deadline = time.monotonic() + TIMEOUT_S
        while not (os.path.exists(port_file) and len(open(port_file).read().split()) >= 2):
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.close()
                raise BrowserError(f"chromium did not start; its log:\n{self.log_text()}")
            time.sleep(0.05)
        port, path = open(port_file).read().split()[:2]
        self.ws = WebSocket(f"ws://127.0.0.1:{port}{path}")
        self.next_id = 0
        self.events = []

    def log_text(self):
        with open(os.path.join(self.profile, "chromium.log")) as f:
            return f.read()[-3000:]

    def call(self, method, params=None, session=None):
        self.next_id += 1
        message = {"id": self.next_id, "method": method, "params": params or {}}
        if session:
            message["sessionId"] = session
        self.ws.send(json.dumps(message))
        while True:
            reply = json.loads(self.ws.recv())
            if reply.get("id") == self.next_id:
                if "error" in reply:
                    raise BrowserError(f"{method}: {reply['error'].get('message')}")
                return reply.get("result", {})
            self.events.append(reply)

    def wait_for(self, method, session):
        deadline = time.monotonic() + TIMEOUT_S
        while not any(e.get("method") == method and e.get("sessionId") == session for e in self.events):
            if time.monotonic() > deadline:
                raise BrowserError(f"no {method} within {TIMEOUT_S} s")
            self.events.append(json.loads(self.ws.recv()))

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
        self.log.close()
        shutil.rmtree(self.profile, ignore_errors=True)


def page_problems(events, session):
    """What the browser reported while the page loaded."""
    problems = []
    for e in events:
        if e.get("sessionId") != session:
            continue
        p = e.get("params", {})
        method = e.get("method")
        if method == "Runtime.exceptionThrown":
            problems.append("script error: " + p["exceptionDetails"].get("text", ""))
        elif method == "Runtime.consoleAPICalled" and p.get("type") in ("error", "assert"):
            problems.append("console error: " + " ".join(str(a.get("value", a.get("description", "")))
                                                         for a in p.get("args", [])))
        elif method == "Log.entryAdded" and p["entry"].get("level") == "error":
            entry = p["entry"]
            problems.append(("console error: " + entry.get("text", ""))[:160] + " " + entry.get("url", "")[:80])
        elif method == "Network.requestWillBeSent":
            scheme = p["request"]["url"].split(":", 1)[0]
            if scheme not in ("file", "data", "about"):
                problems.append("fetches from the network: " + p["request"]["url"][:80])
    return problems


def check(browser, page, screenshot=None, height=None):
    """Problems of one page (an empty list when it passes) and what it holds."""
    target = browser.call("Target.createTarget", {"url": "about:blank"})["targetId"]
    session = browser.call("Target.attachToTarget", {"targetId": target, "flatten": True})["sessionId"]
    try:
        for domain in ("Page", "Runtime", "Log", "Network"):
            browser.call(f"{domain}.enable", session=session)
        browser.call("Emulation.setDeviceMetricsOverride",
                     {"width": WIDTH, "height": 900, "deviceScaleFactor": 1, "mobile": False}, session)
        url = "file://" + urllib.parse.quote(os.path.abspath(page))
        nav = browser.call("Page.navigate", {"url": url}, session)
        if nav.get("errorText"):
            return [f"does not load: {nav['errorText']}"], {}
        browser.wait_for("Page.loadEventFired", session)
        result = browser.call("Runtime.evaluate", {"expression": CHECKER, "returnByValue": True}, session)
        found = json.loads(result["result"]["value"])
        problems = page_problems(browser.events, session) + found["problems"]
        if screenshot:
            size = browser.call("Page.getLayoutMetrics", session=session)["cssContentSize"]
            clip = {"x": 0, "y": 0, "width": WIDTH, "height": min(size["height"], height or 16000), "scale": 1}
            shot = browser.call("Page.captureScreenshot",
                                {"format": "png", "captureBeyondViewport": True, "clip": clip}, session)
            with open(screenshot, "wb") as f:
                f.write(base64.b64decode(shot["data"]))
        return problems, found
    finally:
        browser.call("Target.closeTarget", {"targetId": target})
        browser.events = [e for e in browser.events if e.get("sessionId") != session]


def tiny_png():
    """A 2x2 PNG, so the self-test's good page has a real image to decode."""
    def chunk(kind, data):
        return struct.pack("!I", len(data)) + kind + data + struct.pack("!I", zlib.crc32(kind + data))
    rows = b"".join(b"\x00" + b"\xff\x00\x00" * 2 for _ in range(2))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack("!IIBBBBB", 2, 2, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def self_test(browser):
    """The check passes a good page and fails each kind of bad one; False when it does not."""
    image = "data:image/png;base64," + base64.b64encode(tiny_png()).decode()
    good = f"<!doctype html><title>t</title><table><tr><th>p50</th><td>44.3</td></tr></table><img src='{image}'>"
    pages = {
        "good": (good, None),
        "missing image": (good + "<img src='missing.png'>", "image not shown"),
        "undecodable image": (good + "<img src='data:image/png;base64,iVBORw0KGgoAAAA'>", "image not shown"),
        "None cell": (good.replace("44.3", "44.3 / None"), 'a cell reads "None"'),
        "console error": (good + "<script>console.error('boom')</script>", "console error: boom"),
    }
    ok = True
    with tempfile.TemporaryDirectory(prefix="pelyx-browser-self-test-") as d:
        for name, (text, expected) in pages.items():
            path = os.path.join(d, name.replace(" ", "-") + ".html")
            with open(path, "w") as f:
                f.write(text)
            problems, _ = check(browser, path)
            caught = any(expected in p for p in problems) if expected else not problems
            ok &= caught
            verdict = "fails as it should" if expected else "passes as it should"
            print(f"self-test: {name}: {verdict if caught else 'WRONG'}" +
                  (f" ({problems})" if not caught or expected else ""))
    return ok


def main(argv):
    parser = argparse.ArgumentParser(prog="browser-check.py", description=__doc__.split("\n\n")[1])
    parser.add_argument("--screenshots", help="directory for NAME.png of each page")
    parser.add_argument("--height", type=int, help="screenshot only the top PX pixels of each page")
    parser.add_argument("--self-test", action="store_true", help="first show the check failing bad pages")
    parser.add_argument("pages", nargs="*", metavar="NAME=PAGE")
    args = parser.parse_args(argv)
    pages = [p.partition("=")[::2] for p in args.pages]
    for name, page in pages:
        if not page or not os.path.isfile(page):
            print(f"browser-check: error: {name}={page}: no such page", file=sys.stderr)
            return 2
    if args.screenshots:
        os.makedirs(args.screenshots, exist_ok=True)
    try:
        browser = Browser()
    except (BrowserError, OSError) as e:
        print(f"browser-check: error: {e}", file=sys.stderr)
        return 2
    failed = False
    try:
        if args.self_test and not self_test(browser):
            print("browser-check: the self-test failed: the check cannot be trusted", file=sys.stderr)
            return 1
        for name, page in pages:
            shot = os.path.join(args.screenshots, name + ".png") if args.screenshots else None
            problems, found = check(browser, page, shot, args.height)
            failed |= bool(problems)
            print(f"{'FAIL' if problems else 'ok'} {name}: {page}: {found.get('images', 0)} images, "
                  f"{found.get('cells', 0)} cells" + (f"; screenshot {shot}" if shot else ""))
            for p in problems:
                print(f"  {p}")
    except BrowserError as e:
        print(f"browser-check: error: {e}\n{browser.log_text()}", file=sys.stderr)
        return 2
    finally:
        browser.close()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
