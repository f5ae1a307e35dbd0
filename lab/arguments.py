"""Arguments of programs: a parser, types that refuse wrong values in one line, and the text of an error."""
import argparse
import pathlib


def parser_of(documentation):
    """A parser whose help is the documentation of a program, line by line."""
    return argparse.ArgumentParser(description=documentation,
                                   formatter_class=argparse.RawDescriptionHelpFormatter)


def positive(text):
    """A whole number above zero."""
    if not text.isdecimal() or int(text) == 0:
        raise argparse.ArgumentTypeError(f"not a positive number: {text}")
    return int(text)


def existing_directory(text):
    if not pathlib.Path(text).is_dir():
        raise argparse.ArgumentTypeError(f"there is no directory {text}")
    return pathlib.Path(text)


def new_file(text):
    """A file to be written. It may exist, and its directory must."""
    path = pathlib.Path(text)
    if path.is_dir() or not path.absolute().parent.is_dir():
        raise argparse.ArgumentTypeError(f"no file can be written there: {text}")
    return path


def block_device(text):
    if not pathlib.Path(text).is_block_device():
        raise argparse.ArgumentTypeError(f"there is no block device {text}")
    return text


def text_of(error):
    """The text of an error, without the number of an OSError."""
    filename = getattr(error, "filename", None)
    return f"{filename}: {error.strerror}" if filename else str(error)
