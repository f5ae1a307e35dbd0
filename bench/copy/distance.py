"""The distances to servers in the races: none, as in one room, and as in another town."""
import contextlib

from lab.delay import DelayProxy
from lab.image_server import ADDRESS

ROUND_TRIPS = (0.0, 0.5, 5.0) # milliseconds
PORT = 4000


@contextlib.contextmanager
def portal_of(port, milliseconds):
    """The address at which a server on this port of the machine is reached with this round trip."""
    if milliseconds == 0:
        yield f"{ADDRESS}:{port}"
        return
    with DelayProxy(port, milliseconds / 1000, listen=PORT) as proxy:
        yield proxy.portal
