#!/usr/bin/python3
"""Tests the page in a real browser: the simulated camera with focus_assist on it, used by keyboard and mouse.

    tests/e2e/page_test.py              # all tests, on the programs of build/host
    tests/e2e/page_test.py Layout       # one class
    tests/e2e/page_test.py -k loupe     # the tests whose name contains a word

Exits with status 77 if the browser, its driver or the Python module for it is missing. Screenshots go to --pictures.
"""
import argparse
import os
import shutil
import signal
import struct
import sys
import tempfile
import unittest

import camera
from camera import Camera

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.actions.wheel_input import ScrollOrigin
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
except ImportError as reason:
    print(f"skipped: {reason} (package python3-selenium)")
    sys.exit(77)

BROWSER_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage",
]
RING = 0.2  # start of every test: a blurred picture
BEST_RING = 0.55  # a nearly sharp picture
TABS = ("posts", "scene", "process", "faults", "planes", "calls")


class Page(unittest.TestCase):
    """One camera and one browser for all tests; each test starts with the page freshly loaded."""

    camera = None
    browser = None

    def setUp(self):
        camera_ = self.camera
        self.browser.get("about:blank")  # the page of the last test makes no further requests
        camera_.request("DELETE", "/api/faults")
        camera_.post("/api/sweep", {"on": False})
        camera_.post("/api/gain", {"gain": 1})
        camera_.post("/api/noise", {"noise": 2})
        camera_.post("/api/ring", {"ring": RING})
        for post, size in enumerate(["1280x720", "1920x1080", "720x480", "352x240"]):
            camera_.post(f"/api/posts/{post}/stop")  # closes planes that were left open
            camera_.post(f"/api/posts/{post}/start", {"size": size})
        if not camera_.state()["process"]["running"]:
            camera_.post("/api/process/start")
        self.size(1280, 720)
        self.browser.get_log("browser")  # drops the messages of earlier tests
        self.browser.get(camera_.address)
        number = camera_.state()["latest"]["number"] + 2  # older ones may have been exposed before the changes above
        self.wait_for("a measurement made after the reset", lambda: self.number() >= number)

    def tearDown(self):
        errors = [entry for entry in self.browser.get_log("browser") if entry["level"] == "SEVERE"]
        self.assertEqual(errors, [], "errors on the browser's console")
        written = self.camera.fetch("api/output?stream=2")
        for complaint in (b"Sanitizer: ", b"runtime error: "):
            self.assertNotIn(complaint, written, "what the process wrote")

    def describe(self):
        """What the page and the camera showed, for the message of a failure."""
        state = self.camera.state()
        return {**{name: self.text(name) for name in ("current", "peak", "cue", "notice", "ring-value")},
                **{name: state[name] for name in ("ring", "sweep", "latest", "overlay", "process")}}

    def wait_for(self, what, condition):
        return camera.wait_for(what, condition, self.describe)

    def find(self, identifier):
        return self.browser.find_element(By.ID, identifier)

    def one(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def text(self, identifier):
        return self.find(identifier).text

    def value(self):
        """The current value on the page."""
        return int(self.text("current"))

    def value_at(self, ring):
        """The value that the camera measures after it turned the ring there."""
        def measured():
            latest = self.camera.state()["latest"]
            return latest if latest["ring"] == ring else None
        self.camera.post("/api/ring", {"ring": ring})
        return self.wait_for(f"a measurement at {ring}", measured)["value"]

    def number(self):
        """The number of the measurement on the page; 0 before the first."""
        return int(self.find("current").get_attribute("data-number") or 0)

    def keys(self, *keys):
        webdriver.ActionChains(self.browser).send_keys(*keys).perform()

    def script(self, text, *arguments):
        return self.browser.execute_script(text, *arguments)

    def focus(self, identifier):
        self.script("document.getElementById(arguments[0]).focus()", identifier)

    def size(self, width, height, scale=1):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": scale, "mobile": False})

    def screenshot(self, name):
        path = os.path.join(camera.settings.pictures, name + ".png")
        self.browser.save_screenshot(path)
        self.assertGreater(os.path.getsize(path), 20000, "a screenshot that is not blank")

    def open_tab(self, name):
        self.find("tab-" + name).click()
        self.wait_for(f"panel {name}", self.find("panel-" + name).is_displayed)

    def wheel(self, identifier, down):
        origin = ScrollOrigin.from_element(self.find(identifier))
        webdriver.ActionChains(self.browser).scroll_from_origin(origin, 0, down).perform()

    def canvas_spread(self, identifier):
        """The difference between the darkest and the brightest dot of a canvas: 0 if nothing was drawn."""
        return self.script("""
            const c = document.getElementById(arguments[0]);
            const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
            let low = 255, high = 0;
            for (let i = 0; i < d.length; i += 4) { low = Math.min(low, d[i]); high = Math.max(high, d[i]); }
            return high - low;""", identifier)

    def columns_drawn(self, identifier, legend):
        """The number of columns of a plot with a dot in the color that the legend gives a line."""
        return self.script("""
            const c = document.getElementById(arguments[0]);
            const line = getComputedStyle(document.querySelector('.legend .' + arguments[1])).borderTopColor;
            const color = line.match(/\\d+/g).map(Number);
            const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
            const columns = new Set();
            for (let i = 0; i < d.length; i += 4)
                if (d[i + 3] > 60 && color.every((level, k) => Math.abs(level - d[i + k]) < 16)) columns.add(i / 4 % c.width);
            return columns.size;""", identifier, legend)

    def merge_reports(self):
        """Starts and stops a post until the camera merges reports, because the overlay process does not read them."""
        pid = self.camera.state()["process"]["pid"]
        before = self.camera.state()["merged_reports"]
        os.kill(pid, signal.SIGSTOP)
        try:
            while self.camera.state()["merged_reports"] == before:
                self.camera.post("/api/posts/3/stop")
                self.camera.post("/api/posts/3/start")
        finally:
            os.kill(pid, signal.SIGCONT)

    def overlay_draws(self):
        """Waits until the overlay has drawn bar and text on each post."""
        self.wait_for("bar and text on each post", lambda: all(
            plane["shown"] for post in self.camera.state()["posts"] for plane in post["planes"][:2]))


class Layout(Page):
    """The page at the sizes that it is made for: nothing is cut off, covered or out of reach."""

    SIZES = ((1280, 657), (1366, 657), (1280, 720), (1024, 768), (820, 1180), (390, 844))

    def findings(self, width, height, tabs):
        """What layout.js finds at a size, with each of the panels open."""
        with open(os.path.join(camera.HERE, "layout.js"), encoding="utf-8") as file:
            search = file.read()
        self.size(width, height)
        self.browser.execute_async_script("requestAnimationFrame(() => requestAnimationFrame(arguments[0]))")
        self.assertEqual(self.script("return [innerWidth, innerHeight]"), [width, height])
        return [f"{width}x{height}, {finding}" for finding in self.script(search, tabs)]

    def check(self, name, tabs=TABS, show=lambda: None, pictures=(SIZES[0], SIZES[-1])):
        """Searches the page at each size. show is called each time, for what does not stay in view."""
        found = []
        for width, height in self.SIZES:
            show()
            found += self.findings(width, height, tabs)
            if (width, height) in pictures:
                self.screenshot(f"{name}-{width}x{height}")
        self.assertEqual("\n".join(found), "")

    def fill_panels(self):
        """Opens each panel once: some ask for their content only then."""
        self.script("arguments[0].forEach((tab) => document.getElementById(`tab-${tab}`).click())", TABS)
        self.wait_for("calls", lambda: "post_set_osd" in self.text("calls"))

    def test_all_is_in_reach(self):
        self.camera.post("/api/sweep", {"on": True, "period_s": 6})
        self.camera.post("/api/faults", {"call": "qm7_cl_post_close_osd", "error": 7, "remaining": "forever", "delay_ms": 250})
        self.wait_for("its card", lambda: self.browser.find_elements(By.CSS_SELECTOR, ".card"))
        self.wait_for("the longest cue", lambda: "turn back to the" in self.text("cue"))
        self.overlay_draws()
        self.wait_for("a picture", lambda: self.canvas_spread("picture") > 60)
        self.wait_for("values over time", lambda: self.columns_drawn("plot-time", "c-current") > 30)
        self.fill_panels()

        self.check("page", pictures=self.SIZES)

    def test_all_is_in_reach_while_a_notice_is_shown(self):
        self.fill_panels()
        self.camera.end_process()
        self.one("[data-view=all]").click()
        self.wait_for("the notice", lambda: "not running" in self.text("notice"))
        self.wait_for("the tiles", lambda: "1920" in self.text("tiles"))

        self.check("notice")

    def test_all_is_in_reach_with_merged_reports_and_another_size_for_each_post(self):
        self.merge_reports()
        self.wait_for("the count", lambda: "were merged" in self.text("merged"))
        for post in range(4):
            Select(self.one(f"[aria-label='Size of post {post}']")).select_by_value("own")
        self.assertEqual(sum(form.is_displayed() for form in self.browser.find_elements(By.CSS_SELECTOR, ".own")), 4)

        self.check("posts", ["posts"])

    def test_all_is_in_reach_while_a_post_is_off(self):
        self.find("toggle-loupe").click()
        self.camera.post("/api/posts/0/stop")
        self.wait_for("the veil", lambda: "Post 0 is off." in self.text("veil"))

        self.check("off", ["posts"])

    def test_all_is_in_reach_while_a_refusal_is_shown(self):
        path = "/no/such/" + "picture" * 25
        self.fill_panels()

        def refuse():
            self.script("import('/requests.js').then(({send}) => send('POST', '/api/scene', {scene: arguments[0]}))", path)
            self.wait_for("a refusal", lambda: path in self.text("toast"))

        try:
            self.check("refusal", show=refuse)
        finally:
            self.browser.get_log("browser")  # the refusals are errors there too

    def test_all_is_in_reach_while_the_camera_does_not_answer(self):
        with Camera(camera.settings.simcam, "--ring", str(RING), "--", camera.settings.overlay) as other:
            self.browser.get(other.address)
            self.wait_for("a value", self.number)
        self.wait_for("the veil", lambda: "does not answer" in self.text("veil"))

        try:
            self.check("no-answer", ["posts"])
        finally:
            self.browser.get("about:blank")  # makes no further attempts to connect
            self.browser.get_log("browser")  # each failed attempt is an error there

    def test_the_layout_check_finds_what_is_wrong(self):
        for style, finding in ((".readout { height: 60px !important; overflow: hidden !important; }", "is cut off by section#readout"),
                               (".figure.peak { margin-top: -40px; }", "overlap"),
                               ("#ring { position: relative; top: 300px; }", "#ring is not on the first screen"),
                               (".lens { position: relative; z-index: 9; margin-top: -60px; }", "is covered by"),
                               ("#cue { position: fixed; top: 640px; }", "is not in view"),
                               ("#cue { position: fixed; top: 300px; right: 40px; background: red; }", "overlap")):
            with self.subTest(style):
                self.script("const sheet = document.styleSheets[0]; sheet.insertRule(arguments[0], sheet.cssRules.length)", style)
                self.assertIn(finding, "; ".join(self.findings(1280, 657, ["posts"])))
                self.script("const sheet = document.styleSheets[0]; sheet.deleteRule(sheet.cssRules.length - 1)")


class Ring(Page):
    """The lens ring, the sweep and the plots."""

    def test_the_ring_turns_by_keyboard_and_the_value_follows(self):
        before = self.value()
        self.focus("ring")

        for hundredths in range(25, 51, 5):  # from 0.2 to 0.5, close to the focus
            self.keys(Keys.PAGE_UP)
            self.wait_for(f"the camera's ring at {hundredths}", lambda: abs(self.camera.state()["ring"] - hundredths / 100) < 0.0005
                     and self.find("ring").get_attribute("aria-valuenow") == f"{hundredths / 100:.3f}")
        self.wait_for("a clearly higher value", lambda: self.value() > before * 1.5)
        self.assertEqual(self.find("ring").get_attribute("aria-valuenow"), "0.500")
        self.keys(Keys.HOME)
        self.wait_for("the near stop", lambda: self.camera.state()["ring"] == 0)
        self.keys(Keys.END)
        self.wait_for("the far stop", lambda: self.camera.state()["ring"] == 1)

    def test_the_ring_turns_by_arrow_keys_and_wheel(self):
        def turned_to(ring):
            self.wait_for(f"the camera's ring at {ring}", lambda: abs(self.camera.state()["ring"] - ring) < 0.0002)
            self.wait_for("the page's ring there", lambda: self.find("ring").get_attribute("aria-valuenow") == f"{ring:.3f}")
            self.wait_for("its number", lambda: self.text("ring-value") == f"{ring:.3f}")

        self.focus("ring")
        self.keys(Keys.ARROW_RIGHT, Keys.ARROW_UP)
        turned_to(0.22)
        self.keys(Keys.ARROW_LEFT)
        turned_to(0.21)
        webdriver.ActionChains(self.browser).key_down(Keys.SHIFT).send_keys(Keys.ARROW_LEFT).key_up(Keys.SHIFT).perform()
        turned_to(0.209)
        self.wheel("ring", -100)
        self.wait_for("a wheel's notch further", lambda: self.camera.state()["ring"] > 0.2091)
        self.wheel("ring", 100)
        turned_to(0.209)
        self.script("""  // with Shift, away from the hand: a browser reports it along the other axis
            document.getElementById('ring').dispatchEvent(new WheelEvent('wheel', {deltaX: -100, shiftKey: true, cancelable: true}));""")
        turned_to(0.21)

    def test_the_ring_stays_where_the_hand_put_it_until_the_camera_measures_there(self):
        slow = Camera(camera.settings.simcam, "--ring", "0.2", "--rate", "1")
        self.addCleanup(slow.stop)
        self.addCleanup(self.browser.get, "about:blank")  # before the camera ends: the page would try again
        latest = lambda: slow.state()["latest"]
        shown = lambda: self.find("ring").get_attribute("aria-valuenow")
        self.browser.get(slow.address)
        self.wait_for("a value on the page", lambda: self.text("current").isdigit())
        self.focus("ring")
        number = latest()["number"]
        self.wait_for("a measurement just made", lambda: latest()["number"] > number)

        self.keys(Keys.PAGE_UP)

        positions = {shown()}
        while latest()["ring"] == 0.2:
            positions.add(shown())
        self.assertEqual(positions, {"0.250"})
        self.wait_for("the new position in numbers", lambda: self.text("ring-value") == "0.250")
        slow.post("/api/ring", {"ring": 0.7})  # another hand
        self.wait_for("its position", lambda: shown() == "0.700")

    def test_dragging_turns_the_ring(self):
        ring = self.find("ring")

        webdriver.ActionChains(self.browser).drag_and_drop_by_offset(ring, 120, 0).perform()

        self.wait_for("another ring position", lambda: self.camera.state()["ring"] > 0.21)

    def test_a_button_starts_and_stops_the_sweep(self):
        sweep = self.find("sweep")
        Select(self.find("sweep-period")).select_by_value("6")

        sweep.click()

        self.wait_for("a lens that turns", lambda: self.camera.state()["sweep"] and self.camera.state()["ring"] > 0.25)
        self.wait_for("a pressed button", lambda: sweep.get_attribute("aria-pressed") == "true")
        self.wait_for("the page's ring to turn with it", lambda: float(self.text("ring-value")) > 0.25)
        self.camera.post("/api/sweep", {"on": True, "period_s": 17})
        self.wait_for("the camera's period", lambda: self.find("sweep-period").get_property("value") == "17")
        sweep.click()
        self.wait_for("a lens that rests", lambda: not self.camera.state()["sweep"])
        self.wait_for("a button that is not pressed", lambda: sweep.get_attribute("aria-pressed") == "false")

    def test_the_plots_are_drawn(self):
        self.find("curve-clear").click()
        self.wait_for("an empty curve", lambda: self.columns_drawn("plot-curve", "c-current") < 15)

        self.camera.post("/api/sweep", {"on": True, "period_s": 6})

        for line in ("c-current", "c-peak", "c-line"):
            self.wait_for(f"{line} over time", lambda: self.columns_drawn("plot-time", line) > 30)
            if line == "c-current":
                self.wait_for("values over the ring", lambda: self.columns_drawn("plot-curve", line) > 100)
        self.screenshot("plots")
        self.find("curve-clear").click()
        self.wait_for("a new curve", lambda: self.columns_drawn("plot-curve", "c-current") < 60)


class Readout(Page):
    """The figures, the cue and the tone."""

    def restart_process(self):
        self.camera.end_process()
        self.wait_for("the page to know", lambda: self.text("peak") == "–")
        self.camera.post("/api/process/start")
        self.wait_for("the new process", lambda: self.text("peak") != "–")

    def overlay_peak(self):
        return self.camera.state()["overlay"]["peak"]

    def test_the_peak_is_that_of_the_overlay(self):
        sharp = self.value_at(BEST_RING)
        self.assertGreater(sharp, 2 * self.value_at(RING))

        self.restart_process()  # it has not seen the sharp picture
        self.camera.post("/api/ring", {"ring": 0.4})
        self.wait_for("a peak", self.overlay_peak)
        self.value_at(RING)

        peak = self.overlay_peak()
        self.assertLess(peak, sharp)
        self.wait_for("it on the page", lambda: self.text("peak") == str(peak))
        self.browser.get(self.camera.address)
        self.wait_for("it on a page opened later", lambda: self.text("peak") == str(peak))
        percent = lambda: self.value() * 100 // peak
        self.wait_for("the percentage", lambda: self.text("percent") == f"{percent()} %")

    def test_the_cue_tells_where_the_peak_is(self):
        self.restart_process()
        self.camera.post("/api/sweep", {"on": True, "period_s": 6})
        self.wait_for("the cue", lambda: "Peak passed" in self.text("cue"))
        self.screenshot("passed")

    def test_the_cue_is_announced_at_most_every_two_seconds(self):
        self.script("""
            window.announced = [];
            new MutationObserver(() => window.announced.push([performance.now(), document.getElementById('cue-announced').textContent]))
                .observe(document.getElementById('cue-announced'), {childList: true, characterData: true, subtree: true});""")
        self.camera.post("/api/sweep", {"on": True, "period_s": 1})

        announced = self.wait_for("three announcements", lambda: (
            lambda list_: len(list_) >= 3 and list_)(self.script("return window.announced")))

        for (before, _), (after, text) in zip(announced, announced[1:]):
            self.assertGreaterEqual(after - before, 1990, announced)
            self.assertTrue(text)

    def test_only_cue_message_and_log_are_live_regions(self):
        live = self.script("""
            return [...document.querySelectorAll('output, [role=status], [role=alert], [role=log], [role=timer], [aria-live]')]
                .filter((e) => e.getAttribute('aria-live') !== 'off').map((e) => e.id);""")
        self.assertEqual(sorted(live), ["cue-announced", "toast"])

    def test_the_tone_follows_the_value_although_nothing_is_drawn(self):
        self.script("""
            const make = AudioContext.prototype.createOscillator;
            AudioContext.prototype.createOscillator = function () {
                const made = make.call(this);
                const turn = made.frequency.setTargetAtTime;
                made.frequency.setTargetAtTime = function (hertz, ...rest) {
                    window.heard = hertz;
                    return turn.call(this, hertz, ...rest);
                };
                return made;
            };
            window.requestAnimationFrame = () => 0;  // as in a page in the background""")
        hertz = lambda: self.script("return window.heard")
        self.find("tone").click()
        blurred = self.wait_for("a tone", hertz)

        self.camera.post("/api/ring", {"ring": 0.55})

        self.wait_for("a clearly higher one", lambda: hertz() > blurred * 1.2)
        self.camera.post("/api/ring", {"ring": 0.2})
        self.wait_for("the lower one again", lambda: hertz() < blurred * 1.1)


class Picture(Page):
    """The live picture, peaking and the loupe."""

    def test_the_picture_is_live(self):
        self.wait_for("a picture", lambda: self.canvas_spread("picture") > 60)
        self.overlay_draws()
        for toggle in ("toggle-peaking", "toggle-loupe"):
            self.find(toggle).click()
        # The edges of bar and text are the sharpest of the picture.
        self.wait_for("no edge on a blurred picture", lambda: self.canvas_spread("peaking") == 0)

        self.camera.post("/api/ring", {"ring": 0.55})

        self.wait_for("sharp edges", lambda: self.canvas_spread("peaking") > 0)
        self.wait_for("a loupe", lambda: self.canvas_spread("loupe") > 20)
        self.screenshot("peaking-and-loupe")

    def test_the_loupe_shows_a_picture_dot_as_a_dot_of_the_screen(self):
        self.find("toggle-loupe").click()
        for scale in (1, 1.25, 2):
            self.size(1280, 720, scale)
            self.wait_for("the unscaled picture", lambda: (
                self.find("picture").get_property("width") == 1280 and self.canvas_spread("loupe") > 20))
            self.wait_for(f"a loupe of whole dots at {scale}", lambda: self.script("""
                const loupe = document.getElementById('loupe');
                const box = loupe.getBoundingClientRect();
                const whole = (length) => Math.abs(length * devicePixelRatio - Math.round(length * devicePixelRatio)) < 0.02;
                return devicePixelRatio === arguments[0] && whole(box.left) && whole(box.top) &&
                    loupe.clientWidth === loupe.offsetWidth &&  // no border that its dots would have to make room for
                    Math.abs(box.width * devicePixelRatio - loupe.width) < 0.02 && loupe.width === loupe.height;
                """, scale))
            # At 30 % and 40 % of 1280 x 720; beside the cross in the middle.
            differing = self.script("""
                const loupe = document.getElementById('loupe');
                const middle = Math.floor(loupe.width / 2);
                const dots = (canvas, x, y) => canvas.getContext('2d').getImageData(x, y, 60, 20).data;
                const seen = dots(loupe, middle - 100, middle + 20);
                const there = dots(document.getElementById('picture'), 384 - 100, 288 + 20);
                return seen.filter((level, i) => level !== there[i]).length;""")
            self.assertEqual(differing, 0, f"at {scale}")
            self.screenshot(f"loupe-{scale}")

    def test_all_four_posts_are_seen_and_chosen(self):
        self.one("[data-view=all]").click()
        tile = self.wait_for("tiles", lambda: [
            t for t in self.browser.find_elements(By.CSS_SELECTOR, "#tiles button")
            if "1920" in t.text])[0]
        self.screenshot("all-four")

        tile.click()

        self.wait_for("post 1", lambda: "1920 × 1080" in self.text("facts"))

    def download(self, address):
        self.assertTrue(address.startswith(self.camera.address), address)
        return self.camera.fetch(address[len(self.camera.address):])

    def test_downloads(self):
        for view, size in (("3", (352, 240)), ("0", (1280, 720))):
            self.one(f"[data-view='{view}']").click()
            picture = self.download(self.wait_for("a target", lambda: self.find("snapshot").get_attribute("href")))
            self.assertEqual(picture[:8], b"\x89PNG\r\n\x1a\n")
            self.assertEqual(struct.unpack(">II", picture[16:24]), size)
        table = self.download(self.browser.find_element(By.LINK_TEXT, "Values as CSV").get_attribute("href"))
        self.assertIn(b"value", table.splitlines()[0].split(b","))
        self.assertGreater(len(table.splitlines()), 2)
        self.open_tab("planes")
        raw = self.wait_for("a shown plane", lambda: self.find("plane-raw").get_attribute("href"))
        plane = self.camera.get("/api/posts/0/planes/0")
        self.assertEqual((plane["width"], plane["height"]), (480, 72))
        self.assertEqual(len(self.download(raw)), plane["pitch"] * 72)
        self.assertEqual(self.download(self.find("plane-png").get_attribute("href"))[1:4], b"PNG")
        self.open_tab("process")
        self.download(self.find("panel-process").find_element(By.LINK_TEXT, "Raw").get_attribute("href"))


class Posts(Page):
    """Posts and their planes."""

    def test_a_stopped_post_is_covered(self):
        switch = self.one("[role=switch][aria-label='Post 0']")
        self.wait_for("on", lambda: switch.get_attribute("aria-checked") == "true")

        switch.click()

        self.wait_for("words on the picture", lambda: "Post 0 is off." in self.text("veil"))
        self.assertFalse(self.camera.state()["posts"][0]["running"])
        self.screenshot("post-off")
        self.assertIsNone(self.find("snapshot").get_attribute("href"), "a snapshot that would be refused")
        self.open_tab("planes")
        self.wait_for("words about the plane", lambda: "not open" in self.text("plane-empty"))
        for link in ("plane-raw", "plane-png"):
            self.assertIsNone(self.find(link).get_attribute("href"), link)
        self.find("veil").find_element(By.TAG_NAME, "button").click()
        self.wait_for("the post again", lambda: self.camera.state()["posts"][0]["running"])

    def test_merged_reports_are_counted(self):
        self.assertEqual(self.find("merged").is_displayed(), self.camera.state()["merged_reports"] > 0)

        self.merge_reports()

        self.wait_for("the count", lambda: "reports of starts and stops were merged" in self.text("merged"))
        self.wait_for("the readout", lambda: self.camera.state()["posts"][3]["planes"][1]["shown"])

    def test_a_size_is_chosen(self):
        self.addCleanup(self.camera.end_process)  # a process keeps the first size of a post
        size = self.one("[aria-label='Size of post 0']")

        Select(size).select_by_value("352x288")

        self.wait_for("the new size", lambda: self.camera.state()["posts"][0]["width"] == 352)
        self.wait_for("the picture in it", lambda: "352 × 288" in self.text("facts"))

    def test_another_size_is_typed(self):
        self.addCleanup(self.camera.end_process)  # as above
        Select(self.one("[aria-label='Size of post 2']")).select_by_value("own")
        own = self.one("[aria-label^='Another size of post 2']")

        own.send_keys("642x402", Keys.ENTER)

        self.wait_for("the post in it", lambda: [self.camera.state()["posts"][2][k] for k in ("running", "width", "height")]
                 == [True, 642, 402])
        self.wait_for("the form to go", lambda: not own.is_displayed())
        self.one("[data-view='2']").click()
        self.wait_for("the picture in it", lambda: "642 × 402" in self.text("facts"))

    def test_a_plane_is_shown_alone(self):
        blurred = self.value()
        self.camera.post("/api/ring", {"ring": BEST_RING})  # the peak stays far above the value afterwards
        self.wait_for("a high value", lambda: self.value() > 2 * blurred)
        self.camera.post("/api/ring", {"ring": RING})
        self.open_tab("planes")
        self.wait_for("the bar", lambda: self.canvas_spread("plane") > 0)
        indices = lambda: self.text("plane-used").split()
        self.wait_for("frame, box and marker", lambda: {"11", "17", "19"} <= set(indices()))

        Select(self.find("plane-number")).select_by_value("1")

        self.wait_for("text on its box", lambda: {"0", "16", "17"} == set(indices()))
        self.screenshot("planes")


class Scene(Page):
    """Scene and light."""

    def test_scene_and_light_change(self):
        self.open_tab("scene")
        self.one("[data-scene=chart]").click()
        self.wait_for("the chart", lambda: self.camera.state()["scene"] == "chart")
        self.screenshot("chart")
        self.find("scene-path").send_keys("no/such/file.jpg", Keys.ENTER)
        self.wait_for("a refusal", lambda: "no/such/file.jpg" in self.text("toast"))
        self.one("[data-scene=photo]").click()
        self.wait_for("the photograph", lambda: self.camera.state()["scene"] == "photo")
        self.browser.get_log("browser")  # the refusal is an error there too

    def test_noise_can_be_removed(self):
        self.open_tab("scene")
        self.focus("noise")
        self.keys(*[Keys.ARROW_LEFT] * 4)  # halves of a level
        self.wait_for("no noise", lambda: self.camera.state()["noise"] == 0)
        self.wait_for("the word on the page", lambda: self.text("noise-value") == "none")
        self.keys(*[Keys.ARROW_RIGHT] * 4)
        self.wait_for("the noise as it was", lambda: self.camera.state()["noise"] == 2)

    def test_gain_and_flash_change_the_value(self):
        before = self.value()
        self.open_tab("scene")
        self.focus("gain")
        self.keys(*[Keys.ARROW_RIGHT] * 4)  # quarters of a stop
        self.wait_for("twice the gain", lambda: self.camera.state()["gain"] == 2)
        self.wait_for("its number on the page", lambda: self.text("gain-value") == "2.00×")
        self.wait_for("a clearly higher value", lambda: self.value() > before * 1.5)
        self.find("gain-reset").click()
        self.wait_for("the gain as it was", lambda: self.camera.state()["gain"] == 1 and self.text("gain-value") == "1.00×")
        self.wait_for("the value as it was", lambda: self.value() < before * 1.2)

        after = self.camera.state()["latest"]["number"]
        self.find("flash").click()

        def values():
            return [m["value"] for m in self.camera.get(f"/api/measurements?after={after}")["measurements"]]
        self.wait_for("one picture that is far brighter", lambda: max(values(), default=0) > before * 1.5)
        self.wait_for("dark again", lambda: values()[-1] < before * 1.2)


class Process(Page):
    """The overlay process, its calls and the faults."""

    def test_the_process_is_stopped_and_started_by_its_buttons(self):
        pid = self.camera.state()["process"]["pid"]
        self.open_tab("process")
        self.assertIn("restart the process to reset it", self.text("panel-process"))

        self.find("process-stop").click()

        self.wait_for("its end", lambda: not self.camera.state()["process"]["running"])
        self.assertNotIn("signal 9", self.camera.state()["process"]["last_end"])
        self.wait_for("the notice", lambda: "not running" in self.text("notice"))
        self.assertFalse(self.find("process-stop").is_enabled())
        self.find("process-start").click()
        self.wait_for("another one", lambda: self.camera.state()["process"]["pid"] not in (0, pid))

    def test_a_killed_process_is_reported_and_started_again(self):
        pid = self.camera.state()["process"]["pid"]
        self.open_tab("process")
        self.wait_for("a drawn text", lambda: self.camera.state()["posts"][0]["planes"][1]["shows"] > 0)

        self.find("process-kill").click()

        self.wait_for("the notice", lambda: "not running" in self.text("notice"))
        self.wait_for("the chip", lambda: "not running" in self.text("chip-process"))
        self.screenshot("killed")
        self.find("process-start").click()
        self.wait_for("another process", lambda: self.camera.state()["process"]["pid"] not in (0, pid))
        # The planes are open still, which keeps the new process from drawing.
        self.wait_for("a text that stands still", lambda: "has not changed" in self.text("notice"))
        self.screenshot("planes-left-open")
        self.find("notice").find_element(By.TAG_NAME, "button").click()
        self.wait_for("the notice to go", lambda: not self.find("notice").is_displayed())
        self.wait_for("texts redrawn on all outputs", lambda: all(post["planes"][1]["shows"] > 2 for post in self.camera.state()["posts"]))

    def test_a_process_without_a_session_is_reported_and_started_again(self):
        self.camera.end_process()
        self.camera.post("/api/faults", {"call": "qm7_cl_post_set_notify", "error": "0x81000001"})
        self.camera.post("/api/process/start")
        chip = self.find("chip-process")

        self.wait_for("the notice", lambda: "no session" in self.text("notice"))

        self.assertIn("Start it again.", self.text("notice"))
        self.assertIn("bad", chip.get_attribute("class").split())
        self.assertNotIn("starting", chip.text)
        process = self.camera.state()["process"]
        self.assertEqual((process["running"], process["attached"]), (True, False))
        self.wait_for("no peak any more", lambda: self.text("peak") == "–")
        self.open_tab("process")
        self.screenshot("no-session")
        self.find("notice").find_element(By.TAG_NAME, "button").click()
        self.wait_for("another process with a session", lambda: (
            self.camera.state()["process"]["attached"] and self.camera.state()["process"]["pid"] != process["pid"]))
        self.wait_for("the chip", lambda: "good" in chip.get_attribute("class").split())
        self.wait_for("another notice or none", lambda: "session" not in self.text("notice"))

    def test_calls_are_listed(self):
        self.open_tab("calls")
        self.wait_for("calls", lambda: "post_set_osd" in self.text("calls"))


class Faults(Page):
    """Faults."""

    def test_a_fault_is_set_hit_and_read_in_the_log(self):
        self.open_tab("faults")
        Select(self.find("fault-call")).select_by_value("qm7_cl_post_set_osd")
        Select(self.find("fault-error")).select_by_value("0x81000001")
        Select(self.find("fault-count")).select_by_value("forever")
        self.find("fault-form").find_element(By.CSS_SELECTOR, "[type=submit]").click()

        self.wait_for("the fault's card", lambda: "qm7_cl_post_set_osd" in self.text("faults"))
        self.screenshot("fault")
        self.open_tab("process")
        self.wait_for("the overlay's words about it",
                 lambda: "qm7_cl_post_set_osd() failed. errno=0x81000001" in self.text("log"))
        self.screenshot("log")
        self.open_tab("faults")
        self.camera.post("/api/faults", {"call": "CAM_FOCUS_CONFIG", "error": 5})
        self.wait_for("when it is used", lambda: "used when the process starts" in self.text("faults"))
        self.find("fault-clear").click()
        self.wait_for("no card", lambda: "None." in self.text("faults"))

    def test_a_fault_needs_an_error_or_a_delay(self):
        self.open_tab("faults")
        Select(self.find("fault-error")).select_by_value("0")
        submit = self.find("fault-form").find_element(By.CSS_SELECTOR, "[type=submit]")

        submit.click()

        self.wait_for("words about it", lambda: self.text("toast") == "A fault without an error needs a delay.")
        self.assertEqual(self.camera.state()["faults"], [])
        Select(self.find("fault-delay")).select_by_value("50")
        submit.click()
        self.wait_for("a slow call", lambda: [f["delay_ms"] for f in self.camera.state()["faults"]] == [50])

    def test_a_fault_with_a_typed_code_and_a_delay_is_set_and_cleared(self):
        self.camera.post("/api/faults", {"call": "qm7_cl_post_close_osd", "error": 7})
        self.open_tab("faults")
        Select(self.find("fault-call")).select_by_value("qm7_cl_post_open_osd")
        Select(self.find("fault-error")).select_by_value("own")
        self.find("fault-code").clear()
        self.find("fault-code").send_keys("0x81E0ABCD")
        Select(self.find("fault-delay")).select_by_value("250")

        self.find("fault-form").find_element(By.CSS_SELECTOR, "[type=submit]").click()

        faults = lambda: {f["call"]: f for f in self.camera.state()["faults"]}
        self.wait_for("the fault", lambda: "qm7_cl_post_open_osd" in faults())
        fault = faults()["qm7_cl_post_open_osd"]
        self.assertEqual((fault["error"].lower(), fault["delay_ms"]), ("0x81e0abcd", 250))
        clear = self.wait_for("its card", lambda: self.browser.find_elements(
            By.CSS_SELECTOR, "[aria-label='Clear the fault of qm7_cl_post_open_osd']"))[0]
        clear.click()
        self.wait_for("only the other one", lambda: list(faults()) == ["qm7_cl_post_close_osd"])
        self.wait_for("its card to go", lambda: "open_osd" not in self.text("faults"))
        self.assertIn("close_osd", self.text("faults"))


class Keyboard(Page):
    """What keyboard and screen readers get."""

    def test_the_tab_key_reaches_every_control(self):
        wanted = {"toggle-planes", "toggle-peaking", "toggle-loupe", "snapshot", "tone", "ring", "sweep",
                  "sweep-period", "curve-clear", "tab-posts"}
        self.script("document.activeElement.blur()")
        for _ in range(60):
            self.keys(Keys.TAB)
            wanted.discard(self.script("return document.activeElement.id"))
            if not wanted:
                return
        self.fail(f"60 presses of the tab key do not lead to {wanted}")

    def test_tabs_follow_the_arrow_keys(self):
        self.find("tab-posts").click()
        self.keys(Keys.ARROW_RIGHT)
        self.assertTrue(self.find("panel-scene").is_displayed())
        self.keys(Keys.END)
        self.assertTrue(self.find("panel-calls").is_displayed())

    def test_every_control_has_a_name(self):
        nameless = self.script("""
            return [...document.querySelectorAll('button, a, select, input, canvas[tabindex]')].filter((e) =>
                !(e.textContent.trim() || e.getAttribute('aria-label') || e.labels?.length || e.title)
            ).map((e) => e.outerHTML)""")
        self.assertEqual(nameless, [name for name in nameless if "hidden" in name])


def setUpModule():
    os.makedirs(camera.settings.pictures, exist_ok=True)
    Page.camera = Camera(camera.settings.simcam, "--ring", str(RING), "--", camera.settings.overlay)
    unittest.addModuleCleanup(Page.camera.stop)
    profile = tempfile.mkdtemp(prefix="page-test-")
    unittest.addModuleCleanup(shutil.rmtree, profile, ignore_errors=True)
    options = Options()
    options.binary_location = camera.settings.browser
    for flag in BROWSER_FLAGS + [f"--user-data-dir={profile}"]:
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    Page.browser = webdriver.Chrome(service=Service(camera.settings.driver), options=options)
    unittest.addModuleCleanup(Page.browser.quit)


if __name__ == "__main__":
    arguments = argparse.ArgumentParser(add_help=False)
    arguments.add_argument("--browser", default=shutil.which("chromium") or "")
    arguments.add_argument("--driver", default=shutil.which("chromedriver") or "")
    arguments.add_argument("--pictures", default=os.path.join(camera.BUILD, "tests", "e2e", "page"))
    known = arguments.parse_known_args()[0]
    for package, path in (("chromium", known.browser), ("chromium-driver", known.driver)):
        if not os.access(path, os.X_OK):
            print(f"skipped: no program {path!r} (package {package})")
            sys.exit(77)
    camera.main(arguments)
