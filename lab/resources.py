"""Objects that last as long as a context, made of parts that end with them.

    class Shop(Resource):
        def open(self, stack):
            self.door = stack.enter_context(Door())
"""
import contextlib


class Resource:
    """A context manager. At its end, whatever `open` put on the stack is undone, newest first; or at once if
    `open` fails."""

    def __init__(self):
        self._stack = contextlib.ExitStack()

    def open(self, stack):
        """Makes everything; puts on `stack` what must be undone."""
        raise NotImplementedError

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            self.open(stack)
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *exception):
        return self._stack.__exit__(*exception)
