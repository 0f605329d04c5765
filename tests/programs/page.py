"""Uses the collector's page in chromium: page.py SOURCES BROKER PORT [DIRECTORY]

Runs in a directory with the recorded machines station-7, -8 and -9 and the process numbers of those
that report them (station-9 is well). Writes pictures of the page into DIRECTORY, if that is given.
"""

import contextlib
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.keys import Keys

from plant import Plant, wait

SOURCES, BROKER, PORT, *PICTURES = sys.argv[1:]
HOSTILE = "<img src=x onerror=\"document.title='taken over'\">"


def put(file, value):
    pathlib.Path(file + ".new").write_text(value + "\n", encoding="utf-8")
    os.rename(file + ".new", file)


@contextlib.contextmanager
def collector(*options):
    with open("events.log", "a", encoding="utf-8") as log:
        process = subprocess.Popen(["collector", "--broker", BROKER, "--http", PORT, *options],
                                   stdout=log, stderr=log)
    try:
        yield
    finally:
        process.send_signal(signal.SIGINT)
        process.wait(20)


def report_plant():
    """Reports two roots: one that says OK over a device in error, and one that is held back."""
    plant = Plant(SOURCES, BROKER, "plants")
    plant.add("plant", "7.1", """id: "plant" name: "Plant" global_status { level: OK }
        sub_devices { id: "hall" name: "Hall" global_status { level: OK }
          sub_devices { id: "pump-3" name: "Feed pump"
            global_status { level: ERROR message: "dry" } } }""")
    plant.state(1, {"plant": "epoch: 7 n: 1",
                    "plant-2": 'epoch: 8 n: 0 held_back: "too large for the broker"'})


def view(width, scheme):
    feature = {"name": "prefers-color-scheme", "value": scheme}
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [feature]})
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 780, "deviceScaleFactor": 1, "mobile": False})


def texts(selector):
    return browser.execute_script("""return [...document.querySelectorAll(arguments[0])]
        .filter((one) => one.checkVisibility()).map((one) => one.innerText)""", selector)


def roots():
    return [text.split()[0] for text in texts("#rows a")]


def warm(celsius):
    """Makes station-7 warmer, waits for it on the page, and says whether the eye is led to it."""
    put("station-7/sys/class/hwmon/hwmon0/temp1_input", str(celsius * 1000))
    wait("the value", lambda: str(celsius) in texts(".statuses dd"))
    return browser.execute_script("""return [...document.querySelectorAll(".statuses dd")]
        .some((one) => one.innerText === arguments[0] && one.getAnimations().length)""",
                                  str(celsius))


def use_page():
    wait("the collector", lambda: not socket.socket().connect_ex(("127.0.0.1", int(PORT))))
    browser.get(f"http://127.0.0.1:{PORT}/")
    wait("three roots", lambda: roots() == ["station-7", "station-8", "station-9"] and
         all("11 devices" in text for text in texts("#rows a")))
    browser.find_element("id", "findRoot").send_keys(Keys.TAB)
    browser.switch_to.active_element.send_keys(Keys.ARROW_DOWN)
    browser.switch_to.active_element.send_keys(Keys.ARROW_UP)
    browser.switch_to.active_element.send_keys(Keys.ENTER)
    wait("the tree that the keyboard opened",
         lambda: texts("h2") == ["station-7"] and texts("summary"))
    browser.execute_script("window.isSamePage = true")
    assert warm(43.5), "a value that changed is not marked"

    os.kill(int(pathlib.Path("station-8.pid").read_text(encoding="utf-8")), signal.SIGKILL)
    wait("the root without reporter, and since when", lambda: any(
        "its reporter is gone" in text and re.search(r"for \d+ s", text) for text in texts("#rows a")[:2]))
    for width, scheme, name in (400, "dark", "fleet_small"), (1600, "light", "fleet"):
        view(width, scheme)
        assert warm(44.5 + width / 100), "a value that changed is not marked"
        assert browser.execute_script("""return [...document.querySelectorAll("html, #tree")]
            .every((one) => one.scrollWidth <= one.clientWidth)"""), "it does not fit"
        if PICTURES:
            browser.save_screenshot(f"{PICTURES[0]}/{name}.png")

    browser.find_element("id", "find").send_keys("ETH1")
    wait("the device that is looked for",
         lambda: len(texts("summary")) == 2 and "load" not in texts("dt"))
    browser.find_element("id", "findRoot").send_keys("n-9")
    wait("the root that is looked for", lambda: roots() == ["station-9"])
    for field in "find", "findRoot":
        browser.find_element("id", field).send_keys(Keys.CONTROL, "a", Keys.NULL, Keys.DELETE)
    browser.find_element("id", "unwell").click()
    wait("what is not well",
         lambda: roots() == ["station-7", "station-8"] and len(texts("summary")) == 2)
    browser.find_element("id", "unwell").click()

    report_plant()
    wait("what is worst at the top", lambda: roots()[0] == "Plant" and
         "1 in error, says OK" in texts("#rows a")[0] and "1 ERROR" in texts("#counts span"))
    wait("the root that has not arrived", lambda: any(
        "plant-2" in text and "not arrived" in text for text in texts("#rows a")))
    browser.find_element("id", "findRoot").send_keys("PUMP")
    wait("the device that is looked for in all roots", lambda: len(texts("#rows a")) == 1 and
         "in plant" in texts("#rows a")[0] and "dry" in texts("#rows a")[0])
    browser.find_element("css selector", "#rows a").click()
    wait("the device that the row leads to", lambda: texts("summary:focus b") == ["Feed pump"])
    browser.find_element("id", "findRoot").send_keys(Keys.CONTROL, "a", Keys.NULL, Keys.DELETE)
    browser.execute_script("document.querySelector('details').open = false")
    browser.execute_script("location.hash = new URLSearchParams({root: 'plant', device: 'hall'})")
    wait("the device that a link leads to", lambda: texts("summary:focus b") == ["Hall"])
    browser.execute_script("location.hash = 'root=plant-2'")
    wait("the reason", lambda: "too large for the broker" in texts("#about")[0])

    browser.execute_script("location.hash = 'root=station-7'")
    put("station-7/sys/class/hwmon/hwmon0/name", HOSTILE)
    wait("the text of markup", lambda: HOSTILE in texts("summary b"))
    assert browser.execute_script("return window.isSamePage && document.images.length === 0")
    assert browser.title == "Fleet"
    log = browser.get_log("browser")
    assert not log, log


