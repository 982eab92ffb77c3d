#!/usr/bin/env python3
"""The page of `hxcf serve` in a browser: page_test.py HXCF [unittest's arguments].

Ends with 77 if there is no chromium, chromedriver or ImageMagick, or if the program has no map.
"""
import gzip
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import urllib.request

import make_tiles
from webdriver import Browser

HXCF = sys.argv.pop(1) if len(sys.argv) > 1 else "hxcf"
MISSING = "3/7/7"     # of the raster set, at first
REPLACED = "1/0/1"    # has two versions
BROKEN = "2/0/0"      # is a picture by its first bytes only
CELLS = {(1, 2): 1, (3, 4): 1, (3, 5): 3, (6, 9): 1}  # (row, column): versions
FAR = [(0, 0), (200, 350), (399, 399)]                # filled cells of a large grid
NAMES = [f"{folder}/{number:03}.txt" for folder in ("even", "odd") for number in range(150)]


def hxcf(*arguments, data=None):
    return subprocess.run([HXCF, "-q", *map(str, arguments)], input=data, check=True,
                          stdout=subprocess.PIPE).stdout


def write(path, data):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


def make_files(work):
    """The files to serve, in work/served."""
    served = work / "served"
    served.mkdir()
    for zoom in range(4):
        for column in range(1 << zoom):
            for row in range(1 << zoom):
                tile = f"{zoom}/{column}/{row}"
                if tile != MISSING:
                    write(work / f"world/{tile}.png", make_tiles.png(zoom, column, row))
                if zoom < 2:
                    write(work / f"shapes/{tile}.pbf", gzip.compress(make_tiles.shapes()))
                    write(work / f"plain/{tile}.pbf", make_tiles.shapes())
    write(work / "world/metadata.json", json.dumps(
        {"name": "World", "format": "png",
         "attribution": '<a href="about:blank">Nobody</a><img src="http://127.0.0.2/" onerror="alert(1)">'}).encode())
    for name in ("world", "shapes"):
        hxcf("import", "--stamp", 5, work / name, served / f"{name}.cf")
    hxcf("import", "--layout", "grid", work / "plain", served / "plain")
    hxcf("put", "--stamp", 9, served / "world.cf", REPLACED, data=make_tiles.png(1, 1, 1))
    hxcf("put", "--stamp", 9, served / "world.cf", BROKEN, data=make_tiles.png(0, 0, 0)[:100])

    for name, rows, columns, cells in (("cells", 8, 12, CELLS), ("large", 400, 400,
                                                                 dict.fromkeys(FAR, 1))):
        hxcf("create", "--layout", "grid", "--rows", rows, "--cols", columns, served / f"{name}.cf")
        for (row, column), versions in cells.items():
            for stamp in range(versions):
                hxcf("put", "--stamp", stamp, served / f"{name}.cf", f"{row},{column}",
                     data=b"bytes of no known type")
    for name in NAMES:
        write(work / "names" / name, name.encode())
    hxcf("import", "--by-name", work / "names", served / "names.cf")
    return served


class Server:
    """hxcf serve, as a process of its own."""

    def __init__(self, folder, port=0):
        self.process = subprocess.Popen([HXCF, "serve", "--port", str(port), folder],
                                        stdout=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().split()[-1]
        self.port = int(self.address.rstrip("/").rsplit(":", 1)[1])

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


def setUpModule():
    global work, served, server, browser, hasMap
    temporary = tempfile.TemporaryDirectory()
    unittest.addModuleCleanup(temporary.cleanup)
    work = pathlib.Path(temporary.name)
    served = make_files(work)
    server = Server(served)
    unittest.addModuleCleanup(lambda: server.stop())
    with urllib.request.urlopen(server.address + "_/maplibre-gl.mjs") as answer:
        hasMap = len(answer.read()) > 1000
    browser = Browser(shutil.which("chromium"), shutil.which("chromedriver"), work / "profile")
    unittest.addModuleCleanup(browser.close)


def pixels(path, width):
    """A function that tells a pixel of a picture as (red, green, blue)."""
    data = subprocess.run(["convert", path, "-depth", "8", "rgb:-"], check=True,
                          stdout=subprocess.PIPE).stdout
    return lambda x, y: tuple(data[3 * (y * width + x):][:3])


def colour(name):
    """A colour of the style sheet."""
    text = browser.run("return getComputedStyle(document.documentElement).getPropertyValue(arguments[0])",
                       name).strip()
    return tuple(int(text[i:i + 2], 16) for i in (1, 3, 5))


def colour_of(css):
    """The colour of an element's background."""
    found = browser.run("return getComputedStyle(document.querySelector(arguments[0])).backgroundColor",
                        css)
    return tuple(map(int, re.findall(r"\d+", found)))


def luminance(rgb):
    parts = [c / 255 / 12.92 if c <= 10 else ((c / 255 + 0.055) / 1.055) ** 2.4 for c in rgb]
    return 0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2]


