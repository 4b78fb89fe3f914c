#!/usr/bin/python3
"""The page end to end in headless Chromium, against `loopstore demo
--keep-serving`: every track's lane shows what was recorded, a click plays
stored video, a click on an older range plays from that moment, Live plays the
newest video a few seconds behind the wall clock. Prints the measured live
delay and the path of a screenshot.

Usage: page_browser_test.py LOOPSTORE SCREENSHOT
Needs Debian's chromium and chromium-driver (scripts/install-deps.sh).
"""
import os
import re
import subprocess
import sys
import tempfile
import threading
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By

CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                  "--no-first-run", "--disable-background-networking",
                  "--disable-component-update", "--disable-sync", "--window-size=1280,900",
                  "--autoplay-policy=no-user-gesture-required"]


class Failure(Exception):
    pass


def wait_for(what, probe, timeout=30.0):
    """Polls `probe` until it returns a true value; fails naming `what`."""
    deadline = time.monotonic() + timeout
    last = None
    while time.monotonic() < deadline:
        last = probe()
        if last:
            return last
        time.sleep(0.2)
    raise Failure(f"timed out after {timeout:.0f} s waiting for {what} (last: {last!r})")


def start_demo(loopstore):
    """Starts the demo; returns the process and the page's address once it serves."""
    env = dict(os.environ, LOOPSTORE_LOG_LEVEL="ERROR")
    demo = subprocess.Popen([loopstore, "demo", "--keep-serving", "--http", "127.0.0.1:0"],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            env=env)
    found = {}
    lines = []

    def read():
        for line in demo.stdout:
            lines.append(line.rstrip())
            match = re.match(r"open (http://127\.0\.0\.1:\d+/)", line)
            if match and "url" not in found:
                found["url"] = match.group(1)

    threading.Thread(target=read, daemon=True).start()
    try:
        wait_for("the demo's address", lambda: found.get("url") or demo.poll() is not None,
                 timeout=600)
    except Failure:
        demo.kill()
        raise
    if "url" not in found:
        raise Failure("the demo ended before serving:\n" + "\n".join(lines))
    return demo, found["url"]


def open_browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in CHROMIUM_FLAGS:
        options.add_argument(flag)
    options.add_argument("--user-data-dir=" + tempfile.mkdtemp(prefix="loopstore-chromium-"))
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def page_state(driver, expression):
    return driver.execute_script("return " + expression)


def click_at_time(driver, track_id, at_ms):
    """Clicks track `track_id`'s lane where the axis shows `at_ms`."""
    lane = driver.find_element(By.CSS_SELECTOR, f'.row[data-track="{track_id}"] .lane')
    view = page_state(driver, "{from: loopstorePage.axis.from, to: loopstorePage.axis.to}")
    width = lane.rect["width"]
    x = (at_ms - view["from"]) / (view["to"] - view["from"]) * width
    if not 1 <= x <= width - 1:
        raise Failure(f"{at_ms} is outside the view of track {track_id}")
    # Offsets count from the element's centre.
    ActionChains(driver).move_to_element_with_offset(lane, int(x - width / 2), 0).click().perform()


def current_time(driver):
    return page_state(driver, "document.getElementById('video').currentTime")


def check_plays(driver, what):
    start = wait_for(f"{what} to start", lambda: current_time(driver) > 0.1)
    wait_for(f"{what} to advance", lambda: current_time(driver) > start + 1.5)


def check_coverage(driver):
    """Every lane shows recorded ranges once the view fits everything."""
    wait_for("the first timeline", lambda: page_state(driver, "loopstorePage.refreshes"))
    before = page_state(driver, "loopstorePage.refreshes")
    driver.find_element(By.ID, "zoom-fit").click()
    wait_for("the fitted timeline", lambda: page_state(
        driver, f"loopstorePage.refreshes > {before} && !document.getElementById('follow').checked"))
    tracks = page_state(driver, "loopstorePage.tracks.map(t => ({id: t.id, ranges: t.ranges}))")
    if len(tracks) < 2:
        raise Failure(f"the page shows {len(tracks)} tracks")
    for track in tracks:
        selector = f'.row[data-track="{track["id"]}"] .range'
        if not driver.find_elements(By.CSS_SELECTOR, selector):
            raise Failure(f"no recorded range drawn for track {track['id']}: {track['ranges']}")
    return tracks


