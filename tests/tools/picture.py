#!/usr/bin/env python3
"""Takes the picture of a report: picture.py PAGE PNG"""
import os
import sys

from webdriver import browser


def main():
    page, png = sys.argv[1:]
    with browser(1360, 1060) as session:
        session.open(os.path.abspath(page))
        session.run("document.documentElement.dataset.theme = 'light'; timeline.draw();")
        session.click("#finding-list button")
        session.run("timeline.show(0, END); window.scrollTo(0, 0);"
                    "document.getElementById('description').hidden = true;")
        session.picture(png)


main()
