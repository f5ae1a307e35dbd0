"""Objects that last as long as a context, made of parts that end with them.

    class Shop(Stay):
        def open(self, lasting):
            self.door = lasting.enter_context(Door())
"""
import contextlib


class Stay:
    """A context manager. At its end, whatever `open` put on the stack is undone, newest first; or at once if
    `open` fails."""

    def __init__(self):
        self._lasting = contextlib.ExitStack()

    def open(self, lasting):
        """Makes everything; puts on `lasting` what must be undone."""
        raise NotImplementedError

    def __enter__(self):
        with contextlib.ExitStack() as lasting:
            self.open(lasting)
            self._lasting = lasting.pop_all()
        return self

    def __exit__(self, *exception):
        return self._lasting.__exit__(*exception)
