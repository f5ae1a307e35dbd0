"""How far away servers are in the races: at once, as in one room, and as in another town."""
import contextlib

from lab.delay import LongWay
from lab.image_server import ADDRESS

ROUND_TRIPS = (0.0, 0.5, 5.0) # milliseconds
PORT = 4000


@contextlib.contextmanager
def portal_of(port, milliseconds):
    """Where a server on this port of the machine is reached from so far away."""
    if milliseconds == 0:
        yield f"{ADDRESS}:{port}"
        return
    with LongWay(port, milliseconds / 1000, listen=PORT) as way:
        yield way.portal