def contrast(one, other):
    light, dark = sorted((luminance(one), luminance(other)), reverse=True)
    return (light + 0.05) / (dark + 0.05)


def text(css):
    return browser.run("return document.querySelector(arguments[0])?.innerText ?? ''", css)


class Page(unittest.TestCase):
    isQuiet = True  # no error in the console, but where one is made

    def setUp(self):
        window(1280, 900)
        scheme("light")

    def tearDown(self):
        console, requests = browser.console(), browser.requests()
        if self.isQuiet:
            self.assertEqual(console, [])
        self.assertEqual([url for url in requests if not url.startswith(
            (server.address, f"blob:{server.address}", "data:", "about:", "chrome"))], [])

    def open(self, place, ready=".statistics"):
        if "/map" in place and not hasMap:
            self.skipTest("the program was built without npm")
        browser.open("about:blank")
        browser.open(f"{server.address}#/{place}")
        browser.element(ready)

    def open_map(self, place):
        """A map of 600 by 600 pixels in the corner, without its controls."""
        self.open(place, ".map canvas")
        self.settle_map()

    def settle_map(self):
        browser.element(".map canvas")
        browser.run("""
            const style = document.createElement("style");
            style.textContent = ".map { position: fixed !important; inset: 0 auto auto 0; z-index: 9;" +
              "width: 600px; height: 600px } .maplibregl-control-container { visibility: hidden }";
            document.head.append(style);""")
        browser.until("const map = document.querySelector('.map'), canvas = map.querySelector('canvas');"
                      "return canvas.clientWidth === 600 && map.getAttribute('aria-busy') === 'false'")

    def shoot_map(self):
        browser.shoot(work / "map.png", ".map")
        return pixels(work / "map.png", 600)

    def expect_title(self, name):
        """The inspector shows that tile."""
        browser.until("return document.querySelector('.found h3')?.textContent === arguments[0]", name)

    def expect_near(self, found, wanted, reach=3):
        self.assertTrue(all(abs(f - w) <= reach for f, w in zip(found, wanted)), f"{found}, not {wanted}")


def window(width, height):
    browser.emulate("Emulation.setDeviceMetricsOverride", width=width, height=height,
                    deviceScaleFactor=1, mobile=False)


def scheme(name):
    browser.emulate("Emulation.setEmulatedMedia",
                    features=[{"name": "prefers-color-scheme", "value": name}])


