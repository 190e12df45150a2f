"""The pages of ptzctl report and ptz-compliance in a browser, as a phone and a desk show them and as a printer does."""
import os
import re
import sys
import tempfile
import unittest

import browser
import report_pages

PHONE, DESK = 390, 1280

# Boxes that stick out of the window sideways, unless a box of their own scrolls or clips them.
OVERFLOWING = """(() => {
  const scrolls = e => { for (; e; e = e.parentElement) if (e.classList && e.classList.contains('scroll')) return true;
                         return false; };
  const out = [...document.querySelectorAll('body *')].filter(e => !scrolls(e)).filter(e => {
    const box = e.getBoundingClientRect();
    return box.width > 0 && (box.right > document.documentElement.clientWidth + 0.5 || box.left < -0.5); });
  const page = document.documentElement;
  return [page.scrollWidth <= page.clientWidth ? 0 : page.scrollWidth, ...out.map(e => e.outerHTML.slice(0, 80))]; })()"""

# Texts of a plot that cover each other or stick out of their plot, in the units of the view box.
CROWDED = """(() => { const bad = [];
  for (const plot of document.querySelectorAll('svg.plot')) {
    const view = plot.viewBox.baseVal, boxes = [...plot.querySelectorAll('text')].map(e => [e, e.getBoundingClientRect()]);
    const frame = plot.getBoundingClientRect();
    for (const [e, box] of boxes)
      if (box.left < frame.left - 1 || box.right > frame.right + 1) bad.push('out: ' + e.textContent);
    for (let i = 0; i < boxes.length; ++i) for (let j = i + 1; j < boxes.length; ++j) {
      const [a, b] = [boxes[i][1], boxes[j][1]];
      if (boxes[i][0].classList.contains('name') || boxes[j][0].classList.contains('name')) continue;
      if (a.left < b.right - 1 && b.left < a.right - 1 && a.top < b.bottom - 4 && b.top < a.bottom - 4)
        bad.push(boxes[i][0].textContent + ' / ' + boxes[j][0].textContent); } }
  return bad; })()"""

# The least contrast of a text with its background, as WCAG 2 has it.
CONTRAST = """(() => {
  const parts = c => c.match(/[\\d.]+/g).map(Number);
  const light = c => { const [r, g, b] = parts(c).map(v => (v /= 255) <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
                       return 0.2126 * r + 0.7152 * g + 0.0722 * b; };
  const ground = e => { for (; e; e = e.parentElement) { const c = getComputedStyle(e).backgroundColor;
      const p = parts(c); if (p.length < 4 || p[3] > 0) return c; } return 'rgb(255, 255, 255)'; };
  let least = [99, ''];
  for (const e of document.querySelectorAll('h1,h2,h3,h4,p,a,td,th,dt,dd,span,strong,pre,figcaption,li,svg text')) {
    if (!e.textContent.trim()) continue;
    const style = getComputedStyle(e), ink = e.closest('svg') ? style.fill : style.color;
    const [a, b] = [light(ink), light(ground(e))], ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
    if (ratio < least[0]) least = [ratio, e.outerHTML.slice(0, 100)]; }
  return least; })()"""

# Boxes that hide a part of their text at the side.
HIDDEN = """[...document.querySelectorAll('.scroll')].filter(e => e.scrollWidth > e.clientWidth + 1)
  .map(e => e.getAttribute('aria-label'))"""

COLUMNS = """getComputedStyle(document.querySelector('.figures')).gridTemplateColumns.split(' ').length"""

# In CSS pixels: the texts of a plot shrink with it.
LEAST_TEXT = """Math.min(...[...document.querySelectorAll('svg.plot')].map(e =>
  13 * e.getBoundingClientRect().width / e.viewBox.baseVal.width))"""

DEAD_LINKS = """[...document.querySelectorAll('a')].filter(a => !a.getAttribute('href').startsWith('#') ||
  !document.getElementById(a.getAttribute('href').slice(1))).map(a => a.outerHTML)"""

DOUBLE_IDS = """[...document.querySelectorAll('[id]')].map(e => e.id).filter((id, i, all) => all.indexOf(id) != i)"""

FOREIGN = """[...document.querySelectorAll('script,iframe,object,embed,link,img,base,form,[src],[onload],[onerror]')]
  .map(e => e.outerHTML)"""


