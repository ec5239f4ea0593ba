"""Check the configuration of a Tessaro base unit before the server meets it.

Reads the folder that holds the applications of a base unit (on the board: /home/root/Applications) and reports every
problem as FILE:LINE:COLUMN: REASON. Exit code 0 when there is none, 1 when there is any, 2 when the folder cannot be read.
"""
import argparse
import sys
from pathlib import Path

from .applications import check_applications
from .explanations import EXPLANATIONS
from .keys import check_keys
from .remotes import check_remotes
from .table import Report
from .tags import BASE_IMAGE_BYTES, PASSED_ON_IMAGE_BYTES, check_tags


def check(root, image_bytes=None):
    """All findings of an installation, in file and line order."""
    report = Report()
    keys = check_keys(root, report)
    check_tags(root, report, keys, image_bytes)
    check_remotes(root, report)
    check_applications(root, report)
    return sorted(set(report.findings))


def explain(key):
    if key in EXPLANATIONS:
        print(f"{key}: {EXPLANATIONS[key]}")
        return 0
    print(f"{key}: not a key that the server knows. Known: {', '.join(sorted(EXPLANATIONS))}", file=sys.stderr)
    return 1


def main():
    parser = argparse.ArgumentParser(prog="tessaro-check", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", nargs="?", type=Path, default=Path("/home/root/Applications"),
                        help="the folder that holds tessaroserver/ and .config/ (default: %(default)s)")
    parser.add_argument("--image-size", type=int, metavar="BYTES",
                        help=f"size of the base controller's process image (default: the largest: "
                             f"{PASSED_ON_IMAGE_BYTES} with the machine controller's link, {BASE_IMAGE_BYTES} without)")
    parser.add_argument("--explain", metavar="KEY", help="tell what a key, tag or column does, and end")
    arguments = parser.parse_args()
    if arguments.explain:
        return explain(arguments.explain)
    if not arguments.folder.is_dir():
        print(f"{arguments.folder}: not a folder", file=sys.stderr)
        return 2
    findings = check(arguments.folder, arguments.image_size)
    for path, line, column, reason in findings:
        print(f"{path}:{line}:{column}: {reason}")
    return 1 if findings else 0
