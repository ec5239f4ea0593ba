"""Makes the pictures of the pages anew: from the real server on the bench, in a headless browser.

usage: screenshots.py SERVER FOLDER
"""
import json
import re
import subprocess
import sys
import time
import urllib.request
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))

from browser import browser, screenshot  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from server_double import wait_for  # noqa: E402

RUN = Path(__file__).resolve().parents[2] / "bench" / "run"
LARGEST = 150_000
direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def smaller(path):
    """With few colours, if the machine can: the pictures are part of the tree."""
    subprocess.run(["pngquant", "--force", "--ext", ".png", "--speed", "1", "96", str(path)], check=False)
    assert path.stat().st_size < LARGEST, f"{path} has {path.stat().st_size} bytes"


def state(url):
    with direct.open(url + "/bench/state", timeout=20) as answer:
        return json.load(answer)


def shown(driver, text):
    wait_for(lambda: text in driver.find_element(By.ID, "main").text, 20, text)


def press(url, *names):
    for name in names:
        direct.open(urllib.request.Request(f"{url}/bench/fault/{name}", method="POST", headers={"X-Bench": "1"}), timeout=20)


def take(url, folder):
    unit = f"http://127.0.0.1:{state(url)['agent']}/"
    with browser((980, 860)) as driver:
        driver.get(unit)
        shown(driver, "by TCP")
        screenshot(driver, folder / "page.png", whole=False)
        press(url, "mute")
        shown(driver, "no link")
        time.sleep(2)  # for a piece of the strip that can be seen
        press(url, "mute")
        shown(driver, "✓ runs")
        press(url, "stranger", "silent", "unit")
        shown(driver, "is not paired here")
        shown(driver, "by fallback")
        shown(driver, "link error")
        screenshot(driver, folder / "page-trouble.png")
    with browser((390, 844), dark=True) as driver:
        driver.get(unit)
        shown(driver, "link error")
        screenshot(driver, folder / "page-narrow.png", whole=False)
    press(url, "silent", "unit")
    with browser((1500, 980)) as driver:
        driver.get(url)
        wait_for(lambda: driver.find_elements(By.CSS_SELECTOR, "#packets tbody tr"))
        press(url, "silent")
        time.sleep(4)
        screenshot(driver, folder / "bench.png", whole=False)


def main():
    server, folder = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    process = subprocess.Popen([RUN, "--web", "--ports", "0", "0", "--server", server], stdout=subprocess.PIPE, text=True)
    url = re.search(r"http://[\d.:]+", process.stdout.readline())[0]
    try:
        wait_for(lambda: state(url)["outcome"], 30)
        take(url, folder)
    finally:
        process.terminate()
        process.wait(20)
    for path in sorted(folder.glob("*.png")):
        smaller(path)
        print(path, path.stat().st_size)


if __name__ == "__main__":
    main()