def complaints(events, path):
    """What the console reported, and what was asked for besides the page."""
    found = []
    for event in events:
        method, of = event.get("method"), event.get("params", {})
        if method in ("Log.entryAdded", "Runtime.exceptionThrown", "Runtime.consoleAPICalled"):
            found.append(of)
        if method == "Page.javascriptDialogOpening":
            found.append("a script ran")
        if method == "Network.requestWillBeSent" and of["request"]["url"] != "file://" + os.path.abspath(path):
            found.append(of["request"]["url"])
    return found


class LayoutChecks:
    """What holds for every page, whatever is in it. The heirs make the page."""

    page = None
    series = ("--s0", "--s1")

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="report-")
        cls.addClassCleanup(cls.folder.cleanup)
        cls.page = cls.make_page(cls.folder.name)
        cls.browser = browser.Browser()
        cls.addClassCleanup(cls.browser.close)

    def open(self, width, scheme="light"):
        events = self.browser.open(self.page, width, scheme=scheme)
        self.assertEqual(complaints(events, self.page), [])

    def keep_screenshot(self, name):
        """For the eyes of a developer, if the environment names a folder."""
        if folder := os.environ.get("REPORT_SCREENSHOTS"):
            with open(os.path.join(folder, f"{type(self).__name__}-{name}.png"), "wb") as file:
                file.write(self.browser.screenshot(0, 0, *self.browser.page_size()))

    def colours(self, *box):
        return browser.pixels(self.browser.screenshot(*box)).colours()

    def test_fits_a_phone(self):
        self.open(PHONE)
        self.assertEqual(self.browser.evaluate(OVERFLOWING), [0])
        self.assertEqual(self.browser.evaluate("innerWidth"), PHONE)
        self.assertEqual(self.browser.evaluate(HIDDEN), [])
        self.assertEqual(self.browser.evaluate(COLUMNS), 1)
        self.assertGreater(self.browser.evaluate(LEAST_TEXT), 9.5)
        self.assertEqual(self.browser.evaluate(CROWDED), [])
        self.expect_layout("phone")

    def test_uses_the_width_of_a_desk(self):
        self.open(DESK)
        self.assertEqual(self.browser.evaluate(OVERFLOWING), [0])
        self.assertEqual(self.browser.evaluate(COLUMNS), 2)
        self.assertEqual(self.browser.evaluate(CROWDED), [])
        self.expect_layout("desk")

    def expect_layout(self, name):
        """Of the picture: nothing is drawn at the edges of the page, and the lines of a plot have their colours."""
        self.keep_screenshot(name)
        width, height = self.browser.page_size()
        for x in (0, width - 3):
            self.assertEqual(len(self.colours(x, 0, 3, height)), 1, x)
        # A slanting line has few pixels of its very colour, so several plots are looked at.
        boxes = self.browser.evaluate("""(() => {
            const lines = e => e.querySelectorAll('path.series').length;
            const plots = [...document.querySelectorAll('svg.plot')].sort((a, b) => lines(b) - lines(a));
            return plots.slice(0, 6).map(e => { const b = e.getBoundingClientRect();
                return [b.left, b.top + scrollY, b.width, b.height]; }); })()""")
        plot = set().union(*(self.colours(*box) for box in boxes))
        for series in self.series:
            colour = self.browser.evaluate(f"getComputedStyle(document.documentElement).getPropertyValue('{series}')")
            self.assertIn(tuple(bytes.fromhex(colour.strip()[1:])), plot, series)

    def test_needs_no_other_file(self):
        self.open(DESK)
        self.assertEqual(self.browser.evaluate(FOREIGN), [])
        with open(self.page, encoding="utf-8") as file:
            self.assertIsNone(re.search(r"(https?:)?//[a-z]|url\(|@import|javascript:", file.read()))


