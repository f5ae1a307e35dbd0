"""Things that are there for as long as a context lasts, and are made of others that go with them.

    class Shop(Stay):
        def open(self, lasting):
            self.door = lasting.enter_context(Door())
"""
import contextlib


class Stay:
    """What `open` has put into the stack is undone at the end, newest first; at once if `open` fails."""

    def __init__(self):
        self._lasting = contextlib.ExitStack()

    def open(self, lasting):
        """Makes everything; `lasting` is the stack for what has to be undone."""
        raise NotImplementedError

    def __enter__(self):
        with contextlib.ExitStack() as lasting:
            self.open(lasting)
            self._lasting = lasting.pop_all()
        return self

    def __exit__(self, *exception):
        return self._lasting.__exit__(*exception)
