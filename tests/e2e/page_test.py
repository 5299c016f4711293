"""The page in a real browser: simcam with focus_assist on it, turned, stopped and broken by keyboard and mouse.

Ends with status 77 where the browser, its driver or the module that speaks to it is missing.
Screenshots go to the folder named by --pictures.
"""
import argparse
import json
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

try:
    from selenium import webdriver
    from selenium.common.exceptions import WebDriverException
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.actions.wheel_input import ScrollOrigin
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
except ImportError as reason:
    print(f"skipped: {reason} (package python3-selenium)")
    sys.exit(77)

WAIT_S = 60  # long enough for a machine that does many other things
BROWSER_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
]
settings = None
describe = str  # what there is to be seen, for whoever reads of a failure


def wait_for(what, condition):
    """Calls condition until it gives something true, and returns that."""
    end = time.monotonic() + WAIT_S
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.1)
    raise AssertionError(f"did not happen in {WAIT_S} s: {what}; {describe()}")


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        os.makedirs(settings.pictures, exist_ok=True)
        cls.simcam = subprocess.Popen(
            [settings.simcam, "--listen", "127.0.0.1:0", "--ring", "0.2", "--", settings.overlay],
            stdout=subprocess.PIPE, text=True, cwd=tempfile.gettempdir())
        cls.addClassCleanup(cls.end_simcam)
        line = cls.simcam.stdout.readline()
        cls.address = re.search(r"http://\S+/", line).group(0)

        cls.profile = tempfile.mkdtemp(prefix="page-test-")
        cls.addClassCleanup(shutil.rmtree, cls.profile, ignore_errors=True)
        options = Options()
        options.binary_location = settings.browser
        for flag in BROWSER_FLAGS + [f"--user-data-dir={cls.profile}"]:
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(service=Service(settings.driver), options=options)
        cls.addClassCleanup(cls.browser.quit)

    @classmethod
    def end_simcam(cls):
        cls.simcam.terminate()
        status = cls.simcam.wait(WAIT_S)
        cls.simcam.stdout.close()
        assert status == 0, f"simcam ended with status {status}"

    def describe(self):
        state = self.state()
        return {**{name: self.text(name) for name in ("current", "peak", "cue", "notice", "ring-value")},
                **{name: state[name] for name in ("ring", "sweep", "latest", "process")}}

    def setUp(self):
        global describe
        describe = self.describe
        self.request("DELETE", "/api/faults")
        self.request("POST", "/api/sweep", {"on": False})
        self.request("POST", "/api/gain", {"gain": 1})
        self.request("POST", "/api/ring", {"ring": 0.2})
        for post, size in enumerate(["1280x720", "1920x1080", "720x480", "352x240"]):
            self.request("POST", f"/api/posts/{post}/stop")  # closes planes that were left open
            self.request("POST", f"/api/posts/{post}/start", {"size": size})
        if not self.state()["process"]["running"]:
            self.request("POST", "/api/process/start")
        self.size(1280, 720)
        self.browser.get_log("browser")  # what earlier tests left
        self.browser.get(self.address)
        number = self.state()["latest"]["number"] + 2  # those under way were made of what was before
        wait_for("the present on the page", lambda: int(self.find("current").get_attribute("data-number") or 0) >= number)

    # ---- the camera behind the page ----

    def request(self, method, path, body=None):
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.address.rstrip("/") + path, data, method=method,
                                         headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=WAIT_S) as answer:
            return json.load(answer)

    def fetch(self, address):
        with urllib.request.urlopen(address, timeout=WAIT_S) as answer:
            self.assertEqual(answer.status, 200, address)
            return answer.read()

    def state(self):
        return self.request("GET", "/api/state")

    def end_process(self):
        self.request("POST", "/api/process/stop")
        wait_for("the end of the process", lambda: not self.state()["process"]["running"])

    # ---- the page ----

    def find(self, identifier):
        return self.browser.find_element(By.ID, identifier)

    def text(self, identifier):
        return self.find(identifier).text

    def keys(self, *keys):
        webdriver.ActionChains(self.browser).send_keys(*keys).perform()

    def size(self, width, height, scale=1):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": scale, "mobile": False})

    def screenshot(self, name):
        path = os.path.join(settings.pictures, name + ".png")
        self.browser.save_screenshot(path)
        self.assertGreater(os.path.getsize(path), 20000, "a picture of something")

    def open_tab(self, name):
        self.find("tab-" + name).click()
        wait_for(f"panel {name}", self.find("panel-" + name).is_displayed)

    def wheel(self, identifier, down):
        origin = ScrollOrigin.from_element(self.find(identifier))
        webdriver.ActionChains(self.browser).scroll_from_origin(origin, 0, down).perform()

    def canvas_spread(self, identifier):
        """How far the brightness of a canvas reaches: 0 where nothing was drawn."""
        return self.browser.execute_script("""
            const c = document.getElementById(arguments[0]);
            const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
            let low = 255, high = 0;
            for (let i = 0; i < d.length; i += 4) { low = Math.min(low, d[i]); high = Math.max(high, d[i]); }
            return high - low;""", identifier)

    def columns_drawn(self, identifier, legend):
        """How many columns of a plot have a dot in the color that the page's legend gives a line."""
        return self.browser.execute_script("""
            const c = document.getElementById(arguments[0]);
            const line = getComputedStyle(document.querySelector('.legend .' + arguments[1])).borderTopColor;
            const color = line.match(/\\d+/g).map(Number);
            const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
            const columns = new Set();
            for (let i = 0; i < d.length; i += 4)
                if (d[i + 3] > 60 && color.every((level, k) => Math.abs(level - d[i + k]) < 16)) columns.add(i / 4 % c.width);
            return columns.size;""", identifier, legend)

    # ---- the tests ----

    def test_the_ring_turns_by_keyboard_and_the_value_follows(self):
        before = int(self.text("current"))
        self.browser.execute_script("document.getElementById('ring').focus()")

        for hundredths in range(25, 51, 5):  # from 0.2 to 0.5, close to the focus
            self.keys(Keys.PAGE_UP)
            wait_for(f"the camera's ring at {hundredths}", lambda: abs(self.state()["ring"] - hundredths / 100) < 0.0005
                     and self.find("ring").get_attribute("aria-valuenow") == f"{hundredths / 100:.3f}")
        wait_for("a clearly higher value", lambda: int(self.text("current")) > before * 1.5)
        self.assertEqual(self.find("ring").get_attribute("aria-valuenow"), "0.500")
        self.keys(Keys.HOME)
        wait_for("the near stop", lambda: self.state()["ring"] == 0)
        self.keys(Keys.END)
        wait_for("the far stop", lambda: self.state()["ring"] == 1)

    def test_the_ring_turns_by_arrow_keys_and_wheel(self):
        def turned_to(ring):
            wait_for(f"the camera's ring at {ring}", lambda: abs(self.state()["ring"] - ring) < 0.0002)
            self.assertEqual(self.find("ring").get_attribute("aria-valuenow"), f"{ring:.3f}")
            self.assertEqual(self.text("ring-value"), f"{ring:.3f}")

        self.browser.execute_script("document.getElementById('ring').focus()")
        self.keys(Keys.ARROW_RIGHT, Keys.ARROW_UP)
        turned_to(0.22)
        self.keys(Keys.ARROW_LEFT)
        turned_to(0.21)
        webdriver.ActionChains(self.browser).key_down(Keys.SHIFT).send_keys(Keys.ARROW_LEFT).key_up(Keys.SHIFT).perform()
        turned_to(0.209)
        self.wheel("ring", -100)
        wait_for("a wheel's notch further", lambda: self.state()["ring"] > 0.2091)
        self.wheel("ring", 100)
        turned_to(0.209)
        self.browser.execute_script("""  // with Shift, away from the hand: a browser reports it along the other axis
            document.getElementById('ring').dispatchEvent(new WheelEvent('wheel', {deltaX: -100, shiftKey: true, cancelable: true}));""")
        turned_to(0.21)

    def test_the_ring_stays_where_the_hand_put_it_until_it_is_measured_there(self):
        slow = subprocess.Popen([settings.simcam, "--listen", "127.0.0.1:0", "--ring", "0.2", "--rate", "1"],
                                stdout=subprocess.PIPE, text=True, cwd=tempfile.gettempdir())
        self.addCleanup(slow.stdout.close)
        self.addCleanup(slow.wait, WAIT_S)
        self.addCleanup(slow.terminate)
        address = re.search(r"http://\S+/", slow.stdout.readline()).group(0)
        latest = lambda: json.loads(self.fetch(address + "api/state"))["latest"]
        shown = lambda: self.find("ring").get_attribute("aria-valuenow")
        self.browser.get(address)
        wait_for("a value on the page", lambda: self.text("current").isdigit())
        self.browser.execute_script("document.getElementById('ring').focus()")
        number = latest()["number"]
        wait_for("a measurement just made", lambda: latest()["number"] > number)

        self.keys(Keys.PAGE_UP)

        positions = {shown()}
        while latest()["ring"] == 0.2:
            positions.add(shown())
        self.assertEqual(positions, {"0.250"})
        wait_for("the new position in numbers", lambda: self.text("ring-value") == "0.250")
        urllib.request.urlopen(urllib.request.Request(  # another hand
            address + "api/ring", b'{"ring": 0.7}', headers={"Content-Type": "application/json"})).close()
        wait_for("its position", lambda: shown() == "0.700")

    def test_all_that_is_played_with_is_reached_with_the_tab_key(self):
        wanted = {"toggle-planes", "toggle-peaking", "toggle-loupe", "snapshot", "tone", "ring", "sweep",
                  "sweep-period", "curve-clear", "tab-posts"}
        self.browser.execute_script("document.activeElement.blur()")
        for _ in range(60):
            self.keys(Keys.TAB)
            wanted.discard(self.browser.execute_script("return document.activeElement.id"))
            if not wanted:
                return
        self.fail(f"60 presses of the tab key do not lead to {wanted}")

    def test_the_lens_sweeps_at_the_press_of_a_button(self):
        sweep = self.find("sweep")
        Select(self.find("sweep-period")).select_by_value("6")

        sweep.click()

        wait_for("a lens that turns", lambda: self.state()["sweep"] and self.state()["ring"] > 0.25)
        wait_for("a pressed button", lambda: sweep.get_attribute("aria-pressed") == "true")
        wait_for("the page's ring to turn with it", lambda: float(self.text("ring-value")) > 0.25)
        self.request("POST", "/api/sweep", {"on": True, "period_s": 17})
        wait_for("the camera's period", lambda: self.find("sweep-period").get_property("value") == "17")
        sweep.click()
        wait_for("a lens that rests", lambda: not self.state()["sweep"])
        wait_for("a button that is not pressed", lambda: sweep.get_attribute("aria-pressed") == "false")

    def test_the_plots_are_drawn(self):
        self.find("curve-clear").click()
        wait_for("an empty curve", lambda: self.columns_drawn("plot-curve", "c-current") < 15)

        self.request("POST", "/api/sweep", {"on": True, "period_s": 6})

        for line in ("c-current", "c-peak", "c-line"):
            wait_for(f"{line} over time", lambda: self.columns_drawn("plot-time", line) > 30)
            if line == "c-current":
                wait_for("values over the ring", lambda: self.columns_drawn("plot-curve", line) > 100)
        self.screenshot("plots")
        self.find("curve-clear").click()
        wait_for("a new curve", lambda: self.columns_drawn("plot-curve", "c-current") < 60)

    def test_downloads_are_to_be_had(self):
        for view, size in (("3", (352, 240)), ("0", (1280, 720))):
            self.browser.find_element(By.CSS_SELECTOR, f"[data-view='{view}']").click()
            address = wait_for("a target", lambda: self.find("snapshot").get_attribute("href"))
            picture = self.fetch(address)
            self.assertEqual(picture[:8], b"\x89PNG\r\n\x1a\n")
            self.assertEqual(struct.unpack(">II", picture[16:24]), size)
        table = self.fetch(self.browser.find_element(By.LINK_TEXT, "Values as CSV").get_attribute("href"))
        self.assertIn(b"value", table.splitlines()[0].split(b","))
        self.assertGreater(len(table.splitlines()), 2)
        self.open_tab("planes")
        raw = wait_for("a shown plane", lambda: self.find("plane-raw").get_attribute("href"))
        plane = self.request("GET", "/api/posts/0/planes/0")
        self.assertEqual((plane["width"], plane["height"]), (480, 72))
        self.assertEqual(len(self.fetch(raw)), plane["pitch"] * 72)
        self.assertEqual(self.fetch(self.find("plane-png").get_attribute("href"))[1:4], b"PNG")
        self.open_tab("process")
        self.fetch(self.find("panel-process").find_element(By.LINK_TEXT, "Raw").get_attribute("href"))

    def test_a_drag_turns_the_ring(self):
        ring = self.find("ring")

        webdriver.ActionChains(self.browser).drag_and_drop_by_offset(ring, 120, 0).perform()

        wait_for("another ring position", lambda: self.state()["ring"] > 0.21)

    def test_the_peak_is_passed_and_the_page_says_so(self):
        self.end_process()
        wait_for("the page to know", lambda: self.text("peak") == "–")
        self.request("POST", "/api/process/start")
        # None, or one of the blurred picture's noise.
        wait_for("no peak to speak of", lambda: self.text("peak") == "---"
                 or self.text("peak").isdigit() and int(self.text("peak")) < 100)

        self.request("POST", "/api/sweep", {"on": True, "period_s": 6})
        wait_for("a peak", lambda: self.text("peak").isdigit() and int(self.text("peak")) > 100)

        wait_for("the cue", lambda: "Peak passed" in self.text("cue"))
        self.screenshot("passed")

    def hold_measurements_back(self):
        """Opens the page anew; from then on window.held, where it is a list, gets what the page would get."""
        script = self.browser.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": """
            window.EventSource = class extends EventSource {
                addEventListener(kind, act) {
                    super.addEventListener(kind, kind !== 'measurement' ? act
                        : (event) => { if (window.held) window.held.push(() => act(event)); else act(event); });
                }
            };"""})
        self.addCleanup(self.browser.execute_cdp_cmd, "Page.removeScriptToEvaluateOnNewDocument", script)
        self.browser.get(self.address)
        wait_for("a value on the page", lambda: self.text("current").isdigit())

    def restart_process(self):
        self.end_process()
        wait_for("the page to know", lambda: self.text("peak") == "–")
        self.request("POST", "/api/process/start")
        wait_for("the page to know its beginning", lambda: "estimate" in self.text("peak-note"))

    def test_what_was_measured_before_the_process_is_no_peak_of_it(self):
        self.hold_measurements_back()
        self.browser.execute_script("window.held = []")
        self.request("POST", "/api/ring", {"ring": 0.55})
        wait_for("a sharp picture", lambda: self.state()["latest"]["value"] > 200)
        self.request("POST", "/api/ring", {"ring": 0.2})
        wait_for("a blurred one", lambda: self.state()["latest"]["value"] < 100)
        wait_for("the sharp one on its way", lambda: self.browser.execute_script("return window.held.length") > 1)

        self.restart_process()
        self.browser.execute_script("const held = window.held; window.held = null; held.forEach((act) => act());")

        self.request("POST", "/api/ring", {"ring": 0.35})  # drawn after all that came before
        wait_for("the value there", lambda: 45 < int(self.text("current")) < 100)
        self.assertIn(self.text("peak"), {"---", *map(str, range(100))})
        self.assertIn("estimate", self.text("peak-note"))

    def test_a_page_that_missed_something_says_so(self):
        self.hold_measurements_back()
        self.restart_process()
        wait_for("a blurred picture", lambda: self.state()["latest"]["ring"] == 0.2)
        self.request("POST", "/api/ring", {"ring": 0.5})
        wait_for("a peak", lambda: self.text("peak").isdigit() and int(self.text("peak")) > 100)
        wait_for("all of it", lambda: self.text("percent")[:1].isdigit())

        self.browser.execute_script("window.held = []")
        self.request("POST", "/api/ring", {"ring": 0.55})
        wait_for("measurements that are lost", lambda: self.browser.execute_script("return window.held.length") > 1)
        self.browser.execute_script("window.held = null")

        wait_for("a peak of at least so much", lambda: self.text("peak").startswith("≥ "))
        self.assertTrue(self.text("percent").startswith("≤ "), self.text("percent"))
        self.assertIn("at least", self.text("peak-note"))
        self.assertNotIn("At the peak", self.text("cue"))

    def test_the_estimate_follows_the_overlays_rule(self):
        def peaks(*values):
            return self.browser.execute_async_script("""
                const [values, done] = arguments;
                import('/focus.js').then(({peakNew, peakStep}) => {
                  const peak = peakNew();
                  done(values.map((value) => peakStep(peak, {value, ring: 0, time_s: 0}).value));
                });""", list(values))

        self.assertEqual(peaks(50, 53, 56), [0, 0, 0], "changes of 3 do not begin a peak")
        self.assertEqual(peaks(50, 54, 58, 54), [0, 0, 0, 0], "nor do changes of 4")
        self.assertEqual(peaks(56, 62, 40, 62, 63), [0, 62, 62, 62, 63])
        self.assertEqual(peaks(50, 45, 44, 51), [0, 45, 45, 51], "a fall of 5 begins one too")
        self.assertEqual(peaks(0, 300, 302), [0, 0, 0], "a first value after 0 is no change")
        self.assertEqual(peaks(9, 0, 300, 294), [0, 0, 300, 300], "from 9 to 0 is one")

    def test_the_pitch_is_that_of_the_value_alone(self):
        pitches = self.browser.execute_async_script("""
            const done = arguments[0];
            import('/focus.js').then(({pitchOf}) => done([...Array(1001).keys()].map(pitchOf)));""")

        for value in range(1000):
            self.assertLess(pitches[value], pitches[value + 1], f"after {value}")
        self.assertGreater(pitches[300], pitches[30] * 1.5, "an audible way from blurred to sharp")

    def test_the_tone_follows_the_value_where_nothing_is_drawn(self):
        self.browser.execute_script("""
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
        hertz = lambda: self.browser.execute_script("return window.heard")
        self.find("tone").click()
        blurred = wait_for("a tone", hertz)

        self.request("POST", "/api/ring", {"ring": 0.55})

        wait_for("a clearly higher one", lambda: hertz() > blurred * 1.2)
        self.request("POST", "/api/ring", {"ring": 0.2})
        wait_for("the lower one again", lambda: hertz() < blurred * 1.1)

    def test_the_picture_is_live(self):
        wait_for("a picture", lambda: self.canvas_spread("picture") > 60)
        for toggle in ("toggle-planes", "toggle-peaking", "toggle-loupe"):  # the overlay has edges too
            self.find(toggle).click()
        wait_for("no sharp edge", lambda: self.canvas_spread("peaking") == 0)

        self.request("POST", "/api/ring", {"ring": 0.55})

        wait_for("sharp edges", lambda: self.canvas_spread("peaking") > 0)
        wait_for("a loupe", lambda: self.canvas_spread("loupe") > 20)
        self.screenshot("peaking-and-loupe")

    def test_the_loupe_shows_a_picture_dot_as_a_dot_of_the_screen(self):
        self.find("toggle-loupe").click()
        for scale in (1, 1.25, 2):
            self.size(1280, 720, scale)
            wait_for("the unscaled picture", lambda: (
                self.find("picture").get_property("width") == 1280 and self.canvas_spread("loupe") > 20))
            wait_for(f"a loupe of whole dots at {scale}", lambda: self.browser.execute_script("""
                const loupe = document.getElementById('loupe');
                const box = loupe.getBoundingClientRect();
                const whole = (length) => Math.abs(length * devicePixelRatio - Math.round(length * devicePixelRatio)) < 0.02;
                return devicePixelRatio === arguments[0] && whole(box.left) && whole(box.top) &&
                    loupe.clientWidth === loupe.offsetWidth &&  // no border that its dots would have to make room for
                    Math.abs(box.width * devicePixelRatio - loupe.width) < 0.02 && loupe.width === loupe.height;
                """, scale))
            # At 30 % and 40 % of 1280 x 720; beside the cross in the middle.
            differing = self.browser.execute_script("""
                const loupe = document.getElementById('loupe');
                const middle = Math.floor(loupe.width / 2);
                const dots = (canvas, x, y) => canvas.getContext('2d').getImageData(x, y, 60, 20).data;
                const seen = dots(loupe, middle - 100, middle + 20);
                const there = dots(document.getElementById('picture'), 384 - 100, 288 + 20);
                return seen.filter((level, i) => level !== there[i]).length;""")
            self.assertEqual(differing, 0, f"at {scale}")
            self.screenshot(f"loupe-{scale}")

    def test_all_four_posts_are_seen_and_chosen(self):
        self.browser.find_element(By.CSS_SELECTOR, "[data-view=all]").click()
        tile = wait_for("tiles", lambda: [
            t for t in self.browser.find_elements(By.CSS_SELECTOR, "#tiles button")
            if "1920" in t.text])[0]
        self.screenshot("all-four")

        tile.click()

        wait_for("post 1", lambda: "1920 × 1080" in self.text("facts"))

    def test_a_post_that_is_stopped_says_so(self):
        switch = self.browser.find_element(By.CSS_SELECTOR, "[role=switch][aria-label='Post 0']")
        wait_for("on", lambda: switch.get_attribute("aria-checked") == "true")

        switch.click()

        wait_for("words on the picture", lambda: "Post 0 is off." in self.text("veil"))
        self.assertFalse(self.state()["posts"][0]["running"])
        self.screenshot("post-off")
        self.assertIsNone(self.find("snapshot").get_attribute("href"), "a snapshot that would be refused")
        self.open_tab("planes")
        wait_for("words about the plane", lambda: "not open" in self.text("plane-empty"))
        for link in ("plane-raw", "plane-png"):
            self.assertIsNone(self.find(link).get_attribute("href"), link)
        self.find("veil").find_element(By.TAG_NAME, "button").click()
        wait_for("the post again", lambda: self.state()["posts"][0]["running"])

    def test_a_size_is_chosen(self):
        self.addCleanup(self.end_process)  # a process keeps to the size in which it first met a post
        size = self.browser.find_element(By.CSS_SELECTOR, "[aria-label='Size of post 0']")

        Select(size).select_by_value("352x288")

        wait_for("the new size", lambda: self.state()["posts"][0]["width"] == 352)
        wait_for("the picture in it", lambda: "352 × 288" in self.text("facts"))

    def test_a_size_of_its_own_is_typed(self):
        self.addCleanup(self.end_process)  # as above
        Select(self.browser.find_element(By.CSS_SELECTOR, "[aria-label='Size of post 2']")).select_by_value("own")
        own = self.browser.find_element(By.CSS_SELECTOR, "[aria-label^='Another size of post 2']")

        own.send_keys("642x402", Keys.ENTER)

        wait_for("the post in it", lambda: [self.state()["posts"][2][k] for k in ("running", "width", "height")]
                 == [True, 642, 402])
        wait_for("the form to go", lambda: not own.is_displayed())
        self.browser.find_element(By.CSS_SELECTOR, "[data-view='2']").click()
        wait_for("the picture in it", lambda: "642 × 402" in self.text("facts"))

    def test_the_process_is_stopped_and_started_by_its_buttons(self):
        pid = self.state()["process"]["pid"]
        self.open_tab("process")
        self.assertIn("stopping it and starting it again is the only way to reset it", self.text("panel-process"))

        self.find("process-stop").click()

        wait_for("its end", lambda: not self.state()["process"]["running"])
        self.assertNotIn("signal 9", self.state()["process"]["last_end"])
        wait_for("the notice", lambda: "not running" in self.text("notice"))
        self.assertFalse(self.find("process-stop").is_enabled())
        self.find("process-start").click()
        wait_for("another one", lambda: self.state()["process"]["pid"] not in (0, pid))

    def test_a_fault_is_set_met_and_read_in_the_log(self):
        self.open_tab("faults")
        Select(self.find("fault-call")).select_by_value("qm7_cl_post_set_osd")
        Select(self.find("fault-error")).select_by_value("0x81000001")
        Select(self.find("fault-count")).select_by_value("forever")
        self.find("fault-form").find_element(By.CSS_SELECTOR, "[type=submit]").click()

        wait_for("the fault's card", lambda: "qm7_cl_post_set_osd" in self.text("faults"))
        self.screenshot("fault")
        self.open_tab("process")
        wait_for("the overlay's words about it",
                 lambda: "qm7_cl_post_set_osd() failed. errno=0x81000001" in self.text("log"))
        self.screenshot("log")
        self.open_tab("faults")
        self.request("POST", "/api/faults", {"call": "CAM_FOCUS_CONFIG", "error": 5})
        wait_for("when it is met", lambda: "met when the process starts" in self.text("faults"))
        self.find("fault-clear").click()
        wait_for("no card", lambda: "None." in self.text("faults"))

    def test_a_fault_without_error_or_delay_is_none(self):
        self.open_tab("faults")
        Select(self.find("fault-error")).select_by_value("0")
        submit = self.find("fault-form").find_element(By.CSS_SELECTOR, "[type=submit]")

        submit.click()

        wait_for("words about it", lambda: self.text("toast") == "A fault without an error needs a delay.")
        self.assertEqual(self.state()["faults"], [])
        Select(self.find("fault-delay")).select_by_value("50")
        submit.click()
        wait_for("a slow call", lambda: [f["delay_ms"] for f in self.state()["faults"]] == [50])

    def test_a_fault_of_its_own_code_is_slow_and_cleared(self):
        self.request("POST", "/api/faults", {"call": "qm7_cl_post_close_osd", "error": 7})
        self.open_tab("faults")
        Select(self.find("fault-call")).select_by_value("qm7_cl_post_open_osd")
        Select(self.find("fault-error")).select_by_value("own")
        self.find("fault-code").clear()
        self.find("fault-code").send_keys("0x81E0ABCD")
        Select(self.find("fault-delay")).select_by_value("250")

        self.find("fault-form").find_element(By.CSS_SELECTOR, "[type=submit]").click()

        faults = lambda: {f["call"]: f for f in self.state()["faults"]}
        wait_for("the fault", lambda: "qm7_cl_post_open_osd" in faults())
        fault = faults()["qm7_cl_post_open_osd"]
        self.assertEqual((fault["error"].lower(), fault["delay_ms"]), ("0x81e0abcd", 250))
        clear = wait_for("its card", lambda: self.browser.find_elements(
            By.CSS_SELECTOR, "[aria-label='Clear the fault of qm7_cl_post_open_osd']"))[0]
        clear.click()
        wait_for("only the other one", lambda: list(faults()) == ["qm7_cl_post_close_osd"])
        wait_for("its card to go", lambda: "open_osd" not in self.text("faults"))
        self.assertIn("close_osd", self.text("faults"))

    def test_a_killed_process_is_reported_and_started_again(self):
        pid = self.state()["process"]["pid"]
        self.open_tab("process")
        wait_for("a drawn text", lambda: self.state()["posts"][0]["planes"][1]["shows"] > 0)

        self.find("process-kill").click()

        wait_for("the notice", lambda: "not running" in self.text("notice"))
        wait_for("the chip", lambda: "not running" in self.text("chip-process"))
        self.screenshot("killed")
        self.find("process-start").click()
        wait_for("another process", lambda: self.state()["process"]["pid"] not in (0, pid))
        # The planes are open still, which keeps the new process from drawing.
        wait_for("a text that stands still", lambda: "stood still" in self.text("notice"))
        self.screenshot("planes-left-open")
        self.find("notice").find_element(By.TAG_NAME, "button").click()
        wait_for("the notice to go", lambda: not self.find("notice").is_displayed())
        wait_for("texts redrawn on all outputs", lambda: all(post["planes"][1]["shows"] > 2 for post in self.state()["posts"]))

    def test_a_process_without_a_session_is_reported_and_started_again(self):
        self.end_process()
        self.request("POST", "/api/faults", {"call": "qm7_cl_post_set_notify", "error": "0x81000001"})
        self.request("POST", "/api/process/start")
        chip = self.find("chip-process")

        wait_for("the notice", lambda: "without a session" in self.text("notice"))

        self.assertIn("Start it again.", self.text("notice"))
        self.assertIn("bad", chip.get_attribute("class").split())
        self.assertNotIn("starting", chip.text)
        process = self.state()["process"]
        self.assertEqual((process["running"], process["attached"]), (True, False))
        wait_for("no peak any more", lambda: self.text("peak") == "–")
        self.open_tab("process")
        self.screenshot("no-session")
        self.find("notice").find_element(By.TAG_NAME, "button").click()
        wait_for("another process with a session", lambda: (
            self.state()["process"]["attached"] and self.state()["process"]["pid"] != process["pid"]))
        wait_for("the chip", lambda: "good" in chip.get_attribute("class").split())
        wait_for("another notice or none", lambda: "session" not in self.text("notice"))

    def test_planes_are_seen_alone(self):
        self.request("POST", "/api/ring", {"ring": 0.55})  # a peak that the value is far below afterwards
        wait_for("a high value", lambda: int(self.text("current")) > 200)
        self.request("POST", "/api/ring", {"ring": 0.2})
        self.open_tab("planes")
        wait_for("the bar", lambda: self.canvas_spread("plane") > 0)
        indices = lambda: self.text("plane-used").split()
        wait_for("frame, box and marker", lambda: {"11", "17", "19"} <= set(indices()))

        Select(self.find("plane-number")).select_by_value("1")

        wait_for("text on its box", lambda: {"0", "16", "17"} == set(indices()))
        self.screenshot("planes")

    def test_calls_are_listed(self):
        self.open_tab("calls")
        wait_for("calls", lambda: "post_set_osd" in self.text("calls"))

    def test_scene_and_light_change(self):
        self.open_tab("scene")
        self.browser.find_element(By.CSS_SELECTOR, "[data-scene=chart]").click()
        wait_for("the chart", lambda: self.state()["scene"] == "chart")
        self.screenshot("chart")
        self.find("scene-path").send_keys("no/such/file.jpg", Keys.ENTER)
        wait_for("a refusal", lambda: "no/such/file.jpg" in self.text("toast"))
        self.browser.find_element(By.CSS_SELECTOR, "[data-scene=photo]").click()
        wait_for("the photograph", lambda: self.state()["scene"] == "photo")
        self.browser.get_log("browser")  # the refusal is an error there too

    def test_gain_and_flash_change_the_value(self):
        before = int(self.text("current"))
        self.open_tab("scene")
        self.browser.execute_script("document.getElementById('gain').focus()")
        self.keys(*[Keys.ARROW_RIGHT] * 4)  # quarters of a stop
        wait_for("twice the gain", lambda: self.state()["gain"] == 2)
        wait_for("its number on the page", lambda: self.text("gain-value") == "2.00×")
        wait_for("a clearly higher value", lambda: int(self.text("current")) > before * 1.5)
        self.find("gain-reset").click()
        wait_for("the gain as it was", lambda: self.state()["gain"] == 1 and self.text("gain-value") == "1.00×")
        wait_for("the value as it was", lambda: int(self.text("current")) < before * 1.2)

        after = self.state()["latest"]["number"]
        self.find("flash").click()

        def values():
            return [m["value"] for m in self.request("GET", f"/api/measurements?after={after}")["measurements"]]
        wait_for("one picture that is far brighter", lambda: max(values(), default=0) > before * 1.5)
        wait_for("dark again", lambda: values()[-1] < before * 1.2)

    def test_tabs_follow_the_arrow_keys(self):
        self.find("tab-posts").click()
        self.keys(Keys.ARROW_RIGHT)
        self.assertTrue(self.find("panel-scene").is_displayed())
        self.keys(Keys.END)
        self.assertTrue(self.find("panel-calls").is_displayed())

    def test_nothing_scrolls_sideways(self):
        for width, height in ((1280, 720), (1920, 1080), (1024, 768), (820, 1180), (400, 800)):
            self.size(width, height)
            wait_for("the size", lambda: self.browser.execute_script("return innerWidth") == width)
            for tab in ("posts", "scene", "process", "faults", "planes", "calls"):
                self.open_tab(tab)
                wide = self.browser.execute_script(
                    "return document.documentElement.scrollWidth - innerWidth")
                self.assertLessEqual(wide, 0, f"{tab} at {width}x{height}")
            self.find("tab-posts").click()
            self.browser.execute_script("scrollTo(0, 0)")
            self.screenshot(f"page-{width}x{height}")

    def test_everything_that_can_be_used_has_a_name(self):
        nameless = self.browser.execute_script("""
            return [...document.querySelectorAll('button, a, select, input, canvas[tabindex]')].filter((e) =>
                !(e.textContent.trim() || e.getAttribute('aria-label') || e.labels?.length || e.title)
            ).map((e) => e.outerHTML)""")
        self.assertEqual(nameless, [name for name in nameless if "hidden" in name])

    def tearDown(self):
        errors = [entry for entry in self.browser.get_log("browser") if entry["level"] == "SEVERE"]
        self.assertEqual(errors, [], "errors on the browser's console")
        written = self.fetch(self.address + "api/output?stream=2")
        for complaint in (b"Sanitizer: ", b"runtime error: "):
            self.assertNotIn(complaint, written, "what the process wrote")


def main():
    parser = argparse.ArgumentParser()
    for name in ("simcam", "overlay", "browser", "driver", "pictures"):
        parser.add_argument("--" + name, required=True)
    global settings
    settings, rest = parser.parse_known_args()
    for what, path in (("chromium", settings.browser), ("chromium-driver", settings.driver)):
        if not os.access(path, os.X_OK):
            print(f"skipped: {what} is not installed ({path})")
            sys.exit(77)
    unittest.main(argv=[sys.argv[0], "-v"] + rest)


if __name__ == "__main__":
    main()
