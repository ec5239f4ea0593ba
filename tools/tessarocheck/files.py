"""Files as the server opens them: regular ones, and not without a bound. Nothing else is opened here either."""
import stat

LARGEST = 4 * 1024 * 1024       # of a configuration file
LARGEST_MANIFEST = 64 * 1024    # what lies behind is not read

_KINDS = ((stat.S_ISDIR, "a folder"), (stat.S_ISFIFO, "a pipe"), (stat.S_ISSOCK, "a socket"), (stat.S_ISCHR, "a device"),
          (stat.S_ISBLK, "a device"))


def other_kind(path):
    """What stands there instead of a regular file; None when it is one, or nothing, or not to be looked at. Links are followed."""
    try:
        mode = path.stat().st_mode
    except OSError:
        return None
    return next((kind for is_of, kind in _KINDS if is_of(mode)), None)


def refuse(path, report, consequence="the server refuses it"):
    """@return whether something stands there that is no regular file; it is reported."""
    kind = other_kind(path)
    if kind:
        report.add(path, 1, 1, f"is {kind} and no regular file: {consequence}")
    return kind is not None


def text_of(path, report, largest=LARGEST):
    """The text of a file that the server would read, or None; why not is reported."""
    if refuse(path, report):
        return None
    try:
        with path.open("rb") as file:
            content = file.read(largest + 1)
    except OSError as error:
        report.add(path, 1, 1, f"cannot be read: {error.strerror}")
        return None
    if len(content) > largest:
        report.add(path, 1, 1, f"has more than {largest} bytes: the server refuses it")
        return None
    return content.decode("latin-1")
