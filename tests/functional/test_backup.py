"""A whole backup by the real daemon to a real target: what is in the image is what the volume was."""
from backup_site import fill, root_of


def test_full_then_incremental(protect, volumes):
    for name, partition in volumes.items():
        fill(root_of(partition), name)
    protection = protect()
    backup = protection.run(full=True)
    assert backup.state == "finished", backup.log
    protection.verify()
    backup = protection.run()
    assert backup.state == "finished", backup.log
    assert {backup.type(name) for name in volumes} == {"incremental"}, backup.log
    protection.verify()
