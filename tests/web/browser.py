"""A headless Chromium that reaches nothing but this machine, and what the tests ask of a page."""
import contextlib
import json
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

FLAGS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage", "--hide-scrollbars",
         "--force-device-scale-factor=1", "--no-proxy-server")
WIDE, NARROW = (1100, 1000), (390, 844)


@contextlib.contextmanager
def browser(size=WIDE, dark=False):
    with tempfile.TemporaryDirectory() as profile:
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        for flag in (*FLAGS, f"--user-data-dir={profile}", f"--window-size={size[0]},{size[1]}"):
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        try:
            resize(driver, size)
            if dark:
                driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                       {"features": [{"name": "prefers-color-scheme", "value": "dark"}]})
            yield driver
        finally:
            driver.quit()


def resize(driver, size):
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                           {"width": size[0], "height": size[1], "deviceScaleFactor": 1, "mobile": size[0] < 600})


def accessibility_tree(driver):
    """(role, name) of everything that a screen reader meets."""
    nodes = driver.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
    return [(node.get("role", {}).get("value"), node.get("name", {}).get("value", ""))
            for node in nodes if not node.get("ignored")]


def complaints(driver):
    """What the page did wrong, in the browser's words."""
    return [entry["message"] for entry in driver.get_log("browser") if entry["level"] == "SEVERE"]


def screenshot(driver, path, whole=True):
    if whole:
        height = driver.execute_script("return document.documentElement.scrollHeight")
        width = driver.execute_script("return innerWidth")
        resize(driver, (width, height))
    driver.save_screenshot(str(path))


CONTRAST = """
const luminance = ([r, g, b]) => {
  const part = (value) => { value /= 255; return value <= 0.03928 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4; };
  return 0.2126 * part(r) + 0.7152 * part(g) + 0.0722 * part(b);
};
const numbers = (text) => { const found = text.match(/[\\d.]+/g).map(Number); return found; };
const ground = (node) => {
  for (let at = node; at; at = at.parentElement) {
    const style = getComputedStyle(at);
    if (at.namespaceURI.endsWith("svg") && at.localName === "g") {
      const box = at.querySelector("rect");
      if (box && at !== node) return numbers(getComputedStyle(box).fill);
      continue;
    }
    const colour = numbers(style.backgroundColor);
    if (colour.length < 4 || colour[3] > 0.9) return colour;
  }
  return [255, 255, 255];
};
const found = [];
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walker.nextNode()) {
  const text = walker.currentNode.textContent.trim(), node = walker.currentNode.parentElement;
  if (!text || !node.checkVisibility() || ["SCRIPT", "STYLE", "NOSCRIPT", "title"].includes(node.nodeName) || node.closest("noscript")) continue;
  const style = getComputedStyle(node);
  const ink = numbers(node.namespaceURI.endsWith("svg") ? style.fill : style.color), behind = ground(node);
  const [one, other] = [luminance(ink), luminance(behind)].sort((a, b) => b - a);
  const ratio = (one + 0.05) / (other + 0.05);
  if (ratio < arguments[0]) found.push([text.slice(0, 40), Math.round(ratio * 100) / 100, ink.join(), behind.join()]);
}
return found;
"""


def weak_contrasts(driver, ratio=4.5):
    """Texts that stand out too little from what is behind them."""
    return driver.execute_script(CONTRAST, ratio)


def as_json(value):
    return json.dumps(value, indent=1)
