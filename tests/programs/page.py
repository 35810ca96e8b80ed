#!/usr/bin/env python3
"""Looks at the page of `fstore report` in a browser: page.py REPORT FOLDER.

Says what is wrong, or "page is good"; screenshots at several widths, and the printed page, stay in FOLDER.
"""

import html
import json
import pathlib
import re
import subprocess
import sys
import tempfile

WIDTHS = 360, 480, 768, 1024, 1280, 1600
BROWSER = ("chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
           "--hide-scrollbars", f"--user-data-dir={tempfile.gettempdir()}/chromium")
LIGHT, DARK = "preferredColorScheme=1", "preferredColorScheme=0"

# In the page: how wide it is, which texts are hard to see, and whether its tables can be sorted.
PROBE = """<script>
const luminance = (colour) => {
  const [r, g, b] = colour.match(/[\\d.]+/g).slice(0, 3).map((part) => {
    const value = part / 255;
    return value <= 0.03928 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4;
  });
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const behind = (element) => {
  for (let at = element; at; at = at.parentElement) {
    const colour = getComputedStyle(at).backgroundColor;
    if (!/, 0\\)$/.test(colour)) return colour;
  }
  return "rgb(255, 255, 255)";
};
const contrast = (element) => {
  const [a, b] = [getComputedStyle(element).color, behind(element)].map(luminance);
  return (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
};
const texts = [...document.body.querySelectorAll("*")].filter((element) =>
  element.getClientRects().length && !/^(SCRIPT|STYLE)$/.test(element.tagName) &&
  [...element.childNodes].some((node) => node.nodeType === 3 && node.data.trim()));
const buttons = [...document.querySelectorAll("th button")];
const focused = buttons.filter((button) => { button.focus(); return document.activeElement === button; });
const heads = [...document.querySelectorAll("#all ~ .wide th")];
const column = heads.findIndex((head) => head.textContent === "Ends");
const order = () => [...document.querySelectorAll("#all ~ .wide tbody tr")].map((row) => row.cells[column].dataset.key);
const press = () => { heads[column].querySelector("button").click(); return [heads[column].ariaSort, order()]; };
parent.postMessage({
  width: innerWidth, needed: document.documentElement.scrollWidth,
  faint: texts.filter((element) => contrast(element) < 4.5).map((element) => element.outerHTML.slice(0, 99)),
  texts: texts.length, buttons: buttons.length, focused: focused.length, up: press(), down: press(),
}, "*");
</script></body>"""

FRAMES = """<!DOCTYPE html><title>frames</title><pre></pre><script>
const found = [];
addEventListener("message", (event) => {
  found.push(event.data);
  document.querySelector("pre").textContent = JSON.stringify(found);
});
for (const width of %s) {
  const frame = document.createElement("iframe");
  frame.width = width; frame.height = 900; frame.style.border = 0; frame.src = "probe.html";
  document.body.append(frame);
}
</script>"""


def browse(*args):
    run = subprocess.run([*BROWSER, *map(str, args)], capture_output=True, check=False, timeout=120)
    assert run.returncode == 0, run.stderr.decode()[-2000:]
    return run.stdout.decode()


def look(folder, scheme):
    """What the page says of itself at each width."""
    dom = browse(f"--blink-settings={scheme}", "--virtual-time-budget=5000", "--dump-dom",
                 f"file://{folder}/frames.html")
    found = json.loads(html.unescape(re.search(r"<pre>(.*?)</pre>", dom, re.DOTALL)[1]))
    assert sorted(each["width"] for each in found) == list(WIDTHS), found
    for each in found:
        assert each["needed"] <= each["width"], ("it is wider than the window", each)
        assert each["texts"] > 50 and not each["faint"], ("texts are hard to see", scheme, each)
        # Where it is narrow, the heads are for readers of screens, and are reached by keys as well.
        assert each["buttons"] > 8 and each["focused"] == each["buttons"], each
        up, down = each["up"], each["down"]
        assert up == ["ascending", sorted(up[1])] and len(up[1]) > 3, each
        assert down == ["descending", up[1][::-1]], each


def main():
    report, folder = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]).resolve()
    folder.mkdir(exist_ok=True)
    page = report.read_text(encoding="utf-8")
    (folder / "page.html").write_text(page, encoding="utf-8")
    (folder / "probe.html").write_text(page.replace("</body>", PROBE), encoding="utf-8")
    (folder / "frames.html").write_text(FRAMES % list(WIDTHS), encoding="utf-8")
    for scheme in LIGHT, DARK:
        look(folder, scheme)
    for width in WIDTHS:
        browse(f"--screenshot={folder}/{width}.png", f"--window-size={width},1400",
               f"file://{folder}/page.html")
    browse(f"--screenshot={folder}/dark.png", f"--blink-settings={DARK}", "--window-size=1280,1400",
           f"file://{folder}/page.html")
    # As somebody reads it who allows no scripts.
    (folder / "still.html").write_text(re.sub(r"<script>.*?</script>", "", page, flags=re.DOTALL),
                                       encoding="utf-8")
    browse(f"--print-to-pdf={folder}/page.pdf", f"file://{folder}/still.html")
    printed = subprocess.run(["pdftotext", folder / "page.pdf", "-"], capture_output=True, text=True,
                             check=True).stdout
    for text in "What ends when", "Weak or odd", "Chains", "CN=rsa.example.com":
        assert text in printed, (text, printed)
    print("page is good")


if __name__ == "__main__":
    main()
