#!/usr/bin/env python3
"""The HTML report in a browser: it shows a run, zooms, and explains what is clicked.

usage: browser_test.py PROGRAM SCENARIOS [PICTURES]

PROGRAM is tessel-lab, SCENARIOS the folder of the shipped scenarios. With PICTURES, screenshots are
left in that folder.
"""
import os
import subprocess
import sys
import tempfile

from webdriver import browser

LARGEST = 15_000_000  # Bytes of a page.


def check(holds, what):
    if not holds:
        sys.exit("FAILED: " + what)


class Page:
    """The report of a scenario, open in the browser."""

    def __init__(self, session, program, scenario, folder):
        self.session = session
        self.name = os.path.basename(scenario)
        page = os.path.join(folder, "page.html")
        subprocess.run([program, "run", "--quiet", scenario, "--report", page], check=True,
                       stdout=subprocess.DEVNULL)
        check(os.path.getsize(page) < LARGEST, f"{self.name}: the page is too large")
        session.open(page)
        self.check(self.run("return document.documentElement.dataset.ready === 'true'"),
                   f"the page is not ready: {session.errors()}")

    def check(self, holds, what):
        check(holds, f"{self.name}: {what}")

    def run(self, script, *arguments):
        return self.session.run(script, *arguments)

    def shown(self):
        return self.run("return [timeline.from, timeline.to]")

    def details(self):
        return self.run("return document.getElementById('details').innerText")

    def check_whole(self):
        """Nothing was loaded from elsewhere, nothing failed, and the lanes have been drawn."""
        self.check(self.run("return performance.getEntriesByType('resource').length") == 0,
                   "the page loads other files")
        errors = self.session.errors()
        self.check(not errors, f"the console says {errors}")
        self.check(self.run("return timeline.lanes.length === 1 + MODEL.routers.size + "
                            "MODEL.ends.size"), "a lane is missing")
        colours = self.run("""
            const {width, height} = timeline.canvas;
            const bytes = timeline.context.getImageData(0, 0, width, height).data;
            const seen = new Set();
            for (let i = 0; i < bytes.length; i += 4) {
              seen.add((bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2]);
            }
            return [...seen];""")
        self.check(0x35A56C in colours, "no path is drawn as active")
        for width in (1500, 700):
            self.session.size(width, 1000)
            self.check(self.run("return document.documentElement.scrollWidth <= innerWidth"),
                       f"the page is wider than {width} pixels")
        self.session.size(1500, 1000)

    def place(self, condition, scope="timeline.hits"):
        """Where the first drawn item is that fulfils a condition on `item`, and its title."""
        place = self.run("""
            timeline.scroller.scrollIntoView({block: "center"});
            const box = timeline.canvas.getBoundingClientRect();
            const hit = %s.find(({item, x, y, width}) => (%s) &&
              timeline.itemAt(x + width / 2, y + 3) === item);
            return hit && [box.x + hit.x + hit.width / 2, box.y + hit.y + 3, titleOf(hit.item)];
            """ % (scope, condition))
        self.check(place, f"nothing is drawn for {condition}")
        return place

    def click_item(self, condition):
        """Hovers over an item and clicks it; returns the details."""
        x, y, title = self.place(condition)
        self.session.pointer((x, y))
        self.check(self.run("return !timeline.tooltip.hidden && timeline.tooltip.textContent"),
                   f"no tooltip for {title}")
        self.session.pointer((x, y), "down", "up")
        details = self.details()
        self.check(details.startswith(title), f"clicked {title}, got {details[:100]}")
        return details


