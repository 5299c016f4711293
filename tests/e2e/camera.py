"""Runs the simulated camera for tests and speaks to its web interface."""
import argparse
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

# Simcam is asked directly even if the environment names a proxy.
urllib.request.install_opener(urllib.request.build_opener(urllib.request.ProxyHandler({})))

WAIT_S = 60  # enough for a loaded machine with two cores
HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(os.environ.get("FOCUS_BUILD_ROOT", "") + ROOT, "build", "host")


def wait_for(what, condition, describe=str):
    """Calls condition until its result is true, and returns that. describe() is added to a failure."""
    end = time.monotonic() + WAIT_S
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"did not happen in {WAIT_S} s: {what}; {describe()}")
        time.sleep(0.05)


class Camera:
    """A simcam process. Call stop() before dropping the last reference, or use it as a context."""

    def __init__(self, simcam, *options, listen="127.0.0.1:0", stderr=None):
        self.process = subprocess.Popen([simcam, "--listen", listen, *options], stdout=subprocess.PIPE,
                                        stderr=stderr, text=True, cwd=tempfile.gettempdir())
        line = self.process.stdout.readline()
        address = re.fullmatch(r"simcam: (http://[\w.:\[\]]+:\d+/)\n", line)
        if not address:
            self.process.kill()
            raise AssertionError(f"simcam printed no address but {line!r}")
        self.address = address.group(1)

    def __enter__(self):
        return self

    def __exit__(self, *reason):
        self.stop()

    def stop(self):
        self.process.terminate()
        status = self.process.wait(WAIT_S)
        self.process.stdout.close()
        assert status == 0, f"simcam ended with status {status}"

    def fetch(self, path):
        """The body of a GET."""
        with urllib.request.urlopen(self.address + path.lstrip("/"), timeout=WAIT_S) as answer:
            return answer.read()

    def request(self, method, path, body=None):
        """The JSON that answers a request."""
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.address + path.lstrip("/"), data, method=method,
                                         headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=WAIT_S) as answer:
            return json.load(answer)

    def get(self, path):
        return self.request("GET", path)

    def post(self, path, body=None):
        return self.request("POST", path, body)

    def state(self):
        return self.get("/api/state")

    def end_process(self):
        if self.state()["process"]["running"]:
            self.post("/api/process/stop")
        wait_for("the end of the process", lambda: not self.state()["process"]["running"])

    def plane(self, post, plane):
        """The lines of a shown plane, each a list of palette indices."""
        with urllib.request.urlopen(f"{self.address}api/posts/{post}/planes/{plane}/raw", timeout=WAIT_S) as answer:
            width, height, pitch, depth = (int(answer.headers["X-" + name]) for name in ("Width", "Height", "Pitch", "Depth"))
            data = answer.read()
        mask = (1 << depth) - 1
        return [[data[y * pitch + x * depth // 8] >> x * depth % 8 & mask for x in range(width)] for y in range(height)]


def main(parser=None):
    """Runs the tests of the calling program. They find what the command line says in camera.settings."""
    global settings
    parser = parser or argparse.ArgumentParser()
    parser.add_argument("--simcam", default=os.path.join(BUILD, "bin", "simcam"))
    parser.add_argument("--overlay", default=os.path.join(BUILD, "focus_assist"))
    settings, rest = parser.parse_known_args()
    settings.simcam = os.path.abspath(settings.simcam)
    settings.overlay = os.path.abspath(settings.overlay)
    for program in (settings.simcam, settings.overlay):
        if not os.access(program, os.X_OK):
            sys.exit(f"{program} is missing: build it first (cmake --build --preset host)")
    program = unittest.main(module="__main__", argv=[sys.argv[0], "-v"] + rest, exit=False)
    if program.result.testsRun == 0:
        sys.exit("no test matches")
    sys.exit(not program.result.wasSuccessful())


settings = None
