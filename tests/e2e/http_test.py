#!/usr/bin/env python3
"""Tests the simulated camera with focus_assist on it over HTTP, without a browser.

    tests/e2e/http_test.py              # all tests, on the programs of build/host
    tests/e2e/http_test.py -k threshold # the tests whose name contains a word
"""
import re
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

import camera
from camera import Camera, wait_for

FRAME, TEXT, BOX, FILL, MARKER, HIGHLIGHT = 11, 16, 17, 18, 19, 20  # palette indices of the readout
BAR_PLANE, TEXT_PLANE = 0, 1


class Constants(unittest.TestCase):
    """What /api/constants says of focus_assist is what focus_assist does."""

    def setUp(self):
        self.camera = Camera(camera.settings.simcam, "--", camera.settings.overlay)
        self.addCleanup(self.camera.stop)
        self.constants = self.camera.get("/api/constants")

    def shows(self, post, plane):
        return self.camera.state()["posts"][post]["planes"][plane]["shows"]

    def wait_for_redraw(self, post=0):
        """Waits for a bar and a text that were begun after this call."""
        before = [self.shows(post, plane) for plane in (BAR_PLANE, TEXT_PLANE)]
        wait_for("two redraws", lambda: all(
            self.shows(post, plane) >= count + 2 for plane, count in zip((BAR_PLANE, TEXT_PLANE), before)))

    def test_the_marker_of_the_bar_is_at_the_threshold(self):
        self.wait_for_redraw(1)
        bar = self.camera.plane(1, BAR_PLANE)
        middle = bar[len(bar) // 2]

        first = next(x for x, index in enumerate(middle) if index != FRAME)
        width = middle.count(FILL) + middle.count(BOX) + middle.count(MARKER)
        markers = [x for x, index in enumerate(middle) if index == MARKER]

        self.assertEqual(middle[first - 1], FRAME)
        self.assertEqual(markers, list(range(markers[0], markers[-1] + 1)))
        center = (markers[0] + markers[-1] + 1) / 2 - first
        self.assertEqual(round(center / width * 100), self.constants["threshold_percent"])

    def test_the_text_is_highlighted_from_the_threshold_on(self):
        # The peak stays 0 until the overlay reads a change, so it must have read the value at the near stop.
        wait_for("the first reading", lambda: self.camera.state()["overlay"]["current"])
        self.camera.post("/api/ring", {"ring": 0.5})
        wait_for("a peak", lambda: self.camera.state()["overlay"]["peak"])
        seen = set()
        ring = 0.5
        while len(seen) < 2:
            self.camera.post("/api/ring", {"ring": ring})
            number = self.camera.state()["latest"]["number"]
            wait_for("a reading there", lambda: self.camera.state()["latest"]["number"] > number + 3)
            before = self.camera.state()["overlay"]["percent"]
            self.wait_for_redraw()
            indices = {index for line in self.camera.plane(0, TEXT_PLANE) for index in line}
            after = self.camera.state()["overlay"]["percent"]
            low, high = min(before, after) - 1, max(before, after) + 1  # the noise of the sensor moves it a little
            threshold = self.constants["threshold_percent"]
            if low >= threshold:
                self.assertIn(HIGHLIGHT, indices, f"{low} to {high} %")
                self.assertNotIn(TEXT, indices)
                seen.add("highlighted")
            elif high < threshold:
                self.assertIn(TEXT, indices, f"{low} to {high} %")
                self.assertNotIn(HIGHLIGHT, indices)
                seen.add("not highlighted")
            ring -= 0.005
            self.assertGreater(ring, 0.2, "both colors are seen on the way")

    def test_the_overlay_tolerates_the_tolerated_codes_and_reports_the_others(self):
        self.wait_for_redraw()
        codes = self.constants["codes"] + [{"code": "0x81000001", "tolerated": False}]
        self.assertEqual(len({entry["code"] for entry in codes}), len(codes))
        for entry in codes:
            with self.subTest(entry["code"]):
                self.camera.request("DELETE", "/api/faults")
                self.camera.post("/api/posts/0/stop")
                self.wait_for_redraw(1)  # by then the overlay has seen the stop
                self.camera.post("/api/faults", {"call": "qm7_cl_post_open_osd", "error": entry["code"], "remaining": "forever"})
                self.camera.post("/api/posts/0/start")
                hits = lambda: self.camera.state()["faults"][0]["hits"]
                # After a tolerated failure the bar's plane counts as open. Others are tried again at each redraw.
                wait_for("the call that fails", lambda: hits() >= (1 if entry["tolerated"] else 3))
                self.wait_for_redraw(1)
                reported = f"qm7_cl_post_open_osd() failed. errno={entry['code']}".encode()
                written = self.camera.fetch("/api/output?stream=2")
                self.assertEqual(reported in written, not entry["tolerated"], written[-300:])
                if entry["tolerated"]:
                    self.assertEqual(hits(), 1)

    def test_each_size_shows_bar_and_text(self):
        sizes = self.constants["sizes"]
        for at in range(0, len(sizes), 4):
            self.camera.end_process()  # a process keeps the first size of a post
            for post, (width, height) in enumerate(sizes[at:at + 4]):
                self.camera.post(f"/api/posts/{post}/stop")
                self.camera.post(f"/api/posts/{post}/start", {"size": f"{width}x{height}"})
            self.camera.post("/api/process/start")
            for post, size in enumerate(sizes[at:at + 4]):
                with self.subTest(size):
                    wait_for("bar and text", lambda: all(
                        plane["shown"] for plane in self.camera.state()["posts"][post]["planes"][:2]))
                    self.assertTrue(any(MARKER in line for line in self.camera.plane(post, BAR_PLANE)))
                    self.assertTrue(any(TEXT in line or HIGHLIGHT in line for line in self.camera.plane(post, TEXT_PLANE)))

    def test_the_planes_show_what_they_are_named_after(self):
        self.wait_for_redraw()
        names = self.constants["planes"]
        self.assertEqual(len(names), len(self.camera.state()["posts"][0]["planes"]))
        for number, name in enumerate(names):
            with self.subTest(number):
                if name is None:
                    self.assertFalse(self.camera.state()["posts"][0]["planes"][number]["open"])
                    continue
                used = {index for line in self.camera.plane(0, number) for index in line}
                self.assertEqual(name, "bar" if FRAME in used else "text" if used & {TEXT, HIGHLIGHT} else used)

    def assert_refused(self, method, path, body=None):
        with self.assertRaises(urllib.error.HTTPError) as refusal:
            self.camera.request(method, path, body)
        self.assertEqual(refusal.exception.code, 400)
        refusal.exception.close()

    def test_the_camera_accepts_just_the_gains_in_the_range(self):
        gain = self.constants["gain"]
        for value in (gain["least"], gain["most"]):
            self.camera.post("/api/gain", {"gain": value})
            self.assertEqual(self.camera.state()["gain"], value)
        for value in (gain["least"] * 0.999, gain["most"] * 1.001):
            self.assert_refused("POST", "/api/gain", {"gain": value})

    def test_the_camera_accepts_just_the_noise_in_the_range(self):
        noise = self.constants["noise"]
        self.assertEqual(self.camera.state()["noise"], noise["default"])
        for value in (noise["least"], noise["most"]):
            self.camera.post("/api/noise", {"noise": value})
            self.assertEqual(self.camera.state()["noise"], value)
        for value in (noise["least"] - 0.001, noise["most"] * 1.001):
            self.assert_refused("POST", "/api/noise", {"noise": value})

    def test_a_list_holds_at_most_the_kept_records(self):
        kept = self.constants["records_kept"]
        self.camera.get(f"/api/measurements?limit={kept}")
        self.assert_refused("GET", f"/api/measurements?limit={kept + 1}")

    def test_each_scene_can_be_shown(self):
        self.assertGreater(len(self.constants["scenes"]), 1)
        for name in self.constants["scenes"]:
            self.camera.post("/api/scene", {"scene": name})
            self.assertEqual(self.camera.state()["scene"], name)


class Darkness(unittest.TestCase):
    """A reading of 0, as of a capped lens, cannot end the hold of the peak; the next change can."""

    def setUp(self):
        self.camera = Camera(camera.settings.simcam, "--scene", "chart", "--noise", "0", "--ring", "0.55", "--",
                             camera.settings.overlay)
        self.addCleanup(self.camera.stop)

    def wait_for_value(self, least, most):
        wait_for(f"a value of {least} to {most}", lambda: least <= self.camera.state()["latest"]["value"] <= most)

    def filled(self):
        """Dots of the bar that are filled, in a bar that was begun after this call."""
        before = self.camera.state()["posts"][0]["planes"][BAR_PLANE]["shows"]
        wait_for("two redraws", lambda: self.camera.state()["posts"][0]["planes"][BAR_PLANE]["shows"] >= before + 2)
        return sum(line.count(FILL) for line in self.camera.plane(0, BAR_PLANE))

    def test_the_light_after_the_dark_is_no_peak_yet(self):
        self.camera.end_process()
        with tempfile.NamedTemporaryFile(suffix=".ppm") as black:
            black.write(b"P6 64 36 255\n" + bytes(64 * 36 * 3))
            black.flush()
            self.camera.post("/api/scene", {"scene": black.name})
        self.wait_for_value(0, 0)
        for action in ("stop", "start"):  # the ended process has left its planes open
            self.camera.post(f"/api/posts/0/{action}")
        self.camera.post("/api/process/start")
        wait_for("the overlay", lambda: self.camera.state()["overlay"]["running"])
        self.assertEqual(self.filled(), 0)

        self.camera.post("/api/scene", {"scene": "chart"})
        bright = wait_for("a value", lambda: self.camera.state()["latest"]["value"])
        self.assertEqual(self.filled(), 0)

        self.camera.post("/api/gain", {"gain": 0.5})
        self.wait_for_value(1, bright - 5)  # a change of 5 is the least that ends the hold
        self.assertGreater(self.filled(), 0)


class Memory(unittest.TestCase):
    """What viewers make simcam allocate stays within half of what it holds without them, and returns."""

    def setUp(self):
        self.camera = Camera(camera.settings.simcam)
        self.addCleanup(self.camera.stop)

    def resident(self, field="VmRSS"):
        with open(f"/proc/{self.camera.process.pid}/status", encoding="ascii", errors="replace") as file:
            return int(re.search(field + r":\s+(\d+) kB", file.read()).group(1))

    def watch(self, path, seconds):
        end = time.monotonic() + seconds
        with urllib.request.urlopen(self.camera.address + path, timeout=camera.WAIT_S) as stream:
            while time.monotonic() < end:
                stream.read1(65536)

    def assert_bounded(self, viewers):
        """Starts the threads and compares the highest memory with that before them."""
        wait_for("a second of pictures", lambda: self.camera.state()["latest"]["number"] > 30)
        started = self.resident()
        self.camera.fetch("/api/posts/1/frame.png")
        wait_for("the return of the picture's memory", lambda: self.resident() <= 1.1 * started,
                 lambda: f"{started} kB before, {self.resident()} kB now")
        before = self.resident()
        with open(f"/proc/{self.camera.process.pid}/clear_refs", "w", encoding="ascii") as file:
            file.write("5")  # the highest resident memory starts again

        for viewer in viewers:
            viewer.start()
        for viewer in viewers:
            viewer.join()

        self.assertLessEqual(self.resident("VmHWM"), 1.5 * before)
        wait_for("the memory's return", lambda: self.resident() <= 1.1 * before,
                 lambda: f"{before} kB before, {self.resident()} kB now")

    def test_sixteen_streams_of_their_own_kind(self):
        self.assert_bounded([
            threading.Thread(target=self.watch, args=(f"api/posts/{i % 4}/stream.mjpeg?quality={60 + i}", 5))
            for i in range(16)])

    def test_a_still_picture_for_each_connection(self):
        received = [False] * 48

        def read(i):
            try:
                received[i] = bool(self.camera.fetch(f"/api/posts/1/frame.png?width={480 - i}"))
            except ConnectionError:  # an earlier connection is not closed yet, and 48 are the limit
                pass
            return received[i]

        self.assert_bounded([threading.Thread(target=wait_for, args=("a picture", lambda i=i: read(i)))
                             for i in range(len(received))])
        self.assertTrue(all(received), received)


if __name__ == "__main__":
    camera.main()