def check_zoom(page):
    session = page.session
    whole = page.shown()
    session.click("#zoom-in")
    start, end = page.shown()
    page.check(whole[0] < start < end < whole[1], "the button does not zoom in")
    session.keys("#scroller", "+\ue014")  # The right arrow key.
    later = page.shown()
    page.check(later[0] > start and later[1] - later[0] < end - start, "the keys do not zoom and pan")
    session.keys("#scroller", "0")
    page.check(page.shown() == whole, "the key 0 does not show the whole run")

    session.keys("#scroller", "\ue015\ue015nn")  # Two lanes down, and the second thing there.
    page.check(page.run("return timeline.chosen.type === 'sa' && timeline.chosen.path === "
                        "timeline.lanes[2].end.path") and page.details().startswith("SA 0x"),
               "the keys do not choose things")

    x, y = page.run("""
        timeline.scroller.scrollIntoView({block: "center"});
        const box = timeline.canvas.getBoundingClientRect();
        return [box.x + box.width * 0.6, box.y + box.height / 2];""")
    session.wheel(x, y, -240, ctrl=True)
    start, end = page.shown()
    page.check(end - start < whole[1] - whole[0], "the wheel does not zoom in")
    session.pointer((x, y), "down", (x - 120, y), "up")
    moved = page.shown()
    page.check(moved[0] > start and abs((moved[1] - moved[0]) - (end - start)) < 1e-6,
               "dragging does not pan")
    session.click("#zoom-fit")
    page.check(page.shown() == whole, "the button does not show the whole run")


def check_hub(page):
    page.session.click("#finding-list button", "hub-5: peer spoke-9 is down")
    details = page.details()
    for part in ("dh-group-mismatch", "hub-5 itself has published key 0: ecp-256",
                 "spoke-9's key 0: modp-2048", "Before it, at spoke-9"):
        page.check(part in details, f"one click does not tell \"{part}\"")
    page.check(page.run("return timeline.chosen.type === 'peer'"), "the finding is not marked")
    rows = page.run("""
        return [...document.querySelectorAll('#tables details')]
          .filter((box) => box.open && box.innerText.startsWith('Peers'))
          .map((box) => [...box.querySelectorAll('tbody tr')].map((row) => row.innerText))[0];""")
    page.check("down: dh-group-mismatch" in rows[0] and "ready" in rows[2],
               "the worst peers do not come first")
    page.session.keys("#filter", "site-9")
    page.check(page.run("return timeline.lanes.length") == 5, "the filter does not choose lanes")


def check_states_and_sas(page):
    page.click_item("item.type === 'state' && item.state === 'active'")
    page.check("packets flow both ways" in page.details(), "a state is not explained")
    details = page.click_item("item.type === 'sa'")
    page.check("handed over" in details and "steady-" in details, "an SA has no fields")
    page.check(page.run("return timeline.chosen.type") == "sa", "the SA is not marked")
    before = page.run("return document.documentElement.dataset.theme")
    page.session.click("#theme")
    page.check(page.run("return document.documentElement.dataset.theme") != before,
               "the scheme does not change")
    page.session.click("#theme")


def check_drops(page):
    details = page.click_item("item.type === 'drop' && item.count > 800")
    for part in ("since no installed in-SA of it has SPI", "had deleted the in-SA",
                 "Before it, at east", "Before it, at west"):
        page.check(part in details, f"a drop does not tell \"{part}\"")
    cluster = page.click_item("item.type === 'cluster' && item.items.length > 1")
    page.check("things close together" in cluster, "a cluster does not list what is in it")


# Scenario, and what is looked at in its report. A mesh of 17, two routers, and a day.
PAGES = {"hub": [check_hub], "two-routers": [check_zoom, check_states_and_sas],
         "sa-rekey-meets-clear": [check_drops], "sa-rekey-day": [check_zoom]}


def main():
    program, scenarios = sys.argv[1:3]
    pictures = sys.argv[3] if len(sys.argv) > 3 else None
    with tempfile.TemporaryDirectory() as folder, browser() as session:
        for name, checks in PAGES.items():
            page = Page(session, program, os.path.join(scenarios, name + ".yaml"), folder)
            page.check_whole()
            for each in checks:
                each(page)
                if pictures:
                    session.picture(os.path.join(pictures, f"{name}-{each.__name__}.png"))
            page.check(not session.errors(), "the console shows errors")
            print(f"{name}: its report works")


main()
