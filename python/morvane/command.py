"""What the commands in Python share: words, files that appear whole, answers about themselves."""
import contextlib
import difflib
import os
import sys

from .dataset import Error
from .version import VERSION


def take(words, keys, most=1, flags=()):
    """(plain words, name: value, flags) of a command line.
    Errors (Error): a key that is not one of `keys`, with the nearest; more than `most` plain words."""
    plain, given, raised = [], {}, set()
    for word in words:
        name, equals, value = word.partition("=")
        if word in flags:
            raised.add(word)
        elif equals and name in keys:
            given[name] = value
        elif (equals or word.startswith("--")) and not os.path.exists(word):
            near = difflib.get_close_matches(name.lstrip("-"), [k.lstrip("-") for k in list(keys) + list(flags)], 1, 0.5)
            hint = "; did you mean %s?" % near[0] if near else "; --help lists the keys"
            raise Error("%s: there is no key %s%s" % (word, name, hint))
        elif len(plain) == most:
            raise Error("%s: one name too many" % word)
        else:
            plain.append(word)
    return plain, given, raised


def number(given, key, standard=None):
    if key not in given:
        return standard
    try:
        value = float(given[key])
    except ValueError:
        value = float("nan")
    if not abs(value) < float("inf"):
        raise Error("%s=%s must be a number" % (key, given[key]))
    return value


def yes(given, key):
    return given.get(key, "n")[:1] in ("y", "Y", "1")


@contextlib.contextmanager
def whole(path, key="out"):
    """A name beside `path` to write to; the file gets its own name when the block ends and it is on the disk."""
    part = path + ".part"
    try:
        yield part
        with open(part, "rb") as file:
            os.fsync(file.fileno())
        os.replace(part, path)
    except OSError as error:
        raise Error("%s=%s cannot be written: %s" % (key, path, error.strerror or error)) from None
    finally:
        if os.path.exists(part):
            os.unlink(part)


def main(program, text, work, words=None):
    """Answers --help and --version; else work(words). Returns the exit status."""
    words = sys.argv[1:] if words is None else words
    try:
        if "--help" in words or "-h" in words:
            print(text, end="")
        elif "--version" in words:
            print("%s (morvane) %s" % (program, VERSION))
        else:
            work(words)
        sys.stdout.flush()
        return 0
    except Error as error:
        print("%s: %s" % (program, error), file=sys.stderr)
        return 23
    except OSError as error:
        if error.filename is not None:
            raise
        print("%s: the standard output cannot be written: %s" % (program, error.strerror), file=sys.stderr)
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # what is left of it is not tried again
        return 23
    except KeyboardInterrupt:
        return 130
