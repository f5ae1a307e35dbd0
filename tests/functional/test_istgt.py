"""The lab's other iSCSI target: the properties that the tests of the agent's transport rely on."""
import pytest

from initiator import Initiator, InitiatorError
from lab import poison
from lab.istgt import Istgt
from lab.targets import Target

MIB = 1 << 20


@pytest.mark.parametrize("block_size", [512, 4096])
def test_images_are_apart_and_show_their_size_and_poison(block_size):
    with Istgt(block_size=block_size) as target:
        images = [target.add_image("data", 5 * MIB), target.add_image("files", 3 * MIB - 1)]
        for image, size in zip(images, (5 * MIB, 3 * MIB)):
            with Initiator(target, image.lun) as initiator:
                assert (initiator.blocks, initiator.block_size) == (size // block_size, block_size)
                assert poison.is_poison(initiator.read(0, MIB // block_size))
        with Initiator(target, images[1].lun) as initiator:
            initiator.write(1, b"w" * block_size)
        assert poison.is_poison(images[0].path.read_bytes())
        assert images[1].path.read_bytes()[block_size:2 * block_size] == b"w" * block_size


def test_killed_it_comes_back_with_all_it_was_given():
    with Istgt() as target:
        image = target.add_image("data", MIB)
        with Initiator(target, image.lun) as initiator:
            initiator.write(0, b"before" * 512)
            target.kill()
            with pytest.raises(InitiatorError):
                initiator.write(0, b"lost!!" * 512)
        target.restart()
        with Initiator(target, image.lun) as initiator:
            assert initiator.read(0, 6) == b"before" * 512


def test_paused_it_lets_initiators_wait():
    with Istgt() as target:
        image = target.add_image("data", MIB)
        with Initiator(target, image.lun, seconds=4) as initiator: # a login takes one second
            target.pause()
            with pytest.raises(InitiatorError):
                initiator.write(0, b"w" * 512)
            target.resume()


def test_a_port_in_use_is_an_error():
    with Target() as other, pytest.raises(OSError, match="in use"), Istgt(port=other.port):
        pass
