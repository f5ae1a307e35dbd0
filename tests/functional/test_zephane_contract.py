"""The transport to a real zephaned passes the test suite of all transports."""
import pytest

from contract import IMAGE_BYTES, assert_keeps_contract
from lab.zephane import ZephaneServer


@pytest.mark.parametrize("compression", [True, False], ids=["compressed", "plain"])
def test_contract_of_all_transports(tmp_path, compression):
    with ZephaneServer(compression=compression) as server:
        image = server.add_image("contract", IMAGE_BYTES)
        assert_keeps_contract("ZephaneContract", tmp_path, TARGET_PORTAL=server.portal,
                              TARGET_NAME=image.name, TARGET_LUN=image.lun, TARGET_SECRET=image.secret,
                              TARGET_FILE=image.path)
