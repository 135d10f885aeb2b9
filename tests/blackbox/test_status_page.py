"""The page for people, looked at with a real browser. QEL_SCREENSHOTS names a folder that gets pictures of it."""

import os
import pathlib
import re
import sqlite3
import tempfile

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

PATIENCE = 60
CONTRAST = """
const luminance = (c) => { const f = c.map(v => { v /= 255; return v <= .03928 ? v / 12.92 : ((v + .055) / 1.055) ** 2.4; });
  return .2126 * f[0] + .7152 * f[1] + .0722 * f[2]; };
const parts = (text) => text.match(/[\\d.]+/g).map(Number);
const ground = (e) => { for (; e; e = e.parentElement) { const c = parts(getComputedStyle(e).backgroundColor);
  if (c.length < 4 || c[3] > 0) return c.slice(0, 3); } return [255, 255, 255]; };
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
const low = [];
while (walker.nextNode()) {
  const e = walker.currentNode.parentElement;
  if (!walker.currentNode.textContent.trim() || !e.getClientRects().length || e.closest("script, .hidden, :disabled")) continue;
  const a = luminance(parts(getComputedStyle(e).color).slice(0, 3)), b = luminance(ground(e));
  const ratio = (Math.max(a, b) + .05) / (Math.min(a, b) + .05);
  if (ratio < 4.5) low.push(`${e.textContent.trim().slice(0, 40)}: ${ratio.toFixed(2)}`);
}
return low;
"""
"""Texts whose contrast to their ground is less than people need."""


@pytest.fixture(scope="module")
def browser():
    with tempfile.TemporaryDirectory(prefix="qel-chromium-") as profile:
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--disable-dev-shm-usage", "--window-size=1280,1400", f"--user-data-dir={profile}"):
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        try:
            yield driver
        finally:
            driver.quit()


class Page:
    """The status page of one agent, in the browser."""

    def __init__(self, browser, agent):
        self.browser = browser
        self.agent = agent
        browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        self.colours("light")
        browser.get_log("browser")
        port = re.search(r"listens on TCP port (\d+)", agent.log()).group(1)
        browser.get(f"http://127.0.0.1:{port}/")

    def colours(self, scheme):
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                     {"features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def text(self, name):
        return self.browser.find_element(By.ID, name).text

    def rows(self, name):
        """The cells of a table's rows, as a person reads them."""
        return self.browser.execute_script(
            "return [...document.querySelectorAll(`#${arguments[0]} tr`)]"
            ".map((row) => [...row.children].map((cell) => cell.innerText.trim()));", name)

    def wait(self, condition, what):
        WebDriverWait(self.browser, PATIENCE).until(lambda _: condition(), f"{what}\n{self.agent.log_tail()}")

    def search(self, text):
        field = self.browser.find_element(By.ID, "search")
        field.clear()
        field.send_keys(text)

    def picture(self, name):
        if "QEL_SCREENSHOTS" in os.environ:
            folder = pathlib.Path(os.environ["QEL_SCREENSHOTS"])
            folder.mkdir(parents=True, exist_ok=True)
            self.browser.save_screenshot(str(folder / f"{name}.png"))

    def check(self):
        """Nothing went wrong, came from elsewhere, is cut off or cannot be read."""
        assert [each for each in self.browser.get_log("browser") if each["level"] == "SEVERE"] == []
        foreign = self.browser.execute_script(
            "return performance.getEntriesByType('resource').map((e) => e.name)"
            ".filter((name) => !name.startsWith(location.origin) && !name.startsWith('data:'));")
        assert foreign == []
        assert self.browser.execute_script(
            "return document.documentElement.scrollWidth <= document.documentElement.clientWidth;")
        assert self.browser.execute_script(CONTRAST) == []
        assert self.browser.execute_script(
            "return [...document.querySelectorAll('[aria-labelledby]')].filter("
            "(e) => !document.getElementById(e.getAttribute('aria-labelledby'))).length"
            " + [...document.querySelectorAll('th:not([scope]), button:empty')].length"
            " + [...document.querySelectorAll('input')].filter((e) => !e.labels.length).length;") == 0


LISTENING = {"admin": {"listen": "127.0.0.1:0"}}


def test_it_shows_what_goes_on(world, browser):
    agent, plane = world.agent(options=LISTENING, applications=("billing", "mail", "web")), world.plane()
    app = world.attach(agent, "web")
    plane.configure(agent, "web", ["orders.created", "orders.#", ("alerts", 1)], ["web.jobs." + agent.agent_id])
    plane.configure(agent, "mail", body=b"\xff\xff")
    plane.configure(agent, "billing", ["a"], [agent.client_queue])
    plane.publish("", agent.client_queue, b"x", app_id="nobody")
    page = Page(browser, agent)
    page.wait(lambda: page.text("ready") == "ready", "the page to say that the agent is ready")
    assert page.text("agent") == agent.agent_id and page.text("connection-state") == "consuming"
    page.wait(lambda: any(each[:3] == ["web", "live", "1"] for each in page.rows("applications")), "web to be live")
    page.wait(lambda: page.text("configuration-count") == "1 applied, 2 failed", "the configurations")
    assert any("the body is no configuration" in each[-1] for each in page.rows("configurations"))
    page.wait(lambda: len(page.rows("routes")) == 4, "the routes")
    assert ["orders.#", "topic", agent.client_queue, "in force", "web"] in page.rows("routes")

    for number in range(200):
        plane.publish("", agent.client_queue, str(number).encode(), app_id="web")
        app.verdict(app.next(), "done")
    page.wait(lambda: next(each for each in page.rows("applications") if each[0] == "web")[7] == "200", "the messages")
    assert [each[0] for each in page.rows("lanes")] == ["control", "configuration", "priority", "normal"]
    page.wait(lambda: next(each for each in page.rows("lanes") if each[0] == "normal")[1] != "–", "a rate")
    page.check()
    page.picture("light")
    light = browser.execute_script("return getComputedStyle(document.body).backgroundColor;")
    page.colours("dark")
    page.wait(lambda: browser.execute_script("return getComputedStyle(document.body).backgroundColor;") != light,
              "the dark colours")
    page.check()
    page.picture("dark")
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                            {"width": 390, "height": 1600, "deviceScaleFactor": 1, "mobile": True})
    page.colours("light")
    page.check()
    page.picture("narrow")


