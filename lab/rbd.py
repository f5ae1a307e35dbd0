"""A server of the transport `zephaneftp` whose images are on a Ceph cluster instead of in files.

    with CephCluster() as cluster, RbdServer(cluster) as server:
        image = server.add_image("data", 1 << 30)
        ...                  # a backup
        server.fetch(image)
        image.path           # a copy of what the cluster held then

The engine that zephaned starts for an image is a client of the image's NBD server, which runs as long as this
server does. Requests to the NBD server aren't logged.
"""
import contextlib

from lab.ceph import RbdExport
from lab.commands import run
from lab.zephane import ZephaneServer


class RbdServer(ZephaneServer):
    """Images are poisoned at first, as everywhere. They are removed with the server; the cluster stays."""

    def __init__(self, cluster, **options):
        super().__init__(**options)
        self.exports = {} # by the name of the image
        self._cluster = cluster
        self._made = None

    def open(self, stack):
        self._made = stack.enter_context(contextlib.ExitStack())
        super().open(stack)

    def serve(self, path):
        self._cluster.create_image(path.name, path.stat().st_size)
        self._made.callback(self._cluster.rbd, "remove", path.name)
        export = self._made.enter_context(RbdExport(self._cluster, path.name))
        run("nbdcopy", "--flush", path, export.uri)
        self.exports[path.name] = export
        return super().serve(path, backend=export.uri)

    def fetch(self, image):
        image.path.unlink()
        self._cluster.rbd("export", image.path.name, image.path)