def use_past():
    """What changed, the tree as it was, the way back, and the course of a number."""
    def temper(celsius):
        put("station-9/sys/class/hwmon/hwmon0/temp1_input", str(celsius * 1000))
        wait("the value", lambda: str(celsius) in texts(".statuses dd"))
        wait("the line of it", lambda: any(
            f"double {celsius}.0" in text for text in texts("#lines li")))

    browser.execute_script("location.hash = 'root=station-9'")
    wait("the button of the history", lambda: texts("#history"))
    browser.find_element("id", "history").click()
    for celsius in 41, 57, 49:
        temper(celsius)
    wait("the latest at the top", lambda: "double 49.0" in texts("#lines li")[0])
    put("station-7/sys/class/net/eth1/carrier", "1")
    browser.find_element("id", "everywhere").click()
    wait("what changed in all roots", lambda: any("station-7" in text for text in texts("#lines li")))
    browser.find_element("id", "everywhere").click()
    wait("what changed in this one", lambda: texts("#lines li") and not any(
        "station-7" in text for text in texts("#lines li")))

    browser.execute_script("""[...document.querySelectorAll("#lines li")]
        .find((one) => one.innerText.includes("double 41.0")).querySelector("a").click()""")
    wait("the tree as it was", lambda: "41" in texts(".statuses dd"))
    assert "This is the past" in texts("#then")[0] and "double 41.0" in texts("#lines li")[0]
    put("station-9/sys/class/hwmon/hwmon0/temp1_input", "63000")
    browser.find_element("css selector", "#rows a[href*='station-9']").click()
    wait("no such change", lambda: "41" in texts(".statuses dd") and texts("#then"))
    browser.find_element("id", "now").click()
    wait("the way back", lambda: "63" in texts(".statuses dd") and not texts("#then"))

    browser.execute_script("""[...document.querySelectorAll(".statuses dd")]
        .find((one) => one.innerText === "63").click()""")
    wait("the course of a number", lambda: texts("figure .range") == ["41 to 63"])
    line = browser.find_element("css selector", "figure .line").get_attribute("d")
    assert line.count("V") >= 3 and line.endswith("H1000"), line
    if PICTURES:
        browser.save_screenshot(f"{PICTURES[0]}/fleet_history.png")
    browser.find_element("css selector", "figure .close").click()
    assert not texts("figure")


options = webdriver.ChromeOptions()
for argument in ("headless=new", "no-sandbox", "disable-gpu", "disable-quic", "no-first-run",
                 "disable-background-networking", "disable-component-update", "disable-sync"):
    options.add_argument("--" + argument)
options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
with webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options) as browser:
    view(1600, "light")
    with collector():
        use_page()
    wait("the missing collector", lambda: "does not answer" in "".join(texts("#trouble")))
    assert not texts("#history"), "without a history there is nothing to ask it"
    with collector("--history", "fleet.history"):
        wait("the collector again",
             lambda: not "".join(texts("#trouble")) and "station-9" in roots())
        browser.refresh()
        use_past()
print("The page is as it should be")
