"""Tests the effect of each option on the camera, and compares docs/simcam.md with the program."""
import argparse
import os
import re
import socket
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # nothing beside the sources
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "e2e"))
from camera import Camera

settings = None


def start(*options, **keywords):
    return Camera(settings.simcam, *options, **keywords)


def posts_of(state):
    return [(post["width"], post["height"]) if post["running"] else None for post in state["posts"]]


def listens(address):
    """Whether a socket can listen there: a machine may have no IPv6."""
    try:
        with socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET) as listener:
            listener.bind((address, 0))
        return True
    except OSError:
        return False


class Listening(unittest.TestCase):
    def run_on(self, address):
        """What it writes to standard error, its address, and its routes as read from there."""
        with tempfile.TemporaryFile("w+") as errors:
            with start("--scene", "chart", listen=address, stderr=errors) as camera:
                routes = camera.get("/api")["routes"]
            errors.seek(0)
            return errors.read(), camera.address, routes

    def assert_refused(self, listen):
        """What is printed on a machine that has no such address."""
        ended = subprocess.run([settings.simcam, "--scene", "chart", "--listen", listen], timeout=60,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
        self.assertNotEqual(ended.returncode, 0)
        self.assertEqual(ended.stdout, "")
        self.assertIn(f"cannot listen on {listen}: ", ended.stderr)

    def test_an_address_beyond_the_loopback_prints_a_warning_and_can_be_opened(self):
        own = subprocess.run(["hostname", "-I"], stdout=subprocess.PIPE, text=True,
                             check=True).stdout.split()
        for address in ["0.0.0.0", "::"] + own[:1]:
            with self.subTest(address):
                if not listens(address):
                    self.assert_refused(f"[{address}]:0")
                    continue
                warning, opened, routes = self.run_on(
                    f"[{address}]:0" if ":" in address else f"{address}:0")

                host = re.fullmatch(r"http://\[?(.*?)]?:\d+/", opened).group(1)
                self.assertIn(host, own or ["127.0.0.1", "::1"])
                self.assertTrue(warning.startswith("simcam: warning: "), warning)
                self.assertIn("watch the pictures", warning)
                self.assertIn("  - turn the lens", warning)
                for route in routes:
                    self.assertEqual("allows" in route, route["method"] != "GET", route["path"])
                # Each of them once, and besides them the line of what can be watched and read.
                allowed = {route["allows"] for route in routes if "allows" in route}
                lines = re.findall(r"^  - (.*)", warning, re.M)
                self.assertEqual(sorted(lines[1:]), sorted(allowed))

    def test_an_address_of_the_loopback_prints_no_warning(self):
        for address in ["localhost:0", "127.0.0.2:0", "0", "[::1]:0"]:
            with self.subTest(address):
                if address == "[::1]:0" and not listens("::1"):
                    self.assert_refused(address)
                    continue
                self.assertEqual(self.run_on(address)[0], "")


class Options(unittest.TestCase):
    def test_each_is_in_the_state(self):
        with tempfile.TemporaryDirectory() as directory:
            run_directory = os.path.join(directory, "run")
            with start("--scene", "chart", "--ring", "0.25", "--sweep", "--sweep-period", "3600",
                       "--seed", "42", "--pitch-align", "64", "--rate", "60", "--noise", "0.5",
                       "--run-dir", run_directory, "--post", "0=352x240", "--post", "1=720x480",
                       "--post", "1=off", "--post", "3=1920x1080") as camera:
                state = camera.state()
                while state["latest"]["number"] == 0:
                    state = camera.state()

                self.assertEqual(state["run_directory"], run_directory)
                self.assertTrue(os.path.exists(os.path.join(run_directory, "socket")))
        self.assertEqual(posts_of(state), [(352, 240), None, None, (1920, 1080)])
        self.assertEqual((state["scene"], state["seed"], state["pitch_align"], state["rate_hz"]),
                         ("chart", 42, 64, 60))
        self.assertEqual(state["noise"], 0.5)
        self.assertEqual((state["sweep"], state["sweep_period_s"]), (True, 3600))
        seconds = state["latest"]["number"] / 60  # the way up takes half a period
        self.assertAlmostEqual(state["latest"]["ring"], 0.25 + seconds / 1800, 6)

    def test_posts_that_are_only_switched_off_leave_the_others_running(self):
        with start("--scene", "chart", "--post", "1=off", "--post", "3=off") as camera:
            self.assertEqual(posts_of(camera.state()), [(1280, 720), None, (720, 480), None])

    def test_one_post_is_the_only_one(self):
        with start("--scene", "chart", "--post", "2=off", "--post", "0=1280x720") as camera:
            self.assertEqual(posts_of(camera.state()), [(1280, 720), None, None, None])

    def test_the_ring_is_at_the_given_position(self):
        with start("--scene", "chart", "--ring", "0.75") as camera:
            self.assertEqual(camera.state()["ring"], 0.75)

    def test_without_any_it_is_the_photograph_on_four_outputs(self):
        with start() as camera:
            state = camera.state()

        self.assertEqual(posts_of(state), [(1280, 720), (1920, 1080), (720, 480), (352, 240)])
        self.assertEqual((state["scene"], state["ring"], state["seed"], state["pitch_align"],
                          state["rate_hz"], state["sweep"], state["sweep_period_s"]),
                         ("photo", 0, 1, 16, 30, False, 12))
        self.assertFalse(state["process"]["configured"])
        self.assertFalse(os.path.exists(state["run_directory"]))


def table(heading):
    """The cells of the table below a line of docs/simcam.md, without its head."""
    with open(settings.docs, encoding="utf-8") as file:
        text = file.read()
    rows = []
    for line in text[text.index(heading):].splitlines():
        if line.startswith("|"):
            rows.append([cell.strip() for cell in line.strip("|").split("|")])
        elif rows:
            break
    return rows[2:]


def wording(parameters):
    """Parameters of the query or the body as the table has them."""
    words = []
    for parameter in parameters:
        name = parameter["name"]
        if "default" in parameter:
            words.append(f"`{name}={parameter['default']}`")
        else:
            words.append(f"`{name}`" + ("" if parameter["required"] else " (optional)"))
    return ", ".join(words)


class Documentation(unittest.TestCase):
    maxDiff = None

    def test_names_every_option_with_its_default_and_ranges(self):
        text = subprocess.run([settings.simcam, "--help"], stdout=subprocess.PIPE, text=True,
                              check=True).stdout
        # An option at the start of a line, its argument, and indented lines that explain it.
        options = re.findall(r"^  (?:-h,)?(--[\w-]+(?: [A-Z]\S*)?)(.*\n(?: {10}.*\n)*)", text, re.M)
        defaults = {option: re.search(r"\(default: ([^)]+)\)", rest)
                    for option, rest in options}
        rows = table("## Command line")
        documented = {row[0].strip("`"): row[1].strip("`") for row in rows}
        texts = {row[0].strip("`"): row[2] for row in rows}

        self.assertEqual(sorted(documented), sorted(defaults))
        # "0.5 to 3600" and "1, 8, 16, 32 or 64", also where a line ends between them.
        bounds = r"[\d.]*\d to [\d.]*\d|\d+(?:, \d+)+ or \d+"
        seen = set()
        for option, rest in options:
            for found in re.findall(bounds, " ".join(rest.split())):
                seen.add(option)
                self.assertIn(found, re.findall(bounds, texts[option]), option)
        self.assertEqual(seen, {"--post N=WIDTHxHEIGHT", "--ring X", "--sweep-period SECONDS",
                                "--noise LEVELS", "--pitch-align BYTES", "--rate HZ"})
        for option, default in defaults.items():
            if default:
                self.assertEqual(documented[option], default.group(1), option)

    def test_names_every_built_in_scene(self):
        with start("--scene", "chart") as camera:
            scenes = camera.get("/api/constants")["scenes"]
        row = next(row for row in table("## Command line") if row[0] == "`--scene NAME`")

        self.assertEqual(re.findall(r"`(\w+)`", row[2]), scenes)

    def test_names_every_route_with_its_parameters(self):
        with start("--scene", "chart") as camera:
            routes = camera.get("/api")["routes"]

        documented = {row[0].strip("`"): row[2] for row in table("## HTTP")}
        there = {f"{route['method']} {route['path']}":
                 wording(p for p in route["parameters"] if "{" + p["name"] + "}" not in route["path"])
                 for route in routes}
        self.assertEqual(documented, there)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--simcam", required=True, type=os.path.abspath)
    parser.add_argument("--docs", required=True)
    settings, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