def check_scrub(driver, track):
    """Clicks into the track's oldest range: plays from about there."""
    first, last = track["ranges"][0]
    before = page_state(driver, "loopstorePage.refreshes")
    page_state(driver, f"loopstorePage.show({first - 10_000}, {last + 10_000})")
    wait_for("the zoomed timeline", lambda: page_state(
        driver, f"loopstorePage.refreshes > {before}"))
    target = first + min(20_000, (last - first) / 2)
    click_at_time(driver, track["id"], target)
    clicked = wait_for("the click to start playback", lambda: page_state(
        driver, f"loopstorePage.playing && loopstorePage.playing.track === {track['id']} && "
                "!loopstorePage.playing.live && loopstorePage.playing.from"))
    check_plays(driver, f"track {track['id']} from {clicked}")
    playing = page_state(driver, "loopstorePage.firstPlayingDateMs")
    # The first segment is the chunk (one second) holding the clicked time.
    if playing is None or not clicked - 2000 <= playing <= clicked + 2000:
        raise Failure(f"clicked {clicked}, first picture at {playing}")
    return playing - clicked


def check_live(driver, track_id):
    driver.find_element(By.CSS_SELECTOR, f'.row[data-track="{track_id}"] button.live').click()
    wait_for("live playback", lambda: page_state(
        driver, f"loopstorePage.playing && loopstorePage.playing.live && "
                f"loopstorePage.playing.track === {track_id} && loopstorePage.liveDelayMs !== null"))
    check_plays(driver, f"track {track_id} live")
    delays = []
    for _ in range(10):
        time.sleep(0.5)
        delays.append(page_state(driver, "loopstorePage.liveDelayMs"))
    delay = sorted(delays)[len(delays) // 2]
    if not 0 <= delay <= 15_000:
        raise Failure(f"live delay {delay} ms (samples {delays})")
    return delay


def main():
    loopstore, screenshot = sys.argv[1], sys.argv[2]
    demo, url = start_demo(loopstore)
    driver = None
    try:
        driver = open_browser()
        driver.get(url)
        tracks = check_coverage(driver)
        live_track = tracks[0]
        # A click in the fitted view: the middle of a live track's history.
        first, last = tracks[1]["ranges"][0]
        click_at_time(driver, tracks[1]["id"], (first + last) / 2)
        check_plays(driver, f"track {tracks[1]['id']}")
        offset = check_scrub(driver, tracks[-1])
        delay = check_live(driver, live_track["id"])
        # The whole store in view for the picture: history, gaps, live edge.
        before = page_state(driver, "loopstorePage.refreshes")
        driver.find_element(By.ID, "zoom-fit").click()
        wait_for("the fitted timeline", lambda: page_state(
            driver, f"loopstorePage.refreshes > {before}"))
        driver.save_screenshot(screenshot)
        print(f"scrubbed playback started {offset / 1000:.1f} s from the clicked time")
        print(f"live delay: {delay / 1000:.1f} s")
        print(f"screenshot: {screenshot}")
    except Exception:
        if driver is not None:
            driver.save_screenshot(screenshot)
            print(f"screenshot of the failure: {screenshot}")
            for entry in driver.get_log("browser"):
                print("browser:", entry.get("message"))
        raise
    finally:
        if driver is not None:
            driver.quit()
        demo.terminate()
        try:
            code = demo.wait(timeout=60)
        except subprocess.TimeoutExpired:
            demo.kill()
            raise Failure("the demo did not stop on SIGTERM")
    if code != 0:
        raise Failure(f"the demo exited with {code} after SIGTERM")


if __name__ == "__main__":
    main()