class PageChecks(LayoutChecks):
    """What holds for a page of either tool."""

    def test_is_readable_in_light_and_dark(self):
        grounds = []
        for scheme in ("light", "dark"):
            self.open(DESK, scheme)
            ratio, element = self.browser.evaluate(CONTRAST)
            self.assertGreaterEqual(ratio, 4.5, f"{scheme}: {element}")
            self.keep_screenshot(scheme)
            grounds.append(sum(*self.colours(0, 0, 2, 2)))
        self.assertGreater(grounds[0], 600)
        self.assertLess(grounds[1], 150)

    def test_links_lead_to_its_sections(self):
        self.open(DESK)
        self.assertEqual(self.browser.evaluate(DEAD_LINKS), [])
        self.assertEqual(self.browser.evaluate(DOUBLE_IDS), [])
        self.assertGreater(self.browser.evaluate("document.querySelectorAll('nav a').length"), 2)
        self.browser.evaluate("[...document.querySelectorAll('nav a')].at(-1).click()")
        self.assertTrue(self.browser.evaluate("scrollY > 100 && location.hash.length > 1"))

    def test_plots_have_names_and_descriptions(self):
        self.open(DESK)
        self.assertEqual(self.browser.evaluate("""[...document.querySelectorAll('svg.plot')].filter(e =>
            !e.querySelector(':scope > title').textContent || e.getAttribute('role') != 'img' ||
            !document.getElementById(e.getAttribute('aria-describedby')).textContent).length"""), 0)
        self.assertGreater(self.browser.evaluate("document.querySelectorAll('svg.plot').length"), 0)

    def test_series_differ_without_colour(self):
        self.open(DESK)
        self.assertEqual(self.browser.evaluate("""[...document.querySelectorAll('svg.plot')].filter(e => {
            const dashes = [...e.querySelectorAll('path.series')].map(p => getComputedStyle(p).strokeDasharray);
            return new Set(dashes).size != dashes.length; }).length"""), 0)

    def test_prints_whole(self):
        self.open(DESK)
        pdf = self.browser.pdf()
        self.assertTrue(pdf.startswith(b"%PDF-"))
        self.assertGreaterEqual(len(re.findall(rb"/Type\s*/Page\b", pdf)), 1)
        self.browser.command("Emulation.setEmulatedMedia", media="print")
        self.assertEqual(self.browser.evaluate("""[...document.querySelectorAll('.scroll')].filter(e =>
            e.scrollHeight > e.clientHeight + 2 && getComputedStyle(e).overflowY != 'visible').length"""), 0)
        self.assertEqual(self.browser.evaluate("getComputedStyle(document.querySelector('nav')).display"), "none")


class CompliancePage(PageChecks, unittest.TestCase):
    @staticmethod
    def make_page(folder):
        return report_pages.compliance_page(folder, "--only", "move.*", "--only", "latency.*")[0]

    def test_shows_failures_first(self):
        self.open(DESK)
        self.assertEqual(self.browser.evaluate("document.querySelector('.finding .badge').textContent"), "failed")
        self.assertEqual(self.browser.evaluate("""document.getElementById('failed').compareDocumentPosition(
            document.getElementById('passed')) & Node.DOCUMENT_POSITION_FOLLOWING"""), 4)


class SystemPage(PageChecks, unittest.TestCase):
    @staticmethod
    def make_page(folder):
        return report_pages.moving_report(folder)[0]

    def test_plots_what_was_reported_and_commanded(self):
        self.open(DESK)
        paths = self.browser.evaluate("""[...document.querySelectorAll('#motion svg.plot')].map(e =>
            [e.querySelector('title').textContent,
             ...[...e.querySelectorAll('path.series')].map(p => Math.round(p.getTotalLength()))])""")
        self.assertEqual(len(paths), 1)
        self.assertEqual(paths[0][0], "sim-driver:1: pan")
        self.assertEqual(len(paths[0]), 3)
        self.assertGreater(min(paths[0][1:]), 100)


class HostilePage(LayoutChecks, unittest.TestCase):
    series = ("--s0",)  # its heads stand still

    @staticmethod
    def make_page(folder):
        return report_pages.hostile_report(folder)[0]

    def test_shows_markup_as_text(self):
        self.open(DESK)
        text = self.browser.evaluate("document.body.innerText")
        self.assertGreater(text.count(report_pages.MARKUP), 4)
        self.assertEqual(self.browser.evaluate("document.querySelectorAll('script,b,i').length"), 0)


if __name__ == "__main__":
    if browser.PROGRAM is None:
        print("skipped: chromium is not installed")
        sys.exit(77)
    unittest.main(verbosity=2)
