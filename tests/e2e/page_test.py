"""The page in a real browser: simcam with focus_assist on it, turned, stopped and broken by keyboard and mouse.

Ends with status 77 where the browser, its driver or the module that speaks to it is missing.
Screenshots go to the folder named by --pictures.
"""
import argparse
import json
import os
import re
import shutil
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
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
except ImportError as reason:
    print(f"skipped: {reason} (package python3-selenium)")
    sys.exit(77)

WAIT_S = 30  # long enough for a machine that does many other things
BROWSER_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
]
settings = None


def wait_for(what, condition):
    """Calls condition until it gives something true, and returns that."""
    end = time.monotonic() + WAIT_S
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.1)
    raise AssertionError(f"did not happen in {WAIT_S} s: {what}")


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
        cls.simcam.wait(WAIT_S)
        cls.simcam.stdout.close()

    def setUp(self):
        self.request("DELETE", "/api/faults")
        self.request("POST", "/api/sweep", {"on": False})
        self.request("POST", "/api/ring", {"ring": 0.2})
        for post, size in enumerate(["1280x720", "1920x1080", "720x480", "352x240"]):
            self.request("POST", f"/api/posts/{post}/stop")  # closes planes that were left open
            self.request("POST", f"/api/posts/{post}/start", {"size": size})
        if not self.state()["process"]["running"]:
            self.request("POST", "/api/process/start")
        self.size(1280, 720)
        self.browser.get_log("browser")  # what earlier tests left
        self.browser.get(self.address)
        wait_for("a value on the page", lambda: self.text("current").isdigit())

    # ---- the camera behind the page ----

    def request(self, method, path, body=None):
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.address.rstrip("/") + path, data, method=method,
                                         headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=WAIT_S) as answer:
            return json.load(answer)

    def state(self):
        return self.request("GET", "/api/state")

    # ---- the page ----

    def find(self, identifier):
        return self.browser.find_element(By.ID, identifier)

    def text(self, identifier):
        return self.find(identifier).text

    def keys(self, *keys):
        webdriver.ActionChains(self.browser).send_keys(*keys).perform()

    def size(self, width, height):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def screenshot(self, name):
        path = os.path.join(settings.pictures, name + ".png")
        self.browser.save_screenshot(path)
        self.assertGreater(os.path.getsize(path), 20000, "a picture of something")

    def open_tab(self, name):
        self.find("tab-" + name).click()
        wait_for(f"panel {name}", self.find("panel-" + name).is_displayed)

    def canvas_spread(self, identifier):
        """How far the brightness of a canvas reaches: 0 where nothing was drawn."""
        return self.browser.execute_script("""
            const c = document.getElementById(arguments[0]);
            const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
            let low = 255, high = 0;
            for (let i = 0; i < d.length; i += 4) { low = Math.min(low, d[i]); high = Math.max(high, d[i]); }
            return high - low;""", identifier)

    # ---- the tests ----

    def test_the_ring_turns_by_keyboard_and_the_value_follows(self):
        before = int(self.text("current"))
        self.browser.execute_script("document.getElementById('ring').focus()")

        self.keys(*[Keys.PAGE_UP] * 6)  # from 0.2 to 0.5, close to the focus

        wait_for("the camera's ring at 0.5", lambda: abs(self.state()["ring"] - 0.5) < 0.0005)
        wait_for("a clearly higher value", lambda: int(self.text("current")) > before * 1.5)
        self.assertEqual(self.find("ring").get_attribute("aria-valuenow"), "0.500")
        self.keys(Keys.SHIFT, Keys.ARROW_LEFT)
        self.keys(Keys.HOME)
        wait_for("the near stop", lambda: self.state()["ring"] == 0)

    def test_the_ring_is_reached_with_the_tab_key(self):
        self.browser.execute_script("document.activeElement.blur()")
        for _ in range(40):
            self.keys(Keys.TAB)
            if self.browser.execute_script("return document.activeElement.id") == "ring":
                return
        self.fail("40 presses of the tab key do not lead to the ring")

    def test_a_drag_turns_the_ring(self):
        ring = self.find("ring")

        webdriver.ActionChains(self.browser).drag_and_drop_by_offset(ring, 120, 0).perform()

        wait_for("another ring position", lambda: self.state()["ring"] > 0.21)

    def test_the_peak_is_passed_and_the_page_says_so(self):
        self.request("POST", "/api/process/stop")
        wait_for("the end of the process", lambda: not self.state()["process"]["running"])
        wait_for("the page to know", lambda: self.text("peak") == "–")
        self.request("POST", "/api/process/start")
        wait_for("no peak yet", lambda: self.text("peak") == "---")

        self.request("POST", "/api/sweep", {"on": True, "period_s": 6})
        wait_for("a peak", lambda: self.text("peak").isdigit() and int(self.text("peak")) > 100)

        wait_for("the cue", lambda: "Peak passed" in self.text("cue"))
        self.screenshot("passed")

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

    def test_the_picture_is_live(self):
        wait_for("a picture", lambda: self.canvas_spread("picture") > 60)
        for toggle in ("toggle-planes", "toggle-peaking", "toggle-loupe"):  # the overlay has edges too
            self.find(toggle).click()
        wait_for("no sharp edge", lambda: self.canvas_spread("peaking") == 0)

        self.request("POST", "/api/ring", {"ring": 0.55})

        wait_for("sharp edges", lambda: self.canvas_spread("peaking") > 0)
        wait_for("a loupe", lambda: self.canvas_spread("loupe") > 20)
        self.screenshot("peaking-and-loupe")

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
        self.find("veil").find_element(By.TAG_NAME, "button").click()
        wait_for("the post again", lambda: self.state()["posts"][0]["running"])

    def test_a_size_is_chosen(self):
        size = self.browser.find_element(By.CSS_SELECTOR, "[aria-label='Size of post 0']")

        Select(size).select_by_value("352x288")

        wait_for("the new size", lambda: self.state()["posts"][0]["width"] == 352)
        wait_for("the picture in it", lambda: "352 × 288" in self.text("facts"))

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
        self.find("fault-clear").click()
        wait_for("no card", lambda: "None." in self.text("faults"))

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
        wait_for("a redrawn text", lambda: self.state()["posts"][0]["planes"][1]["shows"] > 2)

    def test_planes_are_seen_alone(self):
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

    def test_tabs_follow_the_arrow_keys(self):
        self.find("tab-posts").click()
        self.keys(Keys.ARROW_RIGHT)
        self.assertTrue(self.find("panel-scene").is_displayed())
        self.keys(Keys.END)
        self.assertTrue(self.find("panel-calls").is_displayed())

    def test_nothing_scrolls_sideways(self):
        for width, height in ((1280, 720), (1920, 1080), (1024, 768), (820, 1180), (400, 800)):
            self.size(width, height)
            time.sleep(0.3)
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