class Maps(Page):
    def expect_map(self, *tiles):
        """The middle of the map is a picture of two by two tiles, but for a thousandth of the pixels."""
        two = [["(", *pair, "+append", ")"] for pair in (tiles[:2], tiles[2:])]
        subprocess.run(["convert", *two[0], *two[1], "-append", work / "wanted.png"], check=True)
        browser.shoot(work / "map.png", ".map")
        subprocess.run(["convert", work / "map.png", "-gravity", "center", "-crop", "512x512+0+0",
                        "+repage", work / "found.png"], check=True)
        result = subprocess.run(["compare", "-metric", "AE", "-fuzz", "2%", work / "found.png",
                                 work / "wanted.png", "null:"], stderr=subprocess.PIPE, text=True)
        self.assertLess(float(result.stderr.split()[0]), 512 * 512 / 1000)

    def test_raster_tiles_lie_where_they_belong_and_a_new_one_appears_after_a_reload(self):
        tiles = [work / f"world/3/{tile}.png" for tile in ("6/6", "7/6", "6/7")]
        self.open_map("world/map?at=2/-79.17133/135")
        self.assertIn("Nobody", browser.run("return document.querySelector('.map').textContent"))
        hole = ["-size", "256x256", "xc:rgb(%d,%d,%d)" % colour("--map")]
        self.expect_map(*tiles, *hole)
        write(work / "new.png", make_tiles.png(3, 1, 2))
        hxcf("put", "--stamp", 5, served / "world.cf", MISSING, work / "new.png")
        browser.reload()
        self.settle_map()
        self.expect_map(*tiles, work / "new.png")

    def test_vector_layers_have_their_colours_and_switches(self):
        self.open_map("shapes/map?at=0/0/0")
        # The layers are found in the tile, for the metadata tell of none.
        browser.until("return document.querySelectorAll('.layers input').length === 3")
        self.settle_map()
        ground = colour("--map")
        land, road, place = (colour_of(f"[data-layer={name}]") for name in ("land", "roads", "places"))
        pixel = self.shoot_map()
        self.expect_near(pixel(170, 200), [0.2 * c + 0.8 * g for c, g in zip(land, ground)])
        self.expect_near(pixel(500, 200), ground)
        self.expect_near(pixel(428, 172), place, 8)
        self.expect_near(pixel(500, 300), road, 80)
        browser.run("document.querySelector('.layers input[value=land]').click()")
        browser.until("return location.hash.includes('off=land')")
        self.settle_map()
        self.expect_near(self.shoot_map()(170, 200), ground)

    def test_vector_tiles_of_another_source_look_the_same(self):
        for name in ("shapes", "plain"):
            self.open_map(f"{name}/map?at=0/0/0")
            browser.until("return document.querySelectorAll('.layers input').length === 3")
            self.settle_map()
            browser.shoot(work / f"{name}.png", ".map")
        result = subprocess.run(["compare", "-metric", "AE", work / "shapes.png", work / "plain.png",
                                 "null:"], stderr=subprocess.PIPE, text=True)
        self.assertEqual(result.stderr.split()[0], "0")

    def test_a_click_inspects_the_tile_and_a_reload_shows_the_same_place(self):
        self.open_map("world/map?at=1/0/0&borders=1")
        browser.click_at(".map", 300 + 128, 300 + 128)
        self.expect_title("2/2/2")
        browser.run("document.querySelector('.map canvas').focus()")
        browser.press("=")
        browser.until("return location.hash.includes('at=2.00')")
        moved = browser.run("return location.hash")
        browser.reload()
        self.settle_map()
        self.assertEqual(browser.run("return location.hash"), moved)
        self.expect_title("2/2/2")


class Pictures(Page):
    def fields(self):
        """The colour of each field's middle, by its row and column in the picture."""
        return {tuple(field[:2]): tuple(field[2:]) for field in browser.until("""
            const canvas = document.querySelector(".heat");
            const [rows, columns] = arguments[0];
            if (!canvas.clientWidth) return null;
            const { width, height } = canvas;
            const { data } = canvas.getContext("2d").getImageData(0, 0, width, height);
            const found = [];
            for (let row = 0; row < rows; ++row) {
              for (let column = 0; column < columns; ++column) {
                const [x, y] = [(column + 0.5) / columns * width, (row + 0.5) / rows * height];
                const at = 4 * (Math.floor(y) * width + Math.floor(x));
                found.push([row, column, ...data.slice(at, at + 3)]);
              }
            }
            return found;""", [6, 8])}

    def test_filled_cells_are_where_they_belong_and_versions_are_darker(self):
        self.open("cells/picture?by=versions", ".heat")
        fields = self.fields()
        # The picture begins with the first row and column that have a tile.
        filled = {(row - 1, column - 2): versions for (row, column), versions in CELLS.items()}
        empty = colour("--heat-empty")
        self.assertEqual({at for at, found in fields.items() if found != empty}, set(filled))
        self.assertEqual({at: colour("--heat-4" if versions == 3 else "--heat-0")
                          for at, versions in filled.items()}, {at: fields[at] for at in filled})
        self.assertIn("Rows 1–6 · columns 2–9 · a field is one cell", text("figcaption"))

    def test_the_keyboard_goes_into_a_field_of_many_cells_and_to_a_tile(self):
        self.open("large/picture", ".heat")
        browser.until("return document.querySelector('figcaption').textContent.includes('4 × 4 cells')")
        browser.run("document.querySelector('.heat').focus()")
        browser.press("PageDown", "End")
        self.assertIn("row 396–399, column 396–399: 1 tile, 1 version", text("#field").lower())
        browser.press("Enter")
        browser.until("return document.querySelector('figcaption').textContent.includes('one cell')")
        browser.press("PageDown", "End", "Enter")
        self.expect_title("399/399")
        browser.press("Escape")
        browser.until("return document.querySelector('figcaption').textContent.includes('4 × 4 cells')")