def test_it_says_why_the_agent_is_not_ready_and_that_it_is_gone(lonely_world, browser):
    agent = lonely_world.agent(options=LISTENING, urls="amqp://127.0.0.1:1", start=False)
    agent.launch()
    agent.wait_for_log("listens on TCP port")
    page = Page(browser, agent)
    page.wait(lambda: "not connected to the broker" in page.text("reasons"), "the reason")
    assert page.text("ready") == "not ready" and page.text("connection-state") == "disconnected"
    page.check()
    page.picture("not-ready")
    agent.kill()
    page.wait(lambda: "does not answer" in page.text("lost"), "the page to notice the agent's end")


def test_it_finds_its_way_among_100000_routes(lonely_world, browser):
    agent = lonely_world.agent(options=LISTENING, urls="amqp://127.0.0.1:1", start=False, applications=("web",))
    agent.launch()
    agent.wait_for_log("listens on TCP port")
    agent.kill()
    # What the journal holds is there before the first connection, so no broker has to bind it all.
    with sqlite3.connect(agent.folder / "state" / "journal.sqlite") as journal:
        journal.executemany("INSERT INTO route VALUES ('web', 2, CAST(? AS BLOB), CAST(? AS BLOB), 1)",
                            ((f"sensors.hall.{number:06}", agent.client_queue) for number in range(100000)))
    journal.close()
    start = len(agent.log())
    agent.launch()
    agent.wait_for_log("listens on TCP port", start=start)
    agent.log_file.write_text(agent.log()[start:])
    page = Page(browser, agent)
    page.wait(lambda: page.text("position") == "1–50 of 100,000", "the first page of the routes")
    assert page.rows("routes")[0][0] == "sensors.hall.000000" and len(page.rows("routes")) == 50
    browser.find_element(By.ID, "next").click()
    page.wait(lambda: page.text("position") == "51–100 of 100,000", "the second page")
    assert page.rows("routes")[0][0] == "sensors.hall.000050"
    page.search("99999")
    page.wait(lambda: page.text("position") == "1–1 of 1 (all: 100,000)", "the one that matches")
    assert page.rows("routes")[0][0] == "sensors.hall.099999"
    page.search("no such")
    page.wait(lambda: "No route" in page.rows("routes")[0][0], "nothing to be found")
    page.search("")
    page.wait(lambda: page.text("position") == "1–50 of 100,000", "all of them again")
    page.check()
    page.picture("100000-routes")
