#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Looks at the rendered manual as a reader does, from a folder on disk: browser_test.py DIRECTORY

DIRECTORY is the output of script/docs.
"""
import pathlib
import subprocess
import sys
import unittest

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.support.wait import WebDriverWait

OUTPUT = pathlib.Path(sys.argv.pop(1)).resolve()
SITE = OUTPUT / "html"
PAGES = sorted(page.relative_to(SITE).as_posix() for page in SITE.rglob("*.html"))
# What somebody who is looking for a cause types, and where it is.
SEARCHES = {"lost": "guarantees.html", "timeout": "threads.html", "failed to bind socket": "errors.html",
            "trying next port": "errors.html", "107": "errors.html", "ECONNREFUSED": "errors.html",
            "SIGPIPE": "operations.html", "stunnel": "networks.html", "restart": "restart.html",
            "SupplementaryGroups": "systemd.html", "waitForClient": "reference/VornIPCServer.html",
            "datagramPause": "reference/VornDispatcher.html", "nothing arrives": "index.html"}


class Reader:
    def __init__(self):
        options = webdriver.ChromeOptions()
        # The first two are for root and for containers, whose /dev/shm is small.
        for option in ("--no-sandbox", "--disable-dev-shm-usage", "--headless=new", "--disable-gpu", "--hide-scrollbars"):
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "SEVERE"})
        self.driver = webdriver.Chrome(options=options)

    def takes(self, width, colours):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 900, "deviceScaleFactor": 1, "mobile": width < 600})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "media": "screen", "features": [{"name": "prefers-color-scheme", "value": colours}]})

    def opens(self, page):
        self.driver.get(f"file://{SITE}/{page}")

    def evaluates(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def complaints(self):
        """What the browser says of the page. A result of the search has no excerpt where pages cannot be fetched."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if "search.html" not in entry["message"] and "Failed to fetch" not in entry["message"]
                and "ERR_FAILED" not in entry["message"]]

    def searches(self, words):
        """Where the site's own search leads, best first."""
        self.opens("index.html")
        field = self.driver.find_element(By.CSS_SELECTOR, ".sidebar-search")
        self.driver.execute_script("arguments[0].value = arguments[1]; arguments[0].form.submit()", field, words)
        WebDriverWait(self.driver, 30).until(
            lambda driver: driver.execute_script(
                "const status = document.querySelector('#search-results .search-summary');"
                "return status && / finished|did not match/.test(status.textContent)"))
        return [link.get_attribute("href").split("/html/")[1].split("?")[0].split("#")[0]
                for link in self.driver.find_elements(By.CSS_SELECTOR, "#search-results li a")]


class Site(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.reader = Reader()
        cls.addClassCleanup(cls.reader.driver.quit)

    def brightness(self, property_name):
        colour = self.reader.evaluates("return getComputedStyle(document.body)[arguments[0]]", property_name)
        return sum(float(part) for part in colour.split("(")[1].rstrip(")").split(",")[:3]) / 3

    def is_shown(self, css):
        return self.reader.evaluates("const box = document.querySelector(arguments[0]).getBoundingClientRect();"
                                 "return box.width > 0 && box.right > 0 && box.left < innerWidth", css)

    def test_search_finds_words_numbers_and_names(self):
        self.reader.takes(1280, "light")
        for words, page in SEARCHES.items():
            with self.subTest(words):
                self.assertIn(page, self.reader.searches(words)[:8])

    def test_page_is_no_wider_than_a_phone(self):
        self.reader.takes(400, "light")
        for page in PAGES:
            with self.subTest(page):
                self.reader.opens(page)
                self.assertLessEqual(self.reader.evaluates("return document.documentElement.scrollWidth"), 400)
                self.assertEqual(self.reader.complaints(), [])
                # Text that has to be moved sideways to be read; wide tables and programs scroll by themselves.
                self.assertEqual(self.reader.evaluates(
                    "return [...document.querySelectorAll('article p, article dt, table.functions td')]"
                    ".filter(one => !one.closest('.table-wrapper:not(:has(table.functions))'))"
                    ".filter(one => one.getBoundingClientRect().right > innerWidth).map(one => one.textContent)"), [])

    def test_navigation_on_a_phone_opens_by_its_button(self):
        self.reader.takes(400, "light")
        self.reader.opens("errors.html")
        self.assertFalse(self.is_shown(".sidebar-tree"))
        self.reader.driver.find_element(By.CSS_SELECTOR, ".mobile-header label[for=__navigation]").click()
        WebDriverWait(self.reader.driver, 30).until(lambda _: self.is_shown(".sidebar-tree"))

    def test_navigation_on_a_screen_is_there(self):
        self.reader.takes(1280, "light")
        self.reader.opens("errors.html")
        self.assertTrue(self.is_shown(".sidebar-tree"))
        self.assertTrue(self.is_shown(".sidebar-search"))

    def test_colours_are_those_of_the_system_until_the_reader_chooses_others(self):
        self.reader.takes(1280, "dark")
        self.reader.opens("index.html")
        self.assertLess(self.brightness("backgroundColor"), 60)
        self.assertGreater(self.brightness("color"), 150)
        self.reader.driver.find_element(By.CSS_SELECTOR, ".content-icon-container .theme-toggle").click()
        self.assertGreater(self.brightness("backgroundColor"), 240)
        self.reader.driver.execute_script("localStorage.clear()")
        self.reader.takes(1280, "light")
        self.reader.opens("index.html")
        self.assertGreater(self.brightness("backgroundColor"), 240)


class ManualPages(unittest.TestCase):
    def test_name_is_followed_by_what_it_is(self):
        pages = sorted((OUTPUT / "man").rglob("*.[37]"))
        listed = subprocess.run(["lexgrog", *map(str, pages)], capture_output=True, text=True, check=False)
        self.assertEqual(listed.returncode, 0, listed.stdout)
        lines = listed.stdout.splitlines()
        self.assertEqual(len(lines), len(pages))
        for page, line in zip(pages, lines):
            # The whole first sentence of the class comment.
            self.assertRegex(line, rf'{page.stem} - (?:[^"]|"")+[^. "]"$')
            self.assertRegex(page.stem, "^(Vorn|vornnet|ModuleData)")


if __name__ == "__main__":
    unittest.main()