class Inspector(Page):
    def test_versions_are_listed_shown_and_downloaded(self):
        for place, typed, title, versions in (("cells/picture", "3,5", "3/5", 3),
                                              ("world/picture", REPLACED, REPLACED, 2)):
            self.open(place)
            browser.click("#key")
            browser.press(*typed, "Enter")
            self.expect_title(title)
            found = browser.run("return document.querySelectorAll('.versions li').length")
            self.assertEqual(found, versions)
        browser.until("return document.querySelector('.look img')?.naturalWidth === 256")
        old, new = ((make_tiles.png(1, 0, 1)), make_tiles.png(1, 1, 1))
        links = browser.run("return [...document.querySelectorAll('.versions a')].map((a) => a.href)")
        self.assertEqual([urllib.request.urlopen(link).read() for link in links], [new, old])
        for wrong, sentence in (("1/2", "write zoom/column/row"), ("3/0/7/1", "That is no tile")):
            browser.run("document.querySelector('#key').value = arguments[0]", wrong)
            browser.click(".inspector button")
            self.assertIn(sentence, text(".found"))

    def test_names_are_found_by_their_beginning_and_read_in_pages(self):
        self.open("names/names", ".names li")
        self.assertIn("200 names so far", text("main"))
        browser.click(".more")
        browser.until("return document.querySelectorAll('.names li').length === 300")
        browser.click("#prefix")
        browser.press(*"odd/10")
        browser.until("return document.querySelectorAll('.names li').length === 10")
        browser.run("document.querySelector('[data-name=\"odd/107.txt\"]').click()")
        self.expect_title("odd/107.txt")
        browser.reload()
        browser.until("return document.querySelectorAll('.names li').length === 10")
        self.expect_title("odd/107.txt")
        self.assertIn("11 B", text(".versions"))


class Reach(Page):
    def test_all_is_reached_by_the_keyboard_and_the_focus_is_seen(self):
        self.open("cells/picture", ".heat:not([hidden])")
        seen = []
        for _ in range(30):
            browser.press("Tab")
            name, outline = browser.run("""
                const at = document.activeElement;
                return at === document.body ? [null, null]
                  : [at.id || at.className || at.textContent, getComputedStyle(at).outlineStyle];""")
            if name is None or name in seen:
                break
            seen.append(name)
            self.assertNotEqual(outline, "none", name)
        for name in ("skip", "by", "heat", "key", "Show"):
            self.assertIn(name, seen)
        self.assertEqual(seen[0], "skip")

    def test_a_narrow_window_has_one_column_and_needs_no_scrolling_sideways(self):
        window(390, 844)
        for place, ready in (("world/map", ".map"), ("cells/picture", ".heat:not([hidden])"),
                             ("names/names?tile=odd/107.txt", ".names li"), ("", ".note")):
            with self.subTest(place):
                self.open(place, ready)
                self.assertLessEqual(browser.run("return document.documentElement.scrollWidth"), 390)
        self.open("cells/picture", ".heat:not([hidden])")
        below = browser.run("return document.querySelector('#panel').getBoundingClientRect().top >="
                            " document.querySelector('.heat').getBoundingClientRect().bottom")
        self.assertTrue(below)

    def test_both_schemes_can_be_read(self):
        self.open("cells/picture")
        for name, is_dark in (("dark", True), ("light", False)):
            scheme(name)
            paper = colour("--paper")
            self.assertEqual(colour_of("body"), paper)
            self.assertEqual(luminance(paper) < 0.2, is_dark)
            for ink in ("--ink", "--soft", "--accent", "--wrong"):
                self.assertGreater(contrast(colour(ink), paper), 4.5, f"{ink}, {name}")


class Trouble(Page):
    isQuiet = False

    def test_a_tile_that_is_no_picture_is_told_in_a_sentence(self):
        self.open_map("world/map?at=1/66.5/-135")
        browser.until("return document.querySelector('#trouble').textContent.includes(arguments[0])",
                      f"Tile {BROKEN}")

    def test_a_server_that_is_away_is_told_in_a_sentence_until_it_is_back(self):
        global server
        self.open("cells/picture", ".heat:not([hidden])")
        server.stop()
        browser.run("location.hash = '#/world/picture'")
        browser.until("return document.querySelector('#trouble').textContent.includes('does not answer')")
        server = Server(served, server.port)
        browser.click("#trouble button")
        browser.element(".heat:not([hidden])")
        self.assertEqual(text("#trouble"), "")


if __name__ == "__main__":
    if missing := [name for name in ("chromium", "chromedriver", "convert", "compare")
                   if not shutil.which(name)]:
        print(f"left out: no program {', '.join(missing)}; scripts/browser.sh installs them")
        sys.exit(77)
    result = unittest.main(exit=False).result
    for reason in {reason for _, reason in result.skipped}:
        print(f"left out, {len(result.skipped)}: {reason}; scripts/browser.sh installs it")
    sys.exit(1 if not result.wasSuccessful() else 77 if result.skipped else 0)
